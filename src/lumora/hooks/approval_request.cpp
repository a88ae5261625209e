#include "lumora/hooks/approval_request.hpp"

#include "lumora/hooks/attention_marker.hpp"
#include "lumora/hooks/command_parsing.hpp"

namespace lumora {

std::optional<ApprovalScope> ApprovalRequest::approvalScope() const {
    if (!approvable || escalated || toolName.empty()) return std::nullopt;
    if (CommandParsing::isShellTool(toolName)) {
        auto heads = CommandParsing::heads(detail.value_or(""));
        if (!heads) return std::nullopt;
        return ApprovalScope::shellHeads(std::move(*heads));
    }
    return ApprovalScope::tool();
}

ApprovalRequest ApprovalRequest::fromMarker(const AttentionMarker& marker, bool approvable) {
    return ApprovalRequest{marker.sessionId, marker.toolName, marker.detail, approvable, marker.reason,
                           marker.escalated};
}

}  // namespace lumora
