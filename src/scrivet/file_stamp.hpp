#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>

// The library's one place that asks the operating system about a file, so
// the readers stay the same on every system.
namespace scrivet {

// What identifies a file's contents between two looks at it.
struct FileStamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t size = 0;
    int64_t mtimeNanos = 0;
    bool operator==(const FileStamp&) const = default;
};

// The stamp of a regular file, or nothing when it can't be read or is not one.
std::optional<FileStamp> stamp(const std::filesystem::path& file);

// When the file last changed, and when it was made (where the file system keeps that).
std::optional<std::chrono::system_clock::time_point> modificationDate(const std::filesystem::path& file);
std::optional<std::chrono::system_clock::time_point> creationDate(const std::filesystem::path& file);

}  // namespace scrivet
