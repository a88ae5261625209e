#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/journal_entry.hpp"
#include "scrivet/transcript_records.hpp"

// The facts of a Claude Code session, derived from the tail entries of its
// journal (oldest first). Pure functions over parsed entries: no files, no
// clocks, so every rule can be tested and fuzzed on its own.
//
// Claude Code writes one API message as one "assistant" entry per content
// block, each repeating the message id, usage and stop reason, and it writes
// many bookkeeping entries ("attachment", "api-request-blob", "cost-state"…)
// between and after turns. Only an entry's "type" decides what it is.
namespace scrivet::ClaudeTranscriptReader {

using Entries = std::vector<JournalEntry>;

// --- One entry ----------------------------------------------------------------

// True for "user" and "assistant" entries.
bool isConversation(const JournalEntry& e);
// The text of a user or assistant message: its string content, or its text
// blocks joined by newlines.
std::string messageText(const JournalEntry& e);
// A "user" entry that is not a turn: injected context ("isMeta"), a compacted
// summary, or the echo of a slash command or a "!" shell command.
bool isLocalCommand(const JournalEntry& e);
// A "user" entry saying the user stopped the turn ("[Request interrupted by
// user]", also "… for tool use").
bool isInterrupt(const JournalEntry& e);
// A "user" entry that reports a finished background task.
bool isTaskNotification(const JournalEntry& e);
// The text inside the notification's <task-id> element.
std::optional<std::string> taskNotificationId(const JournalEntry& e);
// "⚙ " and the notification's <summary>, or "⚙ Background task completed".
std::string taskNotificationSummary(const JournalEntry& e);
// A prompt the user typed (or pasted an image for): not a local command, an
// interrupt, a notification or a tool result.
bool isRealPrompt(const JournalEntry& e);
// The one-line summary an entry gives, if any (tool results give none).
std::optional<std::string> summarize(const JournalEntry& e);
// The markup tag a user text starts with when it is not one Claude Code is
// known to write ("<foo-bar>…" gives "foo-bar").
std::optional<std::string> unknownLeadingTag(const JournalEntry& e);

// --- Names and snippets ---------------------------------------------------------

// "claude-opus-4-5-20251101" -> "Opus 4.5"; "claude-sonnet-4-5[1m]" -> "Sonnet 4.5";
// an id of another shape loses only the "claude-" prefix, tier marker and date.
std::string cleanModelName(std::string_view modelId);
// "mcp__server__tool" -> "tool"; other names unchanged.
std::string shortToolName(std::string_view name);
// The first of "command", "file_path", "description", "text" (and a few more)
// in a tool's input, on one line and shortened.
std::optional<std::string> toolSnippet(simdjson::dom::element input, size_t maxChars = 120);
// "Bash: echo hi", or the bare (short) tool name when the input says nothing.
std::string toolLine(std::string_view name, simdjson::dom::element input, size_t maxChars = 120);
// Tokens in the context window by one usage object: input + cache read + cache
// creation (or the 5-minute and 1-hour cache creation counts when that is absent).
std::optional<long long> contextTokens(simdjson::dom::element usage);
// True when the text, past trailing markdown, brackets and "[REDACTED]", ends in "?".
bool textEndsWithQuestion(std::string_view text);

// --- The whole tail ---------------------------------------------------------------

// One pass over the entries, newest first, keeping the first value of each field.
struct Parsed {
    std::optional<std::string> summary;
    std::optional<std::string> gitBranch;
    std::optional<std::string> sessionId;
    std::optional<std::string> model;    // cleaned for display
    std::optional<std::string> modelId;  // as the journal names it
    std::optional<long long> contextTokens;
    bool lastWasAssistantText = false;
    bool operator==(const Parsed&) const = default;
};
Parsed derive(const Entries& entries);

// The turn is still running: the agent owes the user an answer.
bool isInProgress(const Entries& entries);
// The kind of the newest message's last tool call, when it normally waits for the user.
std::optional<PendingApproval> pendingApproval(const Entries& entries);
// The newest message's last tool call with its command or file, when its
// kind normally waits for the user (see pendingApproval).
std::optional<PendingToolCall> pendingToolCall(const Entries& entries, size_t maxChars = 500);
// The finished turn's last assistant text ends on a question.
bool endsWithQuestion(const Entries& entries);
// A real prompt sits in the tail and no assistant entry does.
bool awaitingFirstReply(const Entries& entries);
// At least one real prompt or assistant message exists.
bool hasRealTurn(const Entries& entries);
// The last `limit` lines of activity, oldest first.
std::vector<ActivityLine> recentActivity(const Entries& entries, size_t limit = 8);
// The newest "ai-title" entry's "aiTitle".
std::optional<std::string> aiTitle(const Entries& entries);
// The newest / oldest "timestamp" among the entries.
std::optional<Date> lastEntryDate(const Entries& entries);
std::optional<Date> firstEntryDate(const Entries& entries);
// The newest "cwd" the entries record.
std::optional<std::string> recordedCwd(const Entries& entries);
// Background work the newest "turn_duration" entry reports still out, less the
// notifications after it; 0 after an "agents_killed" entry.
int turnDurationBackgroundAgents(const Entries& entries);

// One "Task" or "Agent" tool call.
struct SubagentLaunch {
    std::string id;    // the tool call's id
    std::string type;  // "subagent_type", or "Subagent"
    std::string task;  // "description"
    bool operator==(const SubagentLaunch&) const = default;
};
// The subagent launches whose calls have no result yet, in order.
std::vector<SubagentLaunch> runningSubagentLaunches(const Entries& entries);

}  // namespace scrivet::ClaudeTranscriptReader
