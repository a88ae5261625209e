#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "scrivet/transcript_records.hpp"

// The Claude desktop app's index of the Claude Code sessions it started:
// "claude-code-sessions/" in its data folder, one JSON object per file with
// `cliSessionId` (the Claude Code session it stands for), `title`,
// `isArchived` and `lastActivityAt` (ISO 8601 text or milliseconds since 1970).
namespace scrivet::ClaudeDesktopSessionIndex {

struct Entry {
    std::string cliSessionId;
    std::optional<std::string> title;
    bool isArchived = false;
    std::optional<Date> lastActivityAt;
    std::optional<std::string> cwd;  // when the entry names its working directory
    bool operator==(const Entry&) const = default;
};

// Every entry of the folder (torn or foreign files are skipped; one entry per
// session, the newest activity winning), newest activity first. A missing
// folder gives nothing.
std::vector<Entry> read(const std::filesystem::path& folder);
// The entries the panel shows: archived ones are hidden.
std::vector<Entry> visible(const std::vector<Entry>& entries);

// Parses one file's text; nothing when it is not an entry.
std::optional<Entry> parse(std::string_view text);

}  // namespace scrivet::ClaudeDesktopSessionIndex
