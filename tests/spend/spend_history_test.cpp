#include <gtest/gtest.h>

#include <ctime>

#include "lumora/spend/local_calendar.hpp"
#include "lumora/spend/spend_history.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

// A local time `daysAgo` days before 2026-11-24 (TZ decides the zone).
Date local(int daysAgo, int hour, int minute) {
    std::tm tm{};
    tm.tm_year = 2026 - 1900;
    tm.tm_mon = 10;
    tm.tm_mday = 24 - daysAgo;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_isdst = -1;
    ::tzset();
    return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

SpendEntry entry(SpendProvider p, Date at, int64_t tokens, double cost = 0, std::optional<std::string> unpriced = {}) {
    return SpendEntry{p, at, tokens, tokens, cost, std::move(unpriced)};
}

std::vector<SpendEntry> sorted(std::vector<SpendEntry> v) {
    std::sort(v.begin(), v.end(), [](const SpendEntry& a, const SpendEntry& b) { return a.date < b.date; });
    return v;
}

}  // namespace

TEST(SpendHistory, RangesBucketsAndComparisons) {
    ScopedEnv tz("TZ", "XST-5:30");  // a zone half an hour off whole hours
    Date now = local(0, 15, 20);
    auto entries = sorted({
        entry(SpendProvider::claude, local(0, 9, 10), 1000, 1.0),
        entry(SpendProvider::codex, local(0, 9, 40), 200, 0.2),
        entry(SpendProvider::claude, local(0, 14, 30), 500, 0.5, "claude-opus-5-5"),
        entry(SpendProvider::kimi, local(1, 10, 0), 300),   // yesterday before this time of day
        entry(SpendProvider::kimi, local(1, 20, 0), 400),   // yesterday evening: after this time of day
        entry(SpendProvider::opencode, local(9, 12, 0), 700),
        entry(SpendProvider::claude, local(10, 12, 0), 50),  // in the 7 days before the week
        entry(SpendProvider::claude, local(40, 12, 0), 60),  // in the 30 days before the month
        entry(SpendProvider::claude, local(-1, 1, 0), 9),   // tomorrow (a clock ahead): in no range
    });

    auto today = SpendHistory::build(SpendRange::today, entries, now);
    EXPECT_EQ(today.unit, SpendHistory::Unit::hour);
    ASSERT_EQ(today.span, 16);
    EXPECT_EQ(today.days[9].claudeTokens, 1000);
    EXPECT_EQ(today.days[9].codexTokens, 200);
    EXPECT_DOUBLE_EQ(today.days[9].cost, 1.2);
    EXPECT_EQ(today.days[14].claudeTokens, 500);
    EXPECT_EQ(today.days[14].date, local(0, 14, 0));
    EXPECT_EQ(today.totalTokens, 1700);
    EXPECT_EQ(today.claudeTokens, 1500);
    EXPECT_EQ(today.previousTokens, 300);
    EXPECT_EQ(today.unpricedModels, std::vector<std::string>{"claude-opus-5-5"});
    EXPECT_EQ(LocalCalendar::isoLocal(today.days[0].date), "2026-11-24T00:00:00+05:30");

    auto week = SpendHistory::build(SpendRange::week, entries, now);
    ASSERT_EQ(week.span, 7);
    EXPECT_EQ(week.days.back().date, local(0, 0, 0));
    EXPECT_EQ(week.days[5].kimiTokens, 700);
    EXPECT_EQ(week.totalTokens, 2400);  // nine days ago is not in the week
    EXPECT_EQ(week.previousTokens, 750);

    auto month = SpendHistory::build(SpendRange::month, entries, now);
    ASSERT_EQ(month.span, 30);
    EXPECT_EQ(month.totalTokens, 3150);
    EXPECT_EQ(month.opencodeTokens, 700);
    EXPECT_EQ(month.previousTokens, 60);

    // Building every range together gives today as building it alone.
    EXPECT_EQ(SpendHistory::build(SpendRange::today, entries, now), today);

    auto patterns = SpendHistory::build(SpendRange::patterns, entries, now);
    EXPECT_EQ(patterns.span, 24);
    EXPECT_EQ(patterns.days[12].tokens(), 750);  // 9 and 10 days ago at noon; 40 days ago is too old

    auto summary = SpendSummary::build(entries, now);
    EXPECT_EQ(summary.todayTokens, 1700);
    EXPECT_EQ(summary.todayClaude, 1500);
    EXPECT_DOUBLE_EQ(summary.todayCost, 1.7);
    EXPECT_EQ(summary.comparisonSameTime, 300);
    EXPECT_EQ(summary.comparisonDate, local(1, 0, 0));
    EXPECT_EQ(summary.typicalDay, 700);  // the median of the days with work: 50, 700, 700
    EXPECT_EQ(summary.days.size(), 30u);
    EXPECT_EQ(summary.unpricedModels, std::vector<std::string>{"claude-opus-5-5"});
}

TEST(SpendHistory, TheUsersZoneDecidesTheDay) {
    // 20:00 UTC on the 23rd is the 24th in a zone five and a half hours ahead.
    Date at = std::chrono::system_clock::from_time_t(1'795'464'000);  // 2026-11-23T20:00:00Z
    std::vector<SpendEntry> entries = {entry(SpendProvider::claude, at, 10)};
    Date later = at + std::chrono::hours(4);
    {
        ScopedEnv tz("TZ", "UTC0");
        EXPECT_EQ(SpendHistory::build(SpendRange::today, entries, later).totalTokens, 0);
    }
    {
        ScopedEnv tz("TZ", "XST-5:30");
        auto today = SpendHistory::build(SpendRange::today, entries, later);
        EXPECT_EQ(today.totalTokens, 10);
        EXPECT_EQ(today.days[1].claudeTokens, 10);  // 01:30 local
    }
    // A spring-forward day has no 02:00; its hours still bucket by the clock.
    ScopedEnv tz("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    std::tm tm{};
    tm.tm_year = 2026 - 1900;
    tm.tm_mon = 2;
    tm.tm_mday = 29;
    tm.tm_hour = 15;
    tm.tm_isdst = -1;
    ::tzset();
    Date dstNow = std::chrono::system_clock::from_time_t(std::mktime(&tm));
    auto dst = SpendHistory::build(SpendRange::today, {entry(SpendProvider::codex, dstNow - std::chrono::hours(12), 4)}, dstNow);
    EXPECT_EQ(dst.span, 16);
    EXPECT_EQ(dst.days[3].codexTokens, 4);  // twelve hours before 15:00 is 03:00 on this 23-hour day
    EXPECT_EQ(dst.days[2].tokens(), 0);
    EXPECT_EQ(dst.days[2].date, dst.days[3].date);
}
