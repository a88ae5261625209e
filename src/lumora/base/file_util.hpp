#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/base/status.hpp"

// Small file helpers shared by everything that reads or writes state.
//
// Every read opens the file without blocking and reads it only when the open
// descriptor is a regular file: a FIFO, a device or a socket where a file
// should be is refused at once, never waited on.
namespace lumora::FileUtil {

// What most of our files may grow to before a read refuses them.
inline constexpr size_t kDefaultReadLimit = 64u << 20;

// The outcome of reading a whole file.
struct ReadResult {
    enum class Outcome { ok, missing, failed };
    Outcome outcome = Outcome::failed;
    std::string text;  // when ok
    std::string why;   // when failed: "Permission denied", "not a regular file", "larger than 8 MiB"

    bool ok() const { return outcome == Outcome::ok; }
    bool missing() const { return outcome == Outcome::missing; }
};

// Reads a regular file of at most `limit` bytes; tells a missing file from
// one that exists but cannot be read, so an editor never mistakes an
// unreadable file for an empty one.
ReadResult read(const std::filesystem::path& file, size_t limit = kDefaultReadLimit);

// The whole file, or nothing when it is missing or cannot be read.
std::optional<std::string> readFile(const std::filesystem::path& file, size_t limit = kDefaultReadLimit);

// Writes `contents` to a temporary file in the same folder, syncs it and
// renames it over `file`, so readers see the old or the new file, never a
// torn one. When `file` is a symbolic link the link stays and its target is
// replaced. A new file gets `mode`; an existing one keeps its permissions.
// On failure `file` is untouched and the status says why ("No space left on device").
Status writeAtomically(const std::filesystem::path& file, std::string_view contents, unsigned mode = 0644);

// Appends one line (a newline is added) to a log file, creating it with mode 0600.
void appendLine(const std::filesystem::path& file, std::string_view line);

}  // namespace lumora::FileUtil
