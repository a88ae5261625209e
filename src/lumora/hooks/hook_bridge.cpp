#include "lumora/hooks/hook_bridge.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <spdlog/spdlog.h>

#include <cassert>
#include <cstdlib>

#include "lumora/base/dates.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/hooks/auto_approver.hpp"
#include "lumora/hooks/hook_client.hpp"
#include "lumora/hooks/hook_state_file.hpp"
#include "lumora/hooks/log_lines.hpp"

namespace lumora {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;
using HookProtocol::Behavior;

namespace {

constexpr const char* kStateFile = "hook-state.json";
constexpr const char* kApprovalsLog = "approvals.log";

std::string shortId(const std::string& sessionId) { return LogLines::escape(sessionId.substr(0, 8)); }

Steady::time_point toSteady(HookBridge::TimePoint t) {
    auto left = t - HookBridge::Clock::now();
    return Steady::now() + std::chrono::duration_cast<Steady::duration>(left);
}

}  // namespace

std::optional<fs::path> hookTraceFileFromEnvironment() {
    const char* v = std::getenv("LUMORA_DEBUG_LOG");
    if (!v || !*v) return std::nullopt;
    return fs::path(v);
}

HookBridge::HookBridge(fs::path socketPath, fs::path supportFolder, ApprovalRulesStore& rules, Options options)
    : socketPath_(std::move(socketPath)),
      supportFolder_(std::move(supportFolder)),
      options_(std::move(options)),
      state_(options_.state),
      server_(socketPath_, options_.server, *this),
      approver_(std::make_unique<AutoApprover>(rules, supportFolder_ / kApprovalsLog)) {
    if (options_.traceFile) trace_ = std::make_unique<LogLines>(*options_.traceFile, std::string(queueLabel) + ".trace");
}

HookBridge::~HookBridge() {
    stop();
    approver_.reset();  // answers still on their way find the bridge whole
}

fs::path HookBridge::stateFile() const { return supportFolder_ / kStateFile; }
fs::path HookBridge::approvalsLog() const { return supportFolder_ / kApprovalsLog; }

void HookBridge::trace(std::string_view text) {
    if (trace_) trace_->append(Dates::format(Clock::now()) + " " + std::string(text));
}

// ---------------------------------------------------------------------------------------------
// Settings and queries

void HookBridge::setGating(bool enabled) {
    std::lock_guard lock(mutex_);
    state_.setGating(enabled);
}

bool HookBridge::gatingEnabled() const {
    std::lock_guard lock(mutex_);
    return state_.gating();
}

void HookBridge::setCanShow(CanShow canShow) {
    std::lock_guard lock(mutex_);
    canShow_ = std::move(canShow);
}

void HookBridge::setOnEvent(std::function<void()> onEvent) {
    std::lock_guard lock(mutex_);
    onEvent_ = std::move(onEvent);
}

bool HookBridge::isRunning() const { return server_.running(); }

Status HookBridge::listening() const {
    std::lock_guard lock(mutex_);
    return listening_;
}

HookBridgeSnapshot HookBridge::snapshot(TimePoint now) const {
    std::lock_guard lock(mutex_);
    HookBridgeSnapshot s = state_.snapshot(now);
    s.listening = listening_;
    return s;
}

// ---------------------------------------------------------------------------------------------
// Lines

void HookBridge::handleLine(std::string_view line, ConnectionId connection) {
    assert(!server_.running() || server_.onLoopThread());
    auto parsed = HookProtocol::parse(line);
    if (!parsed.request) {
        if (trace_) trace("DROP " + parsed.why + " (" + std::to_string(line.size()) + " bytes)");
        return;
    }
    const auto& r = *parsed.request;
    ++linesHandled_;
    if (trace_) {
        trace("RECV source=" + LogLines::escape(r.source) + " action=" + LogLines::escape(r.action) +
              " tool=" + (r.toolName.empty() ? "-" : LogLines::escape(r.toolName)) + " sid=" + shortId(r.sessionId));
    }
    if (r.isQuery()) {
        if (server_.running()) answerQuery(r, connection);
        return;
    }
    bool holds;
    {
        std::lock_guard lock(mutex_);
        state_.apply(r, connection, Clock::now());
        holds = state_.holdsGate(connection);
    }
    if (server_.running()) {
        if (holds) server_.hold(connection);
    } else {
        afterChangeOffThread();
    }
}

void HookBridge::answerQuery(const HookProtocol::Request& r, ConnectionId connection) {
    auto pid = static_cast<int32_t>(::getpid());
    if (r.action == "who") {
        server_.send(connection, HookProtocol::whoReply(pid));
    } else {
        auto now = Clock::now();
        server_.send(connection, HookStateFile::encodeStateReply(snapshot(now), now, pid));
    }
}

void HookBridge::onLine(ConnectionId connection, std::string_view line) { handleLine(line, connection); }

void HookBridge::onClosed(ConnectionId connection) {
    std::lock_guard lock(mutex_);
    state_.disconnected(connection, Clock::now());
}

// ---------------------------------------------------------------------------------------------
// Effects

void HookBridge::afterBatch() {
    runEffects(true);
    saveIfDue();
}

std::optional<HookSocketServer::SteadyTime> HookBridge::nextDeadline() {
    std::optional<HookSocketServer::SteadyTime> next;
    std::lock_guard lock(mutex_);
    if (auto d = state_.nextDeadline()) next = toSteady(*d);
    if (options_.saveAfterChange && state_.dirty()) {
        auto due = lastSave_ + options_.saveInterval;
        if (!next || due < *next) next = due;
    }
    return next;
}

void HookBridge::runEffects(bool onLoop) {
    // Which waiting gates a view now shows, asked off the lock.
    std::vector<HookSessionState::AwaitingRow> awaiting;
    CanShow canShow;
    {
        std::lock_guard lock(mutex_);
        awaiting = state_.gatesAwaitingRows();
        canShow = canShow_;
    }
    std::vector<uint64_t> shown;
    for (const auto& a : awaiting) {
        if (!canShow || canShow(a.provider, a.sessionId, a.gateId)) shown.push_back(a.gateId);
    }
    std::vector<HookSessionState::Reply> replies;
    std::vector<HookSessionState::RuleCheck> checks;
    bool changed;
    std::function<void()> callback;
    {
        std::lock_guard lock(mutex_);
        for (uint64_t id : shown) state_.rowShown(id);
        state_.tick(Clock::now());
        replies = state_.takeReplies();
        checks = state_.takeRuleChecks();
        changed = state_.takeChanged();
        callback = onEvent_;
    }
    for (const auto& reply : replies) {
        if (trace_) trace("REPLY behavior=" + std::string(HookProtocol::name(reply.behavior)));
        if (onLoop) server_.send(reply.connection, HookProtocol::reply(reply.behavior));
    }
    for (auto& check : checks) {
        if (onLoop) {
            approver_->check(std::move(check), [this](uint64_t id, bool matched) { ruleAnswered(id, matched); });
        } else {
            // Nothing serves the socket: ask on this thread.
            bool matched = approver_->matches(check);
            std::optional<HookSessionState::RuleCheck> approved;
            {
                std::lock_guard lock(mutex_);
                approved = state_.ruleChecked(check.gateId, matched, Clock::now());
            }
            if (approved) approver_->logApproved(*approved, Clock::now());
        }
    }
    if (!onLoop && !checks.empty()) {
        runEffects(false);  // what the answers changed
        return;
    }
    if (changed && callback) callback();
}

void HookBridge::ruleAnswered(uint64_t gateId, bool matched) {
    auto now = Clock::now();
    std::optional<HookSessionState::RuleCheck> approved;
    {
        std::lock_guard lock(mutex_);
        approved = state_.ruleChecked(gateId, matched, now);
    }
    if (approved) {
        approver_->logApproved(*approved, now);
        if (trace_) trace("AUTO allow tool=" + LogLines::escape(approved->toolName) + " sid=" + shortId(approved->sessionId));
    }
    server_.wake();
}

void HookBridge::afterChangeOffThread() {
    if (server_.onLoopThread()) return;  // the loop runs the effects after its batch
    if (server_.running()) {
        server_.wake();
        return;
    }
    runEffects(false);
}

bool HookBridge::resolve(const std::string& sessionId, uint64_t gateId, bool allow) {
    bool answered;
    {
        std::lock_guard lock(mutex_);
        answered = state_.resolve(sessionId, gateId, allow, Clock::now());
    }
    if (trace_) {
        trace(std::string("RESOLVE ") + (allow ? "allow" : "deny") + " gate=" + std::to_string(gateId) +
              (answered ? "" : " (not held)") + " sid=" + shortId(sessionId));
    }
    afterChangeOffThread();
    return answered;
}

void HookBridge::releaseAllGates() {
    {
        std::lock_guard lock(mutex_);
        state_.releaseAllGates();
    }
    afterChangeOffThread();
}

bool HookBridge::handBack(const std::string& sessionId, uint64_t gateId) {
    bool handed;
    {
        std::lock_guard lock(mutex_);
        handed = state_.handBack(sessionId, gateId);
    }
    if (trace_ && handed) trace("HANDBACK gate=" + std::to_string(gateId) + " sid=" + shortId(sessionId));
    afterChangeOffThread();
    return handed;
}

void HookBridge::rowsChanged() {
    if (server_.running()) server_.wake();
    else afterChangeOffThread();
}

// ---------------------------------------------------------------------------------------------
// The state file

void HookBridge::saveIfDue() {
    if (!options_.saveAfterChange) return;
    auto now = Steady::now();
    {
        std::lock_guard lock(mutex_);
        if (!state_.dirty() || now - lastSave_ < options_.saveInterval) return;
    }
    lastSave_ = now;
    // Copied, encoded and written on the save queue: the socket never waits for the disk.
    saveQueue_->async([this] { persistNow(); });
}

void HookBridge::persistNow() {
    auto now = Clock::now();
    HookBridgeSnapshot state;
    {
        std::lock_guard lock(mutex_);
        state = state_.snapshot(now);
        state_.markSaved();
    }
    std::string text = HookStateFile::encode(state, now);
    std::lock_guard write(saveMutex_);
    std::error_code ec;
    fs::create_directories(supportFolder_, ec);
    if (auto s = FileUtil::writeAtomically(stateFile(), text, 0600); !s)
        spdlog::warn("hook bridge: cannot save {}: {}", stateFile().string(), s.why);
}

bool HookBridge::readRunningState(std::chrono::milliseconds timeout) {
    auto now = Clock::now();
    if (auto reply = HookClient::ask(socketPath_, HookProtocol::stateRequest(), timeout)) {
        if (auto decoded = HookStateFile::decodeStateReply(*reply)) {
            std::lock_guard lock(mutex_);
            state_.restore(decoded->state, now, now);
            return true;
        }
    }
    if (auto saved = HookStateFile::load(stateFile())) {
        std::lock_guard lock(mutex_);
        state_.restore(saved->state, saved->savedAt, now);
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Serving

bool HookBridge::takeServiceLock() {
    if (lockFd_ >= 0) return true;
    std::string path = socketPath_.string() + ".lock";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return true;  // no lock to be had: the socket check alone decides, as it always did
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    lockFd_ = fd;
    return true;
}

void HookBridge::releaseServiceLock() {
    if (lockFd_ < 0) return;
    ::close(lockFd_);  // releases the lock; the file stays for the next one
    lockFd_ = -1;
}

Status HookBridge::start() {
    if (server_.running()) return Status::success();
    std::error_code ec;
    if (!fs::exists(supportFolder_, ec)) {
        fs::create_directories(supportFolder_.parent_path(), ec);
        fs::create_directory(supportFolder_, ec);
        fs::permissions(supportFolder_, fs::perms::owner_all, ec);
    }
    // Only a private folder is trusted to say who serves it.
    Status status = HookSocketServer::checkFolder(socketPath_);
    // Two Lumoras starting at once (attached views whose service went away)
    // must not both find the socket free: the one holding the lock file
    // beside it serves it. The lock goes with the process, however it ends.
    bool locked = status && takeServiceLock();
    // One instance owns the socket: a live one is never unlinked from under it.
    auto who = status ? HookClient::who(socketPath_) : HookClient::Who{};
    if (status && !locked && who.kind != HookClient::Who::Kind::lumora) {
        status = Status::failure("another Lumora is starting on " + socketPath_.string());
    } else if (who.kind == HookClient::Who::Kind::lumora) {
        status = Status::failure("Lumora is already running (pid " + std::to_string(who.pid) + ")");
    } else if (who.kind == HookClient::Who::Kind::other) {
        status = Status::failure("another program serves " + socketPath_.string());
    }
    if (status) {
        bool firstStart;
        {
            std::lock_guard lock(mutex_);
            firstStart = !restored_;
            restored_ = true;
        }
        if (firstStart) {
            if (auto saved = HookStateFile::load(stateFile())) {
                std::lock_guard lock(mutex_);
                state_.restore(saved->state, saved->savedAt, Clock::now());
            }
        }
        if (!saveQueue_) saveQueue_ = std::make_unique<SerialQueue>(std::string(queueLabel) + ".save");
        status = server_.start();
    }
    if (!status) releaseServiceLock();
    {
        std::lock_guard lock(mutex_);
        listening_ = status;
    }
    if (status) spdlog::info("hook bridge: listening on {}", socketPath_.string());
    else spdlog::warn("hook bridge: not listening: {}", status.why);
    return status;
}

void HookBridge::stop() {
    if (!server_.running()) return;
    {
        // A held connection cannot outlive the socket: its agent asks in its own prompt.
        std::lock_guard lock(mutex_);
        state_.releaseAllGates();
        listening_ = Status::failure("stopped");
    }
    server_.stop();  // writes those answers on its way out
    saveQueue_.reset();  // runs what is queued, then joins
    persistNow();
    releaseServiceLock();
    spdlog::info("hook bridge: stopped");
}

}  // namespace lumora
