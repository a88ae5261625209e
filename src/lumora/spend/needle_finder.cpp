#include "lumora/spend/needle_finder.hpp"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define LUMORA_HAVE_X86 1
#endif

namespace lumora {

namespace {

// How common a byte is in journal text (higher is more common); the probes
// use the two rarest bytes of a needle.
int commonness(unsigned char c) {
    switch (c) {
        case '"': return 100;
        case ':': case ',': return 90;
        case ' ': return 85;
        case 'e': return 70;
        case 't': return 65;
        case 'a': case 'o': return 60;
        case 'i': case 'n': return 58;
        case 's': case 'r': return 55;
        case '_': case '{': case '}': return 50;
        case 'l': case 'c': case 'd': case 'h': return 45;
        case 'u': case 'm': case 'p': return 40;
        default: return (c >= '0' && c <= '9') ? 50 : 20;
    }
}

}  // namespace

NeedleFinder::NeedleFinder(std::vector<std::string> needles) : needles_(std::move(needles)) {
    needles_.erase(std::remove_if(needles_.begin(), needles_.end(),
                                  [](const std::string& n) { return n.size() < 2 || n.size() > 64; }),
                   needles_.end());
    for (const auto& n : needles_) {
        longest_ = std::max(longest_, n.size());
        std::vector<size_t> order(n.size());
        for (size_t i = 0; i < n.size(); ++i) order[i] = i;
        std::stable_sort(order.begin(), order.end(), [&](size_t x, size_t y) {
            return commonness(static_cast<unsigned char>(n[x])) < commonness(static_cast<unsigned char>(n[y]));
        });
        size_t first = order[0];
        size_t second = order[1];
        // Prefer a second byte that differs from the first.
        for (size_t k = 1; k < order.size(); ++k) {
            if (n[order[k]] != n[first]) {
                second = order[k];
                break;
            }
        }
        probes_.push_back({first, second, static_cast<unsigned char>(n[first]), static_cast<unsigned char>(n[second])});
    }
#ifdef LUMORA_HAVE_X86
    avx2_ = __builtin_cpu_supports("avx2");
#endif
}

bool NeedleFinder::matchesAt(const char* data, size_t len, size_t pos) const {
    for (const auto& n : needles_) {
        if (pos + n.size() <= len && std::memcmp(data + pos, n.data(), n.size()) == 0) return true;
    }
    return false;
}

size_t NeedleFinder::nextScalar(const char* data, size_t len, size_t from) const {
    for (size_t pos = from; pos < len; ++pos) {
        for (size_t k = 0; k < probes_.size(); ++k) {
            const auto& p = probes_[k];
            const auto& n = needles_[k];
            if (static_cast<unsigned char>(data[pos + p.first]) == p.a &&
                static_cast<unsigned char>(data[pos + p.second]) == p.b && pos + n.size() <= len &&
                std::memcmp(data + pos, n.data(), n.size()) == 0)
                return pos;
        }
    }
    return npos;
}

#ifdef LUMORA_HAVE_X86
__attribute__((target("avx2"))) size_t NeedleFinder::nextAvx2(const char* data, size_t len, size_t from) const {
    // At most four needles are probed in one pass; callers use one to three.
    __m256i a[4], b[4];
    size_t first[4], second[4];
    size_t count = std::min<size_t>(probes_.size(), 4);
    for (size_t k = 0; k < count; ++k) {
        a[k] = _mm256_set1_epi8(static_cast<char>(probes_[k].a));
        b[k] = _mm256_set1_epi8(static_cast<char>(probes_[k].b));
        first[k] = probes_[k].first;
        second[k] = probes_[k].second;
    }
    for (size_t pos = from; pos < len; pos += 32) {
        uint32_t mask = 0;
        for (size_t k = 0; k < count; ++k) {
            __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + pos + first[k]));
            __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + pos + second[k]));
            mask |= static_cast<uint32_t>(
                _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi8(x, a[k]), _mm256_cmpeq_epi8(y, b[k]))));
        }
        while (mask) {
            size_t at = pos + static_cast<size_t>(__builtin_ctz(mask));
            if (at >= len) return npos;
            if (matchesAt(data, len, at)) return at;
            mask &= mask - 1;
        }
    }
    return npos;
}
#else
size_t NeedleFinder::nextAvx2(const char* data, size_t len, size_t from) const { return nextScalar(data, len, from); }
#endif

size_t NeedleFinder::next(const char* data, size_t len, size_t from) const {
    if (needles_.empty() || from >= len) return npos;
    if (avx2_ && probes_.size() <= 4) return nextAvx2(data, len, from);
    return nextScalar(data, len, from);
}

}  // namespace lumora
