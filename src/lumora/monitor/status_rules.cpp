#include "lumora/monitor/status_rules.hpp"

#include <algorithm>

namespace lumora::StatusRules {

Seconds refreshInterval(bool hooksEnabled, bool active, bool lowPower) {
    double seconds = hooksEnabled ? 10 : (active ? 2 : 8);
    if (lowPower) seconds = std::min(seconds * 2.5, 30.0);
    return Seconds(seconds);
}

bool agentsActive(const std::vector<AgentInstance>& instances, Date now) {
    return std::any_of(instances.begin(), instances.end(), [&](const AgentInstance& a) {
        return a.status != AgentStatus::idle || now - a.lastActivity < std::chrono::seconds(900);
    });
}

AgentStatus initialStatus(const TranscriptFacts& f, int idleTimeoutMinutes) {
    if (f.pending) {
        double delay = scrivet::delaySeconds(*f.pending);
        if (f.ageSeconds >= delay) return AgentStatus::attention;
    }
    double idleAfter = (idleTimeoutMinutes > 0 ? idleTimeoutMinutes : 30) * 60.0;
    if (f.quietSeconds.value_or(f.ageSeconds) > idleAfter) return AgentStatus::idle;
    if (f.inProgress) return AgentStatus::working;
    return f.endsWithQuestion ? AgentStatus::attention : AgentStatus::waiting;
}

bool busyApplies(Date busySince, bool transcriptInProgress, std::optional<Date> newestEntry) {
    if (transcriptInProgress) return true;
    return !newestEntry || *newestEntry <= busySince;
}

bool idleMarkerFlips(AgentStatus derived, bool backgroundActive, std::optional<Date> markerCreatedAt,
                     std::optional<Date> busySince, std::optional<Date> newestEntry) {
    if (derived != AgentStatus::working || backgroundActive) return false;
    if (!markerCreatedAt) return true;  // unknown age: flip conservatively
    if (busySince && *busySince > *markerCreatedAt) return false;
    if (newestEntry && *newestEntry > *markerCreatedAt) return false;
    return true;
}

CpuHoldOutcome cpuHoldOutcome(const CpuHoldInput& in, Date now) {
    bool applies = in.candidate == AgentStatus::waiting && in.previous == AgentStatus::working && !in.hookGroundTruth &&
                   in.paired && !in.alreadyCapped && in.cpuNow && in.cpuPrevious &&
                   *in.cpuNow >= kCpuHoldThreshold && *in.cpuPrevious >= kCpuHoldThreshold;
    if (!applies) return CpuHoldOutcome::idle;
    if (!in.holdSince || now - *in.holdSince < kCpuHoldCap) return CpuHoldOutcome::hold;
    return CpuHoldOutcome::capped;
}

}  // namespace lumora::StatusRules
