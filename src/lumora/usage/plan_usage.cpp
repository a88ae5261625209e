#include "lumora/usage/plan_usage.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "lumora/base/json_text.hpp"

namespace lumora {

namespace {

using Json = nlohmann::ordered_json;

// A finite number, or nothing (strings, booleans and nulls are not numbers).
std::optional<double> number(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    double d = it->get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    return d;
}

std::optional<std::string> text(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<Date> date(const Json& object, const char* key) {
    auto s = text(object, key);
    return s ? PlanUsage::parseDate(*s) : std::nullopt;
}

// The order windows are shown in: the session window, the plan-wide week,
// then the model-scoped weeks.
enum Rank { sessionRank = 0, weekRank = 1, scopedRank = 2 };

struct Ranked {
    int rank = 0;
    PlanUsage::Window window;
};

std::optional<Ranked> listWindow(const Json& element) {
    if (!element.is_object()) return std::nullopt;
    auto kind = text(element, "kind");
    auto percent = number(element, "percent");
    if (!kind || !percent) return std::nullopt;
    Ranked r;
    r.window.percentUsed = *percent;
    r.window.resetsAt = date(element, "resets_at");
    r.window.isCritical = text(element, "severity").value_or("") == "critical";
    if (*kind == "session") {
        r.rank = sessionRank;
        r.window.period = kFiveHours;
        r.window.label = "5h";
        r.window.name = "5-hour limit";
    } else if (*kind == "weekly_all") {
        r.rank = weekRank;
        r.window.period = kOneWeek;
        r.window.label = "7d";
        r.window.name = "7-day limit";
    } else if (*kind == "weekly_scoped") {
        r.rank = scopedRank;
        r.window.period = kOneWeek;
        r.window.isModelScoped = true;
        std::optional<std::string> model;
        if (auto scope = element.find("scope"); scope != element.end() && scope->is_object()) {
            if (auto m = scope->find("model"); m != scope->end() && m->is_object()) model = text(*m, "display_name");
        }
        if (model && !model->empty()) {
            r.window.label = *model;
            r.window.name = *model + " weekly";
        } else {
            r.window.label = "model";
            r.window.name = "Model weekly";
        }
    } else {
        return std::nullopt;  // a kind we do not know is not guessed at
    }
    return r;
}

std::optional<Ranked> legacyWindow(const Json& json, const char* key, int rank, double period) {
    auto it = json.find(key);
    if (it == json.end() || !it->is_object()) return std::nullopt;
    auto percent = number(*it, "utilization");
    if (!percent) return std::nullopt;
    Ranked r;
    r.rank = rank;
    r.window.percentUsed = *percent;
    r.window.resetsAt = date(*it, "resets_at");
    r.window.period = period;
    auto label = PlanUsage::windowLabel(period);
    r.window.label = label->label;
    r.window.name = label->name;
    return r;
}

std::optional<std::string> extraUsageDetail(const Json& json) {
    auto it = json.find("extra_usage");
    if (it == json.end() || !it->is_object()) return std::nullopt;
    auto enabled = it->find("is_enabled");
    if (enabled == it->end() || !enabled->is_boolean() || !enabled->get<bool>()) return std::nullopt;
    auto used = number(*it, "used_credits");
    if (!used || std::fabs(*used) > 1e15) return std::nullopt;
    char buf[96];
    std::snprintf(buf, sizeof buf, "extra usage $%.2f", *used / 100.0);
    std::string out = buf;
    if (auto limit = number(*it, "monthly_limit"); limit && std::fabs(*limit) <= 1e15) {
        std::snprintf(buf, sizeof buf, " of $%.0f", *limit / 100.0);
        out += buf;
    }
    return out;
}

bool pressured(const PlanUsage::Window& w) {
    return roundedPercent(100.0 - w.percentUsed) <= 10 || w.percentUsed >= 90;
}

int digits(std::string_view s, size_t at, size_t count) {
    if (at + count > s.size()) return -1;
    int v = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (s[i] < '0' || s[i] > '9') return -1;
        v = v * 10 + (s[i] - '0');
    }
    return v;
}

}  // namespace

long long roundedPercent(double value) {
    if (!std::isfinite(value)) return value > 0 ? 1000000 : -1000000;
    return static_cast<long long>(std::round(std::clamp(value, -1e6, 1e6)));
}

bool PlanUsage::Window::isDepleted() const { return percentUsed >= 99.5 || roundedPercent(100.0 - percentUsed) < 1; }

double PlanUsage::Window::percentLeft() const { return std::clamp(100.0 - percentUsed, 0.0, 100.0); }

bool PlanUsage::hasPressure() const { return std::any_of(windows.begin(), windows.end(), pressured); }

bool PlanUsage::planWidePressure() const {
    return std::any_of(windows.begin(), windows.end(), [](const Window& w) { return !w.isModelScoped && pressured(w); });
}

std::optional<PlanUsage> PlanUsage::fromJson(const Json& json) {
    if (!json.is_object()) return std::nullopt;
    std::vector<Ranked> ranked;
    if (auto limits = json.find("limits"); limits != json.end() && limits->is_array()) {
        for (const auto& element : *limits) {
            if (auto r = listWindow(element)) ranked.push_back(std::move(*r));
        }
    } else {
        if (auto r = legacyWindow(json, "five_hour", sessionRank, kFiveHours)) ranked.push_back(std::move(*r));
        if (auto r = legacyWindow(json, "seven_day", weekRank, kOneWeek)) ranked.push_back(std::move(*r));
    }
    if (ranked.empty()) return std::nullopt;
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) { return a.rank < b.rank; });
    PlanUsage usage;
    for (auto& r : ranked) usage.windows.push_back(std::move(r.window));
    usage.detail = extraUsageDetail(json);
    return usage;
}

