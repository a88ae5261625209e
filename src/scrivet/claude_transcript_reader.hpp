#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scrivet/transcript_records.hpp"

// Turns the JSON-lines journal that Claude Code (and hosts built on the agent
// SDK) writes for each session into TranscriptInfo. Stateless apart from two
// small process-wide caches, each behind its own lock.
namespace scrivet::ClaudeTranscriptReader {

namespace fs = std::filesystem;

// The folder name Claude Code gives a working directory: every "/" and "."
// replaced by "-" ("/Users/x/my.app" -> "-Users-x-my-app").
std::string encodedDirName(const std::string& cwd);
// <projectsRoot>/<encoded cwd>/<sessionId>.jsonl
fs::path transcriptURL(const fs::path& projectsRoot, const std::string& cwd, const std::string& sessionId);
// The folder's ".jsonl" files, newest modification first, at most `limit`.
std::vector<fs::path> recentTranscripts(const fs::path& folder, size_t limit);

// The facts of one journal, or nothing when it is missing, unreadable or holds
// no parseable entry. `claudeConfig` is ~/.claude.json (for the context tier).
std::optional<TranscriptInfo> info(const fs::path& file, const std::string& cwd, const fs::path& claudeConfig);
// The facts of the newest journal in the working directory's project folder.
std::optional<TranscriptInfo> infoForCwd(const fs::path& projectsRoot, const std::string& cwd,
                                         const fs::path& claudeConfig);

}  // namespace scrivet::ClaudeTranscriptReader
