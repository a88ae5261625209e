#include "lumora/monitor/claude_monitor.hpp"

#include <algorithm>

namespace lumora {

HookSignals HookSnapshot::lookup(HarnessProvider provider, const std::string& sessionId) const {
    auto it = signals.find({provider, sessionId});
    return it == signals.end() ? HookSignals{} : it->second;
}

ClaudeMonitor::ClaudeMonitor(Dependencies deps)
    : deps_(std::move(deps)),
      loop_(deps_.loop ? *deps_.loop : RunLoop::main()),
      queue_(std::make_unique<SerialQueue>("lumora.monitor")) {}

ClaudeMonitor::~ClaudeMonitor() {
    *alive_ = false;
    stop();
    queue_.reset();  // finishes a scan in flight before the sources go
}

Date ClaudeMonitor::now() const { return deps_.clock ? deps_.clock() : std::chrono::system_clock::now(); }

void ClaudeMonitor::start() {
    running_ = true;
    scheduleRefreshTimer();
    requestScan();
}

void ClaudeMonitor::stop() {
    running_ = false;
    if (timer_) loop_.cancelTimer(*timer_);
    timer_.reset();
    scheduledInterval_.reset();
}

void ClaudeMonitor::refreshNow() {
    std::weak_ptr<bool> alive = alive_;
    loop_.post([this, alive] {
        if (auto a = alive.lock(); a && *a) requestScan();
    });
}

void ClaudeMonitor::setSettings(const Settings& s) {
    bool hooksChanged = s.hooksEnabled != settings_.hooksEnabled;
    settings_ = s;
    if (hooksChanged && running_) scheduleRefreshTimer();
}

bool ClaudeMonitor::agentsActive() const { return StatusRules::agentsActive(instances_, now()); }

ClaudeMonitor::RawScan ClaudeMonitor::collect() {
    RawScan raw;
    raw.now = now();
    if (deps_.hooks) raw.hooks = deps_.hooks(raw.now);
    ScanContext context{raw.now, nullptr, &raw.hooks};
    if (deps_.discover) context.processes = std::make_shared<const ProcessDiscovery::Pass>(deps_.discover());
    for (auto& source : deps_.sources) {
        auto found = source->observe(context);
        raw.observations.insert(raw.observations.end(), std::make_move_iterator(found.begin()),
                                std::make_move_iterator(found.end()));
    }
    // One row per identity: a second sighting of a session adds nothing.
    std::set<std::string> seen;
    std::erase_if(raw.observations, [&](const SessionObservation& o) { return !seen.insert(o.id).second; });
    return raw;
}

std::vector<AgentInstance> ClaudeMonitor::derive(const RawScan& raw, bool remember) {
    SessionDerivation::Settings s{settings_.idleTimeoutMinutes, settings_.subagentsEnabled};
    std::vector<AgentInstance> out;
    std::map<std::string, SessionDerivation::Memo> next;
    for (const auto& obs : raw.observations) {
        auto memo = memos_.count(obs.id) ? memos_[obs.id] : SessionDerivation::Memo{};
        auto instance = SessionDerivation::derive(obs, raw.hooks.lookup(obs.provider, obs.id), memo, raw.now, s);
        memo.status = instance.status;
        next[obs.id] = memo;
        out.push_back(std::move(instance));
    }
    if (remember) memos_ = std::move(next);  // sessions that ended are forgotten
    return out;
}

std::vector<AgentInstance> ClaudeMonitor::scanOnce() {
    RawScan raw;
    queue_->sync([&] { raw = collect(); });
    return derive(raw, false);
}

void ClaudeMonitor::requestScan() {
    if (scanInFlight_) {
        rescanRequested_ = true;
        return;
    }
    scanInFlight_ = true;
    std::weak_ptr<bool> alive = alive_;
    queue_->async([this, alive] {
        auto raw = collect();
        loop_.post([this, alive, raw = std::move(raw)]() mutable {
            if (auto a = alive.lock(); a && *a) finishScan(std::move(raw));
        });
    });
}

void ClaudeMonitor::finishScan(RawScan raw) {
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
            if (a.approval) {
                ask = a.approval->detail ? "Wants to run " + *a.approval->detail : "Wants to use " + a.approval->toolName;
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
    }
}

void ClaudeMonitor::sawRow(const std::string& sessionId) {
    lastSeenAt_[sessionId] = now();
    unseen_.erase(sessionId);
    auto it = std::find_if(instances_.begin(), instances_.end(), [&](const AgentInstance& a) { return a.id == sessionId; });
    if (it != instances_.end() && it->status == AgentStatus::attention) acknowledged_.insert(sessionId);
}

void ClaudeMonitor::scheduleRefreshTimer() {
    bool lowPower = deps_.lowPowerMode && deps_.lowPowerMode();
    auto interval = StatusRules::refreshInterval(settings_.hooksEnabled, agentsActive(), lowPower);
    if (timer_ && scheduledInterval_ && *scheduledInterval_ == interval) return;
    if (timer_) loop_.cancelTimer(*timer_);
    std::weak_ptr<bool> alive = alive_;
    timer_ = loop_.addTimer(std::chrono::duration_cast<RunLoop::Clock::duration>(interval), [this, alive] {
        if (auto a = alive.lock(); a && *a) requestScan();
    });
    scheduledInterval_ = interval;
}

}  // namespace lumora