std::optional<PlanUsage> PlanUsage::parse(std::string_view body) {
    auto json = JsonText::parse(body, 64);
    if (!json) return std::nullopt;
    return fromJson(*json);
}

std::optional<Date> PlanUsage::parseDate(std::string_view s) {
    using namespace std::chrono;
    int y = digits(s, 0, 4), mo = digits(s, 5, 2), d = digits(s, 8, 2);
    int h = digits(s, 11, 2), mi = digits(s, 14, 2), sec = digits(s, 17, 2);
    if (s.size() < 19 || s[4] != '-' || s[7] != '-' || (s[10] != 'T' && s[10] != 't' && s[10] != ' ') ||
        s[13] != ':' || s[16] != ':')
        return std::nullopt;
    if (y < 1970 || y > 2200 || mo < 1 || d < 1 || h > 23 || mi > 59 || sec > 60) return std::nullopt;
    year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok()) return std::nullopt;
    size_t at = 19;
    nanoseconds fraction{0};
    if (at < s.size() && s[at] == '.') {
        ++at;
        size_t start = at;
        long long value = 0;
        int kept = 0;
        while (at < s.size() && s[at] >= '0' && s[at] <= '9') {
            if (kept < 9) {
                value = value * 10 + (s[at] - '0');
                ++kept;
            }
            ++at;
        }
        if (at == start) return std::nullopt;
        while (kept < 9) value *= 10, ++kept;
        fraction = nanoseconds{value};
    }
    minutes offset{0};
    std::string_view zone = s.substr(at);
    if (zone == "Z" || zone == "z" || zone.empty()) {
        // UTC
    } else if (zone[0] == '+' || zone[0] == '-') {
        int oh = digits(zone, 1, 2), om = -1;
        if (zone.size() == 6 && zone[3] == ':') om = digits(zone, 4, 2);
        else if (zone.size() == 5) om = digits(zone, 3, 2);
        else if (zone.size() == 3) om = 0;
        if (oh < 0 || om < 0 || oh > 23 || om > 59) return std::nullopt;
        offset = minutes{(zone[0] == '-' ? -1 : 1) * (oh * 60 + om)};
    } else {
        return std::nullopt;
    }
    auto local = sys_days{ymd} + hours{h} + minutes{mi} + seconds{sec} + fraction;
    return time_point_cast<system_clock::duration>(local - offset);
}

std::optional<PlanUsage::WindowLabel> PlanUsage::windowLabel(std::optional<double> period) {
    if (!period || !std::isfinite(*period) || *period <= 0 || *period > 1e9) return std::nullopt;
    if (*period < 86400) {
        long long hours = std::max(1LL, static_cast<long long>(std::round(*period / 3600)));
        return WindowLabel{std::to_string(hours) + "h", std::to_string(hours) + "-hour limit"};
    }
    long long days = std::max(1LL, static_cast<long long>(std::round(*period / 86400)));
    return WindowLabel{std::to_string(days) + "d", std::to_string(days) + "-day limit"};
}

}  // namespace lumora
