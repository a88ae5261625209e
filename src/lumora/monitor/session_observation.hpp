#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/hooks/cursor_notes.hpp"
#include "lumora/monitor/agent_instance.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora {

// One session as a provider's source sees it in one scan, before the status
// rules run: who it is, where it runs, and what its journal says.
struct SessionObservation {
    std::string id;  // identity: the agent's session id, else "<cwd>#<pid>"
    HarnessProvider provider = HarnessProvider::claudeCode;
    std::optional<int32_t> pid;
    std::string cwd;
    std::string projectName;
    std::optional<std::string> gitBranch;
    std::optional<std::string> repoName;
    bool isWorktree = false;
    std::optional<std::string> worktreeName;
    std::optional<AgentHost> host;
    std::optional<double> cpu;  // percent, from this tick's sample
    std::optional<Date> processStart;  // when the paired process started
    AgentSurface surface = AgentSurface::coding;
    // The journal's facts; nothing when the reader could not read it (the
    // monitor then keeps the previous tick's facts).
    std::optional<scrivet::TranscriptInfo> info;

    // What the agent itself reports about its state (Claude Code's session
    // index: "busy", "idle", "waiting" and what it waits for).
    struct SelfReport {
        std::string status;
        std::optional<std::string> waitingFor;  // "permission prompt", "input needed"
        std::optional<Date> updatedAt;
        bool operator==(const SelfReport&) const = default;
    };
    std::optional<SelfReport> selfReport;

    // Background work (subagents, background shells) still out.
    bool backgroundActive = false;

    // A Cowork session's folders.
    std::vector<std::string> workspaceFolders;
    // A question the journal shows the agent asking (display only: agents
    // without hook prompts, such as Kimi).
    std::optional<PendingQuestion> question;

    bool operator==(const SessionObservation&) const = default;
};

// What the hook bridge knows about one session at scan time.
struct HookSignals {
    enum class MarkerKind { permission, question, plan, idle };
    struct Marker {
        MarkerKind kind = MarkerKind::permission;
        std::string toolName;
        std::optional<std::string> detail;
        std::optional<std::string> reason;
        bool escalated = false;
        std::vector<std::string> options;
        int moreQuestions = 0;
        std::optional<Date> createdAt;
        bool operator==(const Marker&) const = default;
    };
    std::optional<Marker> marker;
    bool gateHeld = false;            // a permission prompt waits for an answer from us
    uint64_t gateId = 0;              // which prompt is held (a decision names it)
    std::optional<Date> busySince;    // the last turn-state signal
    std::optional<std::string> cwd;   // the folder the hooks reported the session in
    bool operator==(const HookSignals&) const = default;

    // When the hooks last said anything about the session, if they said when.
    std::optional<Date> latest() const;
};

// The hook bridge's knowledge at scan time, per provider and session.
struct HookSnapshot {
    std::map<std::pair<HarnessProvider, std::string>, HookSignals> signals;
    HookSignals lookup(HarnessProvider provider, const std::string& sessionId) const;

    // Cursor's hook notes by conversation id, as the bridge keeps them.
    struct CursorNotes {
        std::map<std::string, CursorPending> pending;
        std::map<std::string, CursorActivity> activity;
        std::map<std::string, std::string> models;
        bool operator==(const CursorNotes&) const = default;
    };
    CursorNotes cursor;
};

}  // namespace lumora
