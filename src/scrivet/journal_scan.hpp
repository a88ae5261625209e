#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "scrivet/file_stamp.hpp"

// Reading a whole journal (or what it grew by) fast: only the lines that
// contain one of a few needles are handed on, so a caller parses a handful of
// lines out of hundreds of megabytes.
namespace scrivet::JournalScan {

// Calls `onLine` (in file order) with each complete line between `from` and
// the file's last newline that contains one of `needles`. Each line handed on
// has at least simdjson's padding of readable bytes after it. Returns the
// offset just past the last complete line, or nothing when the file can't be
// read. A torn last line (no newline yet) is left for the next scan.
std::optional<uint64_t> scan(const std::filesystem::path& file, uint64_t from,
                             const std::vector<std::string_view>& needles,
                             const std::function<void(std::string_view line)>& onLine);

// The same over bytes in memory (all of them, ending newline or not).
void scanBytes(std::string_view bytes, const std::vector<std::string_view>& needles,
               const std::function<void(std::string_view line)>& onLine);

// True when the byte just before `offset` is a newline (or offset is 0): a
// cheap check that a file still has a line boundary where a scan stopped.
bool endsLineAt(const std::filesystem::path& file, uint64_t offset);

// Where the first line that begins at or after `offset` starts: `offset`
// itself on a line boundary, else just past the next newline (the file's
// size when none follows). Nothing when the file can't be read.
std::optional<uint64_t> nextLineStart(const std::filesystem::path& file, uint64_t offset);

}  // namespace scrivet::JournalScan
