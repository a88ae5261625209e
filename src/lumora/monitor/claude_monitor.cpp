#include "lumora/monitor/claude_monitor.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cassert>

#include "lumora/platform/threads.hpp"

namespace lumora {

ClaudeMonitor::ClaudeMonitor(Dependencies deps)
    : deps_(std::move(deps)),
      loop_(deps_.loop ? *deps_.loop : RunLoop::main()),
      queue_(std::make_unique<SerialQueue>("lumora.monitor")) {
    if (deps_.files) watchId_ = deps_.files->subscribe([this](const auto&) { filesChanged(); });
}

ClaudeMonitor::~ClaudeMonitor() {
    *alive_ = false;
    stop();
    // A scan in flight finishes before the sources go, while it can still see
    // its queue (reset() empties the pointer before the queue's destructor runs).
    queue_->sync([] {});
    queue_.reset();
    if (deps_.files) deps_.files->unsubscribe(watchId_);
}

Date ClaudeMonitor::now() const { return deps_.clock ? deps_.clock() : std::chrono::system_clock::now(); }

void ClaudeMonitor::onLoopOnly() const {
    assert(loop_.isLoopThread() && "ClaudeMonitor is used on the main loop's thread only");
}

void ClaudeMonitor::start() {
    onLoopOnly();
    running_ = true;
    stopped_ = false;
    scheduleRefreshTimer();
    requestScan();
}

void ClaudeMonitor::stop() {
    onLoopOnly();
    running_ = false;
    stopped_ = true;
    ++generation_;
    if (timer_) loop_.cancelTimer(*timer_);
    timer_.reset();
    scheduledInterval_.reset();
    if (fileScanTimer_) loop_.cancelTimer(*fileScanTimer_);
    fileScanTimer_.reset();
    fileScanWanted_ = false;
}

void ClaudeMonitor::refreshNow() {
    std::weak_ptr<bool> alive = alive_;
    loop_.post([this, alive] {
        if (auto a = alive.lock(); a && *a) requestScan();
    });
}

void ClaudeMonitor::filesChanged() {
    std::weak_ptr<bool> alive = alive_;
    loop_.post([this, alive] {
        if (auto a = alive.lock(); a && *a) scheduleFileScan();
    });
}

void ClaudeMonitor::scheduleFileScan() {
    onLoopOnly();
    if (stopped_) return;
    fileScanWanted_ = true;
    // Decided when the scan in flight ends, or when the spacing timer fires.
    if (scanInFlight_ || fileScanTimer_) return;
    auto wait = fileScanAllowedAt_ - RunLoop::Clock::now();
    if (wait <= RunLoop::Clock::duration::zero()) {
        requestScan();
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    fileScanTimer_ = loop_.postAfter(wait, [this, alive] {
        if (auto a = alive.lock(); !a || !*a) return;
        fileScanTimer_.reset();
        if (fileScanWanted_) scheduleFileScan();
    });
}

void ClaudeMonitor::spendScanBudget(RunLoop::Clock::duration cost) {
    auto now = RunLoop::Clock::now();
    RunLoop::Clock::duration budget = fileScanBudget_ + (now - fileScanBudgetAt_) / kFileScanSpacing;
    budget = std::min<RunLoop::Clock::duration>(budget, kFileScanBurst) - cost;
    fileScanBudget_ = budget;
    fileScanBudgetAt_ = now;
    // Overspent: the next file-driven scan waits until the budget is back to nothing owed.
    fileScanAllowedAt_ = budget < RunLoop::Clock::duration::zero() ? now - budget * kFileScanSpacing : now;
}

std::vector<FileWatcher::Target> ClaudeMonitor::watchedPaths() const {
    std::lock_guard lock(watchedMutex_);
    return watched_;
}

void ClaudeMonitor::updateWatches() {
    assert(queue_->isCurrent());
    std::vector<FileWatcher::Target> targets;
    for (const auto& source : deps_.sources) source->addWatchTargets(targets);
    std::sort(targets.begin(), targets.end());
    targets.erase(std::unique(targets.begin(), targets.end()), targets.end());
    deps_.files->setWatched(watchId_, targets);
    {
        std::lock_guard lock(watchedMutex_);
        watched_ = std::move(targets);
    }
    // Said once per cause: the ticks keep the statuses right, only later.
    auto problem = deps_.files->problem();
    if (problem && problem != loggedWatchProblem_) spdlog::warn("monitor: file changes may go unseen: {}", *problem);
    if (problem) loggedWatchProblem_ = problem;
}

void ClaudeMonitor::setSettings(const Settings& s) {
    onLoopOnly();
    bool hooksChanged = s.hooksEnabled != settings_.hooksEnabled;
    settings_ = s;
    if (hooksChanged && running_) scheduleRefreshTimer();
}

bool ClaudeMonitor::agentsActive() const { return StatusRules::agentsActive(instances_, now()); }

ClaudeMonitor::RawScan ClaudeMonitor::collect(bool watch) {
    assert(queue_->isCurrent());
    RawScan raw;
    auto began = Threads::cpuTimeOfCurrent();
    raw.now = now();
    if (deps_.hooks) raw.hooks = deps_.hooks(raw.now);
    // The power state is a file read on Linux: read here, off the main thread,
    // and followed on every tick.
    raw.lowPower = deps_.lowPowerMode && deps_.lowPowerMode();
    ScanContext context{raw.now, nullptr, &raw.hooks};
    if (deps_.discover) context.processes = std::make_shared<const ProcessDiscovery::Pass>(deps_.discover());
    for (auto& source : deps_.sources) {
        auto found = source->observe(context);
        raw.observations.insert(raw.observations.end(), std::make_move_iterator(found.begin()),
                                std::make_move_iterator(found.end()));
    }
    if (watch && deps_.files) updateWatches();
    SessionDerivation::adoptHookSessionIds(raw.observations, raw.hooks);
    // One row per identity: a second sighting of a session adds nothing.
    std::set<std::string> seen;
    std::erase_if(raw.observations, [&](const SessionObservation& o) { return !seen.insert(o.id).second; });
    raw.cost = std::chrono::duration_cast<RunLoop::Clock::duration>(Threads::cpuTimeOfCurrent() - began);
    return raw;
}

void ClaudeMonitor::carryOverRekeyedRows(const RawScan& raw) {
    std::map<int32_t, std::string> byPid;  // rows known by their process last tick
    for (const auto& [id, memo] : memos_)
        if (isFallbackIdentity(id) && memo.pid) byPid[*memo.pid] = id;
    if (byPid.empty()) return;
    for (const auto& obs : raw.observations) {
        if (!obs.pid || isFallbackIdentity(obs.id) || memos_.count(obs.id)) continue;
        auto it = byPid.find(*obs.pid);
        if (it == byPid.end()) continue;
        const std::string& old = it->second;
        auto move = [&](auto& map) {
            if (auto node = map.extract(old)) {
                node.key() = obs.id;
                map.insert(std::move(node));
            }
        };
        auto rename = [&](std::set<std::string>& set) {
            if (set.erase(old)) set.insert(obs.id);
        };
        move(memos_);
        move(alertCounts_);
        move(lastSeenAt_);
        rename(unseen_);
        rename(acknowledged_);
        byPid.erase(it);
    }
}

std::vector<AgentInstance> ClaudeMonitor::derive(const RawScan& raw, bool remember) {
    SessionDerivation::Settings s{settings_.idleTimeoutMinutes, settings_.subagentsEnabled};
    std::vector<AgentInstance> out;
    std::map<std::string, SessionDerivation::Memo> next;
    // A row re-keyed since the last tick (scanOnce leaves the memos alone) is the same session.
    std::map<int32_t, const SessionDerivation::Memo*> byPid;
    for (const auto& [id, memo] : memos_)
        if (isFallbackIdentity(id) && memo.pid) byPid[*memo.pid] = &memo;
    for (const auto& obs : raw.observations) {
        SessionDerivation::Memo memo;
        if (auto it = memos_.find(obs.id); it != memos_.end()) {
            memo = it->second;
        } else if (auto p = obs.pid ? byPid.find(*obs.pid) : byPid.end(); p != byPid.end()) {
            memo = *p->second;
        }
        auto instance = SessionDerivation::derive(obs, raw.hooks.lookup(obs.provider, obs.id), memo, raw.now, s);
        memo.status = instance.status;
        next[obs.id] = memo;
        out.push_back(std::move(instance));
    }
    if (remember) memos_ = std::move(next);  // sessions that ended are forgotten
    return out;
}

std::vector<AgentInstance> ClaudeMonitor::scanOnce() {
    onLoopOnly();
    RawScan raw;
    queue_->sync([&] { raw = collect(false); });
    return derive(raw, false);
}

void ClaudeMonitor::requestScan() {
    onLoopOnly();
    if (stopped_) return;
    if (scanInFlight_) {
        rescanRequested_ = true;
        return;
    }
    scanInFlight_ = true;
    fileScanWanted_ = false;  // this scan sees every change made until now
    std::weak_ptr<bool> alive = alive_;
    queue_->async([this, alive, generation = generation_] {
        auto raw = collect(true);
        loop_.post([this, alive, generation, raw = std::move(raw)]() mutable {
            if (auto a = alive.lock(); a && *a) finishScan(std::move(raw), generation);
        });
    });
}

void ClaudeMonitor::finishScan(RawScan raw, uint64_t generation) {
    onLoopOnly();
    if (generation != generation_) {
        // Started before stop(): what it found is not published.
        scanInFlight_ = false;
        if (rescanRequested_ && !stopped_) {
            rescanRequested_ = false;
            requestScan();
        } else if (fileScanWanted_ && !stopped_) {
            scheduleFileScan();
        }
        return;
    }
    lowPower_ = raw.lowPower;
    spendScanBudget(raw.cost);
    carryOverRekeyedRows(raw);
    // Alerts compare against the previous tick, so read the memos before deriving.
    std::map<std::string, AgentStatus> previous;
    for (const auto& [id, memo] : memos_) {
        if (memo.status) previous[id] = *memo.status;
    }
    auto next = derive(raw, true);
    instances_ = next;
    ++publishCount_;

    // Alerts: rises to needs-you and finished turns.
    std::vector<Alert> alerts;
    bool quiet = firstPublish_;  // what is already true at launch is not news
    firstPublish_ = false;
    for (const auto& a : next) {
        std::optional<AgentStatus> prev;
        if (auto it = previous.find(a.id); it != previous.end()) prev = it->second;
        if (a.status != AgentStatus::attention) acknowledged_.erase(a.id);
        if (quiet) continue;
        if (a.status == AgentStatus::attention && prev != AgentStatus::attention) {
            int rise = ++alertCounts_[a.id];
            std::string ask = "Needs you";
            if (a.approval && a.approval->detail) {
                bool edit = scrivet::pendingApprovalForTool(a.approval->toolName) == PendingApproval::edit;
                ask = (edit ? "Wants to edit " : "Wants to run ") + *a.approval->detail;
            } else if (a.approval && !a.approval->toolName.empty()) {
                ask = "Wants to use " + a.approval->toolName;
            } else if (a.question) {
                ask = a.question->text;
            }
            alerts.push_back({PeekEvent{nextToken_++, a.id, a.projectName, scrivet::truncateText(ask, 120), false,
                                        a.provider, rise, true},
                              settings_.soundEnabled});
            lastAlertStatus_ = AgentStatus::attention;
        } else if (prev == AgentStatus::working && a.status == AgentStatus::waiting) {
            ++completionPulse_;
            unseen_.insert(a.id);
            std::string ask = a.summary ? scrivet::truncateText(scrivet::collapseWhitespace(*a.summary), 120)
                                        : std::string("Finished its turn");
            alerts.push_back({PeekEvent{nextToken_++, a.id, a.projectName, ask, true, a.provider, alertCounts_[a.id],
                                        a.hasRealTurn},
                              settings_.soundEnabled && a.hasRealTurn});
            lastAlertStatus_ = AgentStatus::waiting;
        }
    }
    // Forget what belongs to sessions that ended.
    std::set<std::string> live;
    for (const auto& a : next) live.insert(a.id);
    std::erase_if(unseen_, [&](const std::string& id) { return !live.count(id); });
    std::erase_if(acknowledged_, [&](const std::string& id) { return !live.count(id); });
    std::erase_if(alertCounts_, [&](const auto& kv) { return !live.count(kv.first); });
    std::erase_if(lastSeenAt_, [&](const auto& kv) { return !live.count(kv.first); });
    if (!alerts.empty()) peekEvent_ = alerts.back().peek;

    scanInFlight_ = false;
    if (running_) scheduleRefreshTimer();
    if (onPublish_) onPublish_();
    if (onAlert_) {
        for (const auto& alert : alerts) onAlert_(alert);
    }
    if (rescanRequested_) {
        rescanRequested_ = false;
        requestScan();
    } else if (fileScanWanted_) {
        scheduleFileScan();
    }
}

void ClaudeMonitor::sawRow(const std::string& sessionId) {
    onLoopOnly();
    lastSeenAt_[sessionId] = now();
    unseen_.erase(sessionId);
    auto it = std::find_if(instances_.begin(), instances_.end(), [&](const AgentInstance& a) { return a.id == sessionId; });
    if (it != instances_.end() && it->status == AgentStatus::attention) acknowledged_.insert(sessionId);
}

void ClaudeMonitor::scheduleRefreshTimer() {
    onLoopOnly();
    auto interval = StatusRules::refreshInterval(settings_.hooksEnabled, agentsActive(), lowPower_);
    if (timer_ && scheduledInterval_ && *scheduledInterval_ == interval) return;
    if (timer_) loop_.cancelTimer(*timer_);
    std::weak_ptr<bool> alive = alive_;
    timer_ = loop_.addTimer(std::chrono::duration_cast<RunLoop::Clock::duration>(interval), [this, alive] {
        if (auto a = alive.lock(); a && *a) requestScan();
    });
    scheduledInterval_ = interval;
}

}  // namespace lumora
