#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scrivet/background_ledger.hpp"
#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/transcript_records.hpp"

// Turns the JSON-lines journal that Claude Code (and hosts built on the agent
// SDK) writes for each session into TranscriptInfo. Stateless apart from a few
// small process-wide caches, each behind its own lock: the background ledgers,
// the set of already-logged unknown tags, the parsed ~/.claude.json and the
// subagent launches of parent journals.
namespace scrivet::ClaudeTranscriptReader {

namespace fs = std::filesystem;

// The folder name Claude Code gives a working directory: every "/" and "."
// replaced by "-" ("/Users/x/my.app" -> "-Users-x-my-app").
std::string encodedDirName(const std::string& cwd);
// <projectsRoot>/<encoded cwd>/<sessionId>.jsonl
fs::path transcriptURL(const fs::path& projectsRoot, const std::string& cwd, const std::string& sessionId);
// The folder's ".jsonl" files, newest modification first, at most `limit`.
std::vector<fs::path> recentTranscripts(const fs::path& folder, size_t limit);

// How a read sees the world beyond the journal.
struct ReadOptions {
    Date now = std::chrono::system_clock::now();
    // Claude Code's background-task output folder (<temp>/claude-<uid>); empty
    // means the system temporary folder's.
    fs::path claudeTempFolder;
};

// The facts of one journal, or nothing when it is missing, unreadable or holds
// no parseable entry. `claudeConfig` is ~/.claude.json (for the context tier).
std::optional<TranscriptInfo> info(const fs::path& file, const std::string& cwd, const fs::path& claudeConfig);
std::optional<TranscriptInfo> info(const fs::path& file, const std::string& cwd, const fs::path& claudeConfig,
                                   const ReadOptions& options);
// The facts of the newest journal in the working directory's project folder.
std::optional<TranscriptInfo> infoForCwd(const fs::path& projectsRoot, const std::string& cwd,
                                         const fs::path& claudeConfig);

// The newest journals of the cwd's project folder (sessions in `excluding`
// left out), ranked by liveness and cut to `limit`. Reads only a few more
// journals than it returns, however many the folder holds.
std::vector<TranscriptInfo> recentInfos(const fs::path& projectsRoot, const std::string& cwd, size_t limit,
                                        const std::set<std::string>& excluding, const fs::path& claudeConfig,
                                        const ReadOptions& options = {});

// Sessions with live work (a running subagent, or pending background agents
// backed by recent subagent activity) first, then newer journals first; at
// most `limit`.
std::vector<TranscriptInfo> rankedByLiveness(std::vector<TranscriptInfo> infos, size_t limit);

// The newest "ai-title" entry's "aiTitle" in a journal's tail.
std::optional<std::string> aiTitle(const fs::path& file);
std::optional<std::string> aiTitleForCwd(const fs::path& projectsRoot, const std::string& cwd,
                                         const std::string& sessionId);

// The working directory the journal's newest entries record.
std::optional<std::string> recordedCwd(const fs::path& file);

// The tail entries the reader derives from (conversation, system and title
// entries of the tail window; bookkeeping entries are skipped unparsed).
std::vector<JournalEntry> tailEntries(const fs::path& file);

// Where user texts that start with an unknown markup tag are noted, once per
// tag, in "unknown-shapes.log"; unset (the default) notes nothing.
void setDiagnosticLogDirectory(std::optional<fs::path> directory);
// Notes the unknown tags among `entries` (see above).
void noteUnknownShapes(const std::vector<JournalEntry>& entries);

// Builds the info from tail entries already read; the file supplies the
// dates, the ledger and the subagents.
TranscriptInfo infoFromEntries(const std::vector<JournalEntry>& entries, const fs::path& file,
                               const std::string& cwd, const fs::path& claudeConfig, const ReadOptions& options);

}  // namespace scrivet::ClaudeTranscriptReader
