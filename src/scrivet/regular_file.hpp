#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// Opening the agents' files safely. Every file the library reads sits in a
// folder other programs write to, so anything can stand where a journal
// should be: a FIFO (whose blocking open waits for a writer forever), a
// device, a socket. Every read here opens without blocking and goes on only
// when the open descriptor is a regular file; the check is made on the
// descriptor, so a file swapped after a stat() is caught too.
namespace scrivet {

// A regular file open for reading; closes itself. Empty (false) when the
// file is missing, unreadable or not a regular file.
class RegularFile {
public:
    explicit RegularFile(const std::filesystem::path& file);
    ~RegularFile();
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;

    explicit operator bool() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // The size when it was opened.
    uint64_t size() const { return size_; }

    // Reads up to `length` bytes from `offset`, within what the file held
    // when it was opened (fewer at its end); nothing on a read error.
    std::optional<std::string> readAt(uint64_t offset, uint64_t length) const;

    // The whole file when it holds at most `limit` bytes.
    static std::optional<std::string> readAll(const std::filesystem::path& file, uint64_t limit);
    // The first `length` bytes (fewer when the file is shorter).
    static std::optional<std::string> readHead(const std::filesystem::path& file, uint64_t length);
    // Appends `text` to a log file, creating it (0600) when missing; refuses
    // anything but a regular file and never waits.
    static bool append(const std::filesystem::path& file, std::string_view text);

    // The outcome of one read that says why it failed.
    struct Read {
        std::optional<std::string> text;  // the bytes, when they could be read
        bool missing = false;             // there is no file at all
        std::string why;                  // otherwise, why nothing was read ("not a regular file")
    };
    // Reads a whole regular file of at most `limit` bytes.
    static Read read(const std::filesystem::path& file, size_t limit);
    // Reads the file's first `bytes` bytes (fewer when it is shorter).
    static Read head(const std::filesystem::path& file, size_t bytes);

    // The window [size - window, size) of the file's end and where it starts;
    // `startsLine` is true when the window begins at the file's start or just
    // after a newline.
    struct Tail {
        std::string bytes;
        uint64_t start = 0;
        uint64_t fileSize = 0;
        bool startsLine = true;
    };
    static std::optional<Tail> tail(const std::filesystem::path& file, uint64_t window, std::string* why = nullptr);

    // True when `file` names a regular file (following links).
    static bool isRegular(const std::filesystem::path& file);

private:
    // Opens like the constructor, but says why it failed.
    RegularFile(const std::filesystem::path& file, Read& failure);
    void open(const std::filesystem::path& file, Read& failure);

    int fd_ = -1;
    uint64_t size_ = 0;
};

}  // namespace scrivet
