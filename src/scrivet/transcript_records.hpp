#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace scrivet {

using Date = std::chrono::system_clock::time_point;

// One line of the activity feed under a session row.
struct ActivityLine {
    enum class Kind { prompt, reply, tool, ok, error, thinking };

    Kind kind = Kind::reply;
    std::string text;  // one line, already shortened by the reader

    // The kind's name, "|" and the text: two equal lines are the same list item.
    std::string id() const;
    bool operator==(const ActivityLine&) const = default;
};

std::string_view kindName(ActivityLine::Kind kind);

// One subagent of a session.
struct SubagentInfo {
    std::string id;    // the launching tool call's id, or the agent's id
    std::string type;  // e.g. the subagent_type input
    std::string task;  // the task description
    std::optional<std::string> model;
    std::optional<std::string> action;  // what it is doing now
    bool isRunning = false;
    std::optional<long long> tokens;
    bool operator==(const SubagentInfo&) const = default;
};

// The kind of a tool call that normally waits for the user.
enum class PendingApproval { question, edit, run };

// Maps a tool name to the kind it waits as; names are compared exactly.
std::optional<PendingApproval> pendingApprovalForTool(std::string_view toolName);
// Seconds the monitor waits before a dangling call of this kind counts as
// waiting for the user: question 0, edit 6, run 20.
int delaySeconds(PendingApproval kind);
std::string_view kindName(PendingApproval kind);

// A tool call that waits on disk for its result: what the agent asks to run or change.
struct PendingToolCall {
    std::string toolName;               // as the agent names it ("Bash", "Edit")
    std::optional<std::string> detail;  // its command, file or question, on one line
    bool operator==(const PendingToolCall&) const = default;
};

// A question an agent asks the user (display only; it is answered in the agent).
struct PendingQuestion {
    std::string text;                  // the first question, on one line
    std::vector<std::string> options;  // its option labels, in order
    int moreCount = 0;                 // further questions after the first

    // "1 SQLite   2 Postgres   +1 more".
    std::string optionsLine() const;
    bool operator==(const PendingQuestion&) const = default;
};

// The facts of one session as read from its journal.
struct TranscriptInfo {
    Date lastModified{};
    std::optional<std::string> summary;
    std::optional<std::string> gitBranch;
    std::optional<std::string> sessionId;
    std::optional<std::string> model;
    std::optional<long long> contextTokens;
    std::optional<long long> contextMax;
    bool contextMaxEstimated = false;
    bool inProgress = false;
    std::optional<PendingApproval> pendingApproval;
    std::optional<PendingToolCall> pendingToolCall;  // the call behind `pendingApproval`
    bool endsWithQuestion = false;
    bool awaitingFirstReply = false;
    std::vector<ActivityLine> recentActivity;  // oldest first
    int subagentCount = 0;
    std::vector<SubagentInfo> subagents;
    bool hasRealTurn = false;
    int pendingBackgroundAgents = 0;
    bool recentSubagentActivity = false;
    // The newest write to the session's subagent or workflow journals (or
    // the output of its pending background tasks), when there is any.
    std::optional<Date> subagentActivity;
    Date created{};
    Date lastEntryDate{};
    std::optional<std::string> topic;
    // The first human prompt as one cleaned line, when the topic is left to
    // it (the agent gave no title of its own): the local model may still
    // name the session from it.
    std::optional<std::string> firstPrompt;

    bool operator==(const TranscriptInfo&) const = default;
};

// The text with every byte sequence that is not UTF-8 replaced by U+FFFD:
// folder names and branches are bytes, and what we print must be text.
std::string validUtf8(std::string text);

// Collapses every run of newlines and other blanks into one space and trims.
std::string collapseWhitespace(std::string_view text);

// Shortens to at most `maxChars` characters (UTF-8 aware), ending in "…" when cut.
std::string truncateText(std::string_view text, size_t maxChars);

// Whitespace collapsed, then shortened to `maxChars` characters. Only as much
// of the text as that needs is looked at, so a tool output of megabytes costs
// no more than a short one.
std::string oneLine(std::string_view text, size_t maxChars);

}  // namespace scrivet
