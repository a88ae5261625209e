#include "scrivet/regular_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace scrivet::RegularFile {

namespace {

// An open descriptor that is closed when it goes.
struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

// Opens without blocking and checks the descriptor is a regular file.
bool openRegular(const std::filesystem::path& file, Fd& out, struct stat& st, Read& result) {
    out.fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (out.fd < 0) {
        result.missing = errno == ENOENT || errno == ENOTDIR;
        result.why = std::strerror(errno);
        return false;
    }
    if (::fstat(out.fd, &st) != 0) {
        result.why = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        result.why = "not a regular file";
        return false;
    }
    return true;
}

bool readAt(int fd, uint64_t offset, uint64_t length, std::string& out, std::string& why) {
    out.resize(length);
    uint64_t done = 0;
    while (done < length) {
        ssize_t n = ::pread(fd, out.data() + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            why = std::strerror(errno);
            return false;
        }
        if (n == 0) break;  // the file shrank while we read
        done += static_cast<uint64_t>(n);
    }
    out.resize(done);
    return true;
}

}  // namespace

Read read(const std::filesystem::path& file, size_t limit) {
    Read result;
    Fd fd;
    struct stat st{};
    if (!openRegular(file, fd, st, result)) return result;
    if (static_cast<uint64_t>(st.st_size) > limit) {
        result.why = "larger than " + std::to_string(limit) + " bytes";
        return result;
    }
    std::string text;
    if (!readAt(fd.fd, 0, static_cast<uint64_t>(st.st_size), text, result.why)) return result;
    result.text = std::move(text);
    return result;
}

Read head(const std::filesystem::path& file, size_t bytes) {
    Read result;
    Fd fd;
    struct stat st{};
    if (!openRegular(file, fd, st, result)) return result;
    std::string text;
    uint64_t length = std::min<uint64_t>(bytes, static_cast<uint64_t>(st.st_size));
    if (!readAt(fd.fd, 0, length, text, result.why)) return result;
    result.text = std::move(text);
    return result;
}

std::optional<Tail> tail(const std::filesystem::path& file, uint64_t window, std::string* why) {
    Read result;
    Fd fd;
    struct stat st{};
    if (!openRegular(file, fd, st, result)) {
        if (why) *why = result.why;
        return std::nullopt;
    }
    Tail t;
    t.fileSize = static_cast<uint64_t>(st.st_size);
    t.start = t.fileSize > window ? t.fileSize - window : 0;
    if (t.start > 0) {
        char before = '\n';
        if (::pread(fd.fd, &before, 1, static_cast<off_t>(t.start - 1)) != 1) {
            if (why) *why = "read failed";
            return std::nullopt;
        }
        t.startsLine = before == '\n';
    }
    std::string reason;
    if (!readAt(fd.fd, t.start, t.fileSize - t.start, t.bytes, reason)) {
        if (why) *why = reason;
        return std::nullopt;
    }
    return t;
}

bool isRegular(const std::filesystem::path& file) {
    struct stat st{};
    return ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace scrivet::RegularFile
