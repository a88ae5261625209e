#include "lumora/app/approval_decision.hpp"

#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"

namespace lumora {

std::optional<std::string> decide(const ApprovalRequest& request, ApprovalVerdict verdict,
                                  std::optional<DecisionScopeConfirmation> widen, HookBridge& bridge,
                                  ApprovalRulesStore& rules) {
    if (verdict == ApprovalVerdict::deny) {
        bridge.resolve(request.sessionId, request.gateId, false);
        return std::nullopt;
    }
    auto scope = request.approvalScope();
    std::optional<std::string> confirmation;
    if (widen && scope) {
        std::vector<std::optional<std::string>> heads;
        if (scope->kind == ApprovalScope::Kind::tool) heads.push_back(std::nullopt);
        for (const auto& h : scope->heads) heads.push_back(h);
        for (const auto& head : heads) {
            if (*widen == DecisionScopeConfirmation::session)
                rules.addSessionRule(request.provider, request.sessionId, request.toolName, head);
            else
                rules.addAlwaysRule(request.provider, request.toolName, head);
        }
        confirmation = *widen == DecisionScopeConfirmation::session ? ApprovalLabels::approvedThisSession
                                                                     : ApprovalLabels::approvedAlways;
    }
    bridge.resolve(request.sessionId, request.gateId, true);
    return confirmation;
}

}  // namespace lumora
