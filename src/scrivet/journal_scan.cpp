#include "scrivet/journal_scan.hpp"

#include <fcntl.h>
#include <simdjson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "scrivet/regular_file.hpp"

namespace scrivet::JournalScan {

namespace {

constexpr size_t kChunk = 1024 * 1024;  // grown only for a longer line
constexpr size_t kMinChunk = 4096;
// A line longer than this is no line a scan looks for (a binary file, or a
// giant tool result): it is skipped rather than held in memory.
constexpr size_t kMaxLine = 64 * 1024 * 1024;
constexpr size_t kPadding = simdjson::SIMDJSON_PADDING;

// Hands on the lines of `region` (complete lines only) that hold a needle.
void processRegion(const char* region, size_t len, const std::vector<std::string_view>& needles,
                   std::vector<std::pair<size_t, size_t>>& hits,
                   const std::function<void(std::string_view)>& onLine) {
    hits.clear();
    for (auto needle : needles) {
        if (needle.empty()) continue;
        size_t pos = 0;
        while (pos < len) {
            const void* found = ::memmem(region + pos, len - pos, needle.data(), needle.size());
            if (!found) break;
            size_t at = static_cast<size_t>(static_cast<const char*>(found) - region);
            const void* nlBefore = at ? ::memrchr(region, '\n', at) : nullptr;
            size_t begin = nlBefore ? static_cast<size_t>(static_cast<const char*>(nlBefore) - region) + 1 : 0;
            const void* nlAfter = ::memchr(region + at, '\n', len - at);
            size_t end = nlAfter ? static_cast<size_t>(static_cast<const char*>(nlAfter) - region) : len;
            hits.emplace_back(begin, end);
            pos = end + 1;
        }
    }
    if (hits.empty()) return;
    std::sort(hits.begin(), hits.end());
    hits.erase(std::unique(hits.begin(), hits.end()), hits.end());
    for (auto [begin, end] : hits) onLine(std::string_view(region + begin, end - begin));
}

}  // namespace

std::optional<uint64_t> scan(const std::filesystem::path& file, uint64_t from,
                             const std::vector<std::string_view>& needles,
                             const std::function<void(std::string_view)>& onLine) {
    RegularFile journal(file);
    if (!journal) return std::nullopt;
    int fd = journal.fd();
    ::posix_fadvise(fd, static_cast<off_t>(from), 0, POSIX_FADV_SEQUENTIAL);
    // Most scans read the few lines appended since the last one: the buffer
    // is sized to what there is to read, up to a chunk.
    uint64_t size = journal.size();
    size_t first = size > from ? static_cast<size_t>(std::min<uint64_t>(kChunk, size - from)) : 0;
    std::vector<char> buffer(std::max(first, kMinChunk) + kPadding, '\0');
    std::vector<std::pair<size_t, size_t>> hits;
    size_t have = 0;          // bytes in the buffer not yet handed on
    uint64_t offset = from;   // file offset of buffer[0]
    bool skipping = false;    // inside an overlong line, dropping bytes to its end
    uint64_t skipStart = 0;   // where that line began
    for (;;) {
        size_t room = buffer.size() - kPadding;
        if (have == room) {
            if (room >= kMaxLine) {
                if (!skipping) skipStart = offset;
                skipping = true;
                offset += have;
                have = 0;
            } else {
                // One line longer than the buffer: grow until it fits.
                buffer.resize(room * 2 + kPadding, '\0');
                room = buffer.size() - kPadding;
            }
        }
        ssize_t n = ::pread(fd, buffer.data() + have, room - have, static_cast<off_t>(offset + have));
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (n == 0) break;
        size_t fresh = have;
        have += static_cast<size_t>(n);
        if (skipping) {
            const void* nl = ::memchr(buffer.data() + fresh, '\n', have - fresh);
            if (!nl) continue;
            size_t dropped = static_cast<size_t>(static_cast<const char*>(nl) - buffer.data()) + 1;
            std::memmove(buffer.data(), buffer.data() + dropped, have - dropped);
            have -= dropped;
            offset += dropped;
            skipping = false;
        }
        const void* lastNl = ::memrchr(buffer.data(), '\n', have);
        if (!lastNl) continue;
        size_t complete = static_cast<size_t>(static_cast<const char*>(lastNl) - buffer.data()) + 1;
        processRegion(buffer.data(), complete, needles, hits, onLine);
        std::memmove(buffer.data(), buffer.data() + complete, have - complete);
        have -= complete;
        offset += complete;
    }
    return skipping ? skipStart : offset;
}

void scanBytes(std::string_view bytes, const std::vector<std::string_view>& needles,
               const std::function<void(std::string_view)>& onLine) {
    std::string padded(bytes);
    padded.append(kPadding, '\0');
    std::vector<std::pair<size_t, size_t>> hits;
    processRegion(padded.data(), bytes.size(), needles, hits, onLine);
}

bool endsLineAt(const std::filesystem::path& file, uint64_t offset) {
    if (offset == 0) return true;
    RegularFile journal(file);
    auto byte = journal.readAt(offset - 1, 1);
    return byte && *byte == "\n";
}

std::optional<uint64_t> nextLineStart(const std::filesystem::path& file, uint64_t offset) {
    RegularFile journal(file);
    if (!journal) return std::nullopt;
    if (offset == 0) return 0;
    if (offset > journal.size()) return journal.size();
    constexpr uint64_t kStep = 64 * 1024;
    for (uint64_t at = offset - 1; at < journal.size(); at += kStep) {
        auto bytes = journal.readAt(at, kStep);
        if (!bytes) return std::nullopt;
        if (bytes->empty()) break;
        if (auto nl = bytes->find('\n'); nl != std::string::npos) return at + nl + 1;
    }
    return journal.size();
}

}  // namespace scrivet::JournalScan
