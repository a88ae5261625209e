#include "lumora/spend/line_scanner.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lumora {

namespace {

// Readable bytes kept after every buffer: enough for simdjson and for the needle search.
constexpr size_t kPad = std::max<size_t>(simdjson::SIMDJSON_PADDING, NeedleFinder::kReadAhead);

}  // namespace

// Where the bytes come from: an open file or bytes in memory.
struct LineScanner::Source {
    int fd = -1;
    std::string_view bytes;

    // Up to `n` bytes at `offset`; 0 at the end, -1 on an error.
    ssize_t read(char* into, size_t n, uint64_t offset) const {
        if (fd < 0) {
            if (offset >= bytes.size()) return 0;
            size_t k = std::min<size_t>(n, bytes.size() - offset);
            std::memcpy(into, bytes.data() + offset, k);
            return static_cast<ssize_t>(k);
        }
        for (;;) {
            ssize_t got = ::pread(fd, into, n, static_cast<off_t>(offset));
            if (got >= 0 || errno != EINTR) return got;
        }
    }
};

void LineScanner::Reducer::reset() {
    size = 0;
    kept = 0;
    inString = escaped = overflowed = failed = false;
    stringStart = 0;
}

void LineScanner::Reducer::feed(const char* p, size_t n) {
    for (size_t i = 0; i < n && !failed; ++i) {
        char c = p[i];
        if (!inString) {
            if (size >= cap) {
                failed = true;
                return;
            }
            out[size++] = c;
            if (c == '"') {
                inString = true;
                escaped = overflowed = false;
                kept = 0;
                stringStart = size;
            }
            continue;
        }
        bool closes = false;
        if (escaped) escaped = false;
        else if (c == '\\') escaped = true;
        else if (c == '"') closes = true;
        if (closes) {
            inString = false;
            if (size >= cap) {
                failed = true;
                return;
            }
            out[size++] = '"';
            continue;
        }
        if (overflowed) continue;
        if (size >= cap) {
            failed = true;
            return;
        }
        if (kept >= keptLimit) {
            // Too long to keep: the string will read as "".
            overflowed = true;
            size = stringStart;
            continue;
        }
        out[size++] = c;
        ++kept;
    }
}

LineScanner::LineScanner(std::vector<std::string> needles) : LineScanner(std::move(needles), Limits{}) {}

LineScanner::LineScanner(std::vector<std::string> needles, Limits limits)
    : finder_(std::move(needles)), limits_(limits) {
    limits_.buffer = std::max<size_t>(limits_.buffer, 4096);
    limits_.directLine = std::min(limits_.directLine, limits_.buffer);
    buffer_.assign(limits_.buffer + kPad, '\0');
    scratch_.assign(std::min<size_t>(limits_.buffer, 256u << 10), '\0');
    reducer_.cap = limits_.reducedLine;
    reducer_.keptLimit = limits_.keptString;
    reducer_.out.assign(limits_.reducedLine + kPad, '\0');
}

void LineScanner::emit(const char* line, size_t len, size_t capacity, uint64_t offset, const Source&,
                       const OnLine& onLine) {
    if (len <= limits_.directLine) {
        onLine(simdjson::padded_string_view(line, len, capacity), offset);
        return;
    }
    reducer_.reset();
    reducer_.feed(line, len);
    if (reducer_.failed || reducer_.inString) {
        ++skipped_;
        return;
    }
    onLine(simdjson::padded_string_view(reducer_.out.data(), reducer_.size, reducer_.out.size()), offset);
}

void LineScanner::region(const char* data, size_t len, uint64_t base, size_t capacity, const Source& src,
                         const OnLine& onLine) {
    size_t pos = 0;  // always at the start of a line
    while (pos < len) {
        size_t hit = finder_.next(data, len, pos);
        if (hit == NeedleFinder::npos) return;
        const void* before = hit > pos ? ::memrchr(data + pos, '\n', hit - pos) : nullptr;
        size_t start = before ? static_cast<size_t>(static_cast<const char*>(before) - data) + 1 : pos;
        const void* after = ::memchr(data + hit, '\n', len - hit);
        size_t end = after ? static_cast<size_t>(static_cast<const char*>(after) - data) : len;
        emit(data + start, end - start, capacity - start, base + start, src, onLine);
        pos = end + 1;
    }
}

