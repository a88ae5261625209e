#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

#include "scrivet/journal_entry.hpp"
#include "scrivet/tail_reader.hpp"

// The tail-window technique for journals whose conversation entries are not
// typed "user"/"assistant" (Codex rollouts, Cursor transcripts): the same
// windows (64 KiB, 512 KiB, 4 MiB), grown while the caller says the window
// holds no turn yet. Files are opened without blocking and only when the
// descriptor is a regular file, so a FIFO or a device named like a journal
// never stalls a scan.
namespace scrivet::JournalTail {

namespace fs = std::filesystem;

// A line longer than this is never read whole (a binary file, or a runaway
// line): readers give up on it.
inline constexpr uint64_t kMaxLongLine = 32 * 1024 * 1024;

// Opens `file` read-only and non-blocking; returns the descriptor when it is a
// regular file (and its size in `size`), else -1. The caller closes it.
int openRegular(const fs::path& file, uint64_t* size = nullptr);

struct Options {
    size_t lineLimit = 1000;
    // Which entries to keep, by their "type" (empty keeps all).
    TailReader::TypeFilter keep;
    // True when the kept entries hold enough to stop growing the window;
    // unset means "any entry".
    std::function<bool(const std::vector<JournalEntry>&)> enough;
    // When even the largest window starts inside one line and holds nothing
    // else, read that line whole (up to kMaxLongLine): a single giant line is
    // still an entry.
    bool wholeLongLine = false;
};

// The kept entries of the file's tail, oldest first. A missing, unreadable
// or non-regular file gives an empty window. Never throws.
TailReader::Window read(const fs::path& file, const Options& options);

// The JSON objects among the first `maxBytes` of the file, in file order,
// at most `lineLimit` of them; a line cut by `maxBytes` is left out. The first
// line is read whole up to `firstLineMax` even when it is longer than
// `maxBytes` (Codex's first line carries the whole system prompt).
// `enough`, when given, is asked after each entry and ends the read early.
std::vector<JournalEntry> head(const fs::path& file, size_t maxBytes, size_t lineLimit,
                               size_t firstLineMax = 1024 * 1024,
                               const std::function<bool(const std::vector<JournalEntry>&)>& enough = {});

}  // namespace scrivet::JournalTail
