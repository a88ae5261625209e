#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/file_stamp.hpp"
#include "scrivet/journal_entry.hpp"
#include "scrivet/transcript_records.hpp"

// Codex (its command-line tool, desktop app and editor extension) writes one
// JSON-lines "rollout" per session thread, under ~/.codex/sessions in dated
// folders: YYYY/MM/DD/rollout-<local time>-<thread id>.jsonl. Every line is
// {"timestamp", "type", "payload"} (newer versions add an "ordinal"); the
// first is "session_meta". Prompts and replies appear as "response_item"
// messages and as events: the older "user_message"/"agent_message" and the
// newer "item_completed" items ("UserMessage", "AgentMessage",
// "CommandExecution", "FileChange", "Reasoning"); the readers accept both.
namespace scrivet {

// The plan's rate-limit windows as Codex itself recorded them.
struct CodexRateLimits {
    struct Window {
        double percentUsed = 0;  // 0...100
        std::optional<Date> resetsAt;
        std::optional<std::chrono::seconds> period;  // the window's length
        bool operator==(const Window&) const = default;
    };
    std::vector<Window> windows;    // shortest period first
    std::optional<Date> observedAt;  // when Codex recorded them
    bool operator==(const CodexRateLimits&) const = default;
};

// One thread of a Codex session, read from its rollout.
struct CodexSession {
    // Where the thread runs, told by its originator.
    enum class HostKind { cli, desktop, unknown };

    std::string cwd;
    std::string projectName;  // the cwd's last component
    std::string sessionId;    // the thread id
    std::optional<std::string> model;  // shown as "GPT-…"
    std::optional<long long> contextTokens;
    std::optional<long long> totalUsageTokens;
    std::optional<CodexRateLimits> rateLimits;
    std::optional<std::string> threadSource;
    std::optional<std::string> parentThreadId;
    std::optional<std::string> agentName;  // a subagent's nickname
    std::optional<std::string> originator;
    TranscriptInfo info;
    std::filesystem::path file;         // the rollout
    std::optional<std::string> prompt;  // the newest prompt the user typed
    bool subagent = false;              // a subagent thread (badged on its parent)

