#include <gtest/gtest.h>

#include <thread>

#include "lumora/usage/usage_backoff.hpp"
#include "lumora/usage/usage_snapshot_cache.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace std::chrono_literals;

namespace {

const Date kNow = Date{} + 1'800'000'000s;

HttpResponse answer(int status, std::optional<std::string> retryAfter = {}) {
    HttpResponse r;
    r.status = status;
    if (retryAfter) r.headers["retry-after"] = *retryAfter;
    return r;
}

}  // namespace

TEST(UsageBackoff, StrikesDoubleUpToTheCapAndAGoodAnswerClears) {
    UsageBackoff b;
    auto claude = HarnessProvider::claudeCode;
    EXPECT_TRUE(b.allows(claude, kNow));
    EXPECT_EQ(b.note429(claude, std::nullopt, kNow), 300);
    EXPECT_FALSE(b.allows(claude, kNow));
    EXPECT_TRUE(b.allows(HarnessProvider::codex, kNow));  // only the refusing provider is shut
    EXPECT_NEAR(*b.retryIn(claude, kNow + 100s), 200, 1e-6);
    // Time passes: open again on its own, strikes kept.
    EXPECT_TRUE(b.allows(claude, kNow + 301s));
    EXPECT_EQ(b.note429(claude, std::nullopt, kNow + 301s), 600);
    EXPECT_EQ(b.note429(claude, std::nullopt, kNow), 1200);
    EXPECT_EQ(b.note429(claude, std::nullopt, kNow), 1800);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(b.note429(claude, std::nullopt, kNow), 1800);
    // Any answer but a 429, noted with clearOnSuccess, clears the box: the next 429 costs the floor.
    EXPECT_FALSE(b.note(claude, answer(500), true, kNow));
    EXPECT_TRUE(b.allows(claude, kNow));
    EXPECT_TRUE(b.note(claude, answer(429), true, kNow));
    EXPECT_NEAR(*b.retryIn(claude, kNow), 300, 1e-6);
    EXPECT_FALSE(b.note(claude, answer(200), false, kNow));  // the caller's choice: kept
    EXPECT_FALSE(b.allows(claude, kNow));
}

TEST(UsageBackoff, RetryAfterIsHonouredOnlyAboveTheWaitAndOnlyWhenItIsANumber) {
    UsageBackoff b;
    auto claude = HarnessProvider::claudeCode;
    EXPECT_EQ(b.note429(claude, 60, kNow), 300);
    b.noteOK(claude);
    EXPECT_EQ(b.note429(claude, 900, kNow), 900);
    b.noteOK(claude);
    EXPECT_EQ(b.note429(claude, 7200, kNow), 1800);

    EXPECT_EQ(UsageBackoff::retryAfter(answer(429, " 120 ")), 120);
    EXPECT_EQ(UsageBackoff::retryAfter(answer(429, "1.5")), 1.5);
    for (const char* bad : {"-5", "0", "abc", "12abc", "Wed, 21 Oct 2026 07:28:00 GMT", "", "nan", "inf"})
        EXPECT_EQ(UsageBackoff::retryAfter(answer(429, bad)), std::nullopt) << bad;
    EXPECT_EQ(UsageBackoff::retryAfter(answer(429)), std::nullopt);
    // 10^12 seconds is a number, and the cap holds it.
    b.noteOK(claude);
    auto huge = UsageBackoff::retryAfter(answer(429, "1000000000000"));
    EXPECT_EQ(b.note429(claude, huge, kNow), 1800);

    EXPECT_EQ(UsageBackoff::humanWait(45), "in 45s");
    EXPECT_EQ(UsageBackoff::humanWait(0.2), "in 1s");
    EXPECT_EQ(UsageBackoff::humanWait(89.4), "in 89s");
    EXPECT_EQ(UsageBackoff::humanWait(90), "in 2 min");
    EXPECT_EQ(UsageBackoff::humanWait(600), "in 10 min");
}

