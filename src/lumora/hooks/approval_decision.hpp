#pragma once

#include <optional>
#include <string>

#include "lumora/hooks/approval_request.hpp"

namespace lumora {

class HookBridge;
class ApprovalRulesStore;

// The user's answer on a row.
enum class ApprovalVerdict { allow, deny };

// The texts of a row's approval buttons and confirmations.
namespace ApprovalLabels {
inline constexpr const char* approve = "Approve";
inline constexpr const char* deny = "Deny";
inline constexpr const char* approvedThisSession = "Approved · this session";
inline constexpr const char* approvedAlways = "Approved · won't ask again";
// "Allow " + the heads (or the tool) joined by ", " + " this session".
std::string allowThisSession(const ApprovalScope& scope, const std::string& toolName);
// "Always allow " + the heads (or the tool) joined by ", ".
std::string alwaysAllow(const ApprovalScope& scope, const std::string& toolName);
}  // namespace ApprovalLabels

// Carries out the user's answer: a deny or a plain approve resolves the held
// gate; an approve widened to the session or for always first adds the rules
// its scope allows (nothing when the request offers no scope). Returns the
// row's confirmation text for a widened approve, else nothing.
std::optional<std::string> decide(const ApprovalRequest& request, ApprovalVerdict verdict,
                                  std::optional<DecisionScopeConfirmation> scope, HookBridge& bridge,
                                  ApprovalRulesStore& rules);
// The same on HookBridge::shared() and ApprovalRulesStore::shared().
std::optional<std::string> decide(const ApprovalRequest& request, ApprovalVerdict verdict,
                                  std::optional<DecisionScopeConfirmation> scope = std::nullopt);

}  // namespace lumora
