#include <gtest/gtest.h>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <sstream>

#include "hooks/bridge_view.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/app/approval_decision.hpp"
#include "lumora/approvals/approval_request.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/attention_marker.hpp"
#include "lumora/approvals/command_parsing.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using Heads = std::optional<std::vector<std::string>>;
using Json = nlohmann::ordered_json;

TEST(CommandParsing, HeadsOfCommands) {
    using CommandParsing::heads;
    EXPECT_EQ(heads("git status && npm test"), (Heads{{"git", "npm"}}));
    EXPECT_EQ(heads("cat a.txt | grep x"), (Heads{{"cat", "grep"}}));
    EXPECT_EQ(heads("sudo rm -rf /tmp/x"), (Heads{{"sudo rm"}}));
    EXPECT_EQ(heads(R"(git commit -m "fix; ship it")"), (Heads{{"git"}}));
    EXPECT_EQ(heads("grep -n 'a|b' file"), (Heads{{"grep"}}));
    EXPECT_EQ(heads("cat <<EOF\nhi\nEOF"), std::nullopt);
    EXPECT_EQ(heads("echo $(whoami)"), std::nullopt);
    EXPECT_EQ(heads("echo `whoami`"), std::nullopt);
    EXPECT_EQ(heads("diff <(ls a) <(ls b)"), std::nullopt);
    EXPECT_EQ(heads(""), std::nullopt);
    EXPECT_EQ(heads("   \n  "), std::nullopt);
    EXPECT_EQ(heads("env FOO=1 BAR_2=x make -j4; make install || ./build.sh"), (Heads{{"make", "./build.sh"}}));
    EXPECT_EQ(heads(R"(echo \"a; b\" ; ls)"), (Heads{{"echo", "b\\\"", "ls"}}));
    EXPECT_EQ(heads("a=1"), std::nullopt);
    EXPECT_EQ(heads("git log\nnpm test;;git diff"), (Heads{{"git", "npm"}}));

    EXPECT_EQ(CommandParsing::splitSegments("a && b || c | d ; e\nf"),
              (std::vector<std::string>{"a ", " b ", " c ", " d ", " e", "f"}));
    EXPECT_EQ(CommandParsing::headOfSegment("   "), std::nullopt);
    EXPECT_EQ(CommandParsing::headOfSegment(" X=1 sudo  apt install"), "sudo apt");
    EXPECT_TRUE(CommandParsing::isShellTool("exec_command"));
    EXPECT_FALSE(CommandParsing::isShellTool("Edit"));
}

TEST(ApprovalRequest, ScopeAndLabels) {
    ApprovalRequest bash{"s", "Bash", "git status && npm test", true, std::nullopt, false};
    EXPECT_EQ(bash.approvalScope(), ApprovalScope::shellHeads({"git", "npm"}));
    EXPECT_EQ(ApprovalLabels::allowThisSession(*bash.approvalScope(), "Bash"), "Allow git, npm this session");
    EXPECT_EQ(ApprovalLabels::alwaysAllow(*bash.approvalScope(), "Bash"), "Always allow git, npm");

    ApprovalRequest edit{"s", "Edit", "/src/a.cpp", true, "refactor", false};
    EXPECT_EQ(edit.approvalScope(), ApprovalScope::tool());
    EXPECT_TRUE(edit.hasContext());
    EXPECT_EQ(ApprovalLabels::alwaysAllow(*edit.approvalScope(), "Edit"), "Always allow Edit");

    auto none = bash;
    none.approvable = false;
    EXPECT_EQ(none.approvalScope(), std::nullopt);
    none = bash;
    none.escalated = true;
    EXPECT_EQ(none.approvalScope(), std::nullopt);
    none = edit;
    none.toolName = "";
    EXPECT_EQ(none.approvalScope(), std::nullopt);
    none = bash;
    none.detail = "echo $(whoami)";
    EXPECT_EQ(none.approvalScope(), std::nullopt);

    AttentionMarker m{"s", "Bash", "ls", AttentionMarker::permission, "look", true, std::nullopt, 0};
    EXPECT_EQ(m.approvalRequest(true), (ApprovalRequest{"s", "Bash", "ls", true, "look", true}));
    EXPECT_EQ(AttentionMarker::fromJson(m.toJson()), m);
    EXPECT_EQ(m.toJson().dump(),
              R"({"sessionId":"s","toolName":"Bash","detail":"ls","kind":"permission","reason":"look","escalated":true,"moreQuestions":0})");
}

