#include <gtest/gtest.h>

#include "lumora/monitor/agent_instance.hpp"

using namespace lumora;
using namespace std::chrono_literals;

namespace {
AgentInstance make(std::string id, AgentStatus status, Date last = std::chrono::system_clock::now()) {
    AgentInstance a;
    a.id = std::move(id);
    a.status = status;
    a.lastActivity = last;
    return a;
}
}  // namespace

TEST(AgentInstance, DormancyAndStaleness) {
    auto now = std::chrono::system_clock::now();
    EXPECT_TRUE(make("a", AgentStatus::idle, now - 900s).isDormant(now));
    EXPECT_FALSE(make("a", AgentStatus::idle, now - 899s).isDormant(now));
    EXPECT_FALSE(make("a", AgentStatus::idle, now - 300s).isDormant(now));
    EXPECT_TRUE(make("a", AgentStatus::idle, now - 40min).isDormant(now));
    EXPECT_FALSE(make("a", AgentStatus::idle, now - 40min).isStale(now));  // dormant, not yet stale

    auto fourDays = now - 96h;
    EXPECT_FALSE(make("w", AgentStatus::working, fourDays).isStale(now));
    EXPECT_FALSE(make("w", AgentStatus::working, fourDays).isDormant(now));
    for (auto s : {AgentStatus::idle, AgentStatus::waiting, AgentStatus::attention})
        EXPECT_TRUE(make("s", s, fourDays).isStale(now));
    EXPECT_FALSE(make("s", AgentStatus::waiting, now - 23h).isStale(now));
    EXPECT_FALSE(make("s", AgentStatus::waiting, now - 30 * 24h).isDormant(now));  // waiting is never dormant
}

TEST(AgentInstance, ContextFractionAndLabel) {
    AgentInstance a;
    EXPECT_FALSE(a.contextFraction());
    EXPECT_FALSE(a.contextLabel());
    a.contextTokens = 250000;
    a.contextMax = 200000;
    EXPECT_DOUBLE_EQ(*a.contextFraction(), 1.0);
    a.contextMax = 0;
    EXPECT_FALSE(a.contextFraction());
    a.contextMax = 1000000;
    EXPECT_DOUBLE_EQ(*a.contextFraction(), 0.25);
    EXPECT_EQ(a.contextLabel(), "250k ctx");
    a.contextTokens = 512;
    EXPECT_EQ(a.contextLabel(), "512 ctx");
    a.contextTokens = 42999;
    EXPECT_EQ(a.contextLabel(), "42k ctx");
    a.contextTokens = 1200000;
    EXPECT_EQ(a.contextLabel(), "1.2M ctx");
    a.contextTokens = 2000000;
    EXPECT_EQ(a.contextLabel(), "2M ctx");
}

TEST(AgentInstance, EqualityComparesEveryField) {
    auto now = std::chrono::system_clock::now();
    auto a = make("x", AgentStatus::working, now);
    auto b = a;
    EXPECT_EQ(a, b);
    b.workspaceFolders.push_back("/tmp");
    EXPECT_NE(a, b);
    b = a;
    b.approval = ApprovalRequest{"x", "Bash", "ls", true, std::nullopt, false};
    EXPECT_NE(a, b);
    b = a;
    b.host = AgentHost{AgentHost::Kind::terminal, "kitty", std::string("kitty")};
    EXPECT_NE(a, b);
}

TEST(AgentInstance, IdentityPrefersTheAgentsOwnSessionId) {
    EXPECT_EQ(sessionIdentity(std::string("019fb206-97a0-7573-a940-cb4c5cf36e91"), "/p", 4242),
              "019fb206-97a0-7573-a940-cb4c5cf36e91");
    EXPECT_EQ(sessionIdentity(std::nullopt, "/Users/x/proj", 4242), "/Users/x/proj#4242");
    EXPECT_EQ(sessionIdentity(std::string(""), "/p", 7), "/p#7");
    EXPECT_TRUE(isFallbackIdentity("/Users/x/proj#4242"));
    EXPECT_FALSE(isFallbackIdentity("session_4b0c5a0e-0000-4000-8000-000000000000"));
}

TEST(AgentStatusScale, LabelsAndWorstFirstOrder) {
    EXPECT_EQ(label(AgentStatus::attention), "Needs you");
    EXPECT_EQ(label(AgentStatus::waiting), "Waiting for you");
    EXPECT_EQ(rawValue(AgentStatus::working), "working");
    EXPECT_EQ(statusFromRaw("idle"), AgentStatus::idle);
    EXPECT_FALSE(statusFromRaw("Idle"));
    std::vector<int> ranks;
    for (auto s : kStatusesWorstFirst) ranks.push_back(severityRank(s));
    EXPECT_EQ(ranks, (std::vector<int>{0, 1, 2, 3}));
    for (auto a : kAllStatuses) {
        for (auto b : kAllStatuses) {
            if (a != b) {
                EXPECT_NE(colour(a), colour(b));
            }
        }
    }
}

TEST(AgentInstance, RowOrderIsWorstFirstWithUnseenCompletionsAboveWorking) {
    std::vector<AgentInstance> list = {make("idle", AgentStatus::idle), make("work1", AgentStatus::working),
                                       make("wait", AgentStatus::waiting), make("need", AgentStatus::attention),
                                       make("work2", AgentStatus::working), make("done", AgentStatus::idle)};
    auto ordered = rowOrder(list, {"done"});
    std::vector<std::string> ids;
    for (const auto& a : ordered) ids.push_back(a.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"need", "wait", "done", "work1", "work2", "idle"}));
}
