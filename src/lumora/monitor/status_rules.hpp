#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

// The ordered rules that decide a session's status, and the refresh cadence.
// Pure functions of their inputs, so each rule is tested on its own; the
// monitor applies them in order, first match wins.
namespace lumora::StatusRules {

using Seconds = std::chrono::duration<double>;

// The refresh timer's interval: with hooks a 10 s safety net; without, 2 s
// while anything is active and 8 s when nothing is; Low Power Mode stretches
// it 2.5 times, to at most 30 s.
Seconds refreshInterval(bool hooksEnabled, bool agentsActive, bool lowPower);

// True when a session is not idle, or is idle but active within 900 s.
bool agentsActive(const std::vector<AgentInstance>& instances, Date now);

// What the transcript says, for the heuristics.
struct TranscriptFacts {
    bool inProgress = false;
    std::optional<PendingApproval> pending;
    bool endsWithQuestion = false;
    double ageSeconds = 0;  // since the transcript's last entry
    // Since anything of the session last moved (its entries, its subagents'
    // journals); the idle threshold runs on this. Absent: `ageSeconds`.
    std::optional<double> quietSeconds;
};

// The transcript heuristics: a pending question needs the user at once, an
// edit after 6 s, a run after 20 s; past the idle threshold the session is
// idle; else working mid-turn and waiting after it — raised to attention
// when the finished turn ends on a question.
AgentStatus initialStatus(const TranscriptFacts& facts, int idleTimeoutMinutes);

// Whether a hook "busy" signal at `busySince` holds: the transcript agrees a
// turn is running, or its newest settled entry predates the signal. A settled
// entry written after it refutes it.
bool busyApplies(Date busySince, bool transcriptInProgress, std::optional<Date> newestEntry);

// Whether an idle marker turns a working session into needs-you: not with
// background work running, not when a busy signal or a transcript entry is
// newer than the marker (a stale marker), and never a session that is not working.
bool idleMarkerFlips(AgentStatus derived, bool backgroundActive, std::optional<Date> markerCreatedAt,
                     std::optional<Date> busySince, std::optional<Date> newestEntry);

enum class CpuHoldOutcome { hold, capped, idle };

inline constexpr double kCpuHoldThreshold = 12;  // percent
inline constexpr auto kCpuHoldCap = std::chrono::seconds(600);

struct CpuHoldInput {
    AgentStatus candidate = AgentStatus::idle;
    std::optional<AgentStatus> previous;
    bool hookGroundTruth = false;
    bool paired = false;
    std::optional<double> cpuNow, cpuPrevious;
    std::optional<Date> holdSince;  // when a running hold began
    bool alreadyCapped = false;
};

// The tie-breaker at the moment a turn seems to end while the process still
// works: hold it `working` while both samples are at least 12 %, for up to 600 s.
CpuHoldOutcome cpuHoldOutcome(const CpuHoldInput& in, Date now);

}  // namespace lumora::StatusRules
