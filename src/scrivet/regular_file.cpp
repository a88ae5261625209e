#include "scrivet/regular_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace scrivet {

namespace {

// O_NONBLOCK: opening a FIFO would otherwise wait for a writer. It changes
// nothing for the reads of a regular file.
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

}  // namespace

RegularFile::RegularFile(const std::filesystem::path& file) {
    Read ignored;
    open(file, ignored);
}

RegularFile::RegularFile(const std::filesystem::path& file, Read& failure) { open(file, failure); }

void RegularFile::open(const std::filesystem::path& file, Read& failure) {
    int fd = ::open(file.c_str(), kReadFlags);
    if (fd < 0) {
        failure.missing = errno == ENOENT || errno == ENOTDIR;
        failure.why = std::strerror(errno);
        return;
    }
    struct stat st{};
    bool stated = ::fstat(fd, &st) == 0;
    if (!stated || !S_ISREG(st.st_mode)) {
        failure.why = stated ? "not a regular file" : std::strerror(errno);
        ::close(fd);
        return;
    }
    fd_ = fd;
    size_ = static_cast<uint64_t>(st.st_size);
}

RegularFile::~RegularFile() {
    if (fd_ >= 0) ::close(fd_);
}

std::optional<std::string> RegularFile::readAt(uint64_t offset, uint64_t length) const {
    if (fd_ < 0) return std::nullopt;
    // What the file held when opened is read, so no more is set aside for it.
    length = std::min(length, size_ > offset ? size_ - offset : 0);
    std::string out(length, '\0');
    uint64_t done = 0;
    while (done < length) {
        ssize_t n = ::pread(fd_, out.data() + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (n == 0) break;  // the file ended (or shrank under us)
        done += static_cast<uint64_t>(n);
    }
    out.resize(done);
    return out;
}

std::optional<std::string> RegularFile::readAll(const std::filesystem::path& file, uint64_t limit) {
    RegularFile f(file);
    if (!f || f.size() > limit) return std::nullopt;
    return f.readAt(0, f.size());  // what it held when opened
}

std::optional<std::string> RegularFile::readHead(const std::filesystem::path& file, uint64_t length) {
    RegularFile f(file);
    if (!f) return std::nullopt;
    return f.readAt(0, length);
}

bool RegularFile::append(const std::filesystem::path& file, std::string_view text) {
    // Without a reader, a FIFO refuses a non-blocking open for writing (ENXIO).
    int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd < 0) return false;
    struct stat st{};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    while (ok && !text.empty()) {
        ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        text.remove_prefix(static_cast<size_t>(n));
    }
    ::close(fd);
    return ok;
}

RegularFile::Read RegularFile::read(const std::filesystem::path& file, size_t limit) {
    Read result;
    RegularFile f(file, result);
    if (!f) return result;
    if (f.size() > limit) {
        result.why = "larger than " + std::to_string(limit) + " bytes";
        return result;
    }
    result.text = f.readAt(0, f.size());
    if (!result.text) result.why = "read failed";
    return result;
}

RegularFile::Read RegularFile::head(const std::filesystem::path& file, size_t bytes) {
    Read result;
    RegularFile f(file, result);
    if (!f) return result;
    result.text = f.readAt(0, std::min<uint64_t>(bytes, f.size()));
    if (!result.text) result.why = "read failed";
    return result;
}

std::optional<RegularFile::Tail> RegularFile::tail(const std::filesystem::path& file, uint64_t window,
                                                   std::string* why) {
    Read failure;
    RegularFile f(file, failure);
    auto fail = [&](std::string reason) -> std::optional<Tail> {
        if (why) *why = std::move(reason);
        return std::nullopt;
    };
    if (!f) return fail(failure.why);
    Tail t;
    t.fileSize = f.size();
    t.start = t.fileSize > window ? t.fileSize - window : 0;
    if (t.start > 0) {
        auto before = f.readAt(t.start - 1, 1);
        if (!before || before->size() != 1) return fail("read failed");
        t.startsLine = (*before)[0] == '\n';
    }
    auto bytes = f.readAt(t.start, t.fileSize - t.start);
    if (!bytes) return fail("read failed");
    t.bytes = std::move(*bytes);
    return t;
}

bool RegularFile::isRegular(const std::filesystem::path& file) {
    struct stat st{};
    return ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace scrivet
