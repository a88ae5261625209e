#include "scrivet/background_ledger.hpp"

#include <optional>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/journal_scan.hpp"
#include "scrivet/recent_cache.hpp"

namespace scrivet {

namespace {

std::optional<std::string> notificationId(simdjson::dom::element entry) {
    // The same test as for a tail entry, without copying the line into one.
    auto type = json::string(entry, "type");
    if (type != "user") return std::nullopt;
    auto message = json::field(entry, "message");
    if (!message) return std::nullopt;
    std::string text;
    if (auto s = json::string(*message, "content")) {
        text = *s;
    } else if (auto blocks = json::array(*message, "content")) {
        for (simdjson::dom::element b : *blocks)
            if (json::string(b, "type") == "text") text += json::string(b, "text").value_or("");
    }
    bool tagged = false;
    if (auto origin = json::field(entry, "origin")) tagged = json::string(*origin, "kind") == "task-notification";
    if (!tagged && text.find("<task-notification>") == std::string::npos) return std::nullopt;
    auto a = text.find("<task-id>");
    if (a == std::string::npos) return std::nullopt;
    a += 9;
    auto b = text.find("</task-id>", a);
    if (b == std::string::npos) return std::nullopt;
    auto id = collapseWhitespace(std::string_view(text).substr(a, b - a));
    if (id.empty()) return std::nullopt;
    return id;
}

}  // namespace

const std::vector<std::string_view>& BackgroundLedger::needles() {
    static const std::vector<std::string_view> kNeedles = {"\"isAsync\"", "\"backgroundTaskId\"", "<task-id>",
                                                           "agents_killed"};
    return kNeedles;
}

void BackgroundLedger::advance(simdjson::dom::element entry) {
    auto type = json::string(entry, "type");
    if (type == "user") {
        if (auto result = json::field(entry, "toolUseResult"); result && result->is_object()) {
            if (json::boolean(*result, "isAsync").value_or(false))
                if (auto agent = json::string(*result, "agentId"); agent && !agent->empty())
                    pending.emplace(*agent);
            if (auto task = json::string(*result, "backgroundTaskId"); task && !task->empty()) {
                pending.emplace(*task);
                shells.emplace(*task);
            }
        }
        if (auto id = notificationId(entry)) {
            pending.erase(*id);
            shells.erase(*id);
        }
    } else if (type == "system" && json::string(entry, "subtype") == "agents_killed") {
        pending.clear();
    }
}

void BackgroundLedger::advance(const std::vector<JournalEntry>& entries) {
    for (const auto& e : entries) advance(e);
}

void BackgroundLedger::advance(std::string_view bytes) {
    simdjson::dom::parser parser;
    JournalScan::scanBytes(bytes, needles(), [&](std::string_view line) {
        simdjson::dom::element root;
        if (!parser.parse(line.data(), line.size(), false).get(root) && root.is_object()) advance(root);
    });
}

std::set<std::string> BackgroundLedger::pendingShells() const {
    std::set<std::string> out;
    for (const auto& s : shells)
        if (pending.count(s)) out.insert(s);
    return out;
}

namespace ClaudeTranscriptReader {

namespace {

struct CachedLedger {
    FileStamp stamp;
    uint64_t scanned = 0;  // offset just past the last line the ledger has seen
    BackgroundLedger ledger;
};

RecentCache<CachedLedger>& ledgers() {
    static RecentCache<CachedLedger> cache(kCachedLedgers, kLedgerIdleLife);
    return cache;
}

// Advances `ledger` by the complete lines of `file` from `from` on; returns
// where it stopped, or nothing when the file can't be read.
std::optional<uint64_t> advanceFromFile(const std::filesystem::path& file, uint64_t from, BackgroundLedger& ledger) {
    simdjson::dom::parser parser;
    return JournalScan::scan(file, from, BackgroundLedger::needles(), [&](std::string_view line) {
        simdjson::dom::element root;
        if (!parser.parse(line.data(), line.size(), false).get(root) && root.is_object()) ledger.advance(root);
    });
}

// Where a fresh ledger starts reading a journal of `size` bytes: the first
// line of its last kLedgerSeedBytes.
std::optional<uint64_t> seedStart(const std::filesystem::path& file, uint64_t size) {
    if (size <= kLedgerSeedBytes) return 0;
    return JournalScan::nextLineStart(file, size - kLedgerSeedBytes);
}

}  // namespace

BackgroundLedger seedBackgroundLedger(const std::filesystem::path& file) {
    BackgroundLedger ledger;
    auto size = scrivet::stamp(file);
    auto from = size ? seedStart(file, size->size) : std::nullopt;
    if (from) advanceFromFile(file, *from, ledger);
    return ledger;
}

BackgroundTasks outstandingBackgroundTasks(const std::filesystem::path& file) {
    auto key = file.string();
    auto now = scrivet::stamp(file);
    if (!now) {
        ledgers().erase(key);
        return {};
    }
    auto cached = ledgers().get(key);
    // The same file, grown or unchanged, still ending a line where the last
    // scan stopped: advance. Anything else (shorter, replaced): seed afresh.
    bool reuse = cached && cached->stamp.device == now->device && cached->stamp.inode == now->inode &&
                 now->size >= cached->scanned &&
                 (cached->stamp == *now || JournalScan::endsLineAt(file, cached->scanned));
    CachedLedger state = reuse ? std::move(*cached) : CachedLedger{};
    if (!reuse) {
        auto from = seedStart(file, now->size);
        if (!from) return {};
        state.scanned = *from;
    }
    if (!reuse || state.stamp != *now) {
        auto end = advanceFromFile(file, state.scanned, state.ledger);
        if (!end) return {};
        state.scanned = *end;
        state.stamp = *now;
    }
    BackgroundTasks out{static_cast<int>(state.ledger.pending.size()), state.ledger.pending,
                        state.ledger.pendingShells()};
    ledgers().put(key, std::move(state));
    return out;
}

std::set<std::string> backgroundTasks(const std::filesystem::path& file) {
    return outstandingBackgroundTasks(file).pending;
}

void resetBackgroundLedgers() { ledgers().clear(); }

size_t cachedBackgroundLedgers() { return ledgers().size(); }

}  // namespace ClaudeTranscriptReader

}  // namespace scrivet
