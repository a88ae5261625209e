#include "scrivet/journal_tail.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

namespace scrivet::JournalTail {

namespace {

// Reads [start, start+len) (less when the file shrank under us).
bool readRange(int fd, uint64_t start, uint64_t len, std::string& out) {
    out.resize(len);
    uint64_t done = 0;
    while (done < len) {
        ssize_t n = ::pread(fd, out.data() + done, len - done, static_cast<off_t>(start + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) break;
        done += static_cast<uint64_t>(n);
    }
    out.resize(done);
    return true;
}

// Where the line holding byte `at` begins: just past the newline before it,
// searched backwards in chunks; nothing when that is further back than `limit`.
std::optional<uint64_t> lineStart(int fd, uint64_t at, uint64_t limit) {
    constexpr uint64_t kChunk = 1024 * 1024;
    std::string chunk;
    uint64_t end = at;
    while (end > 0) {
        if (at - end > limit) return std::nullopt;
        uint64_t begin = end > kChunk ? end - kChunk : 0;
        if (!readRange(fd, begin, end - begin, chunk) || chunk.size() != end - begin) return std::nullopt;
        auto nl = chunk.rfind('\n');
        if (nl != std::string::npos) return begin + nl + 1;
        end = begin;
    }
    return 0;
}

// The window from `start` to `size`, its broken first line dropped unless
// `start` is a line boundary.
TailReader::Window parseFrom(int fd, uint64_t start, uint64_t size, const Options& options) {
    TailReader::Window window;
    window.start = start;
    window.fileSize = size;
    std::string bytes;
    if (!readRange(fd, start, size - start, bytes)) return window;
    size_t skip = 0;
    if (start > 0) {
        char before = '\n';
        if (::pread(fd, &before, 1, static_cast<off_t>(start - 1)) != 1) return window;
        if (before != '\n') {
            auto nl = bytes.find('\n');
            skip = nl == std::string::npos ? bytes.size() : nl + 1;
        }
    }
    window = TailReader::parseWindow(std::string_view(bytes).substr(skip), start + skip, options.lineLimit,
                                     options.keep);
    window.start = start;
    window.fileSize = size;
    return window;
}

}  // namespace

int openRegular(const fs::path& file, uint64_t* size) {
    int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st{};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return -1;
    }
    if (size) *size = static_cast<uint64_t>(st.st_size);
    return fd;
}

TailReader::Window read(const fs::path& file, const Options& options) {
    TailReader::Window result;
    uint64_t size = 0;
    int fd = openRegular(file, &size);
    if (fd < 0) return result;
    uint64_t start = 0;
    for (uint64_t window = TailReader::kFirstWindow;; window *= 8) {
        window = std::min(window, TailReader::kMaxWindow);
        start = size > window ? size - window : 0;
        result = parseFrom(fd, start, size, options);
        bool enough = options.enough ? options.enough(result.entries) : !result.entries.empty();
        if (enough || start == 0 || window >= TailReader::kMaxWindow) break;
    }
    if (options.wholeLongLine && result.entries.empty() && start > 0) {
        // The largest window began inside one giant line: read that line whole.
        if (auto begin = lineStart(fd, start, kMaxLongLine); begin && size - *begin <= kMaxLongLine)
            result = parseFrom(fd, *begin, size, options);
    }
    ::close(fd);
    return result;
}

std::vector<JournalEntry> head(const fs::path& file, size_t maxBytes, size_t lineLimit, size_t firstLineMax,
                               const std::function<bool(const std::vector<JournalEntry>&)>& enough) {
    uint64_t size = 0;
    int fd = openRegular(file, &size);
    if (fd < 0) return {};
    std::string bytes;
    bool ok = readRange(fd, 0, std::min<uint64_t>(size, maxBytes), bytes);
    // The first line may be longer than the head: read on to its end.
    while (ok && bytes.find('\n') == std::string::npos && bytes.size() < size && bytes.size() < firstLineMax) {
        std::string more;
        uint64_t want = std::min<uint64_t>({size - bytes.size(), firstLineMax - bytes.size(), 256 * 1024});
        ok = readRange(fd, bytes.size(), want, more) && !more.empty();
        bytes += more;
    }
    ::close(fd);
    if (!ok) return {};
    if (bytes.size() < size) {
        // Not the whole file: only complete lines count.
        auto nl = bytes.rfind('\n');
        if (nl == std::string::npos) return {};
        bytes.resize(nl + 1);
    }
    // Line by line from the start, so a read that has enough stops there.
    TailReader::repairUtf8(bytes);
    bytes.reserve(bytes.size() + simdjson::SIMDJSON_PADDING);
    std::vector<JournalEntry> entries;
    simdjson::dom::parser parser;
    size_t pos = 0;
    while (pos < bytes.size() && entries.size() < lineLimit) {
        size_t nl = bytes.find('\n', pos);
        size_t b = pos, e = nl == std::string::npos ? bytes.size() : nl;
        pos = e + 1;
        while (b < e && (bytes[b] == ' ' || bytes[b] == '\t' || bytes[b] == '\r')) ++b;
        while (e > b && (bytes[e - 1] == ' ' || bytes[e - 1] == '\t' || bytes[e - 1] == '\r')) --e;
        if (b == e || bytes[b] != '{') continue;
        // The rest of the buffer and its reserved padding follow the line.
        auto doc = std::make_unique<simdjson::dom::document>();
        simdjson::dom::element root;
        if (parser.parse_into_document(*doc, reinterpret_cast<const uint8_t*>(bytes.data() + b), e - b, false).get(root) ||
            !root.is_object())
            continue;
        entries.emplace_back(std::move(doc), b);
        if (enough && enough(entries)) break;
    }
    return entries;
}

}  // namespace scrivet::JournalTail
