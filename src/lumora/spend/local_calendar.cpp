#include "lumora/spend/local_calendar.hpp"

#include <ctime>

namespace lumora::LocalCalendar {

namespace {

std::tm local(Date t) {
    ::tzset();  // cheap when TZ has not changed; localtime_r alone would not notice a change
    std::time_t s = std::chrono::system_clock::to_time_t(t);
    // to_time_t truncates towards zero; before 1970 that is a second late.
    if (std::chrono::system_clock::from_time_t(s) > t) --s;
    std::tm tm{};
    ::localtime_r(&s, &tm);
    return tm;
}

Date fromTm(std::tm tm) {
    tm.tm_isdst = -1;  // let the zone decide
    return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

std::string format(Date t, const char* pattern) {
    std::tm tm = local(t);
    char buf[64];
    size_t n = std::strftime(buf, sizeof buf, pattern, &tm);
    return std::string(buf, n);
}

}  // namespace

Date startOfDay(Date t) {
    std::tm tm = local(t);
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    return fromTm(tm);
}

Date addDays(Date dayStart, int days) {
    std::tm tm = local(dayStart);
    tm.tm_mday += days;
    return fromTm(tm);
}

Date hourOfDay(Date dayStart, int hour) {
    std::tm tm = local(dayStart);
    tm.tm_hour = hour;
    tm.tm_min = tm.tm_sec = 0;
    return fromTm(tm);
}

int hourOf(Date t) { return local(t).tm_hour; }

Date sameTimeOn(Date dayStart, Date t) {
    std::tm day = local(dayStart);
    std::tm when = local(t);
    day.tm_hour = when.tm_hour;
    day.tm_min = when.tm_min;
    day.tm_sec = when.tm_sec;
    auto frac = t - std::chrono::system_clock::from_time_t(std::chrono::system_clock::to_time_t(t));
    return fromTm(day) + frac;
}

std::string isoLocal(Date t) {
    std::string s = format(t, "%Y-%m-%dT%H:%M:%S%z");  // "+0100"
    if (s.size() >= 5) s.insert(s.size() - 2, ":");
    return s;
}

std::string dayText(Date t) { return format(t, "%Y-%m-%d"); }
std::string shortDayText(Date t) { return format(t, "%a %d %b"); }

}  // namespace lumora::LocalCalendar
