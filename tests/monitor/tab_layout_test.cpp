#include <gtest/gtest.h>

#include "lumora/monitor/tab_layout.hpp"

using namespace lumora;
using AgentDisplay::tabClusters;

namespace {
AgentInstance session(AgentStatus s, HarnessProvider p = HarnessProvider::claudeCode) {
    static int n = 0;
    AgentInstance a;
    a.id = "s" + std::to_string(++n);
    a.status = s;
    a.provider = p;
    return a;
}
std::vector<AgentInstance> many(int count, AgentStatus s, HarnessProvider p = HarnessProvider::claudeCode) {
    std::vector<AgentInstance> out;
    for (int i = 0; i < count; ++i) out.push_back(session(s, p));
    return out;
}
int total(const AgentDisplay::TabGrouping& g) {
    int sum = g.hidden;
    for (const auto& c : g.clusters) sum += c.count;
    return sum;
}
}  // namespace

TEST(TabClusters, EmptyRosterDrawsNothing) {
    auto g = tabClusters({}, true);
    EXPECT_TRUE(g.clusters.empty());
    EXPECT_EQ(g.hidden, 0);
    EXPECT_EQ(Layout::tabOverflowWidth(g.hidden), 0);
}

TEST(TabClusters, NeedsYouKeepsSlotsUpToThree) {
    auto three = tabClusters(many(3, AgentStatus::attention), true);
    ASSERT_EQ(three.clusters.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(three.clusters[i].count, 1);
        EXPECT_EQ(three.clusters[i].index, i);
    }
    auto four = tabClusters(many(4, AgentStatus::attention), true);
    ASSERT_EQ(four.clusters.size(), 1u);
    EXPECT_EQ(four.clusters[0].count, 4);
    // Dots keep the individual needs-you slots too.
    EXPECT_EQ(tabClusters(many(2, AgentStatus::attention), false).clusters.size(), 2u);
}

TEST(TabClusters, SameStatusAndHarnessIsOneSlot) {
    auto twelve = many(6, AgentStatus::working);
    auto waiting = many(6, AgentStatus::waiting);
    twelve.insert(twelve.end(), waiting.begin(), waiting.end());
    auto g = tabClusters(twelve, true);
    ASSERT_EQ(g.clusters.size(), 2u);
    EXPECT_EQ(g.clusters[0].status, AgentStatus::waiting);  // worst first
    EXPECT_EQ(g.clusters[0].count, 6);
    EXPECT_EQ(g.clusters[1].status, AgentStatus::working);
    EXPECT_EQ(tabClusters(many(12, AgentStatus::working), true).clusters.size(), 1u);
}

TEST(TabClusters, DotsNeverSplitByProviderButHarnessDoes) {
    std::vector<AgentInstance> mixed = {session(AgentStatus::working, HarnessProvider::codex),
                                        session(AgentStatus::working, HarnessProvider::claudeCode),
                                        session(AgentStatus::working, HarnessProvider::codex)};
    auto dots = tabClusters(mixed, false);
    ASSERT_EQ(dots.clusters.size(), 1u);
    EXPECT_FALSE(dots.clusters[0].provider);
    EXPECT_EQ(dots.clusters[0].count, 3);
    auto shapes = tabClusters(mixed, true);
    ASSERT_EQ(shapes.clusters.size(), 2u);
    EXPECT_EQ(shapes.clusters[0].provider, HarnessProvider::claudeCode);
    EXPECT_EQ(shapes.clusters[1].provider, HarnessProvider::codex);
    EXPECT_EQ(shapes.clusters[1].count, 2);
}

TEST(TabClusters, IdleTakesNoSlotUnlessEverythingIsIdle) {
    auto roster = many(2, AgentStatus::idle);
    roster.push_back(session(AgentStatus::working));
    auto g = tabClusters(roster, true);
    ASSERT_EQ(g.clusters.size(), 1u);
    EXPECT_EQ(g.clusters[0].status, AgentStatus::working);
    EXPECT_EQ(g.hidden, 0);
    auto allIdle = tabClusters(many(3, AgentStatus::idle), true);
    ASSERT_EQ(allIdle.clusters.size(), 1u);
    EXPECT_EQ(allIdle.clusters[0].status, AgentStatus::idle);
    EXPECT_EQ(allIdle.clusters[0].count, 3);
}

