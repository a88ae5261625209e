#include <gtest/gtest.h>

#include <mutex>

#include "lumora/usage/usage_poller.hpp"
#include "support/test_http_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace std::chrono_literals;

namespace {

// A provider whose answers the test writes.
class ScriptedSource : public QuotaSource {
public:
    ScriptedSource(HarnessProvider provider, bool network) : provider_(provider), network_(network) {}
    HarnessProvider provider() const override { return provider_; }
    bool usesNetwork() const override { return network_; }
    QuotaFetch fetch(Date now, const std::atomic<bool>&) override {
        std::lock_guard lock(mutex_);
        ++calls_;
        QuotaFetch f;
        f.probe.provider = provider_;
        f.probe.blocker = usage_ ? UsageBlocker::ok : UsageBlocker::unreachable;
        f.probe.usage = usage_;
        return f;
    }
    void answer(std::optional<PlanUsage> usage) {
        std::lock_guard lock(mutex_);
        usage_ = std::move(usage);
    }
    int calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    HarnessProvider provider_;
    bool network_;
    mutable std::mutex mutex_;
    std::optional<PlanUsage> usage_;
    int calls_ = 0;
};

PlanUsage used(double percent, std::optional<Date> resets = {}) {
    PlanUsage u;
    u.windows = {{percent, resets, kFiveHours, "5h", "5-hour limit", false, false}};
    return u;
}

struct Rig {
    test::TempDir dir;
    DefaultsStore defaults{dir / "defaults.json"};
    UsageSnapshotCache cache{defaults};
    RunLoop loop;
    std::atomic<Date::rep> clock{std::chrono::system_clock::now().time_since_epoch().count()};
    ScriptedSource* claude = nullptr;
    ScriptedSource* codex = nullptr;
    std::unique_ptr<UsagePoller> poller;
    int publishes = 0;

    Rig() {
        UsagePoller::Dependencies deps;
        auto c = std::make_unique<ScriptedSource>(HarnessProvider::claudeCode, true);
        auto x = std::make_unique<ScriptedSource>(HarnessProvider::codex, false);
        claude = c.get();
        codex = x.get();
        deps.sources.push_back(std::move(c));
        deps.sources.push_back(std::move(x));
        deps.cache = &cache;
        deps.loop = &loop;
        deps.clock = [this] { return now(); };
        poller = std::make_unique<UsagePoller>(std::move(deps));
        poller->setOnPublish([this] { ++publishes; });
    }
    Date now() const { return Date(Date::duration(clock.load())); }
    void advance(std::chrono::seconds s) { clock += std::chrono::duration_cast<Date::duration>(s).count(); }
    bool cycle() {
        auto target = poller->cycleCount() + 1;
        poller->refreshNow();
        return loop.runUntil([&] { return poller->cycleCount() >= target; }, 5s);
    }
};

}  // namespace

