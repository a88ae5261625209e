#pragma once

#include <optional>
#include <string>

#include "lumora/usage/pace.hpp"
#include "lumora/usage/usage_probe.hpp"

namespace lumora {

// One provider's quota as the views draw it: the last good numbers, when
// they were true, and what the latest attempt to refresh them gave.
struct QuotaReading {
    HarnessProvider provider = HarnessProvider::claudeCode;
    PlanUsage usage;
    Date fetchedAt{};
    UsageBlocker blocker = UsageBlocker::ok;  // the latest attempt (ok, or why these numbers are older)
    std::optional<int> status;                // its HTTP status, if it had one
    std::optional<double> retryIn;            // rate limited: seconds until the next try

    // A reading older than this is drawn stale: no colour, no projected overrun.
    static constexpr double kStaleAfter = 30 * 60;

    // "Claude · Max 20x", "ChatGPT · Plus", "OpenCode Go".
    std::string label() const;
    bool isStale(Date now) const;
    // The window as the gauges draw it at `now`: a reset that has passed empties it.
    PlanUsage::Window shown(const PlanUsage::Window& window, Date now) const;
    // The window's projection, when one may be shown: never for a stale reading.
    std::optional<PaceEstimate> pace(const PlanUsage::Window& window, Date now) const;
    bool operator==(const QuotaReading&) const = default;
};

// A quota milestone worth telling the user about (the window will run out
// before it resets). The token grows by one per alert.
struct UsageAlert {
    long long token = 0;
    HarnessProvider provider = HarnessProvider::claudeCode;
    std::string windowLabel;  // "5h"
    std::string text;         // "5-hour limit runs out in 1h 30m, before it resets"
    bool operator==(const UsageAlert&) const = default;
};

}  // namespace lumora
