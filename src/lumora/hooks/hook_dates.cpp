#include "lumora/hooks/hook_dates.hpp"

#include <cmath>
#include <cstdio>

#include "scrivet/journal_entry.hpp"

namespace lumora::HookDates {

std::string format(TimePoint when) {
    using namespace std::chrono;
    auto ms = floor<milliseconds>(when);
    auto days = floor<std::chrono::days>(ms);
    year_month_day ymd{days};
    hh_mm_ss hms{ms - days};
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02ld:%02ld:%02lldZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<long>(hms.hours().count()), static_cast<long>(hms.minutes().count()),
                  static_cast<long long>(hms.seconds().count()));
    std::string out(buf);
    out.insert(out.size() - 1, "." + std::to_string(1000 + hms.subseconds().count()).substr(1));
    return out;
}

std::optional<TimePoint> parse(const nlohmann::ordered_json& value) {
    if (value.is_string()) return scrivet::parseIsoDate(value.get_ref<const std::string&>());
    if (value.is_number()) {
        double s = value.get<double>();
        if (!std::isfinite(s) || std::fabs(s) > 1e11) return std::nullopt;
        return fromSeconds(s);
    }
    return std::nullopt;
}

double toSeconds(TimePoint when) {
    return std::chrono::duration<double>(when.time_since_epoch()).count();
}

TimePoint fromSeconds(double seconds) {
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>(seconds)));
}

}  // namespace lumora::HookDates
