#include "scrivet/tail_reader.hpp"

#include <unistd.h>

#include "scrivet/regular_file.hpp"

namespace scrivet::TailReader {

namespace {

// Scratch space beyond this is given back after use rather than kept for the
// next window (a window grows to kMaxWindow only when a journal's tail holds
// no conversation).
constexpr size_t kKeptScratchBytes = 1u << 20;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

// Reads [start, start+len) into a buffer padded for simdjson.
bool readRange(int fd, uint64_t start, uint64_t len, std::string& out) {
    out.assign(len + simdjson::SIMDJSON_PADDING, '\0');
    uint64_t done = 0;
    while (done < len) {
        ssize_t n = ::pread(fd, out.data() + done, len - done, static_cast<off_t>(start + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) break;  // the file shrank under us; parse what we have
        done += static_cast<uint64_t>(n);
    }
    out.resize(done);
    return true;
}

}  // namespace

bool repairUtf8(std::string& text) {
    if (simdjson::validate_utf8(text.data(), text.size())) return false;
    static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(text.size() + 16);
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    size_t n = text.size(), i = 0;
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
            continue;
        }
        size_t len = 0;
        uint32_t cp = 0;
        if (c >= 0xC2 && c <= 0xDF) len = 2, cp = c & 0x1F;
        else if (c >= 0xE0 && c <= 0xEF) len = 3, cp = c & 0x0F;
        else if (c >= 0xF0 && c <= 0xF4) len = 4, cp = c & 0x07;
        bool ok = len != 0 && i + len <= n;
        for (size_t k = 1; ok && k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) ok = false;
            else cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        // Reject overlong forms, surrogates and values past U+10FFFF.
        if (ok && ((len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
                   (len == 4 && (cp < 0x10000 || cp > 0x10FFFF))))
            ok = false;
        if (ok) {
            out.append(text, i, len);
            i += len;
        } else {
            out += kReplacement;
            ++i;
        }
    }
    text = std::move(out);
    return true;
}

namespace {

// `text` is the window's bytes; when `midLine`, its first line is the tail of
// a line that began before the window and is dropped.
Window parseText(std::string& text, uint64_t baseOffset, bool midLine, size_t lineLimit, const TypeFilter& keep) {
    Window window;
    window.start = baseOffset;
    if (lineLimit == 0 || text.empty()) return window;

    // Invalid UTF-8 (a window may cut a character) becomes U+FFFD rather than
    // failing a whole line; simdjson wants padding after its input.
    repairUtf8(text);
    size_t first = 0;
    if (midLine) {
        size_t nl = text.find('\n');
        first = nl == std::string::npos ? text.size() : nl + 1;
    }
    text.reserve(text.size() + simdjson::SIMDJSON_PADDING);

    // Find the starts of the last `lineLimit` lines.
    struct Line {
        size_t begin, end;
    };
    std::vector<Line> lines;
    size_t end = text.size();
    if (end > first && text[end - 1] == '\n') --end;  // the newline that ends the last line
    while (lines.size() < lineLimit && end > first) {
        size_t nl = text.rfind('\n', end - 1);
        size_t begin = (nl == std::string::npos || nl < first) ? first : nl + 1;
        lines.push_back({begin, end});
        if (begin == first) break;
        end = nl;
    }

    // The scratch parser and the window's buffer are kept per thread: a scan
    // reads one window per changed journal, and fresh buffers each time cost
    // more in page faults than the parse itself.
    thread_local simdjson::dom::parser scratch;
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
        size_t b = it->begin, e = it->end;
        while (b < e && isBlank(text[b])) ++b;
        while (e > b && isBlank(text[e - 1])) --e;
        if (b == e || text[b] != '{') continue;
        const auto* data = reinterpret_cast<const uint8_t*>(text.data() + b);
        // The bytes after the line are the rest of the buffer and its reserved
        // padding, so simdjson may read past `e` without a copy.
        if (text.capacity() - e < simdjson::SIMDJSON_PADDING) continue;
        simdjson::dom::element root;
        if (scratch.parse(data, e - b, false).get(root)) continue;
        simdjson::dom::object obj;
        if (root.get_object().get(obj)) continue;
        std::string_view type;
        simdjson::dom::element typeValue;
        if (!obj.at_key("type").get(typeValue) && typeValue.get_string().get(type)) type = {};
        if (type == "user" || type == "assistant") window.hasConversation = true;
        if (keep && !keep(type)) continue;
        // Kept entries own their parse, so they outlive this window.
        auto doc = std::make_unique<simdjson::dom::document>();
        simdjson::dom::element owned;
        if (scratch.parse_into_document(*doc, data, e - b, false).get(owned)) continue;
        window.entries.emplace_back(std::move(doc), baseOffset + b);
    }
    if (scratch.capacity() > kKeptScratchBytes) scratch = simdjson::dom::parser();
    return window;
}

}  // namespace

Window parseWindow(std::string_view bytes, uint64_t baseOffset, size_t lineLimit, const TypeFilter& keep) {
    std::string text(bytes);
    return parseText(text, baseOffset, false, lineLimit, keep);
}

Window read(const std::filesystem::path& file, size_t lineLimit, const TypeFilter& keep) {
    Window result;
    RegularFile journal(file);
    if (!journal) return result;
    int fd = journal.fd();
    uint64_t size = journal.size();
    thread_local std::string buffer;
    for (uint64_t window = kFirstWindow;; window *= 8) {
        window = std::min(window, kMaxWindow);
        uint64_t start = size > window ? size - window : 0;
        // The byte before the window tells whether it starts on a line
        // boundary; a partial first line is dropped.
        char before = '\n';
        if (start > 0 && ::pread(fd, &before, 1, static_cast<off_t>(start - 1)) != 1) break;
        if (!readRange(fd, start, size - start, buffer)) break;
        result = parseText(buffer, start, before != '\n', lineLimit, keep);
        result.fileSize = size;
        if (result.hasConversation || start == 0 || window >= kMaxWindow) break;
    }
    if (buffer.capacity() > kKeptScratchBytes) buffer = std::string();
    return result;
}

std::vector<JournalEntry> entries(const std::filesystem::path& file, size_t lineLimit, const TypeFilter& keep) {
    return std::move(read(file, lineLimit, keep).entries);
}

}  // namespace scrivet::TailReader
