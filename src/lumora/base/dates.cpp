#include "lumora/base/dates.hpp"

#include <cmath>
#include <cstdio>

namespace lumora::Dates {

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

std::optional<TimePoint> parseIso(std::string_view text) {
    using namespace std::chrono;
    // Exactly what format() writes, with or without the milliseconds.
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, consumed = 0;
    std::string copy(text.substr(0, 40));
    if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &consumed) != 6 ||
        consumed != 19)
        return std::nullopt;
    year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok() || y < 1900 || y > 2200 || h > 23 || mi > 59 || s > 60) return std::nullopt;
    std::string_view rest = text.substr(19);
    milliseconds ms{0};
    if (rest.size() == 5 && rest[0] == '.') {
        int value = 0;
        for (char c : rest.substr(1, 3)) {
            if (c < '0' || c > '9') return std::nullopt;
            value = value * 10 + (c - '0');
        }
        ms = milliseconds{value};
        rest.remove_prefix(4);
    }
    if (rest != "Z") return std::nullopt;
    return time_point_cast<system_clock::duration>(sys_days{ymd} + hours{h} + minutes{mi} + seconds{s} + ms);
}

std::optional<TimePoint> parse(const nlohmann::ordered_json& value) {
    if (value.is_string()) return parseIso(value.get_ref<const std::string&>());
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

}  // namespace lumora::Dates
