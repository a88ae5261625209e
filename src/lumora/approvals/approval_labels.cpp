#include "lumora/approvals/approval_labels.hpp"

namespace lumora {

namespace {

std::string subject(const ApprovalScope& scope, const std::string& toolName) {
    if (scope.kind == ApprovalScope::Kind::tool) return toolName;
    std::string out;
    for (const auto& head : scope.heads) {
        if (!out.empty()) out += ", ";
        out += head;
    }
    return out;
}

}  // namespace

std::string ApprovalLabels::allowThisSession(const ApprovalScope& scope, const std::string& toolName) {
    return "Allow " + subject(scope, toolName) + " this session";
}

std::string ApprovalLabels::alwaysAllow(const ApprovalScope& scope, const std::string& toolName) {
    return "Always allow " + subject(scope, toolName);
}

}  // namespace lumora
