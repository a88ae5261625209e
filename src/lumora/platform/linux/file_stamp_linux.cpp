#include <sys/stat.h>

#include "lumora/platform/file_stamp.hpp"

namespace lumora {

namespace {
FileStamp fromStat(const struct stat& st) {
    return FileStamp{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                     static_cast<uint64_t>(st.st_size),
                     static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec, S_ISREG(st.st_mode)};
}
}  // namespace

std::optional<FileStamp> FileStamp::of(const std::filesystem::path& file) {
    struct stat st{};
    if (::stat(file.c_str(), &st) != 0) return std::nullopt;
    return fromStat(st);
}

std::optional<FileStamp> FileStamp::ofDescriptor(int fd) {
    struct stat st{};
    if (::fstat(fd, &st) != 0) return std::nullopt;
    return fromStat(st);
}

}  // namespace lumora
