#include <gtest/gtest.h>

#include "lumora/base/dates.hpp"
#include "lumora/usage/pace.hpp"
#include "lumora/usage/plan_usage.hpp"

using namespace lumora;
using namespace std::chrono_literals;

namespace {

Date at(const char* iso) { return *PlanUsage::parseDate(iso); }

PlanUsage::Window window(double used, std::optional<double> period = kFiveHours, std::optional<Date> resets = {}) {
    PlanUsage::Window w;
    w.percentUsed = used;
    w.period = period;
    w.resetsAt = resets;
    w.label = "5h";
    return w;
}

}  // namespace

TEST(PlanUsage, ReadsTheListShapeInWindowOrderWithTheExtraUsageDetail) {
    auto usage = PlanUsage::parse(R"({
      "limits": [
        {"kind": "weekly_scoped", "percent": 100, "resets_at": "2026-11-28T09:00:00Z",
         "scope": {"model": {"display_name": "Opus"}}},
        {"kind": "weekly_all", "percent": 41.5, "resets_at": "2026-11-28T09:00:00.123456+00:00", "severity": "critical"},
        {"kind": "session", "percent": 94, "resets_at": "2026-11-22T14:00:00.5Z"},
        {"kind": "weekly_scoped", "percent": 3, "scope": {"model": {"display_name": "Sonnet"}}},
        {"kind": "someday_new", "percent": 50}
      ],
      "extra_usage": {"is_enabled": true, "used_credits": 420, "monthly_limit": 5000}})");
    ASSERT_TRUE(usage);
    ASSERT_EQ(usage->windows.size(), 4u);
    EXPECT_EQ(usage->windows[0].label, "5h");
    EXPECT_EQ(usage->windows[0].period, kFiveHours);
    EXPECT_EQ(usage->windows[1].name, "7-day limit");
    EXPECT_TRUE(usage->windows[1].isCritical);
    EXPECT_EQ(usage->windows[1].resetsAt, at("2026-11-28T09:00:00.123Z") + 456us);
    // Model-scoped weeks keep the provider's order among themselves.
    EXPECT_EQ(usage->windows[2].name, "Opus weekly");
    EXPECT_TRUE(usage->windows[2].isModelScoped);
    EXPECT_EQ(usage->windows[3].label, "Sonnet");
    EXPECT_EQ(usage->windows[3].resetsAt, std::nullopt);
    EXPECT_EQ(usage->detail, "extra usage $4.20 of $50");
    // A maxed model-scoped week is pressure, but not plan-wide; the 94% session is both.
    EXPECT_TRUE(usage->hasPressure());
    EXPECT_TRUE(usage->planWidePressure());
    usage->windows.erase(usage->windows.begin());
    EXPECT_TRUE(usage->hasPressure());
    EXPECT_FALSE(usage->planWidePressure());
}

TEST(PlanUsage, ReadsTheLegacyShapeAndRefusesWhatIsNotAnAnswer) {
    auto legacy = PlanUsage::parse(R"({"five_hour": {"utilization": 60, "resets_at": "2026-11-22T14:00:00+02:00"},
                                       "seven_day": null})");
    ASSERT_TRUE(legacy);
    ASSERT_EQ(legacy->windows.size(), 1u);
    EXPECT_EQ(legacy->windows[0].label, "5h");
    EXPECT_EQ(legacy->windows[0].period, 18000);
    EXPECT_EQ(legacy->windows[0].resetsAt, at("2026-11-22T12:00:00Z"));
    EXPECT_FALSE(legacy->hasPressure());
    EXPECT_EQ(legacy->detail, std::nullopt);

    // Wrong types: a string percent drops its window, an unparsable reset is
    // no reset, "limits" as an object is not the list (and there is no legacy window either).
    auto typed = PlanUsage::parse(R"({"limits": [{"kind": "session", "percent": "62"},
                                                 {"kind": "weekly_all", "percent": 10, "resets_at": "next tuesday"},
                                                 {"kind": 7, "percent": 1}, "junk", null]})");
    ASSERT_TRUE(typed);
    ASSERT_EQ(typed->windows.size(), 1u);
    EXPECT_EQ(typed->windows[0].label, "7d");
    EXPECT_EQ(typed->windows[0].resetsAt, std::nullopt);
    for (const char* body : {R"({"limits": {"kind": "session", "percent": 5}})", "not json", "", "[1,2]", "{}",
                             R"({"five_hour": null, "seven_day": null})", R"({"limits": []})",
                             R"({"five_hour": {"utilization": true}})"})
        EXPECT_EQ(PlanUsage::parse(body), std::nullopt) << body;
    std::string deep(100000, '[');
    EXPECT_EQ(PlanUsage::parse(deep), std::nullopt);
}

