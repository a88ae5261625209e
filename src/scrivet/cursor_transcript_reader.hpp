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

// Cursor's agent writes one JSON-lines transcript per conversation inside a
// per-project folder: ~/.cursor/projects/<encoded path>/agent-transcripts/
// <conversation id>.jsonl (or <id>/<id>.jsonl beside the conversation's
// "subagents" folder), and keeps its terminals' text in "terminals/", whose
// "cwd:" lines name the project's directory. A line is {"role", "message":
// {"content": [text and tool_use blocks]}}, or {"type": "turn_ended"} when a
// turn closes. There are no models, tokens or time stamps: the file's own
// modification time dates it.
namespace scrivet {

struct CursorSession {
    std::string cwd;
    std::string projectName;
    std::string sessionId;  // the conversation id (the transcript's name)
    TranscriptInfo info;
    std::filesystem::path file;                // the transcript
    std::optional<std::string> prompt;         // the newest prompt the user typed
    std::optional<std::string> pendingCommand;  // a dangling Shell call's command
    bool operator==(const CursorSession&) const = default;
};

namespace CursorTranscriptReader {

namespace fs = std::filesystem;
using Entries = std::vector<JournalEntry>;

// How long a dangling call waits before it counts as asking the user:
// question 0 s, edit 3 s, run 8 s (a command still visibly running is not
// waiting; the monitor checks that against the process table).
int confirmationDelaySeconds(PendingApproval kind);
// A turn that has written nothing for this long is not making progress.
inline constexpr std::chrono::seconds kProgressWindow{600};
// A subagent transcript written within this long runs.
inline constexpr std::chrono::seconds kLiveSubagentWindow{120};
// Subagent writes within this long keep the conversation fresh.
inline constexpr std::chrono::seconds kSubagentActivityWindow{900};

// --- Files ----------------------------------------------------------------------

// The project folder's name for a path: without the leading "/", with every
// "/", "." and "_" replaced by "-" ("/Users/x/my_app" -> "Users-x-my-app").
std::string encodedDirName(std::string_view path);

struct Transcript {
    fs::path file;
    std::string sessionId;
    FileStamp stamp;
    Date modified{};  // the transcript's own
    bool operator==(const Transcript&) const = default;
};

// The conversations of one project folder, newest modification first.
std::vector<Transcript> transcripts(const fs::path& projectFolder);
// The conversation's "subagents" folder (agent-transcripts/<id>/subagents).
fs::path subagentsFolder(const fs::path& transcript);
// The newest modification among the subagent transcripts, if any.
std::optional<Date> newestSubagentMtime(const fs::path& transcript);

// The project's working directory: a terminal's "cwd:" line that encodes to
// the folder's name; else an absolute path the transcripts mention that does
// (or one of its parents); else nothing.
std::optional<std::string> projectCwd(const fs::path& projectFolder, const std::vector<fs::path>& transcripts);
std::optional<std::string> cwdFromTerminals(const fs::path& projectFolder);
std::optional<std::string> cwdFromText(std::string_view text, std::string_view folderName);

// --- One transcript -------------------------------------------------------------

// True when the file's first lines are Cursor transcript lines.
bool isTranscript(const fs::path& file);
Entries tailEntries(const fs::path& file);
// The conversation's facts, as of `now` (subagents are live by their age).
std::optional<CursorSession> session(const fs::path& transcript, const std::string& cwd, Date now);
// The facts of the newest transcript of the project at `cwd`.
std::optional<TranscriptInfo> infoForCwd(const fs::path& projectsRoot, const std::string& cwd, Date now);

// Every conversation modified (it or its subagents) within `maxAge` of `now`,
// or named in `keepAlive`, whose project's directory can be told.
std::vector<CursorSession> runningSessions(const fs::path& projectsRoot, std::chrono::seconds maxAge,
                                           const std::set<std::string>& keepAlive, Date now);

// --- Derivations over tail entries ------------------------------------------------

// The text inside "<user_query>…</user_query>", when there is one.
std::optional<std::string> userQuery(std::string_view text);
// What a dangling call of this tool waits as: read-only and bookkeeping
// tools none, "Shell" a run, "AskQuestion" a question, anything else an edit.
std::optional<PendingApproval> approvalClass(std::string_view toolName);

bool isInProgress(const Entries& entries);
std::optional<PendingApproval> pendingApproval(const Entries& entries);
// "Cursor is asking: …" for a dangling AskQuestion.
std::optional<std::string> askQuestion(const Entries& entries);
// The command of a dangling Shell call.
std::optional<std::string> pendingCommand(const Entries& entries);
bool endsWithQuestion(const Entries& entries);
bool awaitingFirstReply(const Entries& entries);
bool hasRealTurn(const Entries& entries);
bool wasInterrupted(const Entries& entries);
std::optional<std::string> summarize(const Entries& entries);
std::vector<ActivityLine> recentActivity(const Entries& entries, size_t limit = 8);
std::optional<std::string> newestPrompt(const Entries& entries);
std::optional<std::string> firstPrompt(const Entries& entries);

}  // namespace CursorTranscriptReader

}  // namespace scrivet
