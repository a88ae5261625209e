#include "lumora/app/attached_backend.hpp"

#include "lumora/app/lumora_app.hpp"

namespace lumora {

AttachedBackend::AttachedBackend(std::unique_ptr<FrontConnection> connection, FrontProtocol::State first, RunLoop& loop)
    : connection_(std::move(connection)), state_(std::move(first)), loop_(loop) {}

AttachedBackend::~AttachedBackend() {
    *alive_ = false;
    close();
}

void AttachedBackend::start(std::function<void()> onLost) {
    onLost_ = std::move(onLost);
    std::weak_ptr<bool> alive = alive_;
    // Lines are decoded on the reader's thread; only the result hops to the loop.
    connection_->start(
        [this, alive](std::string line) {
            if (auto decided = FrontProtocol::parseDecidedReply(line)) {
                if (decided->taken) return;
                loop_.post([this, alive] {
                    if (alive.lock() && onNews_) onNews_("That prompt was already answered elsewhere");
                });
                return;
            }
            if (auto reply = FrontProtocol::parseJumpReply(line)) {
                loop_.post([this, alive, reply = std::move(*reply)]() mutable {
                    if (!alive.lock()) return;
                    auto it = jumps_.find(reply.ref);
                    if (it == jumps_.end()) return;
                    auto done = std::move(it->second);
                    jumps_.erase(it);
                    done(std::move(reply.lines));
                });
                return;
            }
            auto state = FrontProtocol::decodeState(line);
            if (!state) return;  // a line of another kind: skipped
            loop_.post([this, alive, state = std::move(*state)]() mutable {
                if (!alive.lock() || lost_) return;
                state_ = std::move(state);
                if (onChange_) onChange_();
            });
        },
        [this, alive] {
            loop_.post([this, alive] {
                if (!alive.lock() || lost_) return;
                lost_ = true;
                for (auto& [_, done] : jumps_) done({"the Lumora service went away before the jump ended"});
                jumps_.clear();
                if (onLost_) onLost_();
            });
        });
}

void AttachedBackend::setAnswers(bool answers) {
    FrontProtocol::Command c;
    c.kind = FrontProtocol::Command::Kind::face;
    c.answers = answers;
    send(c);
}

void AttachedBackend::close() {
    if (connection_) connection_->close();
}

void AttachedBackend::send(const FrontProtocol::Command& command) {
    if (!lost_ && connection_) connection_->send(FrontProtocol::commandLine(command));
}

std::vector<ApprovalChoice> AttachedBackend::approvalChoices(const ApprovalRequest& request) const {
    return approvalChoicesFor(request);
}

std::optional<std::string> AttachedBackend::choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) {
    FrontProtocol::Command c;
    c.kind = FrontProtocol::Command::Kind::decide;
    c.session = request.sessionId;
    c.gate = request.gateId;
    c.choice = kind;
    // The service answers the prompt it shows with this number, or nothing
    // when another face answered it first.
    if (request.gateId != 0) send(c);
    return confirmationFor(request, kind);
}

void AttachedBackend::sawRow(const std::string& sessionId) {
    FrontProtocol::Command c;
    c.kind = FrontProtocol::Command::Kind::saw;
    c.session = sessionId;
    send(c);
}

void AttachedBackend::jump(const AgentInstance& session, JumpDone done) {
    if (lost_) {
        done({"the Lumora service is gone"});
        return;
    }
    FrontProtocol::Command c;
    c.kind = FrontProtocol::Command::Kind::jump;
    c.session = session.id;
    c.ref = nextRef_++;
    jumps_[c.ref] = std::move(done);
    send(c);
}

// ---------------------------------------------------------------------------------------------

void SwitchingBackend::use(ViewBackend* backend) {
    if (current_) current_->setOnChange(nullptr);
    current_ = backend;
    if (current_) current_->setOnChange([this] { changed(); });
    changed();
}

void SwitchingBackend::tell(std::string text) {
    long long token = news_ ? news_->token + 1 : 1;
    news_ = BackendNews{token, std::move(text)};
    changed();
}

void SwitchingBackend::setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

std::set<std::string> SwitchingBackend::unseenCompletions() const {
    return current_ ? current_->unseenCompletions() : std::set<std::string>{};
}
std::set<std::string> SwitchingBackend::acknowledgedAttention() const {
    return current_ ? current_->acknowledgedAttention() : std::set<std::string>{};
}
std::optional<PeekEvent> SwitchingBackend::peekEvent() const { return current_ ? current_->peekEvent() : std::nullopt; }
std::vector<ApprovalChoice> SwitchingBackend::approvalChoices(const ApprovalRequest& request) const {
    return current_ ? current_->approvalChoices(request) : std::vector<ApprovalChoice>{};
}
std::optional<std::string> SwitchingBackend::choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) {
    return current_ ? current_->choose(request, kind) : std::nullopt;
}
void SwitchingBackend::sawRow(const std::string& sessionId) {
    if (current_) current_->sawRow(sessionId);
}
std::optional<std::string> SwitchingBackend::hooksProblem() const {
    return current_ ? current_->hooksProblem() : std::nullopt;
}
std::optional<BackendNews> SwitchingBackend::news() const { return news_; }
std::vector<QuotaReading> SwitchingBackend::quotaReadings() const {
    return current_ ? current_->quotaReadings() : std::vector<QuotaReading>{};
}
std::optional<UsageAlert> SwitchingBackend::usageAlert() const { return current_ ? current_->usageAlert() : std::nullopt; }
std::optional<SpendSummary> SwitchingBackend::spendSummary() const {
    return current_ ? current_->spendSummary() : std::nullopt;
}
TaskPlans SwitchingBackend::taskPlans() const { return current_ ? current_->taskPlans() : TaskPlans{}; }
void SwitchingBackend::jump(const AgentInstance& session, JumpDone done) {
    if (current_) current_->jump(session, std::move(done));
    else done({"jumping is not available here"});
}

}  // namespace lumora
