#include "lumora/usage/usage_probe.hpp"

#include "lumora/usage/usage_backoff.hpp"

namespace lumora {

namespace {

// The command that refreshes a provider's login.
std::string_view command(HarnessProvider p) {
    switch (p) {
        case HarnessProvider::claudeCode: return "claude";
        case HarnessProvider::cursor: return "cursor-agent";
        case HarnessProvider::codex: return "codex";
        case HarnessProvider::kimi: return "kimi";
        case HarnessProvider::opencode: return "opencode";
    }
    return "claude";
}

std::string name(HarnessProvider p) {
    if (p == HarnessProvider::kimi) return "Kimi Code";
    return std::string(scrivet::displayName(p));
}

}  // namespace

std::string_view rawValue(UsageBlocker b) {
    switch (b) {
        case UsageBlocker::ok: return "ok";
        case UsageBlocker::noLogin: return "noLogin";
        case UsageBlocker::expired: return "expired";
        case UsageBlocker::unreachable: return "unreachable";
        case UsageBlocker::rateLimited: return "rateLimited";
        case UsageBlocker::noPlanLimits: return "noPlanLimits";
        case UsageBlocker::localOnly: return "localOnly";
    }
    return "ok";
}

std::string hint(UsageBlocker b, HarnessProvider provider) {
    switch (b) {
        case UsageBlocker::ok: return {};
        case UsageBlocker::noLogin: return "No " + name(provider) + " login found on this machine";
        case UsageBlocker::expired:
            return "Login expired — run " + std::string(command(provider)) + " once to refresh it";
        case UsageBlocker::unreachable: return "Couldn't reach " + name(provider) + " — offline, or the service is down";
        case UsageBlocker::rateLimited: return name(provider) + " is rate-limiting usage checks — retrying on its own";
        case UsageBlocker::noPlanLimits: return name(provider) + " reports no plan limits for this account";
        case UsageBlocker::localOnly: return "Added up from this machine's own logs — no login needed";
    }
    return {};
}

std::string percentLeftText(const PlanUsage::Window& w) {
    return std::to_string(roundedPercent(w.percentLeft())) + "% left";
}

std::string UsageProbe::line() const {
    std::string out = name(provider) + ": ";
    bool live = usage && !usage->windows.empty() && (blocker == UsageBlocker::ok || blocker == UsageBlocker::localOnly);
    if (live) {
        bool first = true;
        for (const auto& w : usage->windows) {
            if (!first) out += " · ";
            first = false;
            out += w.label + " " + percentLeftText(w);
        }
        if (usage->detail) out += " · " + *usage->detail;
    } else {
        if (blocker == UsageBlocker::localOnly && provider == HarnessProvider::codex) {
            // Codex records its windows in its own session logs; none of the last week has them.
            out += "no plan limits in this machine's recent Codex sessions";
        } else {
            out += hint(blocker, provider);
            if (blocker == UsageBlocker::localOnly) out += " (nothing recorded yet)";
        }
    }
    if (blocker == UsageBlocker::rateLimited) {
        // The wait, not a fault: say when it asks again.
        if (status) out += " (HTTP " + std::to_string(*status) + ")";
        if (retryIn) out += "; next check " + UsageBackoff::humanWait(*retryIn);
    } else if (blocker == UsageBlocker::unreachable || blocker == UsageBlocker::noPlanLimits) {
        if (status) out += " (HTTP " + std::to_string(*status) + ")";
        else if (error && !error->empty()) out += " (" + *error + ")";
    }
    return out;
}

}  // namespace lumora
