#pragma once

#include <simdjson.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "lumora/spend/needle_finder.hpp"

namespace lumora {

// Reads a journal (or what it grew by) and hands on only the complete lines
// that hold one of a few needles, ready for simdjson: the rest of the bytes
// are searched at memory speed and never parsed. Memory stays bounded
// whatever the file holds: a line longer than the buffer is searched as it
// streams past, and a long line with a needle is handed on with the contents
// of its long strings dropped ("" in their place), which keeps every key and
// number a usage reader needs.
//
// One scanner per thread: it owns its buffers.
class LineScanner {
public:
    // A line as handed on: its bytes (readable padding after them) and where it starts in the file.
    using OnLine = std::function<void(simdjson::padded_string_view line, uint64_t offset)>;

    struct Limits {
        size_t buffer = 1u << 20;         // lines up to this size are searched in place
        size_t directLine = 256u << 10;   // longer lines with a needle are reduced first
        size_t reducedLine = 1u << 20;    // a reduced line larger than this is skipped
        size_t keptString = 512;          // strings longer than this lose their contents
    };

    explicit LineScanner(std::vector<std::string> needles);
    LineScanner(std::vector<std::string> needles, Limits limits);

    // Scans `file` from `from` up to `limit` bytes into it (the size it had
    // when it was looked at). Returns the offset just past the last complete
    // line: a line cut short by the end stays unread until it is finished.
    // Nothing when the file can't be opened or read.
    std::optional<uint64_t> scan(const std::filesystem::path& file, uint64_t from, uint64_t limit,
                                 const OnLine& onLine);

    // The same over bytes in memory (for tests and fuzzing); returns the
    // length of the complete lines.
    uint64_t scanBytes(std::string_view bytes, const OnLine& onLine);

    // Lines with a needle that were too large to hand on, since the scanner was made.
    uint64_t skippedLines() const { return skipped_; }

private:
    // Streams bytes of one JSON line into `reduced_`, dropping long strings' contents.
    struct Reducer {
        std::vector<char> out;
        size_t size = 0;
        size_t cap = 0;
        size_t kept = 0;
        size_t keptLimit = 512;
        bool inString = false, escaped = false, overflowed = false, failed = false;
        size_t stringStart = 0;  // where the open string's contents begin in `out`
        void reset();
        void feed(const char* p, size_t n);
    };

    struct Source;
    std::optional<uint64_t> scanFrom(const Source& src, uint64_t from, uint64_t limit, const OnLine& onLine);
    void region(const char* data, size_t len, uint64_t base, size_t capacity, const Source& src, const OnLine& onLine);
    void emit(const char* line, size_t len, size_t capacity, uint64_t offset, const Source& src, const OnLine& onLine);
    // A line longer than the buffer: searched while streaming; reduced on a second read if it holds a needle.
    bool longLine(const Source& src, uint64_t start, uint64_t limit, uint64_t& end, const OnLine& onLine);
    bool reduceFromSource(const Source& src, uint64_t start, uint64_t end);

    NeedleFinder finder_;
    Limits limits_;
    std::vector<char> buffer_;
    std::vector<char> scratch_;
    Reducer reducer_;
    uint64_t skipped_ = 0;
};

}  // namespace lumora