TEST(TabClusters, GroupsPastTheCapBecomeTheOverflowTail) {
    std::vector<AgentInstance> roster;
    for (auto p : scrivet::kAllProviders) {
        auto w = many(2, AgentStatus::working, p);
        roster.insert(roster.end(), w.begin(), w.end());
    }
    roster.push_back(session(AgentStatus::waiting, HarnessProvider::kimi));  // six groups in all
    auto g = tabClusters(roster, true);
    ASSERT_EQ(g.clusters.size(), 4u);
    EXPECT_EQ(g.clusters[0].status, AgentStatus::waiting);
    EXPECT_EQ(g.hidden, 4);  // two groups of two past the cap
    EXPECT_EQ(total(g), static_cast<int>(roster.size()));

    std::vector<int> counts;
    for (const auto& c : g.clusters) counts.push_back(c.count);
    double w = slotWidth(TabMarks::harness, 1);
    double without = Layout::tabContentWidth(4, w, true, 0, counts);
    double with = Layout::tabContentWidth(4, w, true, g.hidden, counts);
    EXPECT_DOUBLE_EQ(with - without, Layout::tabOverflowWidth(g.hidden));
}

TEST(TabLayout, WidthsAreComputedNotMeasured) {
    EXPECT_GT(Layout::tabOverflowWidth(12), Layout::tabOverflowWidth(3));
    EXPECT_DOUBLE_EQ(Layout::tabOverflowWidth(3), 2 * 9 * 0.62 + 8);
    // One agent still gets a full slot; counts of 1 cost nothing; no notch adds the pill's fillet.
    EXPECT_DOUBLE_EQ(Layout::tabContentWidth(0, 10, true, 0, {}), 10 + 20);
    EXPECT_DOUBLE_EQ(Layout::tabContentWidth(2, 10, true, 0, {1, 1}), 20 + 6 + 20);
    EXPECT_DOUBLE_EQ(Layout::tabContentWidth(2, 10, false, 0, {1, 1}), 20 + 6 + 20 + 16);
    EXPECT_DOUBLE_EQ(Layout::tabContentWidth(1, 10, true, 0, {12}), 10 + 20 + 2 * 9 * 0.62 + 2.5);
    // The busiest grouped tab still fits beside a 200 pt notch.
    double busiest = Layout::tabContentWidth(4, slotWidth(TabMarks::harness, 1), true, 99, {10, 20, 30, 40});
    EXPECT_LT(busiest, 200);
}

TEST(TabMarks, RawValuesLabelsAndBloom) {
    EXPECT_EQ(tabMarksFromRaw("onApproach"), TabMarks::onApproach);
    EXPECT_FALSE(tabMarksFromRaw("garbage"));
    EXPECT_EQ(label(TabMarks::onApproach), "On approach");
    EXPECT_TRUE(followsProximity(TabMarks::onApproach));
    EXPECT_FALSE(followsProximity(TabMarks::harness));
    EXPECT_LT(slotWidth(TabMarks::dots, 1), slotWidth(TabMarks::harness, 0));
    EXPECT_DOUBLE_EQ(slotWidth(TabMarks::onApproach, 0), slotWidth(TabMarks::dots, 0));
    EXPECT_DOUBLE_EQ(slotWidth(TabMarks::onApproach, 1), slotWidth(TabMarks::harness, 0));
    double last = -1;
    for (double r = 0; r <= 1.0; r += 0.05) {
        double w = slotWidth(TabMarks::onApproach, r);
        EXPECT_GE(w, last);
        last = w;
    }
}

TEST(TabLayout, RevealEasesInAndLandsBeforeTheTab) {
    EXPECT_EQ(Layout::tabRevealProgress(2000), 0);
    EXPECT_EQ(Layout::tabRevealProgress(Layout::kRevealStartDistance), 0);
    EXPECT_LT(Layout::tabRevealProgress(Layout::kRevealStartDistance - 1), 0.001);  // no switch-on moment
    EXPECT_EQ(Layout::tabRevealProgress(Layout::kRevealFullDistance), 1);
    EXPECT_EQ(Layout::tabRevealProgress(0), 1);
    double last = 0;
    for (double d = Layout::kRevealStartDistance; d >= 0; d -= 2) {
        double p = Layout::tabRevealProgress(d);
        EXPECT_GE(p, last);
        last = p;
    }
    // A revealed onApproach tab ends where a harness tab rests, and never inside the bezel.
    double rest = Layout::tabContentWidth(2, slotWidth(TabMarks::onApproach, 0), true, 0, {1, 1});
    double harness = Layout::tabContentWidth(2, slotWidth(TabMarks::harness, 0), true, 0, {1, 1});
    EXPECT_DOUBLE_EQ(Layout::approachTabWidth(rest, harness, 0, 1), harness);
    EXPECT_DOUBLE_EQ(Layout::approachTabWidth(rest, harness, 200, 0), 200);
}
