#pragma once

#include <optional>
#include <string>

#include "lumora/usage/plan_usage.hpp"

namespace lumora {

// A projection for one quota window: at the rate it has been spent so far,
// how much will be used when it resets, and if that is more than all of it,
// when it runs out.
struct PaceEstimate {
    enum class Kind { ahead, onTrack, behind };
    struct Verdict {
        Kind kind = Kind::ahead;
        double eta = 0;  // behind: seconds from now until the window is used up
        bool operator==(const Verdict&) const = default;
    };

    Verdict verdict;
    double fractionElapsed = 0;   // 0...1 of the window's period gone by
    double projectedPercent = 0;  // used at the reset if the rate holds (may pass 100)

    // Nothing without a reset time and a period, before 60 s (or 1% of the
    // period, when that is longer) have passed, or below 5% used.
    static std::optional<PaceEstimate> estimate(const PlanUsage::Window& window, Date now);

    // "under pace", "on pace", "runs out in 1h 30m".
    std::string label() const;
    bool operator==(const PaceEstimate&) const = default;
};

namespace Pace {
// A short duration: "1m", "45m", "1h", "1h 30m", "1d", "1d 1h".
std::string compact(double seconds);
}  // namespace Pace

// What has been announced about one window in its current cycle (its reset
// time names the cycle), so a worsening projection alerts once. A plain value.
struct PaceAlertState {
    enum class Milestone { willRunOut };

    // Looks at a new reading of the window: the first one only primes the
    // state; a turn into `behind` fires `willRunOut` once per cycle; a new
    // cycle re-arms it.
    std::optional<Milestone> observe(const PlanUsage::Window& window, const std::optional<PaceEstimate>& estimate);

    bool primed = false;
    std::optional<Date> cycle;  // the reset time of the cycle observed
    bool behind = false;        // the last verdict was behind
    bool announced = false;     // willRunOut already fired this cycle
    bool operator==(const PaceAlertState&) const = default;
};

}  // namespace lumora