TEST(UsageBackoff, TwoRefusalsAtOnceCountAsTwoStrikes) {
    UsageBackoff b;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([&] { b.note429(HarnessProvider::claudeCode, std::nullopt, kNow); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(b.entry(HarnessProvider::claudeCode)->strikes, 8);
}

TEST(UsageSnapshotCache, RoundTripsKeepsThroughFailuresAndClearsOneProvider) {
    test::TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    UsageSnapshotCache cache(defaults);
    using P = UsageSnapshotCache::Provider;

    PlanUsage usage;
    usage.planName = "Max 20x";
    usage.detail = "extra usage $4.20";
    usage.windows = {{62.5, kNow + 3600s, kFiveHours, "5h", "5-hour limit", true, false},
                     {12, std::nullopt, std::nullopt, "Opus", "Opus weekly", false, true}};
    EXPECT_FALSE(cache.isFresh(P::claude, 60, kNow));
    cache.store(usage, P::claude, kNow);
    cache.store(usage, P::codex, kNow - 100s);
    EXPECT_EQ(cache.load(P::claude), usage);
    EXPECT_TRUE(cache.isFresh(P::claude, 60, kNow + 59s));
    EXPECT_FALSE(cache.isFresh(P::claude, 60, kNow + 61s));
    EXPECT_NEAR(*cache.age(P::codex, kNow), 100, 1e-3);

    // A failed fetch stores nothing and keeps what is there.
    cache.store(std::nullopt, P::claude, kNow + 500s);
    EXPECT_EQ(cache.load(P::claude), usage);

    // The next run loads it, but it is not fresh there.
    UsageSnapshotCache nextRun(defaults);
    EXPECT_EQ(nextRun.load(P::claude), usage);
    EXPECT_FALSE(nextRun.isFresh(P::claude, 1e9, kNow));

    // Absent optionals are left out, not written as null.
    auto stored = defaults.dictionary(UsageSnapshotCache::kKey).value();
    auto window = stored["claude"]["windows"][1];
    EXPECT_FALSE(window.contains("period"));
    EXPECT_FALSE(window.contains("resetsAt"));

    cache.clear(P::claude);
    EXPECT_EQ(cache.load(P::claude), std::nullopt);
    EXPECT_TRUE(cache.load(P::codex));
    cache.clear();
    EXPECT_EQ(cache.load(P::codex), std::nullopt);
}

TEST(UsageSnapshotCache, MalformedStoredValuesReadAsNothing) {
    test::TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    UsageSnapshotCache cache(defaults);
    using P = UsageSnapshotCache::Provider;
    defaults.setString(UsageSnapshotCache::kKey, "garbage");
    EXPECT_EQ(cache.load(P::claude), std::nullopt);
    EXPECT_EQ(cache.age(P::claude, kNow), std::nullopt);

    // A window that does not decode is dropped; the others load.
    defaults.setValue(UsageSnapshotCache::kKey, nlohmann::ordered_json::parse(R"({
      "claude": {"savedAt": 1800000000, "windows": [
        {"label": "5h", "name": "5-hour limit", "percentUsed": "62"},
        {"label": "7d", "name": "7-day limit", "percentUsed": 10, "resetsAt": "soon"},
        {"label": "7d", "name": "7-day limit", "percentUsed": 41, "isCritical": false}]},
      "codex": {"savedAt": "yesterday", "windows": "none"}})"));
    auto usage = cache.load(P::claude);
    ASSERT_TRUE(usage);
    ASSERT_EQ(usage->windows.size(), 1u);
    EXPECT_EQ(usage->windows[0].percentUsed, 41);
    EXPECT_EQ(cache.load(P::codex), std::nullopt);
    EXPECT_EQ(cache.age(P::codex, kNow), std::nullopt);
    // The next store replaces the mistyped value.
    defaults.setString(UsageSnapshotCache::kKey, "garbage");
    cache.store(*usage, P::kimi, kNow);
    EXPECT_EQ(cache.load(P::kimi), usage);
}
