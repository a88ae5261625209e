#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scrivet/harness_provider.hpp"

namespace lumora {

// What an approval could be widened to: the whole tool (tools that are not
// shells) or the programs a shell command runs.
struct ApprovalScope {
    enum class Kind { tool, shellHeads };
    Kind kind = Kind::tool;
    std::vector<std::string> heads;  // for shellHeads, in order of first appearance

    static ApprovalScope tool() { return {Kind::tool, {}}; }
    static ApprovalScope shellHeads(std::vector<std::string> heads) { return {Kind::shellHeads, std::move(heads)}; }
    bool operator==(const ApprovalScope&) const = default;
};

// How far an approval is widened: for the rest of this session, or always.
enum class DecisionScopeConfirmation { session, always };

// The approval a row shows: a permission prompt held by the hook bridge, or a
// display-only one read from disk.
struct ApprovalRequest {
    std::string sessionId;
    std::string toolName;
    std::optional<std::string> detail;  // command, file or pattern being approved
    bool approvable = false;            // a gate is held, so an answer reaches the agent
    std::optional<std::string> reason;  // the "why" line
    bool escalated = false;             // wants to run outside the sandbox ("Outside sandbox"); see leavesSandbox
    // The agent asking: standing rules made on one agent's prompt never answer another's.
    scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
    // The held prompt this row shows (the bridge numbers them); 0 when none is held.
    uint64_t gateId = 0;

    // True when there is a reason to show; such a row grows by one line.
    bool hasContext() const { return reason && !reason->empty(); }

    // Whether a request of `provider` leaves the agent's sandbox: one marked
    // escalated, and every Codex permission request (Codex asks for permission
    // only to run a command outside its sandbox; the request itself is the
    // escalation). Such a request shows "Outside sandbox", offers no wider
    // scope and is never answered by a standing rule.
    static bool leavesSandbox(scrivet::HarnessProvider provider, bool escalated) {
        return escalated || provider == scrivet::HarnessProvider::codex;
    }
    bool leavesSandbox() const { return leavesSandbox(provider, escalated); }

    // What this approval may be widened to; nothing when it is not approvable,
    // leaves the sandbox, names no tool, or is a shell command whose programs
    // cannot be read safely.
    std::optional<ApprovalScope> approvalScope() const;

    bool operator==(const ApprovalRequest&) const = default;
};

}  // namespace lumora
