#include "lumora/approvals/approval_request.hpp"

#include "lumora/approvals/command_parsing.hpp"

namespace lumora {

std::optional<ApprovalScope> ApprovalRequest::approvalScope() const {
    if (!approvable || leavesSandbox() || toolName.empty()) return std::nullopt;
    if (CommandParsing::isShellTool(toolName)) {
        auto heads = CommandParsing::heads(detail.value_or(""));
        if (!heads) return std::nullopt;
        return ApprovalScope::shellHeads(std::move(*heads));
    }
    return ApprovalScope::tool();
}

}  // namespace lumora