TEST(PlanUsage, DepletionPressureLabelsAndDates) {
    EXPECT_TRUE(window(99.5).isDepleted());
    EXPECT_FALSE(window(99.4).isDepleted());  // 0.6 left rounds to 1
    EXPECT_FALSE(window(60).isDepleted());
    PlanUsage u;
    u.windows = {window(94)};
    EXPECT_TRUE(u.hasPressure());
    u.windows = {window(60)};
    EXPECT_FALSE(u.hasPressure());
    u.windows = {window(89.5)};  // 10.5 left rounds to 11, under 90 used: no pressure
    EXPECT_FALSE(u.hasPressure());
    EXPECT_EQ(window(140).percentLeft(), 0);
    EXPECT_EQ(window(-20).percentLeft(), 100);

    EXPECT_EQ(PlanUsage::windowLabel(18000)->label, "5h");
    EXPECT_EQ(PlanUsage::windowLabel(18000)->name, "5-hour limit");
    EXPECT_EQ(PlanUsage::windowLabel(604800)->label, "7d");
    EXPECT_EQ(PlanUsage::windowLabel(2592000)->name, "30-day limit");
    EXPECT_EQ(PlanUsage::windowLabel(std::nullopt), std::nullopt);
    EXPECT_EQ(PlanUsage::windowLabel(-5), std::nullopt);

    EXPECT_EQ(at("2026-11-22T10:00:00Z"), Dates::parseIso("2026-11-22T10:00:00Z"));
    EXPECT_EQ(at("2026-11-22T10:00:00-0500"), at("2026-11-22T15:00:00Z"));
    EXPECT_EQ(at("2026-11-22T10:00:00.25Z"), at("2026-11-22T10:00:00Z") + 250ms);
    for (const char* bad : {"2026-11-22", "2026-13-01T00:00:00Z", "2026-11-22T10:00:00.Z", "2026-11-22T10:00:00+2",
                            "2026-02-30T00:00:00Z", "yesterday", "2026-11-22T10:00:00Zjunk"})
        EXPECT_EQ(PlanUsage::parseDate(bad), std::nullopt) << bad;
}

TEST(Pace, EstimatesVerdictsAndCompactDurations) {
    Date now = at("2026-11-22T12:00:00Z");
    // Half-way through five hours.
    auto half = [&](double used) { return PaceEstimate::estimate(window(used, kFiveHours, now + 9000s), now); };
    EXPECT_EQ(half(30)->verdict.kind, PaceEstimate::Kind::ahead);
    EXPECT_DOUBLE_EQ(half(30)->projectedPercent, 60);
    EXPECT_EQ(half(48)->verdict.kind, PaceEstimate::Kind::onTrack);
    auto behind = half(80);
    EXPECT_EQ(behind->verdict.kind, PaceEstimate::Kind::behind);
    EXPECT_NEAR(behind->verdict.eta, 18000 / 8.0, 1e-6);  // an eighth of the period
    EXPECT_DOUBLE_EQ(behind->fractionElapsed, 0.5);
    EXPECT_EQ(behind->label(), "runs out in 38m");

    EXPECT_EQ(PaceEstimate::estimate(window(50, kFiveHours, now + 18000s - 30s), now), std::nullopt);  // too early
    EXPECT_EQ(PaceEstimate::estimate(window(50, kFiveHours, now + 18000s - 150s), now), std::nullopt);  // 1% is 3 min
    EXPECT_EQ(half(4), std::nullopt);
    EXPECT_EQ(PaceEstimate::estimate(window(50, std::nullopt, now + 9000s), now), std::nullopt);
    EXPECT_EQ(PaceEstimate::estimate(window(50, kFiveHours, std::nullopt), now), std::nullopt);
    auto past = PaceEstimate::estimate(window(50, kFiveHours, now - 60s), now);
    ASSERT_TRUE(past);
    EXPECT_DOUBLE_EQ(past->fractionElapsed, 1.0);

    EXPECT_EQ(Pace::compact(3600), "1h");
    EXPECT_EQ(Pace::compact(90 * 60), "1h 30m");
    EXPECT_EQ(Pace::compact(1), "1m");
    EXPECT_EQ(Pace::compact(1500 * 60), "1d 1h");
    EXPECT_EQ(Pace::compact(-5), "1m");
}

TEST(Pace, AlertsOncePerWorseningPerCycle) {
    Date now = at("2026-11-22T12:00:00Z");
    auto observe = [&](PaceAlertState& s, double used, Date resets) {
        auto w = window(used, kFiveHours, resets);
        return s.observe(w, PaceEstimate::estimate(w, now));
    };
    Date cycle = now + 9000s;
    PaceAlertState calm;
    EXPECT_EQ(observe(calm, 30, cycle), std::nullopt);  // primes only
    EXPECT_EQ(observe(calm, 80, cycle), PaceAlertState::Milestone::willRunOut);
    EXPECT_EQ(observe(calm, 85, cycle), std::nullopt);  // same verdict
    EXPECT_EQ(observe(calm, 30, cycle), std::nullopt);  // recovers
    EXPECT_EQ(observe(calm, 80, cycle), std::nullopt);  // worsens again in the same cycle: quiet
    Date next = cycle + 18000s;
    EXPECT_EQ(observe(calm, 10, next), std::nullopt);  // a new cycle re-arms...
    now += 18000s;
    EXPECT_EQ(observe(calm, 80, next), PaceAlertState::Milestone::willRunOut);  // ...and fires once more

    PaceAlertState crisis;
    EXPECT_EQ(observe(crisis, 90, now + 9000s), std::nullopt);  // launched mid-crisis: silent
    EXPECT_EQ(observe(crisis, 95, now + 9000s), std::nullopt);
}