TEST(ApprovalRulesStore, MatchingAndPersistence) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    ApprovalRulesStore rules(defaults);

    EXPECT_FALSE(rules.matches("s", "Bash", "git status", false));
    rules.addAlwaysRule("Bash", "git");
    EXPECT_TRUE(rules.matches("s", "Bash", "  git status  ", false));
    EXPECT_FALSE(rules.matches("s", "Bash", "git status && npm test", false));
    EXPECT_FALSE(rules.matches("s", "Bash", "git status", true));  // escalated never matches
    EXPECT_FALSE(rules.matches("s", "Bash", "   ", false));
    EXPECT_FALSE(rules.matches("s", "Bash", std::nullopt, false));
    EXPECT_FALSE(rules.matches("s", "Bash", "git $(rm -rf /)", false));
    EXPECT_FALSE(rules.matches("s", "", "git status", false));
    rules.addAlwaysRule("Bash", "npm");
    EXPECT_TRUE(rules.matches("s", "Bash", "git status && npm test", false));
    EXPECT_TRUE(rules.matches("s", "exec_command", "npm test", false));  // heads are shared by shells

    // Session rules match only their session; whole-tool rules only their tool.
    rules.addSessionRule("s1", "Edit", std::nullopt);
    EXPECT_TRUE(rules.matches("s1", "Edit", "/a", false));
    EXPECT_FALSE(rules.matches("s2", "Edit", "/a", false));
    EXPECT_FALSE(rules.matches("s1", "Write", "/a", false));
    rules.addSessionRule("s1", "Bash", "make");
    EXPECT_TRUE(rules.matches("s1", "Bash", "make && git push", false));
    EXPECT_FALSE(rules.matches("s2", "Bash", "make", false));

    // Always rules live in the defaults under "approvalRules.v1" and reach other stores.
    auto stored = defaults.list("approvalRules.v1");
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->size(), 2u);
    EXPECT_EQ((*stored)[0]["toolName"], "Bash");
    EXPECT_EQ((*stored)[0]["head"], "git");
    EXPECT_EQ((*stored)[0]["id"].get<std::string>().size(), 36u);
    DefaultsStore sameFile(dir / "defaults.json");
    ApprovalRulesStore other(sameFile);
    auto all = other.alwaysRules();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_FALSE(other.matches("s1", "Edit", "/a", false));  // session rules stay in memory
    EXPECT_TRUE(other.removeAlwaysRule(all[0].id));
    EXPECT_FALSE(other.removeAlwaysRule(all[0].id));
    EXPECT_FALSE(rules.matches("s", "Bash", "git status", false));  // the first store sees the removal
    EXPECT_EQ(rules.alwaysRules().size(), 1u);
}

TEST(ApprovalRulesStore, DropsImplausibleRulesOnLoad) {
    auto plausible = [](std::optional<std::string> head, std::string tool = "Bash") {
        return ApprovalRulesStore::looksLikeCommandHead(ApprovalRule{"id", tool, head, {}});
    };
    EXPECT_TRUE(plausible("git"));
    EXPECT_TRUE(plausible("./build.sh"));
    EXPECT_TRUE(plausible("sudo apt-get"));
    EXPECT_TRUE(plausible("g++"));
    EXPECT_TRUE(plausible(std::nullopt, "Edit"));
    EXPECT_FALSE(plausible(std::nullopt, ""));
    EXPECT_FALSE(plausible("persist the disk"));
    EXPECT_FALSE(plausible("rm \"x\""));
    EXPECT_FALSE(plausible("it's"));
    EXPECT_FALSE(plausible(""));
    EXPECT_FALSE(plausible(std::string("sudo ")));
    EXPECT_FALSE(plausible(std::string(65, 'a')));
    EXPECT_TRUE(plausible(std::string(64, 'a')));

    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    Json list = Json::array();
    list.push_back({{"id", "A"}, {"toolName", "Bash"}, {"head", "git"}, {"createdAt", "2026-01-02T03:04:05.000Z"}});
    list.push_back({{"id", "B"}, {"toolName", "Bash"}, {"head", "persist the disk"}, {"createdAt", "2026-01-02T03:04:05Z"}});
    list.push_back({{"id", "C"}, {"toolName", "Bash"}, {"head", "rm\"x"}, {"createdAt", "2026-01-02T03:04:05Z"}});
    list.push_back({{"id", "D"}, {"toolName", "Read"}, {"createdAt", 1767323045}});
    defaults.setValue("approvalRules.v1", list);

    std::ostringstream logged;
    auto previous = spdlog::default_logger();
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("t", std::make_shared<spdlog::sinks::ostream_sink_mt>(logged)));
    spdlog::set_level(spdlog::level::info);
    ApprovalRulesStore rules(defaults);
    spdlog::set_default_logger(previous);

    EXPECT_NE(logged.str().find("[approval] dropped 2 malformed always-rule(s)"), std::string::npos) << logged.str();
    auto kept = rules.alwaysRules();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].id, "A");
    EXPECT_EQ(kept[1].id, "D");
    EXPECT_EQ(defaults.list("approvalRules.v1")->size(), 2u);  // the cleaned list is saved back
    EXPECT_TRUE(rules.matches("s", "Read", "/etc/hosts", false));

    // Stored rules that cannot be decoded at all read as none.
    defaults.setValue("approvalRules.v1", "garbage");
    EXPECT_TRUE(rules.alwaysRules().empty());
}

