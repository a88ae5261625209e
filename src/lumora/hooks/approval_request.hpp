#pragma once

#include <optional>
#include <string>

namespace lumora {

// The approval a row shows: a permission prompt held by the hook bridge, or a
// display-only one read from disk.
struct ApprovalRequest {
    std::string sessionId;
    std::string toolName;
    std::optional<std::string> detail;  // command, file or pattern being approved
    bool approvable = false;            // a gate is held, so an answer reaches the agent
    std::optional<std::string> reason;  // the "why" line
    bool escalated = false;             // wants to run outside the sandbox ("Outside sandbox")

    // True when there is a reason to show; such a row grows by one line.
    bool hasContext() const { return reason && !reason->empty(); }
    bool operator==(const ApprovalRequest&) const = default;
};

}  // namespace lumora
