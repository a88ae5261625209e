#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "lumora/app/front_protocol.hpp"
#include "lumora/base/run_loop.hpp"
#include "lumora/hooks/front_connection.hpp"
#include "lumora/ui/view_backend.hpp"

namespace lumora {

// A view's backend fed by the service over the face socket: the sessions,
// readings and news come from its state lines, and decisions, "saw this row"
// and jumps go back to it. The view's keys, rows and approvals work as over
// the app itself. Every call is on `loop`'s thread.
class AttachedBackend : public ViewBackend {
public:
    // Over a connection whose first state line `first` has been read already.
    AttachedBackend(std::unique_ptr<FrontConnection> connection, FrontProtocol::State first, RunLoop& loop);
    ~AttachedBackend() override;

    // Starts reading. `onLost` runs on the loop, once, when the service goes.
    void start(std::function<void()> onLost);
    // What the view should say on its news line (a decision that came too late), on the loop.
    void setOnNews(std::function<void(std::string)> onNews) { onNews_ = std::move(onNews); }
    // Tells the service whether this face shows buttons now (it holds
    // prompts for such faces). A view says yes; a suspended one, no.
    void setAnswers(bool answers);
    // Closes the connection; nothing more arrives.
    void close();
    int32_t servicePid() const { return state_.pid; }
    bool connected() const { return !lost_; }

    std::vector<AgentInstance> instances() const override { return state_.sessions; }
    std::set<std::string> unseenCompletions() const override { return state_.unseen; }
    std::set<std::string> acknowledgedAttention() const override { return state_.acknowledged; }
    std::optional<PeekEvent> peekEvent() const override { return state_.peek; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& request) const override;
    std::optional<std::string> choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) override;
    void sawRow(const std::string& sessionId) override;
    std::optional<std::string> hooksProblem() const override { return state_.hooksProblem; }
    std::vector<QuotaReading> quotaReadings() const override { return state_.quotas; }
    std::optional<UsageAlert> usageAlert() const override { return state_.usageAlert; }
    std::optional<SpendSummary> spendSummary() const override { return state_.spend; }
    TaskPlans taskPlans() const override { return state_.plans; }
    void jump(const AgentInstance& session, JumpDone done) override;
    void setOnChange(std::function<void()> onChange) override { onChange_ = std::move(onChange); }

private:
    void send(const FrontProtocol::Command& command);

    std::unique_ptr<FrontConnection> connection_;
    FrontProtocol::State state_;
    RunLoop& loop_;
    std::function<void()> onChange_;
    std::function<void()> onLost_;
    std::function<void(std::string)> onNews_;
    std::map<int64_t, JumpDone> jumps_;  // by ref, until the service answers
    int64_t nextRef_ = 1;
    bool lost_ = false;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// A backend that stands for another one which may change under the view (an
// attached view whose service went away becomes the service, or attaches to
// the new one): the view keeps reading it and sees the change as one more update.
class SwitchingBackend : public ViewBackend {
public:
    // Reads `backend` from now on (it must outlive its use) and tells the view.
    void use(ViewBackend* backend);
    ViewBackend* current() const { return current_; }
    // Shows `text` on the view's news line.
    void tell(std::string text);

    std::vector<AgentInstance> instances() const override { return current_ ? current_->instances() : std::vector<AgentInstance>{}; }
    std::set<std::string> unseenCompletions() const override;
    std::set<std::string> acknowledgedAttention() const override;
    std::optional<PeekEvent> peekEvent() const override;
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& request) const override;
    std::optional<std::string> choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) override;
    void sawRow(const std::string& sessionId) override;
    std::optional<std::string> hooksProblem() const override;
    std::optional<BackendNews> news() const override;
    std::vector<QuotaReading> quotaReadings() const override;
    std::optional<UsageAlert> usageAlert() const override;
    std::optional<SpendSummary> spendSummary() const override;
    TaskPlans taskPlans() const override;
    void jump(const AgentInstance& session, JumpDone done) override;
    void setOnChange(std::function<void()> onChange) override;

private:
    void changed() {
        if (onChange_) onChange_();
    }

    ViewBackend* current_ = nullptr;
    std::function<void()> onChange_;
    std::optional<BackendNews> news_;
};

}  // namespace lumora
