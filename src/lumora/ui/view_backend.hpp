#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumora/approvals/approval_request.hpp"
#include "lumora/hooks/task_plan_store.hpp"
#include "lumora/monitor/agent_instance.hpp"
#include "lumora/monitor/peek_event.hpp"
#include "lumora/usage/quota_reading.hpp"
#include "lumora/spend/spend_history.hpp"

namespace lumora {

// One button an approval row offers.
struct ApprovalChoice {
    enum class Kind { approve, deny, allowSession, allowAlways };
    Kind kind = Kind::approve;
    std::string label;  // "Approve", "Deny", "Allow git, npm this session", "Always allow git, npm"
    bool operator==(const ApprovalChoice&) const = default;
};

// A line of news from the backend itself rather than from a session (an
// attached view's service went away); the token tells a new one from an old one.
struct BackendNews {
    long long token = 0;
    std::string text;
    bool operator==(const BackendNews&) const = default;
};

// What a front end (the terminal view, later the notch) reads and does. The
// app implements it over the monitor, the hook bridge and the approval
// rules; tests and the demonstration mode implement it with scripted data.
// Every call happens on the main run loop's thread.
class ViewBackend {
public:
    virtual ~ViewBackend() = default;

    // The published session list, in the monitor's order.
    virtual std::vector<AgentInstance> instances() const = 0;
    // Sessions whose finished turn the user has not seen yet.
    virtual std::set<std::string> unseenCompletions() const = 0;
    // Needs-you sessions the user has already looked at.
    virtual std::set<std::string> acknowledgedAttention() const = 0;
    // The latest peek event, if any (its token tells a new one from an old one).
    virtual std::optional<PeekEvent> peekEvent() const = 0;

    // The buttons for an approval: none for a display-only one.
    virtual std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& request) const = 0;
    // Carries out a choice; returns the row's confirmation ("Approved · this
    // session", "Approved · won't ask again"), if it has one.
    virtual std::optional<std::string> choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) = 0;
    // The user looked at a session's row (acknowledges a needs-you, sees a completion).
    virtual void sawRow(const std::string& sessionId) = 0;

    // A standing problem the status line shows while there is no other news
    // ("Hooks not listening: <why>"), if any.
    virtual std::optional<std::string> hooksProblem() const { return std::nullopt; }

    // The latest news of the backend itself, if any; the view shows it on its news line.
    virtual std::optional<BackendNews> news() const { return std::nullopt; }

    // The plan-usage readings for the quota strip, in provider order; empty
    // while plan usage is off or nothing has been read yet.
    virtual std::vector<QuotaReading> quotaReadings() const { return {}; }
    // The latest quota alert, if any (its token tells a new one from an old one).
    virtual std::optional<UsageAlert> usageAlert() const { return std::nullopt; }

    // Today's token spend for the strip, when it is known (a front end
    // without spend figures keeps the default).
    virtual std::optional<SpendSummary> spendSummary() const { return std::nullopt; }

    // The sessions' task plans, by session id (none while plans are off).
    virtual TaskPlans taskPlans() const { return {}; }

    // Brings the user to where the session runs (its pane, terminal window or
    // app). Returns at once; `done` gets one line per route taken, on the
    // main loop, once the jump has ended.
    using JumpDone = std::function<void(std::vector<std::string> lines)>;
    virtual void jump(const AgentInstance& session, JumpDone done) { done({"jumping is not available here"}); }

    // Called (on the main loop) whenever anything above may have changed.
    virtual void setOnChange(std::function<void()> onChange) = 0;
};

}  // namespace lumora
