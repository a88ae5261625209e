#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "lumora/base/run_loop.hpp"
#include "lumora/ui/view_backend.hpp"

namespace lumora::ui {

// A scripted session list for the demonstration mode (`lumora --demo`): a
// dozen varied sessions, approvals that can really be answered, and a short
// script of things happening. It never touches the socket or the agents'
// files; "always" rules live in memory only.
class DemoBackend : public ViewBackend {
public:
    // The sessions as they stand at `now`.
    explicit DemoBackend(Date now = std::chrono::system_clock::now());
    ~DemoBackend() override;

    // Plays the script on `loop`, one step every `interval`.
    void start(RunLoop& loop, RunLoop::Clock::duration interval = std::chrono::seconds(10));
    // Plays the next step of the script at `now`; returns false once it has ended.
    bool step(Date now = std::chrono::system_clock::now());

    std::vector<AgentInstance> instances() const override { return sessions_; }
    std::set<std::string> unseenCompletions() const override { return unseen_; }
    std::set<std::string> acknowledgedAttention() const override { return acknowledged_; }
    std::optional<PeekEvent> peekEvent() const override { return peek_; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& request) const override;
    std::optional<std::string> choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) override;
    void sawRow(const std::string& sessionId) override;
    std::vector<QuotaReading> quotaReadings() const override { return quotas_; }
    std::optional<UsageAlert> usageAlert() const override { return usageAlert_; }
    // Demonstration rows never open anything real: the jump only says where it would go.
    void jump(const AgentInstance& session, JumpDone done) override;
    void setOnChange(std::function<void()> onChange) override { onChange_ = std::move(onChange); }
    // Scripted figures for the strip.
    std::optional<SpendSummary> spendSummary() const override;
    // Scripted plans: a release checklist under way, a long plan that overflows, a Codex goal.
    TaskPlans taskPlans() const override { return plans_; }

    // The "always" rules made so far, as "head:<head>" keys.
    const std::set<std::string>& alwaysRules() const { return always_; }

private:
    AgentInstance* find(const std::string& id);
    // Raises a gate for `id`, unless a rule already allows all its heads.
    void gate(const std::string& id, const std::string& tool, const std::string& command,
              const std::vector<std::string>& heads, const std::string& reason, Date now);
    void finish(const std::string& id, const std::string& summary, Date now);
    void peek(const AgentInstance& a, const std::string& ask, bool done);
    void changed();

    std::vector<AgentInstance> sessions_;
    std::map<std::string, std::vector<std::string>> heads_;  // the heads of each held request
    std::set<std::string> unseen_, acknowledged_;
    std::set<std::string> always_;
    std::map<std::string, std::set<std::string>> sessionRules_;
    std::optional<PeekEvent> peek_;
    long long peekToken_ = 0;
    std::vector<QuotaReading> quotas_;
    TaskPlans plans_;
    std::optional<UsageAlert> usageAlert_;
    long long usageToken_ = 0;
    int step_ = 0;
    std::function<void()> onChange_;
    RunLoop* loop_ = nullptr;
    RunLoop::TimerId timer_ = 0;
};

}  // namespace lumora::ui