bool LineScanner::reduceFromSource(const Source& src, uint64_t start, uint64_t end) {
    reducer_.reset();
    for (uint64_t at = start; at < end && !reducer_.failed;) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(scratch_.size(), end - at));
        ssize_t n = src.read(scratch_.data(), want, at);
        if (n <= 0) return false;
        reducer_.feed(scratch_.data(), static_cast<size_t>(n));
        at += static_cast<uint64_t>(n);
    }
    return !reducer_.failed && !reducer_.inString;
}

bool LineScanner::longLine(const Source& src, uint64_t start, uint64_t limit, uint64_t& end, const OnLine& onLine) {
    char* buf = buffer_.data();
    const size_t cap = limits_.buffer;
    const size_t keep = finder_.longest() > 0 ? finder_.longest() - 1 : 0;
    bool seen = finder_.next(buf, cap, 0) != NeedleFinder::npos;
    uint64_t pos = start + cap;  // the next byte to read
    std::memmove(buf, buf + cap - keep, keep);
    size_t have = keep;
    uint64_t bufOffset = pos - keep;  // where buf[0] is in the file
    for (;;) {
        if (pos >= limit) {
            end = start;  // cut short: read again once it is finished
            return true;
        }
        size_t want = static_cast<size_t>(std::min<uint64_t>(cap - have, limit - pos));
        ssize_t n = src.read(buf + have, want, pos);
        if (n < 0) return false;
        if (n == 0) {
            end = start;
            return true;
        }
        const void* nl = ::memchr(buf + have, '\n', static_cast<size_t>(n));
        size_t upto = nl ? static_cast<size_t>(static_cast<const char*>(nl) - buf) : have + static_cast<size_t>(n);
        if (!seen) seen = finder_.next(buf, upto, 0) != NeedleFinder::npos;
        if (nl) {
            uint64_t newline = bufOffset + upto;
            end = newline + 1;
            if (seen) {
                if (reduceFromSource(src, start, newline)) {
                    onLine(simdjson::padded_string_view(reducer_.out.data(), reducer_.size, reducer_.out.size()),
                           start);
                } else {
                    ++skipped_;
                }
            }
            return true;
        }
        pos += static_cast<uint64_t>(n);
        have += static_cast<size_t>(n);
        std::memmove(buf, buf + have - keep, keep);
        bufOffset = pos - keep;
        have = keep;
    }
}

std::optional<uint64_t> LineScanner::scanFrom(const Source& src, uint64_t from, uint64_t limit,
                                              const OnLine& onLine) {
    char* buf = buffer_.data();
    const size_t cap = limits_.buffer;
    size_t have = 0;  // bytes in the buffer from `offset` on
    uint64_t offset = from;
    for (;;) {
        if (offset + have >= limit) break;
        size_t want = static_cast<size_t>(std::min<uint64_t>(cap - have, limit - (offset + have)));
        if (want == 0) {
            // The buffer is full and holds no newline.
            uint64_t end = 0;
            if (!longLine(src, offset, limit, end, onLine)) return std::nullopt;
            if (end == offset) return offset;
            offset = end;
            have = 0;
            continue;
        }
        ssize_t n = src.read(buf + have, want, offset + have);
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        have += static_cast<size_t>(n);
        const void* lastNl = ::memrchr(buf, '\n', have);
        if (!lastNl) continue;
        size_t complete = static_cast<size_t>(static_cast<const char*>(lastNl) - buf) + 1;
        region(buf, complete, offset, buffer_.size(), src, onLine);
        std::memmove(buf, buf + complete, have - complete);
        have -= complete;
        offset += complete;
    }
    return offset;
}

std::optional<uint64_t> LineScanner::scan(const std::filesystem::path& file, uint64_t from, uint64_t limit,
                                          const OnLine& onLine) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    struct stat st{};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    ::posix_fadvise(fd, static_cast<off_t>(from), 0, POSIX_FADV_SEQUENTIAL);
    Source src;
    src.fd = fd;
    auto result = scanFrom(src, from, std::min<uint64_t>(limit, static_cast<uint64_t>(st.st_size)), onLine);
    ::close(fd);
    return result;
}

uint64_t LineScanner::scanBytes(std::string_view bytes, const OnLine& onLine) {
    Source src;
    src.bytes = bytes;
    return scanFrom(src, 0, bytes.size(), onLine).value_or(0);
}

}  // namespace lumora
