#pragma once

#include <cstdint>
#include <optional>

namespace lumora {

// What one model costs, in US dollars per million tokens.
struct ModelRates {
    double input = 0;
    double output = 0;
    std::optional<double> cacheRead;   // absent: a tenth of `input`
    std::optional<double> cacheWrite;  // the five-minute cache write; absent: 1.25 × `input`

    double cacheReadRate() const { return cacheRead.value_or(0.1 * input); }
    double cacheWriteRate() const { return cacheWrite.value_or(1.25 * input); }

    // Dollars for these token counts. A one-hour cache write costs twice the
    // input price whatever the row says; reasoning tokens are inside `output`.
    double cost(int64_t input, int64_t cacheWrite5m, int64_t cacheWrite1h, int64_t cacheRead, int64_t output) const;

    bool operator==(const ModelRates&) const = default;
};

}  // namespace lumora
