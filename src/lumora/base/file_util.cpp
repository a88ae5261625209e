#include "lumora/base/file_util.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

namespace lumora::FileUtil {

std::optional<std::string> readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return buffer.str();
}

bool writeAtomically(const std::filesystem::path& requested, std::string_view contents, unsigned mode) {
    std::error_code ec;
    std::filesystem::path file = requested;
    // Dotfile managers keep configs as links: write through to the target.
    if (std::filesystem::is_symlink(file, ec)) {
        auto target = std::filesystem::read_symlink(file, ec);
        if (ec) return false;
        file = target.is_absolute() ? target : (requested.parent_path() / target);
    }
    struct stat existing{};
    if (::stat(file.c_str(), &existing) == 0) mode = existing.st_mode & 07777;

    std::random_device rd;
    std::string tmp = file.string() + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(rd());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) return false;
    ::fchmod(fd, mode);
    const char* p = contents.data();
    size_t left = contents.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    ok = ok && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok && ::rename(tmp.c_str(), file.c_str()) == 0) return true;
    ::unlink(tmp.c_str());
    return false;
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
