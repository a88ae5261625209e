#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/harness_provider.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora {

using scrivet::Date;
using scrivet::HarnessProvider;

// One provider's quota reading: the windows of its plan and how much of each
// is used. The Claude endpoint, Codex's rollouts and OpenCode Go's charges
// all end up here, and the strip, the gauges and the pace alerts draw from it.
struct PlanUsage {
    // One quota window.
    struct Window {
        double percentUsed = 0;          // 0...100 as the provider reports it
        std::optional<Date> resetsAt;
        std::optional<double> period;    // the window's length in seconds
        std::string label;               // "5h", "7d", "Opus"
        std::string name;                // "5-hour limit", "Opus weekly"
        bool isCritical = false;         // the provider flagged it critical
        bool isModelScoped = false;      // limits one model family, not the plan

        // Used up: at least 99.5% used, or under 1% left once rounded.
        bool isDepleted() const;
        // What is left, clamped to 0...100 as the gauges draw it.
        double percentLeft() const;
        bool operator==(const Window&) const = default;
    };

    std::vector<Window> windows;
    std::optional<std::string> planName;  // "Max 20x"
    std::optional<std::string> detail;    // "extra usage $4.20 of $50"

    // Some window has 10% or less left (rounded), or 90% or more used.
    bool hasPressure() const;
    // The same test over the windows that limit the whole plan only.
    bool planWidePressure() const;
    bool operator==(const PlanUsage&) const = default;

    // Reads the usage endpoint's answer: the "limits" list, else the legacy
    // "five_hour" / "seven_day" objects, and the "extra_usage" detail. An
    // element of the wrong shape is skipped; nothing without any window.
    static std::optional<PlanUsage> fromJson(const nlohmann::ordered_json& json);
    // The same from the answer's bytes; nothing when they are not a JSON object.
    static std::optional<PlanUsage> parse(std::string_view body);

    // An ISO 8601 time with or without fractional seconds (any number of
    // digits), ending in "Z", an offset ("+02:00", "-0500") or nothing (UTC).
    static std::optional<Date> parseDate(std::string_view text);

    struct WindowLabel {
        std::string label;  // "5h", "7d"
        std::string name;   // "5-hour limit", "7-day limit"
    };
    // The label and name of a window `period` seconds long: hours below a
    // day, days from a day on; nothing without a usable period.
    static std::optional<WindowLabel> windowLabel(std::optional<double> period);
};

// The whole-percent rounding of the quota rules: halves away from zero.
long long roundedPercent(double value);

inline constexpr double kFiveHours = 18000;
inline constexpr double kOneWeek = 604800;

}  // namespace lumora
