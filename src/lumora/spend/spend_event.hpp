#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "scrivet/transcript_records.hpp"

namespace lumora {

using scrivet::Date;

// The agents whose usage is counted.
enum class SpendProvider { claude, codex, kimi, opencode, cursor };

// One priced usage entry of a journal: one API response.
struct SpendEvent {
    std::string dedupKey;  // the same usage seen twice has the same key
    Date date{};           // when the response began (its first line)
    int64_t tokens = 0;    // every token of the response
    int64_t newTokens = 0; // less the cache reads: the work that was new
    double cost = 0;       // dollars; 0 when unpriced
    std::optional<std::string> unpricedModel;  // the model, when no price list knows it
    std::optional<std::string> model;
    bool operator==(const SpendEvent&) const = default;
};

// Token counts of one response, by how they are priced.
struct UsageCounts {
    int64_t input = 0;         // uncached input
    int64_t cacheWrite5m = 0;
    int64_t cacheWrite1h = 0;
    int64_t cacheRead = 0;
    int64_t output = 0;        // reasoning included

    int64_t total() const { return input + cacheWrite5m + cacheWrite1h + cacheRead + output; }
    bool operator==(const UsageCounts&) const = default;
};

}  // namespace lumora
