#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/journal_entry.hpp"
#include "scrivet/transcript_records.hpp"

// The Claude desktop app's "Cowork" sessions: an agent working on local
// folders from the desktop app. Each session has a sidecar file
// "local_<id>.json" (its `sessionId`, `title` and `folders`) and beside it a
// folder "local_<id>/" whose "audit.jsonl" is the session's event log, one
// JSON object with a "type" per line, stamped with "_audit_timestamp".
// CoworkReader folds the tail of that log into the row's facts.
namespace scrivet::CoworkReader {

namespace fs = std::filesystem;

// The fold of one event log.
struct Folded {
    std::optional<std::string> summary;  // the row's line
    bool inProgress = false;
    std::optional<PendingApproval> pendingApproval;
    std::optional<std::string> pendingTool;  // the tool of an unanswered permission request
    std::optional<PendingQuestion> question;
    bool endsWithQuestion = false;
    std::optional<long long> contextTokens;
    std::optional<long long> reportedContextWindow;
    std::optional<std::string> modelId;  // as the log names it
    std::optional<Date> lastEventAt;
    bool hasRealTurn = false;
    std::vector<ActivityLine> recentActivity;  // oldest first
    bool operator==(const Folded&) const = default;
};

// Folds the entries, oldest first.
Folded fold(const std::vector<JournalEntry>& entries);
// Folds the tail of an event log; nothing when it is missing or unreadable.
std::optional<Folded> foldFile(const fs::path& auditLog);

// The row's line for a permission request: known Cowork tools as sentences
// ("Wants to delete files — approve?"), any other tool as English made from
// its name, never as a tool id.
std::string approvalLine(std::string_view toolName);
// "Waiting on your answer" for a question, "Waiting on your approval" for
// another blocked request; nothing when the session is not blocked.
std::optional<std::string> statusLabel(const Folded& folded);

// The context window: the window the session reported for its model (for
// an unnamed model, the largest reported), else 1,000,000 for a "[1m]" model
// or a context above 200,000 tokens; nothing otherwise. `estimated` is set
// when the window was deduced rather than reported or marked.
struct ContextWindow {
    long long tokens = 0;
    bool estimated = false;
    bool operator==(const ContextWindow&) const = default;
};
std::optional<ContextWindow> contextWindow(const Folded& folded);

// One Cowork session as the panel shows it.
struct CoworkSession {
    std::string sessionId;
    std::optional<std::string> cliSessionId;
    std::string title;
    std::vector<std::string> folders;  // possibly empty
    std::optional<std::string> model;  // shown name
    bool hostLoop = false;             // the desktop app runs the agent's loop itself
    std::optional<long long> contextTokens;
    std::optional<long long> contextMax;
    bool contextMaxEstimated = false;
    std::optional<PendingQuestion> question;
    std::optional<std::string> promptSummary;  // the status label while blocked
    bool isArchived = false;
    TranscriptInfo info;
    bool operator==(const CoworkSession&) const = default;
};

// Every session of the store ("local-agent-mode-sessions"): sidecars without
// an event log are skipped, archived sessions are hidden, and a session
// whose last event is older than `staleAfter` is dropped unless it waits on
// an unanswered prompt. A missing store gives nothing.
std::vector<CoworkSession> sessions(const fs::path& store, Date now,
                                    std::chrono::seconds staleAfter = std::chrono::hours(6));

}  // namespace scrivet::CoworkReader
