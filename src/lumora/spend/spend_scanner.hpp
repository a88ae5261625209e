#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lumora/platform/file_stamp.hpp"
#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/spend_history.hpp"
#include "lumora/spend/spend_store.hpp"

namespace lumora {

// Brings the spend store up to date with the agents' journals and gives the
// counted responses, one per usage, ready for bucketing.
//
// A scan lists the journals, looks at each one's size, time and identity,
// and reads only what is new: nothing for an unchanged file, the bytes after
// `parsedBytes` for a grown one, the whole file for a new, truncated or
// replaced one. The reading is spread over every core. Files untouched for
// longer than the look-back are neither read nor kept.
//
// Not thread-safe: one scanner is driven from one queue at a time.
class SpendScanner {
public:
    // Where the journals are.
    struct Roots {
        std::filesystem::path claudeProjects;   // ~/.claude/projects
        std::filesystem::path codexHome;        // ~/.codex (sessions/ and archived_sessions/)
        std::filesystem::path kimiHome;         // ~/.kimi-code (sessions/)
        std::optional<std::filesystem::path> openCodeDatabase;
    };
    static Roots defaultRoots();

    struct Options {
        int lookbackDays = 62;  // the month and the month before it, with a margin
        unsigned threads = 0;   // 0: one per core
    };

    // What the last scan did.
    struct Stats {
        size_t files = 0;          // journals listed within the look-back
        size_t filesRead = 0;      // whole or in part
        size_t filesReadWhole = 0;
        uint64_t bytesRead = 0;
        size_t events = 0;         // counted responses after de-duplication
        size_t duplicates = 0;     // events dropped as copies of another
        uint64_t skippedLines = 0; // lines with usage too large or malformed to read
        bool changed = false;      // anything differed from the scan before
    };

    struct Result {
        std::vector<SpendEntry> entries;  // sorted by date
        Stats stats;
    };

    SpendScanner(SpendStore& store, ModelPricing& pricing, Roots roots, Options options);
    SpendScanner(SpendStore& store, ModelPricing& pricing, Roots roots);

    Result scan(Date now = std::chrono::system_clock::now());

private:
    struct Job;
    void listJournals(Date cutoff, std::vector<Job>& jobs);
    std::vector<SpendEntry> deduplicate(Stats& stats);

    SpendStore& store_;
    ModelPricing& pricing_;
    Roots roots_;
    Options options_;
    uint64_t pricedGeneration_ = 0;
    std::vector<SpendEntry> lastEntries_;
    bool haveLast_ = false;
    // OpenCode's database, read again only when it (or its write-ahead log) changes.
    std::optional<FileStamp> openCodeStamp_, openCodeWalStamp_;
    std::vector<SpendEvent> openCodeEvents_;
    Date openCodeSince_{};
};

}  // namespace lumora
