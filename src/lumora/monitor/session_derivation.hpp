#pragma once

#include <optional>
#include <string>

#include "lumora/monitor/session_observation.hpp"
#include "lumora/monitor/status_rules.hpp"

// Turns one session's observation and hook signals into its published
// record, applying the ordered status rules against what was remembered
// about it on the previous tick.
namespace lumora::SessionDerivation {

// Everything remembered about one session between ticks.
struct Memo {
    std::optional<AgentStatus> status;           // published last tick
    std::optional<scrivet::TranscriptInfo> info; // the last facts a reader gave
    std::optional<double> cpu;                   // the previous processor-use sample
    std::optional<int32_t> pid;
    std::optional<Date> cpuHoldSince;
    bool cpuHoldCapped = false;
};

struct Settings {
    int idleTimeoutMinutes = 30;
    bool subagentsEnabled = true;
};

// Derives the session's record and updates its memo (facts, processor use,
// hold state). The memo's `status` is left for the caller, which publishes.
AgentInstance derive(const SessionObservation& obs, const HookSignals& hooks, Memo& memo, Date now,
                     const Settings& settings);

// The permission request a row of `provider` shows for a permission marker
// (every Codex request leaves the sandbox, so it is marked escalated).
ApprovalRequest approvalFromMarker(const std::string& sessionId, const HookSignals::Marker& marker, bool approvable,
                                   HarnessProvider provider = HarnessProvider::claudeCode);
// The question a question marker carries (nothing without its text).
std::optional<PendingQuestion> questionFromMarker(const HookSignals::Marker& marker);

}  // namespace lumora::SessionDerivation
