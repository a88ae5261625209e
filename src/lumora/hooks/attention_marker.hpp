#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "lumora/approvals/approval_request.hpp"

namespace lumora {

// A hook-reported "needs you" marker of one session.
struct AttentionMarker {
    // The kinds the hooks report.
    static constexpr const char* permission = "permission";
    static constexpr const char* question = "question";
    static constexpr const char* plan = "plan";
    static constexpr const char* idle = "idle";

    std::string sessionId;
    std::string toolName;                             // e.g. "Bash", "AskUserQuestion"; may be empty
    std::optional<std::string> detail;                // the command, file or question text
    std::string kind;                                 // permission, question, plan or idle
    std::optional<std::string> reason;                // the "why" line
    bool escalated = false;                           // wants to run outside the sandbox
    std::optional<std::vector<std::string>> options;  // a question's option labels
    int moreQuestions = 0;                            // further questions after the first

    // Encoded with the keys sessionId, toolName, detail, kind, reason,
    // escalated, options, moreQuestions (absent optionals are left out).
    nlohmann::ordered_json toJson() const;
    // Nothing when `json` is not an object or a key has the wrong type.
    static std::optional<AttentionMarker> fromJson(const nlohmann::ordered_json& json);

    // The approval row this marker shows for `provider`'s session;
    // `approvable` says whether the bridge holds a gate for it. A request
    // that leaves the sandbox (every Codex one) is marked escalated.
    ApprovalRequest approvalRequest(bool approvable,
                                    scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode) const;

    bool operator==(const AttentionMarker&) const = default;
};

}  // namespace lumora
