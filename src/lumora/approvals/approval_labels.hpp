#pragma once

#include <string>

#include "lumora/approvals/approval_request.hpp"

namespace lumora {

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

}  // namespace lumora
