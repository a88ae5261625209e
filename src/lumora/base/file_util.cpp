#include "lumora/base/file_util.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

namespace lumora::FileUtil {

namespace {

std::string sizeWords(size_t bytes) {
    if (bytes >= (1u << 20) && bytes % (1u << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " bytes";
}

}  // namespace

ReadResult read(const std::filesystem::path& file, size_t limit) {
    ReadResult r;
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT) r.outcome = ReadResult::Outcome::missing;
        else r.why = std::strerror(errno);
        return r;
    }
    struct stat st{};
    if (::fstat(fd, &st) != 0) {
        r.why = std::strerror(errno);
    } else if (!S_ISREG(st.st_mode)) {
        r.why = S_ISDIR(st.st_mode) ? "a folder, not a file" : "not a regular file";
    } else if (static_cast<uint64_t>(st.st_size) > limit) {
        r.why = "larger than " + sizeWords(limit);
    } else {
        r.text.reserve(static_cast<size_t>(st.st_size));
        char buf[65536];
        for (;;) {
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                r.why = std::strerror(errno);
                break;
            }
            if (n == 0) {
                r.outcome = ReadResult::Outcome::ok;
                break;
            }
            if (r.text.size() + static_cast<size_t>(n) > limit) {  // grew while we read
                r.why = "larger than " + sizeWords(limit);
                break;
            }
            r.text.append(buf, static_cast<size_t>(n));
        }
    }
    ::close(fd);
    if (!r.ok()) r.text.clear();
    return r;
}

std::optional<std::string> readFile(const std::filesystem::path& file, size_t limit) {
    auto r = read(file, limit);
    if (!r.ok()) return std::nullopt;
    return std::move(r.text);
}

Status writeAtomically(const std::filesystem::path& requested, std::string_view contents, unsigned mode) {
    std::error_code ec;
    std::filesystem::path file = requested;
    // Dotfile managers keep configs as links: write through to the target.
    if (std::filesystem::is_symlink(file, ec)) {
        auto target = std::filesystem::read_symlink(file, ec);
        if (ec) return Status::failure(ec.message());
        file = target.is_absolute() ? target : (requested.parent_path() / target);
    }
    struct stat existing{};
    if (::stat(file.c_str(), &existing) == 0) mode = existing.st_mode & 07777;

    std::random_device rd;
    std::string tmp = file.string() + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(rd());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) return Status::fromErrno(errno);
    ::fchmod(fd, mode);
    const char* p = contents.data();
    size_t left = contents.size();
    int error = 0;
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = errno;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (!error && ::fsync(fd) != 0) error = errno;
    if (::close(fd) != 0 && !error) error = errno;
    if (!error && ::rename(tmp.c_str(), file.c_str()) != 0) error = errno;
    if (!error) return Status::success();
    ::unlink(tmp.c_str());
    return Status::fromErrno(error);
}

void appendLine(const std::filesystem::path& file, std::string_view line) {
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return;
    std::string text(line);
    text += '\n';
    ssize_t n = ::write(fd, text.data(), text.size());
    (void)n;
    ::close(fd);
}

}  // namespace lumora::FileUtil