    HostKind hostKind() const;
    // True when a host of the thread's kind runs: the command line for `cli`,
    // the desktop app (or editor) for `desktop`, either for `unknown`.
    bool hostAlive(bool desktop, bool cli) const;
    bool operator==(const CodexSession&) const = default;
};

namespace CodexTranscriptReader {

namespace fs = std::filesystem;
using Entries = std::vector<JournalEntry>;

// --- Files ----------------------------------------------------------------------

// "rollout-2026-11-22T00-46-25-<uuid>.jsonl".
bool isRolloutName(std::string_view fileName);
// The thread id at the end of a rollout's name.
std::optional<std::string> threadIdFromName(std::string_view fileName);

struct Rollout {
    fs::path file;
    FileStamp stamp;
    Date modified{};
    bool operator==(const Rollout&) const = default;
};

// The rollouts modified at or after `since`, newest modification first.
// Walks only the dated folders that can hold them (a rollout lies in the
// folder of the day it was created, which is never after its last change),
// from the day before `since` to the day after `now`. A missing root, a
// root that is a file and unreadable folders give nothing.
std::vector<Rollout> recentRollouts(const fs::path& root, Date since, Date now);
// The same, by age: rollouts modified within `maxAge` of `now`; `extended`
// looks back a week further (for sessions kept alive by their process).
std::vector<fs::path> recentRollouts(const fs::path& root, std::chrono::seconds maxAge, bool extended, Date now);
// The dated folder (root/yyyy/mm/dd, local calendar) where a rollout begun at
// `when` is written.
fs::path dayFolder(const fs::path& root, Date when);

// --- One rollout --------------------------------------------------------------------

// What the head of a rollout says: the "session_meta" line and the first turn.
struct Header {
    std::string sessionId;
    std::string cwd;
    std::optional<std::string> originator;
    std::optional<std::string> threadSource;
    std::optional<std::string> parentThreadId;
    std::optional<std::string> agentName;
    std::optional<std::string> gitBranch;
    std::optional<Date> created;
    bool subagent = false;
    std::optional<std::string> firstPrompt;  // the first prompt the user typed
    std::optional<std::string> model;        // of the first turn
    // False while the head may still grow into what it lacks (a rollout
    // written so far only up to its first prompt).
    bool complete = false;
    bool operator==(const Header&) const = default;
};

// The head of a rollout, or nothing when its first line is not a
// "session_meta" object with a thread id and a working directory.
std::optional<Header> header(const fs::path& file);
// True when the file's first line is Codex's "session_meta".
bool isRollout(const fs::path& file);

// The thread's facts: its header and the tail of the rollout. Nothing for a
// file that is not a rollout or holds no readable line.
std::optional<CodexSession> session(const fs::path& file);
std::optional<CodexSession> session(const fs::path& file, const Header& header);

// The tail entries the reader derives from.
Entries tailEntries(const fs::path& file);

// --- Running sessions -----------------------------------------------------------------

// Every rollout modified within `maxAge` of `now` (or whose thread id is in
// `keepAlive`, however old, as long as it lies in the walked folders), whose
// host runs. Subagent threads are folded into their parents.
std::vector<CodexSession> runningSessions(const fs::path& root, std::chrono::seconds maxAge,
                                          const std::set<std::string>& keepAlive, Date now, bool desktopRunning,
                                          bool cliRunning);

// Moves subagent threads out of the list and onto their parents (matched by
// thread id): a running subagent counts on its parent's row; one whose parent
// is not in the list is dropped.
void foldSubagents(std::vector<CodexSession>& sessions);

// --- Rate limits ------------------------------------------------------------------------

// The windows of one "rate_limits" object: "primary" then "secondary", each
// with "used_percent" (required), "window_minutes" and "resets_at" (seconds
// since 1970; or "resets_in_seconds" from `observedAt`). Nothing when no
// window is readable (Codex writes null windows when it has no reading).
std::optional<CodexRateLimits> rateLimitsFromPayload(simdjson::dom::element rateLimits,
                                                     std::optional<Date> observedAt = std::nullopt);
// The newest readable windows in a rollout's tail.
std::optional<CodexRateLimits> rateLimits(const fs::path& rollout);
// The newest readable windows of the newest rollouts modified within
// `maxAge` of `now` (the newest rollout first; one with no reading defers to
// the next).
std::optional<CodexRateLimits> rateLimits(const fs::path& sessionsRoot, Date now,
                                          std::chrono::seconds maxAge = std::chrono::hours(24 * 7));

// --- Derivations over tail entries ------------------------------------------------------

// "gpt-5.5-codex" -> "GPT-5.5-Codex"; other ids unchanged.
std::string displayModel(std::string_view modelId);
// Codex's own context material posing as user text: <environment_context>,
// AGENTS.md and other instructions, <turn_aborted> after an interrupt.
bool isInjectedUserText(std::string_view text);
// The text of a prompt the user typed, when the entry is one (in any of its
// three shapes).
std::optional<std::string> userPromptText(const JournalEntry& e);
// The text of an assistant reply, when the entry is one (in any of its shapes).
std::optional<std::string> assistantText(const JournalEntry& e);

// Turn state: from the newest lifecycle event ("task_started" runs;
// "task_complete" and "turn_aborted" settle); without one, from the newest
// turn item.
bool isInProgress(const Entries& entries);
// The row's one line about where the thread stands.
std::optional<std::string> summarize(const Entries& entries);
// The newest assistant text ends on a question, with no abort or tool call after it.
bool endsWithQuestion(const Entries& entries);
// A dangling command that asked to leave the sandbox while approvals are on.
std::optional<PendingApproval> pendingApproval(const Entries& entries);
// The newest / first prompt the user typed among the entries.
std::optional<std::string> newestPrompt(const Entries& entries);
std::optional<std::string> firstPrompt(const Entries& entries);
bool awaitingFirstReply(const Entries& entries);
bool hasRealTurn(const Entries& entries);
std::vector<ActivityLine> recentActivity(const Entries& entries, size_t limit = 8);
// The newest "turn_context" model id.
std::optional<std::string> modelId(const Entries& entries);

// The token counts of the newest "token_count" event that has them.
struct TokenCounts {
    std::optional<long long> contextTokens;  // last_token_usage.total_tokens
    std::optional<long long> totalUsageTokens;
    std::optional<long long> contextWindow;  // model_context_window
    bool operator==(const TokenCounts&) const = default;
};
TokenCounts tokenCounts(const Entries& entries);
// The newest readable rate-limit windows among the entries.
std::optional<CodexRateLimits> rateLimits(const Entries& entries);

}  // namespace CodexTranscriptReader

}  // namespace scrivet
