#pragma once

#include <optional>
#include <string>
#include <vector>

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

// A question or plan marker the user has dismissed in the agent (Esc fires
// no hook): the agent's own index went busy or idle after it, or the journal
// moved past the question with a newer entry.
bool questionMarkerStale(const HookSignals::Marker& marker, const std::optional<SessionObservation::SelfReport>& self,
                         const scrivet::TranscriptInfo& info);

// Gives a row known only by its process ("<cwd>#<pid>") the session id the
// hooks name for its folder: only when exactly one such row is in the folder
// and exactly one session the hooks heard from there since the process
// started belongs to no row.
void adoptHookSessionIds(std::vector<SessionObservation>& observations, const HookSnapshot& hooks);

}  // namespace lumora::SessionDerivation
