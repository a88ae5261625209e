#include <gtest/gtest.h>

#include "lumora/base/defaults_store.hpp"
#include "lumora/app/approval_decision.hpp"
#include "lumora/approvals/approval_request.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using Json = nlohmann::ordered_json;

TEST(ApprovalDecision, DecideResolvesAndWidens) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    ApprovalRulesStore rules(defaults);
    HookBridge bridge(dir / "s" / "notch.sock", dir / "s", rules);
    bridge.setGating(true);

    auto hold = [&](const std::string& sid, const std::string& tool, const std::string& detail) {
        bridge.handleLine(Json{{"session_id", sid}, {"action", "gate"}, {"tool_name", tool}, {"detail", detail}}.dump(), 1);
        return ApprovalRequest{sid, tool, detail, bridge.hasHeldGate(sid), std::nullopt, false};
    };

    // Deny: the gate is resolved, no rule made even when a scope is asked for.
    auto r = hold("s1", "Bash", "git push");
    EXPECT_EQ(decide(r, ApprovalVerdict::deny, DecisionScopeConfirmation::always, bridge, rules), std::nullopt);
    EXPECT_FALSE(bridge.hasHeldGate("s1"));
    EXPECT_TRUE(rules.alwaysRules().empty());

    // Plain approve.
    r = hold("s1", "Bash", "git push");
    EXPECT_EQ(decide(r, ApprovalVerdict::allow, std::nullopt, bridge, rules), std::nullopt);
    EXPECT_FALSE(bridge.hasHeldGate("s1"));
    EXPECT_TRUE(bridge.claudeMarkers().empty());

    // This session: one session rule per head.
    r = hold("s1", "Bash", "git push && npm publish");
    EXPECT_EQ(decide(r, ApprovalVerdict::allow, DecisionScopeConfirmation::session, bridge, rules),
              "Approved · this session");
    EXPECT_TRUE(rules.matches(scrivet::HarnessProvider::claudeCode, "s1", "Bash", "npm test; git status", false));
    EXPECT_FALSE(rules.matches(scrivet::HarnessProvider::claudeCode, "s2", "Bash", "git status", false));

    // Always: persistent rules, for a whole tool here.
    r = hold("s2", "Edit", "/a.txt");
    EXPECT_EQ(decide(r, ApprovalVerdict::allow, DecisionScopeConfirmation::always, bridge, rules),
              "Approved · won't ask again");
    ASSERT_EQ(rules.alwaysRules().size(), 1u);
    EXPECT_EQ(rules.alwaysRules()[0].toolName, "Edit");
    EXPECT_EQ(rules.alwaysRules()[0].head, std::nullopt);
    EXPECT_TRUE(rules.matches(scrivet::HarnessProvider::claudeCode, "s9", "Edit", "/b.txt", false));

    // A row whose gate has gone offers no widening and only drops the marker.
    bridge.handleLine(R"({"session_id":"s3","kind":"permission","tool_name":"Bash","detail":"rm x"})");
    ApprovalRequest gone{"s3", "Bash", "rm x", false, std::nullopt, false};
    EXPECT_EQ(decide(gone, ApprovalVerdict::allow, DecisionScopeConfirmation::always, bridge, rules), std::nullopt);
    EXPECT_TRUE(bridge.claudeMarkers().empty());
    EXPECT_EQ(rules.alwaysRules().size(), 1u);
}

// The bridge asks the rules with the agent a gate comes from: a Claude Code
// rule answers only Claude Code, and no rule answers Codex.
TEST(ApprovalDecision, RulesAnswerGatesOfTheirOwnAgent) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    ApprovalRulesStore rules(defaults);
    HookBridge bridge(dir / "s" / "notch.sock", dir / "s", rules);
    bridge.setGating(true);
    rules.addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Bash", "git");
    rules.addAlwaysRule(scrivet::HarnessProvider::codex, "Bash", "git");
    auto gate = [&](const std::string& source, const std::string& sid, const std::string& tool) {
        bridge.handleLine(Json{{"source", source}, {"session_id", sid}, {"action", "gate"}, {"tool_name", tool},
                               {"detail", "git status"}}
                              .dump(),
                          1);
        return bridge.hasHeldGate(sid);  // held: asked; not held: answered by a rule
    };
    EXPECT_FALSE(gate("claude", "c1", "Bash"));
    EXPECT_TRUE(gate("opencode", "o1", "bash"));
    EXPECT_TRUE(gate("codex", "x1", "Bash"));
}
