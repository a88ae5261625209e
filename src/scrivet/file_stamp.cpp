#include "scrivet/file_stamp.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace scrivet {

namespace {
using Date = std::chrono::system_clock::time_point;

Date fromTimespec(int64_t seconds, int64_t nanoseconds) {
    return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::seconds(seconds) +
                                                                std::chrono::nanoseconds(nanoseconds));
}
}  // namespace

std::optional<FileStamp> stamp(const std::filesystem::path& file) {
    struct stat st{};
    if (::stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    return FileStamp{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                     static_cast<uint64_t>(st.st_size),
                     static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec};
}

std::optional<Date> modificationDate(const std::filesystem::path& file) {
    struct stat st{};
    if (::stat(file.c_str(), &st) != 0) return std::nullopt;
    return fromTimespec(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

std::optional<Date> creationDate(const std::filesystem::path& file) {
    struct statx sx{};
    if (::statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &sx) != 0 || !(sx.stx_mask & STATX_BTIME))
        return std::nullopt;
    return fromTimespec(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
}

}  // namespace scrivet
