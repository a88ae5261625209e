#pragma once

#include <string>

#include "lumora/spend/spend_event.hpp"

// Days and hours of the user's own calendar (the TZ variable is honoured),
// for putting spend into buckets. Days are told by the clock, so a day of a
// daylight-saving change is 23 or 25 hours long.
namespace lumora::LocalCalendar {

// Midnight at the start of the day that holds `t`.
Date startOfDay(Date t);
// The same clock time `days` days later (or earlier), at the start of that day when `dayStart` is one.
Date addDays(Date dayStart, int days);
// The start of hour `hour` (0 to 23) of the day starting at `dayStart`.
Date hourOfDay(Date dayStart, int hour);
// The hour of the day (0 to 23) of `t`.
int hourOf(Date t);
// `t`'s time of day on the day starting at `dayStart` ("yesterday at the same time").
Date sameTimeOn(Date dayStart, Date t);

// "2026-11-24T09:00:00+01:00".
std::string isoLocal(Date t);
// "2026-11-24".
std::string dayText(Date t);
// "Mon 24 Nov".
std::string shortDayText(Date t);

}  // namespace lumora::LocalCalendar
