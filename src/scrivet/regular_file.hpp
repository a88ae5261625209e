#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

// Reading the small files and journal tails the library meets in other
// programs' folders. Every open is non-blocking and only a regular file is
// read, so a FIFO, a device or a folder where a file should be is refused at
// once instead of hanging the scan.
namespace scrivet::RegularFile {

// The outcome of one read.
struct Read {
    std::optional<std::string> text;  // the bytes, when they could be read
    bool missing = false;             // there is no file at all
    std::string why;                  // otherwise, why nothing was read ("not a regular file")
};

// Reads a whole regular file of at most `limit` bytes.
Read read(const std::filesystem::path& file, size_t limit);

// Reads the file's first `bytes` bytes (fewer when it is shorter).
Read head(const std::filesystem::path& file, size_t bytes);

// Reads the window [size - window, size) of the file's end and tells where it
// starts; `startsLine` is true when the window begins at the file's start or
// just after a newline.
struct Tail {
    std::string bytes;
    uint64_t start = 0;
    uint64_t fileSize = 0;
    bool startsLine = true;
};
std::optional<Tail> tail(const std::filesystem::path& file, uint64_t window, std::string* why = nullptr);

// True when `file` names a regular file (following links).
bool isRegular(const std::filesystem::path& file);

}  // namespace scrivet::RegularFile
