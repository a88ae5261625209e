// The face protocol's lines read back into what was written, commands of the
// wrong shape refused, and the texts the status bars show.
#include <gtest/gtest.h>

#include "lumora/app/face_commands.hpp"
#include "lumora/app/front_protocol.hpp"
#include "lumora/base/json_text.hpp"

using namespace lumora;
using Json = nlohmann::ordered_json;

namespace {

Date at(int seconds) { return Date{} + std::chrono::seconds(1'800'000'000 + seconds); }

AgentInstance session(std::string id, AgentStatus status, std::string project) {
    AgentInstance a;
    a.id = std::move(id);
    a.status = status;
    a.projectName = std::move(project);
    a.cwd = "/work/" + a.projectName;
    a.lastActivity = at(0);
    return a;
}

FrontProtocol::State richState() {
    FrontProtocol::State s;
    s.pid = 4242;
    AgentInstance a = session("8d3f2a10-4b5c", AgentStatus::attention, "webshop");
    a.pid = 77;
    a.gitBranch = "checkout-flow";
    a.repoName = "webshop";
    a.isWorktree = true;
    a.worktreeName = "wt-1";
    a.summary = "Running the checks";
    a.cpu = 12.5;
    a.model = "claude-opus-5-5";
    a.contextTokens = 20900;
    a.contextMax = 200000;
    a.contextMaxEstimated = true;
    a.inProgress = true;
    a.pendingApproval = PendingApproval::run;
    a.approval = ApprovalRequest{a.id, "Bash", "git status && npm test", true, "Run the checks", false,
                                 HarnessProvider::claudeCode, 17};
    a.question = PendingQuestion{"Which database?", {"SQLite", "Postgres"}, 1};
    a.recentActivity = {{ActivityLine::Kind::prompt, "Run the checks"}, {ActivityLine::Kind::tool, "npm test"}};
    a.subagentCount = 1;
    a.subagents = {{"toolu_9", "explorer", "Find the tests", "haiku", "reading", true, 1234}};
    a.hasRealTurn = true;
    a.host = AgentHost{AgentHost::Kind::terminal, "tmux", std::nullopt};
    a.hasHookGroundTruth = true;
    a.topic = "Checkout \xff flow";  // bad bytes leave as U+FFFD, never a throw
    a.workspaceFolders = {"/work/webshop"};
    s.sessions.push_back(a);
    AgentInstance b = session("codex-1", AgentStatus::working, "api");
    b.provider = HarnessProvider::codex;
    b.surface = AgentSurface::cowork;
    s.sessions.push_back(b);
    s.plans[a.id] = TaskPlan{{{"1", "Write tests", std::nullopt, TaskPlanItem::Status::completed},
                              {"2", "Fix the bug", "Fixing the bug", TaskPlanItem::Status::inProgress}}};
    QuotaReading q;
    q.provider = HarnessProvider::claudeCode;
    q.usage.planName = "Max 20x";
    q.usage.windows = {{62, at(3600), 18000, "5h", "5-hour limit", false, false}};
    q.fetchedAt = at(-30);
    q.blocker = UsageBlocker::rateLimited;
    q.status = 429;
    q.retryIn = 300;
    s.quotas.push_back(q);
    SpendSummary spend;
    spend.todayTokens = 1'200'000;
    spend.todayCost = 3.4;
    spend.unpricedModels = {"mystery-1"};
    spend.days = {{at(-86400), 10, 0.5}};
    spend.comparisonDate = at(-86400);
    s.spend = spend;
    s.unseen = {"codex-1"};
    s.acknowledged = {a.id};
    s.peek = PeekEvent{5, a.id, "webshop", "Run: npm test", false, HarnessProvider::claudeCode, 2, true};
    s.usageAlert = UsageAlert{3, HarnessProvider::claudeCode, "5h", "5-hour limit runs out in 1h"};
    s.hooksProblem = "Hooks not listening: why";
    s.answeringFaces = 2;
    return s;
}

}  // namespace

TEST(FrontProtocol, AStateLineReadsBackAsWrittenAndCarriesTheScanFields) {
    auto state = richState();
    std::string line = FrontProtocol::encodeState(state, at(0));
    ASSERT_EQ(line.back(), '\n');
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line";
    auto back = FrontProtocol::decodeState(line);
    ASSERT_TRUE(back);
    state.sessions[0].topic = "Checkout \xef\xbf\xbd flow";
    EXPECT_EQ(back->sessions, state.sessions);
    EXPECT_EQ(back->plans, state.plans);
    EXPECT_EQ(back->spend, state.spend);
    EXPECT_EQ(back->unseen, state.unseen);
    EXPECT_EQ(back->acknowledged, state.acknowledged);
    EXPECT_EQ(back->peek, state.peek);
    EXPECT_EQ(back->usageAlert, state.usageAlert);
    EXPECT_EQ(back->hooksProblem, state.hooksProblem);
    EXPECT_EQ(back->pid, 4242);
    EXPECT_EQ(back->answeringFaces, 2);
    ASSERT_EQ(back->quotas.size(), 1u);
    EXPECT_EQ(back->quotas[0].usage, state.quotas[0].usage);
    EXPECT_EQ(back->quotas[0].blocker, UsageBlocker::rateLimited);
    EXPECT_EQ(back->quotas[0].retryIn, 300);

    // Each session is what --scan --json prints, with its plan usage and plan.
    auto json = Json::parse(line);
    EXPECT_EQ(json["v"], 1);
    const auto& first = json["sessions"][0];
    EXPECT_EQ(first["approval"]["gateId"], 17);
    EXPECT_EQ(first["planUsage"]["planName"], "Max 20x");
    EXPECT_EQ(first["taskPlan"]["doneCount"], 1);
    EXPECT_TRUE(json["sessions"][1]["planUsage"].is_null());
    EXPECT_EQ(json["spend"]["todayTokens"], 1200000);

    // Not a state line: nothing, whatever it holds.
    for (std::string bad : std::vector<std::string>{"", "garbage", "{}", R"({"v":2,"sessions":[]})", R"({"v":1,"sessions":{}})", "[1,2]",
                            std::string(100, '['), R"({"v":1,"sessions":[1,"x",{"id":5},{"id":""}]})"}) {
        auto decoded = FrontProtocol::decodeState(bad);
        EXPECT_TRUE(!decoded || decoded->sessions.empty()) << bad;
    }
    auto odd = FrontProtocol::decodeState(R"({"v":1,"sessions":[{"id":"x","status":"bogus","pid":1e30,"approval":7}]})");
    ASSERT_TRUE(odd);
    ASSERT_EQ(odd->sessions.size(), 1u);
    EXPECT_EQ(odd->sessions[0].status, AgentStatus::idle);
    EXPECT_FALSE(odd->sessions[0].pid);
    EXPECT_FALSE(odd->sessions[0].approval);
}

TEST(FrontProtocol, CommandsRoundTripAndTheWrongShapesAreRefused) {
    using C = FrontProtocol::Command;
    for (C c : {C{C::Kind::face, true}, C{C::Kind::decide, false, "s-1", 9, ApprovalChoice::Kind::allowAlways},
                C{C::Kind::saw, false, "s-1"}, C{C::Kind::jump, false, "s-1", 0, ApprovalChoice::Kind::approve, 12}}) {
        std::string line = FrontProtocol::commandLine(c);
        line.pop_back();
        EXPECT_EQ(FrontProtocol::parseCommand(line), c) << line;
    }
    for (std::string bad : {"", "nonsense", R"({"v":1})", R"({"v":2,"action":"face"})",
                            R"({"v":1,"action":"decide","session":"s","gate":0,"choice":"approve"})",
                            R"({"v":1,"action":"decide","session":"s","gate":3,"choice":"maybe"})",
                            R"({"v":1,"action":"decide","gate":3,"choice":"deny"})",
                            R"({"v":1,"action":"decide","session":"s","gate":18446744073709551615,"choice":"deny"})",
                            R"({"v":1,"action":"decide","session":"s","gate":1e300,"choice":"deny"})",
                            R"({"v":1,"action":"saw","session":5})", R"({"v":1,"action":"explode","session":"s"})"})
        EXPECT_FALSE(FrontProtocol::parseCommand(bad)) << bad;
    EXPECT_FALSE(FrontProtocol::parseCommand(std::string(FrontProtocol::kMaxCommandBytes + 1, ' ')));

    auto reply = FrontProtocol::parseJumpReply(FrontProtocol::jumpReply(12, {"tmux: switched to pane %3"}));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->ref, 12);
    EXPECT_EQ(reply->lines, std::vector<std::string>{"tmux: switched to pane %3"});
    EXPECT_FALSE(FrontProtocol::parseJumpReply(FrontProtocol::encodeState({}, at(0))));
    FrontProtocol::DecidedReply decided{"s-1", 9, false};
    EXPECT_EQ(FrontProtocol::parseDecidedReply(FrontProtocol::decidedReply(decided)), decided);
    EXPECT_FALSE(FrontProtocol::parseDecidedReply(FrontProtocol::jumpReply(12, {})));
}

TEST(FaceCommands, StatusBarsShowTheTabWorstFirst) {
    std::vector<AgentInstance> sessions = {session("a", AgentStatus::working, "api"),
                                           session("b", AgentStatus::idle, "docs"),
                                           session("c", AgentStatus::attention, "webshop"),
                                           session("d", AgentStatus::working, "infra"),
                                           session("e", AgentStatus::waiting, "blog")};
    sessions[2].gitBranch = "checkout-flow";
    sessions[2].topic = "Fix   the\ncart";
    EXPECT_EQ(FaceCommands::tabText(sessions), "!1 ?1 *2 ·1");
    EXPECT_EQ(FaceCommands::tabText(sessions, true),
              "#[fg=#fa5c73]!1 #[fg=#ff9e0a]?1 #[fg=#2ecc73]*2 #[fg=#8f8f94]·1#[default]");
    EXPECT_EQ(FaceCommands::tabText({}), "");
    EXPECT_EQ(FaceCommands::worstClass({}), "none");

    auto bar = FaceCommands::waybar(sessions);
    EXPECT_EQ(bar["text"], "!1 ?1 *2 ·1");
    EXPECT_EQ(bar["class"], "attention");
    EXPECT_EQ(bar["alt"], "attention");
    std::string tip = bar["tooltip"];
    EXPECT_EQ(tip.substr(0, tip.find('\n')), "Needs you  webshop (checkout-flow)  Claude Code  Fix the cart");
    EXPECT_EQ(std::count(tip.begin(), tip.end(), '\n'), 4);

    // Formats of a state line; --watch's JSON is the line itself.
    FrontProtocol::State s;
    s.sessions = sessions;
    std::string line = FrontProtocol::encodeState(s, at(0));
    EXPECT_EQ(FaceCommands::formatState(line, FaceCommands::Format::plain), "!1 ?1 *2 ·1");
    EXPECT_EQ(FaceCommands::formatState(line, FaceCommands::Format::json), line.substr(0, line.size() - 1));
    EXPECT_EQ(Json::parse(*FaceCommands::formatState(line, FaceCommands::Format::waybar))["class"], "attention");
    EXPECT_FALSE(FaceCommands::formatState("nope", FaceCommands::Format::plain));

    // The next session: the worst one when it needs the user, an unseen finish too.
    EXPECT_EQ(FaceCommands::mostInNeed(sessions, {})->id, "c");
    std::vector<AgentInstance> calm = {session("a", AgentStatus::working, "api"), session("b", AgentStatus::idle, "x")};
    EXPECT_FALSE(FaceCommands::mostInNeed(calm, {}));
    EXPECT_EQ(FaceCommands::mostInNeed(calm, {"b"})->id, "b");
}
