#include "lumora/spend/journal_usage.hpp"

#include <unordered_map>

#include "lumora/spend/usage_lines.hpp"

namespace lumora {

namespace {

// simdjson grows its parser to the longest line it meets; lines are at most
// a megabyte after reduction, so this is the cap.
constexpr size_t kMaxParsedLine = (1u << 20) + 4096;

Date fromMillis(int64_t ms) { return Date(std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(ms))); }

bool isUuidChar(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == '-'; }

}  // namespace

void mergeEvent(SpendEvent& into, const SpendEvent& e) {
    Date earliest = std::min(into.date, e.date);
    if (e.tokens > into.tokens) into = e;
    into.date = earliest;
}

SpendEvent JournalUsage::makeEvent(std::string dedupKey, Date date, const UsageCounts& c, const std::string& model,
                                   ModelPricing& pricing) {
    SpendEvent e;
    e.dedupKey = std::move(dedupKey);
    e.date = date;
    e.tokens = c.total();
    e.newTokens = e.tokens - c.cacheRead;
    std::string name = model.empty() ? std::string("unknown") : model;
    if (auto rates = pricing.rates(name)) {
        e.cost = rates->cost(c.input, c.cacheWrite5m, c.cacheWrite1h, c.cacheRead, c.output);
    } else {
        e.unpricedModel = name;
    }
    if (!model.empty()) e.model = model;
    return e;
}

std::string JournalUsage::codexThreadId(const std::filesystem::path& file) {
    std::string stem = file.stem().string();
    if (stem.size() >= 36) {
        std::string tail = stem.substr(stem.size() - 36);
        bool uuid = tail[8] == '-' && tail[13] == '-' && tail[18] == '-' && tail[23] == '-';
        for (char c : tail) uuid = uuid && isUuidChar(c);
        if (uuid) return tail;
    }
    return stem;
}

std::string JournalUsage::kimiAgentKey(const std::filesystem::path& file) {
    auto agent = file.parent_path();
    auto session = agent.parent_path().parent_path();
    return session.filename().string() + "/" + agent.filename().string();
}

JournalUsage::JournalUsage(ModelPricing& pricing)
    : pricing_(pricing),
      claude_(UsageLines::claudeNeedles()),
      codex_(UsageLines::codexNeedles()),
      kimi_(UsageLines::kimiNeedles()),
      parser_(kMaxParsedLine) {}

std::optional<JournalUsage::Read> JournalUsage::read(SpendProvider provider, const std::filesystem::path& file,
                                                     const Start& start) {
    Read out;
    std::unordered_map<std::string, size_t> byKey;
    auto add = [&](SpendEvent e) {
        auto [it, fresh] = byKey.emplace(e.dedupKey, out.events.size());
        if (fresh) out.events.push_back(std::move(e));
        else mergeEvent(out.events[it->second], e);
    };
    auto dateOf = [&](int64_t millis) { return millis > 0 ? fromMillis(millis) : start.fallbackDate; };

    LineScanner* scanner = nullptr;
    LineScanner::OnLine onLine;
    std::string model = start.model;
    std::optional<uint64_t> rewind;  // Codex: a model change after the last usage is read again next time
    std::string threadOrAgent;
    switch (provider) {
        case SpendProvider::claude:
            scanner = &claude_;
            onLine = [&](simdjson::padded_string_view line, uint64_t) {
                if (auto f = UsageLines::claude(line, parser_))
                    add(makeEvent(std::move(f->dedupKey), dateOf(f->millis), f->counts, f->model, pricing_));
            };
            break;
        case SpendProvider::codex:
            scanner = &codex_;
            threadOrAgent = codexThreadId(file);
            onLine = [&](simdjson::padded_string_view line, uint64_t offset) {
                auto f = UsageLines::codex(line, parser_, threadOrAgent);
                if (!f) return;
                if (f->kind == UsageLines::Found::Kind::model) {
                    model = f->model;
                    rewind = offset;
                    return;
                }
                rewind.reset();
                add(makeEvent(std::move(f->dedupKey), dateOf(f->millis), f->counts, f->model.empty() ? model : f->model,
                              pricing_));
            };
            break;
        case SpendProvider::kimi:
            scanner = &kimi_;
            threadOrAgent = kimiAgentKey(file);
            onLine = [&](simdjson::padded_string_view line, uint64_t) {
                if (auto f = UsageLines::kimi(line, parser_, threadOrAgent))
                    add(makeEvent(std::move(f->dedupKey), dateOf(f->millis), f->counts, f->model, pricing_));
            };
            break;
        default:
            return std::nullopt;
    }
    uint64_t skippedBefore = scanner->skippedLines();
    auto end = scanner->scan(file, start.offset, start.limit, onLine);
    if (!end) return std::nullopt;
    out.parsedBytes = rewind ? *rewind : *end;
    out.skippedLines = scanner->skippedLines() - skippedBefore;
    return out;
}

}  // namespace lumora
