#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lumora {

// Finds a few short byte strings in large buffers fast. Each needle is
// matched first on two of its rarer bytes, 32 positions at a time where the
// processor has AVX2, and only those candidates are compared in full. The
// journals' bulk is text in which the needles' rare byte pairs hardly occur,
// so the search runs at memory speed.
class NeedleFinder {
public:
    // Bytes past the end of a buffer that `next` may read (never use).
    static constexpr size_t kReadAhead = 96;
    static constexpr size_t npos = std::string_view::npos;

    // Needles of 2 to 64 bytes.
    explicit NeedleFinder(std::vector<std::string> needles);

    // The first position at or after `from` where a needle starts and ends
    // within `len`, or npos. `data` must have kReadAhead readable bytes after `len`.
    size_t next(const char* data, size_t len, size_t from) const;

    const std::vector<std::string>& needles() const { return needles_; }
    size_t longest() const { return longest_; }

private:
    struct Probe {
        size_t first = 0, second = 0;  // offsets of the two bytes compared first
        unsigned char a = 0, b = 0;
    };
    bool matchesAt(const char* data, size_t len, size_t pos) const;
    size_t nextScalar(const char* data, size_t len, size_t from) const;
    size_t nextAvx2(const char* data, size_t len, size_t from) const;

    std::vector<std::string> needles_;
    std::vector<Probe> probes_;
    size_t longest_ = 0;
    bool avx2_ = false;
};

}  // namespace lumora
