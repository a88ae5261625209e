#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace lumora {

// What identifies a file's contents between two looks at it: which file it
// is, how long, and when it last changed.
struct FileStamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t size = 0;
    int64_t mtimeNanos = 0;  // modification time, nanoseconds since 1970
    bool regular = false;    // a regular file (not a folder, FIFO, device or socket)

    // The stamp of what `file` names (links followed); nothing when it can't be read.
    static std::optional<FileStamp> of(const std::filesystem::path& file);
    // The stamp of an open descriptor.
    static std::optional<FileStamp> ofDescriptor(int fd);

    std::chrono::system_clock::time_point modified() const {
        return std::chrono::system_clock::time_point(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(mtimeNanos)));
    }
    bool operator==(const FileStamp&) const = default;
};

}  // namespace lumora
