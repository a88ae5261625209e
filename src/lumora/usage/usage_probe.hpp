#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lumora/usage/plan_usage.hpp"

namespace lumora {

// Why a provider shows no live numbers. Declaration order is the raw values' order.
enum class UsageBlocker { ok, noLogin, expired, unreachable, rateLimited, noPlanLimits, localOnly };

std::string_view rawValue(UsageBlocker b);
// The one-line explanation shown beside a provider without live numbers
// ("No Claude Code login found on this machine"); empty for `ok`.
std::string hint(UsageBlocker b, HarnessProvider provider);

// One provider's diagnosis: what the last attempt to read its quota gave.
struct UsageProbe {
    HarnessProvider provider = HarnessProvider::claudeCode;
    UsageBlocker blocker = UsageBlocker::ok;
    std::optional<std::string> source;  // where the login (or the local log) came from
    std::optional<int> status;          // the HTTP status of the last answer
    std::optional<PlanUsage> usage;
    std::optional<double> retryIn;      // seconds until the back-off lets the provider be asked
    std::optional<std::string> error;   // a transport failure in words (diagnostics only)

    // The doctor's line: "Claude Code: 5h 62% left · 7d 81% left", or the
    // blocker's hint, with the HTTP status of a failure and, when rate
    // limited, when it retries ("in 45s", "in 10 min").
    std::string line() const;
    bool operator==(const UsageProbe&) const = default;
};

// "62% left": what is left of a window, rounded to a whole percent.
std::string percentLeftText(const PlanUsage::Window& w);

}  // namespace lumora
