#include "lumora/app/front_service.hpp"

#include <unistd.h>

#include <spdlog/spdlog.h>

#include "lumora/app/approval_decision.hpp"
#include "lumora/base/run_loop.hpp"

namespace lumora {

bool decideShown(LumoraApp& app, const std::string& sessionId, uint64_t gateId, ApprovalChoice::Kind kind) {
    for (const auto& a : app.monitor().instances()) {
        if (a.id != sessionId) continue;
        if (!a.approval || !a.approval->approvable || a.approval->gateId != gateId) return false;
        // The published row may still show a prompt another face has just
        // answered: only a gate the bridge holds now is answered (or widened).
        auto held = app.bridge().snapshot(std::chrono::system_clock::now()).gates;
        auto gate = held.find(sessionId);
        if (gate == held.end() || gate->second.id != gateId) return false;
        ApprovalVerdict verdict = kind == ApprovalChoice::Kind::deny ? ApprovalVerdict::deny : ApprovalVerdict::allow;
        std::optional<DecisionScopeConfirmation> scope;
        if (kind == ApprovalChoice::Kind::allowSession) scope = DecisionScopeConfirmation::session;
        if (kind == ApprovalChoice::Kind::allowAlways) scope = DecisionScopeConfirmation::always;
        decide(*a.approval, verdict, scope, app.bridge(), app.rules());
        app.monitor().refreshNow();
        return true;
    }
    return false;
}

FrontService::FrontService(LumoraApp& app, const std::filesystem::path& hookSocket, FrontSocketServer::Limits limits)
    : app_(app), server_(FrontSocketServer::pathBeside(hookSocket), *this, limits) {
    std::weak_ptr<bool> alive = alive_;
    app_.addChangeListener([this, alive] {
        if (alive.lock() && started_) scheduleBroadcast();
    });
}

FrontService::~FrontService() {
    stop();
    *alive_ = false;
}

Status FrontService::start() {
    if (started_) return Status::success();
    Status s = server_.start();
    if (!s) {
        spdlog::warn("faces: not listening: {}", s.why);
        return s;
    }
    started_ = true;
    broadcastNow();
    return s;
}

void FrontService::stop() {
    if (!started_) return;
    started_ = false;
    server_.stop();
    answering_.clear();
    app_.setAnsweringFaces(0);
}

FrontProtocol::State FrontService::state() const {
    FrontProtocol::State s;
    s.pid = static_cast<int32_t>(::getpid());
    s.answeringFaces = static_cast<int32_t>(answering_.size());
    s.sessions = app_.monitor().instances();
    s.plans = app_.plans().plans();
    s.quotas = app_.usage().readings();
    s.spend = app_.spend().summary();
    s.unseen = app_.monitor().unseenCompletions();
    s.acknowledged = app_.monitor().acknowledgedAttention();
    s.peek = app_.monitor().peekEvent();
    s.usageAlert = app_.usage().alert();
    s.hooksProblem = app_.hooksProblem();
    return s;
}

void FrontService::scheduleBroadcast() {
    if (broadcastPosted_) return;
    broadcastPosted_ = true;
    std::weak_ptr<bool> alive = alive_;
    RunLoop::main().post([this, alive] {
        if (!alive.lock()) return;
        broadcastPosted_ = false;
        if (started_) broadcastNow();
    });
}

void FrontService::broadcastNow() {
    // Nothing before the first scan: a face that connects meanwhile waits for it
    // rather than read "no sessions".
    if (app_.monitor().publishCount() == 0) return;
    server_.broadcast(FrontProtocol::encodeState(state(), std::chrono::system_clock::now()));
}

void FrontService::onLines(FrontSocketServer::ClientId client, std::vector<std::string> lines, std::function<void()> done) {
    // On the socket's thread: everything happens on the main loop.
    std::weak_ptr<bool> alive = alive_;
    RunLoop::main().post([this, alive, client, lines = std::move(lines), done = std::move(done)] {
        if (!alive.lock()) return;
        for (const auto& line : lines) {
            auto command = FrontProtocol::parseCommand(line);
            if (command) handle(client, *command);
        }
        done();
    });
}

void FrontService::onClosed(FrontSocketServer::ClientId client) {
    std::weak_ptr<bool> alive = alive_;
    RunLoop::main().post([this, alive, client] {
        if (!alive.lock()) return;
        if (answering_.erase(client)) updateFaces();
    });
}

void FrontService::updateFaces() { app_.setAnsweringFaces(static_cast<int>(answering_.size())); }

void FrontService::handle(FrontSocketServer::ClientId client, const FrontProtocol::Command& command) {
    using Kind = FrontProtocol::Command::Kind;
    switch (command.kind) {
        case Kind::face: {
            bool changed = command.answers ? answering_.insert(client).second : answering_.erase(client) > 0;
            if (changed) updateFaces();
            break;
        }
        case Kind::decide: {
            bool taken = decideShown(app_, command.session, command.gate, command.choice);
            if (!taken)
                spdlog::debug("faces: a decision for a prompt no longer shown (gate {}) changed nothing", command.gate);
            server_.sendTo(client, FrontProtocol::decidedReply({command.session, command.gate, taken}));
            break;
        }
        case Kind::saw:
            for (const auto& a : app_.monitor().instances()) {
                if (a.id != command.session) continue;
                app_.monitor().sawRow(a.id);
                scheduleBroadcast();
                break;
            }
            break;
        case Kind::jump: {
            const AgentInstance* found = nullptr;
            for (const auto& a : app_.monitor().instances())
                if (a.id == command.session) found = &a;
            if (!found) {
                server_.sendTo(client, FrontProtocol::jumpReply(command.ref, {"no session " + command.session}));
                break;
            }
            std::weak_ptr<bool> alive = alive_;
            int64_t ref = command.ref;
            app_.jump(*found, [this, alive, client, ref](std::vector<std::string> lines) {
                if (alive.lock() && started_) server_.sendTo(client, FrontProtocol::jumpReply(ref, lines));
            });
            break;
        }
    }
}

}  // namespace lumora
