#include "lumora/spend/spend_history.hpp"

#include <algorithm>
#include <cstdio>
#include <set>

#include "lumora/spend/local_calendar.hpp"

namespace lumora {

namespace {

using namespace LocalCalendar;

// The first entry at or after `from`.
std::vector<SpendEntry>::const_iterator firstFrom(const std::vector<SpendEntry>& entries, Date from) {
    return std::lower_bound(entries.begin(), entries.end(), from,
                            [](const SpendEntry& e, Date d) { return e.date < d; });
}

// Sums the tokens of entries in [from, to).
void sumBetween(const std::vector<SpendEntry>& entries, Date from, Date to, int64_t& tokens, double& cost) {
    for (auto it = firstFrom(entries, from); it != entries.end() && it->date < to; ++it) {
        tokens += it->tokens;
        cost += it->cost;
    }
}

void add(SpendHistory::Day& bucket, SpendHistory& h, const SpendEntry& e) {
    switch (e.provider) {
        case SpendProvider::claude: bucket.claudeTokens += e.tokens; h.claudeTokens += e.tokens; h.claudeCost += e.cost; break;
        case SpendProvider::codex: bucket.codexTokens += e.tokens; h.codexTokens += e.tokens; h.codexCost += e.cost; break;
        case SpendProvider::kimi: bucket.kimiTokens += e.tokens; h.kimiTokens += e.tokens; h.kimiCost += e.cost; break;
        case SpendProvider::opencode:
            bucket.opencodeTokens += e.tokens;
            h.opencodeTokens += e.tokens;
            h.opencodeCost += e.cost;
            break;
        case SpendProvider::cursor: bucket.cursorTokens += e.tokens; h.cursorTokens += e.tokens; break;
    }
    bucket.cost += e.cost;
    h.totalTokens += e.tokens;
    h.totalCost += e.cost;
}

// Fills buckets whose starts are `starts` (ascending) and which end at `end`.
void fill(SpendHistory& h, const std::vector<Date>& starts, Date end, const std::vector<SpendEntry>& entries) {
    std::set<std::string> unpriced;
    h.days.clear();
    for (auto s : starts) h.days.push_back(SpendHistory::Day{s});
    h.span = static_cast<int>(starts.size());
    size_t bucket = 0;
    for (auto it = firstFrom(entries, starts.front()); it != entries.end() && it->date < end; ++it) {
        while (bucket + 1 < starts.size() && it->date >= starts[bucket + 1]) ++bucket;
        add(h.days[bucket], h, *it);
        if (it->unpricedModel) unpriced.insert(*it->unpricedModel);
    }
    h.unpricedModels.assign(unpriced.begin(), unpriced.end());
}

std::vector<std::string> unpricedBetween(const std::vector<SpendEntry>& entries, Date from, Date to) {
    std::set<std::string> names;
    for (auto it = firstFrom(entries, from); it != entries.end() && it->date < to; ++it) {
        if (it->unpricedModel) names.insert(*it->unpricedModel);
    }
    return {names.begin(), names.end()};
}

}  // namespace

std::string_view rawValue(SpendRange r) {
    switch (r) {
        case SpendRange::today: return "today";
        case SpendRange::week: return "week";
        case SpendRange::month: return "month";
        case SpendRange::patterns: return "patterns";
    }
    return "today";
}

SpendHistory SpendHistory::build(SpendRange range, const std::vector<SpendEntry>& entries, Date now) {
    SpendHistory h;
    Date today = startOfDay(now);
    switch (range) {
        case SpendRange::today: {
            h.unit = Unit::hour;
            int hour = hourOf(now);
            std::vector<Date> starts;
            for (int i = 0; i <= hour; ++i) starts.push_back(hourOfDay(today, i));
            // Today's work only: up to the end of the current hour.
            Date end = hour == 23 ? addDays(today, 1) : hourOfDay(today, hour + 1);
            fill(h, starts, end, entries);
            double ignored = 0;
            sumBetween(entries, addDays(today, -1), sameTimeOn(addDays(today, -1), now), h.previousTokens, ignored);
            break;
        }
        case SpendRange::week:
        case SpendRange::month: {
            int n = range == SpendRange::week ? 7 : 30;
            std::vector<Date> starts;
            for (int i = n - 1; i >= 0; --i) starts.push_back(addDays(today, -i));
            fill(h, starts, addDays(today, 1), entries);
            double ignored = 0;
            sumBetween(entries, addDays(today, -(2 * n - 1)), starts.front(), h.previousTokens, ignored);
            break;
        }
        case SpendRange::patterns: {
            h.unit = Unit::hour;
            for (int i = 0; i < 24; ++i) h.days.push_back(Day{hourOfDay(today, i)});
            h.span = 24;
            Date from = addDays(today, -29);
            for (auto it = firstFrom(entries, from); it != entries.end(); ++it) {
                add(h.days[static_cast<size_t>(hourOf(it->date))], h, *it);
            }
            h.unpricedModels = unpricedBetween(entries, from, Date::max());
            break;
        }
    }
    return h;
}

SpendSummary SpendSummary::build(const std::vector<SpendEntry>& entries, Date now) {
    SpendSummary s;
    Date today = startOfDay(now);
    Date tomorrow = addDays(today, 1);
    for (auto it = firstFrom(entries, today); it != entries.end() && it->date < tomorrow; ++it) {
        s.todayTokens += it->tokens;
        s.todayNewTokens += it->newTokens;
        s.todayCost += it->cost;
        switch (it->provider) {
            case SpendProvider::claude: s.todayClaude += it->tokens; s.todayClaudeCost += it->cost; break;
            case SpendProvider::codex: s.todayCodex += it->tokens; s.todayCodexCost += it->cost; break;
            case SpendProvider::kimi: s.todayKimi += it->tokens; s.todayKimiCost += it->cost; break;
            case SpendProvider::opencode: s.todayOpenCode += it->tokens; s.todayOpenCodeCost += it->cost; break;
            case SpendProvider::cursor: break;
        }
    }
    s.unpricedModels = unpricedBetween(entries, today, tomorrow);
    s.comparisonDate = addDays(today, -1);
    sumBetween(entries, s.comparisonDate, sameTimeOn(s.comparisonDate, now), s.comparisonSameTime,
               s.comparisonSameTimeCost);
    std::vector<std::pair<int64_t, double>> active;
    for (int i = 29; i >= 0; --i) {
        Day d{addDays(today, -i)};
        sumBetween(entries, d.date, addDays(today, -i + 1), d.tokens, d.cost);
        s.days.push_back(d);
    }
    for (int i = 30; i >= 1; --i) {
        int64_t tokens = 0;
        double cost = 0;
        sumBetween(entries, addDays(today, -i), addDays(today, -i + 1), tokens, cost);
        if (tokens > 0) active.emplace_back(tokens, cost);
    }
    if (!active.empty()) {
        std::sort(active.begin(), active.end());
        auto mid = active[active.size() / 2];
        s.typicalDay = mid.first;
        s.typicalDayCost = mid.second;
    }
    return s;
}

namespace SpendText {

std::string compactTokens(int64_t n) {
    char buf[32];
    double v = static_cast<double>(n);
    if (n < 1'000) std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(n));
    else if (n < 1'000'000) std::snprintf(buf, sizeof buf, "%.1fk", v / 1e3);
    else if (n < 1'000'000'000) std::snprintf(buf, sizeof buf, "%.1fM", v / 1e6);
    else std::snprintf(buf, sizeof buf, "%.2fB", v / 1e9);
    return buf;
}

std::string dollars(double cost) {
    if (cost > 0 && cost < 0.005) return "<$0.01";
    char buf[48];
    std::snprintf(buf, sizeof buf, "$%.2f", cost);
    std::string s(buf);
    // Thousands separators for the dollars.
    size_t dot = s.find('.');
    for (size_t i = dot; i > 4; i -= 3) s.insert(i - 3, ",");
    return s;
}

}  // namespace SpendText

namespace SpendTiles {

Tiles build(const std::vector<SpendEntry>& entries, Date now) {
    Date today = LocalCalendar::startOfDay(now);
    auto day = [&](Date from, Date to) {
        DailySpend d;
        d.day = from;
        sumBetween(entries, from, to, d.tokens, d.cost);
        d.unpricedModels = unpricedBetween(entries, from, to);
        return d;
    };
    Tiles t;
    t.today = day(today, LocalCalendar::addDays(today, 1));
    t.yesterday = day(LocalCalendar::addDays(today, -1), today);
    t.last30Days = day(LocalCalendar::addDays(today, -29), LocalCalendar::addDays(today, 1));
    return t;
}

}  // namespace SpendTiles

}  // namespace lumora
