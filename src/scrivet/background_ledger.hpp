#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/journal_entry.hpp"

namespace scrivet {

// The background agents and shells a Claude Code session launched and has not
// yet heard back from, kept by walking its journal in file order.
struct BackgroundLedger {
    std::set<std::string> pending;  // agents and shells with no completion notification yet
    std::set<std::string> shells;   // the background shells among them

    // A launch result with "isAsync" and an "agentId" adds the agent; one with a
    // "backgroundTaskId" adds a shell; a task notification removes its task;
    // "agents_killed" empties `pending`.
    void advance(simdjson::dom::element entry);
    void advance(const JournalEntry& entry) { advance(entry.root()); }
    void advance(const std::vector<JournalEntry>& entries);
    // Advances by every line of `bytes` (a journal or part of one) that can
    // change the ledger; other lines are not parsed.
    void advance(std::string_view bytes);

    // The shells still pending.
    std::set<std::string> pendingShells() const;

    bool operator==(const BackgroundLedger&) const = default;

    // The substrings every line that can change a ledger contains one of.
    static const std::vector<std::string_view>& needles();
};

namespace ClaudeTranscriptReader {

// What a journal's ledger says is still out.
struct BackgroundTasks {
    int count = 0;                  // pending agents and shells
    std::set<std::string> pending;  // their ids
    std::set<std::string> shells;   // the shells among them
    bool operator==(const BackgroundTasks&) const = default;
};

// A fresh ledger reads this much of a journal's end, so the first look at a
// journal of gigabytes costs what a look at a small one does. Background work
// launched further back than that and still out is not seen (the turn-end
// count still reports it).
inline constexpr uint64_t kLedgerSeedBytes = 4u << 20;
// Ledgers kept at most, and how long an unused one is kept.
inline constexpr size_t kCachedLedgers = 256;
inline constexpr std::chrono::hours kLedgerIdleLife{2};

// The ledger of a journal's last kLedgerSeedBytes, read in one pass (no cache).
BackgroundLedger seedBackgroundLedger(const std::filesystem::path& file);

// The journal's outstanding background tasks. The ledger is kept per file in a
// process-wide cache: seeded from the file's end once, then advanced only by
// the bytes the file grew by; re-seeded when the file shrinks or is replaced.
BackgroundTasks outstandingBackgroundTasks(const std::filesystem::path& file);
// The ids of the journal's pending background tasks.
std::set<std::string> backgroundTasks(const std::filesystem::path& file);
// Drops every cached ledger.
void resetBackgroundLedgers();
// How many ledgers the cache holds now.
size_t cachedBackgroundLedgers();

}  // namespace ClaudeTranscriptReader

}  // namespace scrivet
