#include <gtest/gtest.h>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <sstream>

#include "hooks/bridge_view.hpp"
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
    EXPECT_EQ(test::markerCount(bridge), 0u);
    EXPECT_EQ(rules.alwaysRules().size(), 1u);
}
