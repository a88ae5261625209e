#include "lumora/spend/model_rates.hpp"

namespace lumora {

double ModelRates::cost(int64_t inputTokens, int64_t cacheWrite5m, int64_t cacheWrite1h, int64_t cacheReadTokens,
                        int64_t outputTokens) const {
    double sum = static_cast<double>(inputTokens) * input + static_cast<double>(cacheWrite5m) * cacheWriteRate() +
                 static_cast<double>(cacheWrite1h) * 2.0 * input +
                 static_cast<double>(cacheReadTokens) * cacheReadRate() + static_cast<double>(outputTokens) * output;
    return sum / 1'000'000.0;
}

}  // namespace lumora