TEST(ApprovalDecision, DecideResolvesAndWidens) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    ApprovalRulesStore rules(defaults);
    HookBridge bridge(dir / "s" / "notch.sock", dir / "s", rules);
    bridge.setGating(true);

    // A row as the view draws it: the prompt with the number of the gate that holds it.
    auto hold = [&](const std::string& sid, const std::string& tool, const std::string& detail) {
        bridge.handleLine(Json{{"session_id", sid}, {"action", "gate"}, {"tool_name", tool}, {"detail", detail}}.dump(), 1);
        auto gate = test::heldGate(bridge, sid);
        ApprovalRequest r{sid, tool, detail, gate.has_value(), std::nullopt, false};
        r.gateId = gate.value_or(0);
        return r;
    };

    // Deny: the gate is resolved, no rule made even when a scope is asked for.
    auto r = hold("s1", "Bash", "git push");
    EXPECT_EQ(decide(r, ApprovalVerdict::deny, DecisionScopeConfirmation::always, bridge, rules), std::nullopt);
    EXPECT_FALSE(test::heldGate(bridge, "s1"));
    EXPECT_TRUE(rules.alwaysRules().empty());

    // Plain approve.
    r = hold("s1", "Bash", "git push");
    EXPECT_EQ(decide(r, ApprovalVerdict::allow, std::nullopt, bridge, rules), std::nullopt);
    EXPECT_FALSE(test::heldGate(bridge, "s1"));
    EXPECT_EQ(test::markerCount(bridge), 0u);

    // A decision made on a prompt that a newer one replaced before the redraw
    // answers nothing: the newer prompt stays held with its own command.
    auto shown = hold("s1", "Bash", "ls");
    auto newer = hold("s1", "Bash", "rm -rf build");
    EXPECT_NE(newer.gateId, shown.gateId);
    decide(shown, ApprovalVerdict::allow, std::nullopt, bridge, rules);
    EXPECT_EQ(test::heldGate(bridge, "s1"), newer.gateId);
    EXPECT_EQ(test::markerOf(bridge, "s1")->detail, "rm -rf build");
    decide(newer, ApprovalVerdict::deny, std::nullopt, bridge, rules);
    EXPECT_FALSE(test::heldGate(bridge, "s1"));

    // This session: one session rule per head.
    r = hold("s1", "Bash", "git push && npm publish");
    EXPECT_EQ(decide(r, ApprovalVerdict::allow, DecisionScopeConfirmation::session, bridge, rules),
              "Approved · this session");
    EXPECT_TRUE(rules.matches("s1", "Bash", "npm test; git status", false));
    EXPECT_FALSE(rules.matches("s2", "Bash", "git status", false));

    // Always: persistent rules, for a whole tool here.
    r = hold("s2", "Edit", "/a.txt");
    EXPECT_EQ(decide(r, ApprovalVerdict::allow, DecisionScopeConfirmation::always, bridge, rules),
              "Approved · won't ask again");
    ASSERT_EQ(rules.alwaysRules().size(), 1u);
    EXPECT_EQ(rules.alwaysRules()[0].toolName, "Edit");
    EXPECT_EQ(rules.alwaysRules()[0].head, std::nullopt);
    EXPECT_TRUE(rules.matches("s9", "Edit", "/b.txt", false));

    // A row whose gate has gone offers no widening and only drops the marker.
    bridge.handleLine(R"({"session_id":"s3","kind":"permission","tool_name":"Bash","detail":"rm x"})");
    ApprovalRequest gone{"s3", "Bash", "rm x", false, std::nullopt, false};
    EXPECT_EQ(decide(gone, ApprovalVerdict::allow, DecisionScopeConfirmation::always, bridge, rules), std::nullopt);
    EXPECT_EQ(test::markerCount(bridge), 0u);
    EXPECT_EQ(rules.alwaysRules().size(), 1u);
}
