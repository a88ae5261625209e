#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/platform/process_table.hpp"
#include "scrivet/transcript_records.hpp"

// Claude Code's session index: one JSON file per running interactive session
// in ~/.claude/sessions, naming the process and its session. A record that
// matches a live `claude` process ties that process to its session exactly.
namespace lumora::ClaudeSessionIndex {

namespace fs = std::filesystem;
using scrivet::Date;

// One session file.
struct Record {
    int32_t pid = 0;
    std::string sessionId;  // a UUID
    std::string cwd;        // absolute
    Date startedAt{};
    // The process's start in clock ticks since boot, when the file says it.
    std::optional<uint64_t> procStart;
    std::optional<std::string> status;      // "busy", "idle", "waiting"
    std::optional<std::string> waitingFor;  // "permission prompt", "input needed"
    std::optional<Date> statusUpdatedAt;
    std::optional<std::string> tmux;        // the pane, "session:@window.%pane"
    std::optional<std::string> entrypoint;  // "cli", ...
    std::optional<std::string> name;
    bool operator==(const Record&) const = default;
};

// How far a live process's start may lie from the file's `startedAt`. The
// file is written a moment after the process starts, and the wall clock may
// be stepped a little between the two readings; a reused pid is normally
// hours off. When the file carries `procStart` it is compared exactly instead.
inline constexpr std::chrono::seconds kStartTolerance{300};

// True for the 8-4-4-4-12 hexadecimal form.
bool isUUID(std::string_view text);

// One file's record, or nothing when the JSON is torn, `cwd` is missing or
// relative, `sessionId` is not a UUID, `pid` is 0 or `startedAt` is missing.
std::optional<Record> parse(std::string_view json);

// Every valid record in the folder's "*.json" files (the "*.key" files beside
// them are not records). A missing folder gives nothing.
std::vector<Record> read(const fs::path& folder);

// The records that belong to live `claude` processes of the snapshot, one per
// session: a dead pid, a pid now running something else, or a start that does
// not match is dropped; of several records of one session the newest process
// birth wins.
std::vector<Record> validate(const std::vector<Record>& records, const ProcessSnapshot& snapshot,
                             std::chrono::seconds tolerance = kStartTolerance);

}  // namespace lumora::ClaudeSessionIndex
