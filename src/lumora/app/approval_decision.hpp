#pragma once

#include <optional>
#include <string>

#include "lumora/approvals/approval_labels.hpp"
#include "lumora/approvals/approval_request.hpp"

namespace lumora {

class HookBridge;
class ApprovalRulesStore;

// Carries out the user's answer: a deny or a plain approve resolves the held
// gate the request shows (its gateId: a newer prompt of the session is not
// answered by it); an approve widened to the session or for always first adds
// the rules its scope allows, for the command that was shown (nothing when the
// request offers no scope). Returns the row's confirmation text for a widened
// approve, else nothing.
std::optional<std::string> decide(const ApprovalRequest& request, ApprovalVerdict verdict,
                                  std::optional<DecisionScopeConfirmation> scope, HookBridge& bridge,
                                  ApprovalRulesStore& rules);

}  // namespace lumora
