#include <gtest/gtest.h>

#include "lumora/monitor/status_rules.hpp"

using namespace lumora;
using namespace lumora::StatusRules;
using namespace std::chrono_literals;

TEST(StatusRules, RefreshCadence) {
    auto s = [](bool hooks, bool active, bool low) { return refreshInterval(hooks, active, low).count(); };
    EXPECT_EQ(s(false, true, false), 2);
    EXPECT_EQ(s(false, true, true), 5);
    EXPECT_EQ(s(false, false, false), 8);
    EXPECT_EQ(s(false, false, true), 20);
    EXPECT_EQ(s(true, true, false), 10);
    EXPECT_EQ(s(true, false, false), 10);
    EXPECT_EQ(s(true, false, true), 25);
}

TEST(StatusRules, AgentsActiveUntilIdleFor900Seconds) {
    auto now = std::chrono::system_clock::now();
    AgentInstance a;
    a.status = AgentStatus::idle;
    a.lastActivity = now - 899s;
    EXPECT_TRUE(agentsActive({a}, now));
    a.lastActivity = now - 900s;
    EXPECT_FALSE(agentsActive({a}, now));
    a.status = AgentStatus::waiting;
    EXPECT_TRUE(agentsActive({a}, now));
    EXPECT_FALSE(agentsActive({}, now));
}

TEST(StatusRules, TranscriptHeuristics) {
    TranscriptFacts midTurn{true, PendingApproval::edit, false, 5};
    EXPECT_EQ(initialStatus(midTurn, 30), AgentStatus::working);
    midTurn.ageSeconds = 6;
    EXPECT_EQ(initialStatus(midTurn, 30), AgentStatus::attention);
    TranscriptFacts run{true, PendingApproval::run, false, 19};
    EXPECT_EQ(initialStatus(run, 30), AgentStatus::working);
    run.ageSeconds = 20;
    EXPECT_EQ(initialStatus(run, 30), AgentStatus::attention);
    EXPECT_EQ(initialStatus({true, PendingApproval::question, false, 0}, 30), AgentStatus::attention);

    TranscriptFacts question{false, std::nullopt, true, 60};
    EXPECT_EQ(initialStatus(question, 30), AgentStatus::attention);
    question.ageSeconds = 31 * 60;
    EXPECT_EQ(initialStatus(question, 30), AgentStatus::idle);  // idle is never raised
    EXPECT_EQ(initialStatus({false, std::nullopt, false, 60}, 30), AgentStatus::waiting);
    // A stored 0 behaves as 30 minutes.
    EXPECT_EQ(initialStatus({false, std::nullopt, false, 29 * 60}, 0), AgentStatus::waiting);
    EXPECT_EQ(initialStatus({false, std::nullopt, false, 31 * 60}, 0), AgentStatus::idle);
}

TEST(StatusRules, BusySignalAndItsRefutation) {
    auto busy = std::chrono::system_clock::now();
    EXPECT_TRUE(busyApplies(busy, true, busy + 10s));       // the transcript agrees
    EXPECT_TRUE(busyApplies(busy, false, busy - 5s));       // the normal lag while a tool runs
    EXPECT_FALSE(busyApplies(busy, false, busy + 2s));      // a settled entry after the signal
    EXPECT_TRUE(busyApplies(busy, false, std::nullopt));
}

TEST(StatusRules, IdleMarkerFlip) {
    auto created = std::chrono::system_clock::now();
    EXPECT_TRUE(idleMarkerFlips(AgentStatus::working, false, created, created - 5s, created - 1s));
    EXPECT_FALSE(idleMarkerFlips(AgentStatus::working, true, created, std::nullopt, std::nullopt));  // background work
    EXPECT_FALSE(idleMarkerFlips(AgentStatus::working, false, created, created + 1s, std::nullopt));  // newer busy
    EXPECT_FALSE(idleMarkerFlips(AgentStatus::working, false, created, std::nullopt, created + 1s));  // newer entry
    EXPECT_TRUE(idleMarkerFlips(AgentStatus::working, false, std::nullopt, created + 1s, created + 1s));
    EXPECT_FALSE(idleMarkerFlips(AgentStatus::waiting, false, created, std::nullopt, std::nullopt));
}

TEST(StatusRules, ProcessorUseHold) {
    auto now = std::chrono::system_clock::now();
    CpuHoldInput in{AgentStatus::waiting, AgentStatus::working, false, true, 40.0, 40.0, std::nullopt, false};
    EXPECT_EQ(cpuHoldOutcome(in, now), CpuHoldOutcome::hold);
    in.holdSince = now - 599s;
    EXPECT_EQ(cpuHoldOutcome(in, now), CpuHoldOutcome::hold);
    in.holdSince = now - 600s;
    EXPECT_EQ(cpuHoldOutcome(in, now), CpuHoldOutcome::capped);
    in.holdSince.reset();

    auto variant = [&](auto change) {
        auto v = in;
        change(v);
        return cpuHoldOutcome(v, now);
    };
    EXPECT_EQ(variant([](auto& v) { v.cpuPrevious = 5.0; }), CpuHoldOutcome::idle);  // a single spike
    EXPECT_EQ(variant([](auto& v) { v.cpuPrevious.reset(); }), CpuHoldOutcome::idle);  // first sample
    EXPECT_EQ(variant([](auto& v) { v.cpuNow = 11.0, v.cpuPrevious = 11.0; }), CpuHoldOutcome::idle);
    EXPECT_EQ(variant([](auto& v) { v.candidate = AgentStatus::attention; }), CpuHoldOutcome::idle);
    EXPECT_EQ(variant([](auto& v) { v.previous = AgentStatus::waiting; }), CpuHoldOutcome::idle);
    EXPECT_EQ(variant([](auto& v) { v.hookGroundTruth = true; }), CpuHoldOutcome::idle);
    EXPECT_EQ(variant([](auto& v) { v.paired = false; }), CpuHoldOutcome::idle);
    EXPECT_EQ(variant([](auto& v) { v.alreadyCapped = true; }), CpuHoldOutcome::idle);
}
