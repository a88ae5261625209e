#pragma once

#include <simdjson.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lumora/spend/line_scanner.hpp"
#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/spend_event.hpp"

namespace lumora {

// Reads the usage of one journal file (or of what it grew by) into priced
// spend events. One reader per thread: it owns a scanner per format and a parser.
class JournalUsage {
public:
    struct Read {
        std::vector<SpendEvent> events;  // one per response: a message's blocks are merged
        uint64_t parsedBytes = 0;        // where the next read starts
        uint64_t skippedLines = 0;       // lines with a needle that would not parse
    };

    // Where a read starts and what it knows of the bytes before.
    struct Start {
        uint64_t offset = 0;
        uint64_t limit = UINT64_MAX;     // the size the file had when it was looked at
        std::string model;               // Codex: the model in force at `offset`
        Date fallbackDate{};             // for a line without a time (the file's modification time)
    };

    explicit JournalUsage(ModelPricing& pricing);

    // Nothing when the file can't be read.
    std::optional<Read> read(SpendProvider provider, const std::filesystem::path& file, const Start& start);

    // The thread id of a Codex rollout, from its file name ("rollout-<time>-<uuid>.jsonl").
    static std::string codexThreadId(const std::filesystem::path& file);
    // "session_<id>/<agent>" for a Kimi wire journal ".../session_<id>/agents/<agent>/wire.jsonl".
    static std::string kimiAgentKey(const std::filesystem::path& file);

    // An event from counts: tokens, new tokens (less cache reads) and price, or the model named as unpriced.
    static SpendEvent makeEvent(std::string dedupKey, Date date, const UsageCounts& counts, const std::string& model,
                                ModelPricing& pricing);

private:
    ModelPricing& pricing_;
    LineScanner claude_, codex_, kimi_;
    simdjson::ondemand::parser parser_;
};

// Adds `e` to events that may already hold its key: the earlier date is kept,
// and the counts of the larger of the two (a streamed message repeats its usage).
void mergeEvent(SpendEvent& into, const SpendEvent& e);

}  // namespace lumora
