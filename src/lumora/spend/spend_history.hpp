#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumora/spend/spend_event.hpp"

namespace lumora {

// One counted response after de-duplication, with its agent.
struct SpendEntry {
    SpendProvider provider = SpendProvider::claude;
    Date date{};
    int64_t tokens = 0;
    int64_t newTokens = 0;
    double cost = 0;
    std::optional<std::string> unpricedModel;
    bool operator==(const SpendEntry&) const = default;
};

// The history view's ranges, in order.
enum class SpendRange { today, week, month, patterns };
std::string_view rawValue(SpendRange r);

// One range's buckets: `today` by hour (hour 0 to the current hour), `week`
// and `month` by day (7 and 30 days ending today), `patterns` by hour of the
// day over the last 30 days. All in the user's local calendar.
struct SpendHistory {
    enum class Unit { day, hour };

    // One bucket.
    struct Day {
        Date date{};  // the start of its day or hour
        int64_t claudeTokens = 0;
        int64_t codexTokens = 0;
        int64_t kimiTokens = 0;
        int64_t cursorTokens = 0;
        int64_t opencodeTokens = 0;
        double cost = 0;
        int64_t tokens() const { return claudeTokens + codexTokens + kimiTokens + cursorTokens + opencodeTokens; }
        bool operator==(const Day&) const = default;
    };

    std::vector<Day> days;
    int span = 0;  // number of buckets
    Unit unit = Unit::day;
    int64_t totalTokens = 0;
    double totalCost = 0;
    int64_t claudeTokens = 0;
    int64_t codexTokens = 0;
    int64_t kimiTokens = 0;
    int64_t cursorTokens = 0;
    int64_t opencodeTokens = 0;
    double claudeCost = 0;
    double codexCost = 0;
    double kimiCost = 0;
    double opencodeCost = 0;
    std::vector<std::string> cursorModels;
    std::optional<Date> cursorFetchedAt;
    std::vector<std::string> unpricedModels;  // sorted: tokens counted, no dollars
    // `today`: yesterday's work up to this time of day; `week` and `month`:
    // the span of the same length before the range.
    int64_t previousTokens = 0;

    bool operator==(const SpendHistory&) const = default;

    // The range at `now` over entries sorted by date.
    static SpendHistory build(SpendRange range, const std::vector<SpendEntry>& entries, Date now);
};

// One day's total.
struct DailySpend {
    Date day{};
    int64_t tokens = 0;
    double cost = 0;
    std::vector<std::string> unpricedModels;
    bool operator==(const DailySpend&) const = default;
};

// The figures the notch (and the terminal view's strip) show.
struct SpendSummary {
    struct Day {
        Date date{};
        int64_t tokens = 0;
        double cost = 0;
        bool operator==(const Day&) const = default;
    };
    int64_t todayNewTokens = 0;
    std::vector<Day> days;  // the last 30 days, today last
    int64_t todayTokens = 0;
    double todayCost = 0;
    int64_t todayClaude = 0, todayCodex = 0, todayKimi = 0, todayOpenCode = 0;
    double todayClaudeCost = 0, todayCodexCost = 0, todayKimiCost = 0, todayOpenCodeCost = 0;
    // Yesterday up to this time of day.
    int64_t comparisonSameTime = 0;
    double comparisonSameTimeCost = 0;
    Date comparisonDate{};  // the start of yesterday
    // The median of the days with any work among the 30 before today.
    int64_t typicalDay = 0;
    double typicalDayCost = 0;
    std::vector<std::string> unpricedModels;  // today's

    bool operator==(const SpendSummary&) const = default;

    static SpendSummary build(const std::vector<SpendEntry>& entries, Date now);
};

// Spend figures as people read them.
namespace SpendText {
// "950", "12.3k", "1.2M", "3.45B".
std::string compactTokens(int64_t tokens);
// "$12.34", "$1,234.50", "<$0.01", "$0.00".
std::string dollars(double cost);
}  // namespace SpendText

namespace SpendTiles {

// The three summary tiles.
struct Tiles {
    DailySpend today, yesterday, last30Days;
    bool operator==(const Tiles&) const = default;
};
Tiles build(const std::vector<SpendEntry>& entries, Date now);

}  // namespace SpendTiles

}  // namespace lumora