TEST(UsagePoller, SeedsFromTheWeeksSnapshotsThenReadsAndPollsOnItsCadence) {
    Rig rig;
    rig.cache.store(used(40), UsageSnapshotCache::Provider::claude, rig.now() - 600s);
    rig.cache.store(used(10), UsageSnapshotCache::Provider::codex, rig.now() - 8 * 24h);  // dark for a week
    rig.claude->answer(used(55));
    rig.poller->start();
    // Seeded at once, with its age, before any read comes back.
    ASSERT_EQ(rig.poller->readings().size(), 1u);
    EXPECT_EQ(rig.poller->readings()[0].usage, used(40));
    EXPECT_EQ(rig.poller->readings()[0].fetchedAt, rig.now() - 600s);
    ASSERT_TRUE(rig.loop.runUntil([&] { return rig.poller->cycleCount() == 1; }, 5s));
    EXPECT_EQ(rig.poller->readings()[0].usage, used(55));
    EXPECT_EQ(rig.poller->scheduledInterval(), 300);
    EXPECT_EQ(rig.cache.load(UsageSnapshotCache::Provider::claude), used(55));  // a good reading is stored

    // A network reading younger than a minute is not asked again; the local one is.
    ASSERT_TRUE(rig.cycle());
    EXPECT_EQ(rig.claude->calls(), 1);
    EXPECT_EQ(rig.codex->calls(), 2);

    // Pressure shortens the interval; a failed read keeps the last good numbers and says why.
    rig.advance(120s);
    rig.claude->answer(used(94));
    ASSERT_TRUE(rig.cycle());
    EXPECT_EQ(rig.poller->scheduledInterval(), 60);
    rig.advance(120s);
    rig.claude->answer(std::nullopt);
    ASSERT_TRUE(rig.cycle());
    ASSERT_EQ(rig.poller->readings().size(), 1u);
    EXPECT_EQ(rig.poller->readings()[0].usage, used(94));
    EXPECT_EQ(rig.poller->readings()[0].blocker, UsageBlocker::unreachable);
    EXPECT_EQ(rig.cache.load(UsageSnapshotCache::Provider::claude), used(94));
    // Failures for most of a week keep it; a week dark hides it.
    rig.advance(6 * 24h);
    ASSERT_TRUE(rig.cycle());
    EXPECT_EQ(rig.poller->readings().size(), 1u);
    rig.advance(25h);
    ASSERT_TRUE(rig.cycle());
    EXPECT_TRUE(rig.poller->readings().empty());

    // Off: no timer, nothing shown, no reads; on again starts from the snapshots.
    rig.poller->setEnabled(false);
    EXPECT_EQ(rig.poller->scheduledInterval(), std::nullopt);
    int calls = rig.codex->calls();
    rig.poller->refreshNow();
    rig.loop.runOnce(50ms);
    EXPECT_EQ(rig.codex->calls(), calls);
    rig.cache.store(used(20), UsageSnapshotCache::Provider::codex, rig.now());
    rig.poller->setEnabled(true);
    EXPECT_EQ(rig.poller->readings().size(), 1u);
    EXPECT_EQ(rig.poller->scheduledInterval(), 300);

    EXPECT_EQ(UsagePoller::mergedUsage(std::nullopt, used(5), 2700.0), used(5));  // past 45 min: still kept
    EXPECT_EQ(UsagePoller::mergedUsage(std::nullopt, used(5), 604800.0), std::nullopt);
    EXPECT_EQ(UsagePoller::mergedUsage(std::nullopt, std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(UsagePoller::mergedUsage(used(7), used(5), 10.0), used(7));
}

TEST(UsagePoller, AWindowTurningToRunOutRaisesOneAlert) {
    Rig rig;
    Date resets = rig.now() + 9000s;  // half-way through five hours
    rig.codex->answer(used(30, resets));
    rig.poller->start();
    ASSERT_TRUE(rig.loop.runUntil([&] { return rig.poller->cycleCount() == 1; }, 5s));
    EXPECT_EQ(rig.poller->alert(), std::nullopt);
    rig.codex->answer(used(80, resets));
    ASSERT_TRUE(rig.cycle());
    ASSERT_TRUE(rig.poller->alert());
    EXPECT_EQ(rig.poller->alert()->provider, HarnessProvider::codex);
    EXPECT_EQ(rig.poller->alert()->text, "5-hour limit runs out in 38m, before its reset in 2h 30m");
    auto token = rig.poller->alert()->token;
    ASSERT_TRUE(rig.cycle());
    EXPECT_EQ(rig.poller->alert()->token, token);
    // The strip's projection says the same.
    auto pace = rig.poller->readings()[0].pace(rig.poller->readings()[0].usage.windows[0], rig.now());
    ASSERT_TRUE(pace);
    EXPECT_EQ(pace->label(), "runs out in 38m");
    // A stale reading never projects an overrun.
    EXPECT_EQ(rig.poller->readings()[0].pace(rig.poller->readings()[0].usage.windows[0], rig.now() + 31min), std::nullopt);
}

TEST(UsagePoller, AHungServerNeverHoldsTheMainLoopAndStoppingCancelsIt) {
    test::TempHome home;
    test::writeFile(home / ".claude/.credentials.json", R"({"claudeAiOauth": {"accessToken": "t"}})");
    test::TestHttpServer server([](const test::TestHttpServer::Request&) {
        test::TestHttpServer::Reply r;
        r.delay = 20s;
        return r;
    });
    test::ScopedEnv api("LUMORA_CLAUDE_API_URL", server.url());
    RunLoop loop;
    UsageBackoff backoff;
    UsagePoller::Dependencies deps;
    deps.sources.push_back(std::make_unique<ClaudeQuotaSource>(ClaudeQuotaSource::EnvironmentSource{}, backoff));
    deps.loop = &loop;
    auto poller = std::make_unique<UsagePoller>(std::move(deps));
    poller->start();
    ASSERT_TRUE(loop.runUntil([&] { return server.requestCount() == 1; }, 5s));
    // The request hangs; the main loop still runs what is posted.
    for (int i = 0; i < 20; ++i) {
        bool ran = false;
        loop.post([&] { ran = true; });
        EXPECT_TRUE(loop.runUntil([&] { return ran; }, 5s));
    }
    EXPECT_TRUE(poller->cycleInFlight());
    EXPECT_EQ(server.requestCount(), 1);
    // Going away cancels the request rather than waiting out its 12 s time-out.
    auto started = std::chrono::steady_clock::now();
    poller.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
}
