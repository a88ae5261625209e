#include <gtest/gtest.h>

#include <cmath>

#include "lumora/monitor/agent_display.hpp"

using namespace lumora;
using namespace std::chrono_literals;
using namespace lumora::AgentDisplay;

namespace {
const Date kNow = std::chrono::system_clock::now();
AgentInstance row(std::string id, AgentStatus s, std::chrono::seconds age = 0s) {
    AgentInstance a;
    a.id = std::move(id);
    a.status = s;
    a.lastActivity = kNow - age;
    return a;
}
std::vector<std::string> ids(const std::vector<AgentInstance>& rows) {
    std::vector<std::string> out;
    for (const auto& a : rows) out.push_back(a.id);
    return out;
}
}  // namespace

TEST(PanelList, IdlePoliciesHideOnlyDormantRows) {
    std::vector<AgentInstance> list = {row("old", AgentStatus::idle, 40min), row("fresh", AgentStatus::idle, 5min),
                                       row("busy", AgentStatus::working, 96h), row("done", AgentStatus::idle, 2h)};
    IdSet unseen{"done"};
    EXPECT_TRUE(isHiddenIdle(list[0], IdleAgentPolicy::hide, unseen, kNow));
    EXPECT_FALSE(isHiddenIdle(list[1], IdleAgentPolicy::hide, unseen, kNow));
    EXPECT_FALSE(isHiddenIdle(list[2], IdleAgentPolicy::hide, unseen, kNow));
    EXPECT_FALSE(isHiddenIdle(list[3], IdleAgentPolicy::hide, unseen, kNow));  // an unseen completion
    EXPECT_FALSE(isHiddenIdle(list[0], IdleAgentPolicy::shrink, unseen, kNow));

    EXPECT_EQ(ids(active(list, IdleAgentPolicy::hide, unseen, kNow)), (std::vector<std::string>{"done", "busy", "fresh"}));
    auto shrunk = active(list, IdleAgentPolicy::shrink, unseen, kNow);
    EXPECT_EQ(shrunk.size(), 4u);
    EXPECT_EQ(dormantCount(shrunk, IdleAgentPolicy::shrink, kNow), 2);
    EXPECT_EQ(dormantCount(shrunk, IdleAgentPolicy::keepFull, kNow), 0);
    EXPECT_EQ(visible(list, IdleAgentPolicy::shrink, unseen, kNow, std::nullopt), shrunk);
}

TEST(PanelList, OpenPanelFreezesItsOrder) {
    std::vector<AgentInstance> list = {row("a", AgentStatus::working), row("b", AgentStatus::waiting),
                                       row("hidden", AgentStatus::idle, 40min)};
    auto frozen = freeze(list, IdleAgentPolicy::hide, {}, kNow);
    EXPECT_EQ(frozenIds(frozen), (std::vector<std::string>{"b", "a"}));

    // While open: "a" goes idle and dormant, yet keeps its row and place; the
    // hidden session turns active but stays hidden; a newcomer is appended.
    list[0] = row("a", AgentStatus::idle, 40min);
    list[1].status = AgentStatus::working;
    list[2] = row("hidden", AgentStatus::working);
    list.push_back(row("new", AgentStatus::attention));
    auto rows = visible(list, IdleAgentPolicy::hide, {}, kNow, frozen);
    EXPECT_EQ(ids(rows), (std::vector<std::string>{"b", "a", "new"}));
    // Closed again, the live order applies.
    EXPECT_EQ(ids(visible(list, IdleAgentPolicy::hide, {}, kNow, std::nullopt)),
              (std::vector<std::string>{"new", "b", "hidden"}));
}

TEST(PanelList, EmptyCopyAndSessionsLabel) {
    EXPECT_EQ(emptyCopy({}, {})->title, "No agents running");
    EXPECT_EQ(emptyCopy({}, {})->subtitle, "Start Claude Code or Cursor in a terminal and it'll appear here");
    std::vector<AgentInstance> idle = {row("x", AgentStatus::idle, 1h), row("y", AgentStatus::idle, 2h)};
    auto none = active(idle, IdleAgentPolicy::hide, {}, kNow);
    EXPECT_EQ(emptyCopy(idle, none)->title, "No active agents");
    EXPECT_EQ(emptyCopy(idle, none)->subtitle, "Idle sessions reappear when they're active again");
    EXPECT_EQ(sessionsLabel(idle, none), "2 idle");
    EXPECT_EQ(sessionsLabel({idle[0]}, {}), "1 idle");
    std::vector<AgentInstance> four = {row("1", AgentStatus::working), row("2", AgentStatus::working),
                                       row("3", AgentStatus::waiting), row("4", AgentStatus::idle, 1h)};
    EXPECT_EQ(sessionsLabel(four, active(four, IdleAgentPolicy::hide, {}, kNow)), "3 agents");
    EXPECT_EQ(sessionsLabel(four, {four[0]}), "1 agent");
    EXPECT_FALSE(emptyCopy(four, four));
}

TEST(PanelList, RowBudget) {
    EXPECT_EQ(visibleRowLimit(std::nullopt), 8);
    for (long long v : {4, 6, 8, 10}) EXPECT_EQ(visibleRowLimit(v), v);
    for (long long v : {7, -2, 0, 12}) EXPECT_EQ(visibleRowLimit(v), 8);

    RowMetrics m;
    std::vector<AgentInstance> twelve;
    for (int i = 0; i < 12; ++i) twelve.push_back(row(std::to_string(i), AgentStatus::working));
    EXPECT_DOUBLE_EQ(listHeight(twelve, 8, IdleAgentPolicy::shrink, kNow), 8 * m.rowHeight);
    std::vector<AgentInstance> three(twelve.begin(), twelve.begin() + 3);
    EXPECT_DOUBLE_EQ(listHeight(three, 8, IdleAgentPolicy::shrink, kNow), 3 * m.rowHeight);
    EXPECT_DOUBLE_EQ(listHeight({}, 8, IdleAgentPolicy::shrink, kNow), m.emptyCardHeight);

    // An approval adds its command line and one more for a reason; options wrap; a bare question adds nothing.
    auto approval = row("ap", AgentStatus::attention);
    approval.approval = ApprovalRequest{"ap", "Bash", "rm -rf build", true, "Clean the build", false};
    auto question = row("q", AgentStatus::attention);
    question.question = PendingQuestion{"Which?", {"a", "b", "c", "d"}, 0};
    auto bare = row("bare", AgentStatus::attention);
    bare.question = PendingQuestion{"Anything else?", {}, 0};
    EXPECT_EQ(extraLines(approval), 2);
    EXPECT_EQ(extraLines(question), 2);
    EXPECT_EQ(extraLines(bare), 0);
    auto q2 = question;
    q2.question->options = {"a", "b"};
    EXPECT_EQ(extraLines(q2), 1);
    std::vector<AgentInstance> mixed = {approval, question, bare, row("old", AgentStatus::idle, 1h)};
    EXPECT_EQ(approvalRowCount(mixed), 1);
    EXPECT_EQ(questionRowCount(mixed), 2);
    double h = listHeight(mixed, 8, IdleAgentPolicy::shrink, kNow);
    EXPECT_DOUBLE_EQ(h, 3 * m.rowHeight + 4 * m.lineHeight + m.dormantHeight);
    EXPECT_FALSE(std::isnan(listHeight(mixed, -5, IdleAgentPolicy::keepFull, kNow)));
    EXPECT_GT(listHeight(mixed, 0, IdleAgentPolicy::keepFull, kNow), 0);
}
