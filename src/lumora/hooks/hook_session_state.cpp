#include "lumora/hooks/hook_session_state.hpp"

#include <algorithm>

#include "lumora/base/dates.hpp"

namespace lumora {

using scrivet::HarnessProvider;
using Behavior = HookProtocol::Behavior;

namespace {

// The agents whose markers the bridge keeps (Cursor keeps notes instead).
constexpr HarnessProvider kMarkerAgents[] = {HarnessProvider::claudeCode, HarnessProvider::codex,
                                             HarnessProvider::kimi, HarnessProvider::opencode};

// Makes room for one more key in `map` by dropping its oldest entry, as
// `timeOf` tells, when it is full and `key` is new.
template <typename Map, typename TimeOf>
void makeRoom(Map& map, const std::string& key, size_t cap, TimeOf timeOf) {
    if (map.size() < cap || map.count(key)) return;
    auto oldest = std::min_element(map.begin(), map.end(),
                                   [&](const auto& a, const auto& b) { return timeOf(a.second) < timeOf(b.second); });
    if (oldest != map.end()) map.erase(oldest);
}

template <typename Map, typename TimeOf>
void capTo(Map& map, size_t cap, TimeOf timeOf) {
    while (map.size() > cap) {
        auto oldest = std::min_element(map.begin(), map.end(),
                                       [&](const auto& a, const auto& b) { return timeOf(a.second) < timeOf(b.second); });
        map.erase(oldest);
    }
}

}  // namespace

const AttentionMarker* HookBridgeSnapshot::marker(HarnessProvider provider, const std::string& sessionId) const {
    auto m = markers.find(provider);
    if (m == markers.end()) return nullptr;
    auto it = m->second.find(sessionId);
    return it == m->second.end() ? nullptr : &it->second;
}

const HookBridgeSnapshot::Gate* HookBridgeSnapshot::gate(const std::string& sessionId) const {
    auto it = gates.find(sessionId);
    return it == gates.end() ? nullptr : &it->second;
}

HookSessionState::HookSessionState(Limits limits) : limits_(limits) {}

// ---------------------------------------------------------------------------------------------
// Requests

void HookSessionState::apply(const HookProtocol::Request& r, ConnectionId connection, TimePoint now) {
    if (r.isQuery()) return;  // answered by the bridge itself
    switch (r.provider) {
        case HarnessProvider::cursor: cursor(r, now); break;
        case HarnessProvider::claudeCode: claude(r, connection, now); break;
        default: gated(r, connection, now); break;
    }
}

void HookSessionState::claude(const HookProtocol::Request& r, ConnectionId connection, TimePoint now) {
    const std::string& sid = r.sessionId;
    auto setBusy = [&] {
        makeRoom(claudeBusy_, sid, limits_.maxBusy, [](TimePoint t) { return t; });
        claudeBusy_[sid] = now;
    };
    if (r.action == "start") {
        setBusy();
        removeMarker(HarnessProvider::claudeCode, sid);
        dropGate(sid);
    } else if (r.action == "busy") {
        setBusy();
    } else if (r.action == "busydone") {
        setBusy();
        auto& map = markersOf(HarnessProvider::claudeCode);
        auto m = map.find(sid);
        auto g = gates_.find(sid);
        bool permission = m != map.end() && m->second.marker.kind == AttentionMarker::permission;
        if (permission) {
            // Answered at the agent's own prompt: the notch must stop offering it.
            removeMarker(HarnessProvider::claudeCode, sid);
            dropGate(sid);
        } else if (g != gates_.end() && g->second.phase == Phase::checking) {
            dropGate(sid);  // the tool ran while the rules were being asked
        }
    } else if (r.action == "done") {
        claudeBusy_.erase(sid);
        removeMarker(HarnessProvider::claudeCode, sid);
        dropGate(sid);
    } else {
        gated(r, connection, now);
        return;
    }
    changed_ = true;
}

void HookSessionState::gated(const HookProtocol::Request& r, ConnectionId connection, TimePoint now) {
    const std::string& sid = r.sessionId;
    if (r.action == "clear") {
        removeMarker(r.provider, sid);
        dropGate(sid);
    } else if (r.action == "marker") {
        setMarker(r.provider, r.marker(r.kind), now);
    } else if (r.action == "gate") {
        gate(r, connection, now);
    }
    // "observe" and unknown actions change nothing.
}

void HookSessionState::gate(const HookProtocol::Request& r, ConnectionId connection, TimePoint now) {
    const std::string& sid = r.sessionId;
    auto old = gates_.find(sid);
    if (old != gates_.end()) {
        // A newer prompt of the session replaces the older one, which is let go.
        if (old->second.connection != connection) answer(old->second.connection, Behavior::passthrough);
        if (old->second.phase != Phase::checking) changed_ = true;
        gates_.erase(old);
    }
    Gate g{nextGateId_++, connection, r.provider, Phase::checking, now, r};
    auto it = gates_.emplace(sid, std::move(g)).first;
    if (r.detailCut) {
        // A command too long to show whole is never answered from here.
        afterRules(it, now);
        return;
    }
    ruleChecks_.push_back(RuleCheck{it->second.id, r.provider, sid, r.toolName, r.detail, r.escalated});
}

std::optional<HookSessionState::RuleCheck> HookSessionState::ruleChecked(uint64_t gateId, bool matched,
                                                                         TimePoint now) {
    auto it = std::find_if(gates_.begin(), gates_.end(), [&](const auto& kv) { return kv.second.id == gateId; });
    if (it == gates_.end() || it->second.phase != Phase::checking) return std::nullopt;
    if (!matched) {
        afterRules(it, now);
        return std::nullopt;
    }
    const auto& r = it->second.request;
    RuleCheck check{gateId, r.provider, r.sessionId, r.toolName, r.detail, r.escalated};
    answer(it->second.connection, Behavior::allow);
    gates_.erase(it);
    return check;
}

void HookSessionState::afterRules(std::map<std::string, Gate>::iterator it, TimePoint now) {
    Gate& g = it->second;
    if (!gating_) {
        // The agent shows its own prompt and says so in its own files a
        // moment later: the monitor looks now and watches for that.
        answer(g.connection, Behavior::passthrough);
        gates_.erase(it);
        changed_ = true;
        return;
    }
    setMarker(g.provider, g.request.marker(AttentionMarker::permission), now);
    if (g.request.detailCut) {
        // Shown as "needs you" without buttons; the agent asks in its own prompt.
        answer(g.connection, Behavior::passthrough);
        gates_.erase(it);
        return;
    }
    g.phase = Phase::awaitingRow;
    g.since = now;
    changed_ = true;
}

void HookSessionState::cursor(const HookProtocol::Request& r, TimePoint now) {
    const std::string& cid = r.sessionId;
    if (!r.model.empty()) {
        makeRoom(cursorModels_, cid, limits_.maxCursorModels, [](const auto& v) { return v.second; });
        auto& slot = cursorModels_[cid];
        if (slot.first != r.model) dirty_ = changed_ = true;
        slot = {r.model, now};
    }
    double ts = r.ts.value_or(Dates::toSeconds(now));
    auto byTs = [](const auto& note) { return note.ts; };
    if (r.action == "pending") {
        makeRoom(cursorPending_, cid, limits_.maxCursorNotes, byTs);
        cursorPending_[cid] = CursorPending{cid, r.cwd, r.command, r.kind, r.toolName, ts, r.transcriptPath};
    } else if (r.action == "pending-clear") {
        cursorPending_.erase(cid);
    } else if (r.action == "activity") {
        makeRoom(cursorActivity_, cid, limits_.maxCursorNotes, byTs);
        cursorActivity_[cid] = CursorActivity{cid, r.cwd, r.status, r.title, ts};
    } else if (r.action == "activity-clear") {
        cursorActivity_.erase(cid);
    } else {
        return;
    }
    dirty_ = changed_ = true;
}

// ---------------------------------------------------------------------------------------------
// Gates

bool HookSessionState::resolve(const std::string& sessionId, uint64_t gateId, bool allow, TimePoint) {
    auto it = gates_.find(sessionId);
    bool answered = false;
    if (it != gates_.end()) {
        // Only the prompt the user saw is answered; a newer one waits for its own answer.
        if (it->second.id != gateId || it->second.phase == Phase::checking) return false;
        answer(it->second.connection, allow ? Behavior::allow : Behavior::deny);
        gates_.erase(it);
        answered = true;
    }
    // OpenCode's marker is left for the plugin's own "clear", which follows its reply event.
    removeMarker(HarnessProvider::claudeCode, sessionId);
    removeMarker(HarnessProvider::codex, sessionId);
    changed_ = true;
    return answered;
}

void HookSessionState::disconnected(ConnectionId connection, TimePoint) {
    if (connection == noConnection) return;
    for (auto it = gates_.begin(); it != gates_.end();) {
        if (it->second.connection != connection) {
            ++it;
            continue;
        }
        // The hook timed out or the agent was interrupted.
        if (it->second.phase != Phase::checking) {
            removeMarker(it->second.provider, it->first);
            changed_ = true;
        }
        it = gates_.erase(it);
    }
}

void HookSessionState::releaseAllGates() {
    for (const auto& [_, g] : gates_) answer(g.connection, Behavior::passthrough);
    if (!gates_.empty()) changed_ = true;
    gates_.clear();
}

bool HookSessionState::handBack(const std::string& sessionId, uint64_t gateId) {
    auto it = gates_.find(sessionId);
    if (it == gates_.end() || it->second.id != gateId || it->second.phase != Phase::shown) return false;
    dropGate(sessionId);
    return true;
}

std::vector<HookSessionState::AwaitingRow> HookSessionState::gatesAwaitingRows() const {
    std::vector<AwaitingRow> out;
    for (const auto& [sid, g] : gates_) {
        if (g.phase == Phase::awaitingRow) out.push_back({g.id, g.provider, sid});
    }
    return out;
}

void HookSessionState::rowShown(uint64_t gateId) {
    for (auto& [_, g] : gates_) {
        // Nothing the monitor draws changes: the row already shows the buttons.
        if (g.id == gateId && g.phase == Phase::awaitingRow) g.phase = Phase::shown;
    }
}

bool HookSessionState::holdsGate(ConnectionId connection) const {
    if (connection == noConnection) return false;
    return std::any_of(gates_.begin(), gates_.end(), [&](const auto& kv) { return kv.second.connection == connection; });
}

void HookSessionState::dropGate(const std::string& sessionId) {
    auto it = gates_.find(sessionId);
    if (it == gates_.end()) return;
    // The hook would otherwise wait for an answer that can no longer come.
    answer(it->second.connection, Behavior::passthrough);
    if (it->second.phase != Phase::checking) changed_ = true;
    gates_.erase(it);
}

void HookSessionState::answer(ConnectionId connection, Behavior behavior) {
    if (connection == noConnection) return;
    replies_.push_back({connection, behavior});
}

// ---------------------------------------------------------------------------------------------
// Time

void HookSessionState::tick(TimePoint now) {
    for (auto it = gates_.begin(); it != gates_.end();) {
        auto next = std::next(it);
        Gate& g = it->second;
        if (g.phase == Phase::checking && now - g.since >= limits_.ruleCheckTimeout) {
            // The rules are slow to answer (their file is locked): ask the user instead.
            afterRules(it, now);
        } else if (g.phase == Phase::awaitingRow && now - g.since >= limits_.showGrace) {
            // No view shows this prompt: the agent asks in its own.
            answer(g.connection, Behavior::passthrough);
            gates_.erase(it);
            changed_ = true;
        }
        it = next;
    }
    if (now - lastPrune_ >= limits_.pruneEvery) prune(now);
}

std::optional<HookSessionState::TimePoint> HookSessionState::nextDeadline() const {
    std::optional<TimePoint> next;
    auto consider = [&](TimePoint t) {
        if (!next || t < *next) next = t;
    };
    for (const auto& [_, g] : gates_) {
        if (g.phase == Phase::checking) consider(g.since + limits_.ruleCheckTimeout);
        if (g.phase == Phase::awaitingRow) consider(g.since + limits_.showGrace);
    }
    if (entryCount() > 0) consider(lastPrune_ + limits_.pruneEvery);
    return next;
}

void HookSessionState::prune(TimePoint now) {
    lastPrune_ = now;
    size_t before = entryCount();
    for (auto& [_, map] : markers_) {
        std::erase_if(map, [&](const auto& kv) { return now - kv.second.createdAt > limits_.markerLifetime; });
    }
    std::erase_if(claudeBusy_, [&](const auto& kv) { return now - kv.second >= limits_.busyWindow; });
    double since = Dates::toSeconds(now - limits_.cursorWindow);
    std::erase_if(cursorPending_, [&](const auto& kv) { return kv.second.ts <= since; });
    std::erase_if(cursorActivity_, [&](const auto& kv) { return kv.second.ts <= since; });
    std::erase_if(cursorModels_, [&](const auto& kv) { return now - kv.second.second > limits_.modelLifetime; });
    if (entryCount() != before) dirty_ = changed_ = true;
}

// ---------------------------------------------------------------------------------------------
// Markers

HookSessionState::MarkerMap& HookSessionState::markersOf(HarnessProvider provider) { return markers_[provider]; }

void HookSessionState::setMarker(HarnessProvider provider, AttentionMarker marker, TimePoint now) {
    auto& map = markersOf(provider);
    makeRoom(map, marker.sessionId, limits_.maxMarkersPerAgent, [](const Marker& m) { return m.createdAt; });
    std::string sid = marker.sessionId;
    map[sid] = Marker{std::move(marker), now};
    dirty_ = changed_ = true;
}

void HookSessionState::removeMarker(HarnessProvider provider, const std::string& sessionId) {
    auto it = markers_.find(provider);
    if (it != markers_.end() && it->second.erase(sessionId) > 0) dirty_ = changed_ = true;
}

// ---------------------------------------------------------------------------------------------
// Effects and views

std::vector<HookSessionState::Reply> HookSessionState::takeReplies() { return std::exchange(replies_, {}); }

std::vector<HookSessionState::RuleCheck> HookSessionState::takeRuleChecks() { return std::exchange(ruleChecks_, {}); }

bool HookSessionState::takeChanged() { return std::exchange(changed_, false); }

HookBridgeSnapshot HookSessionState::snapshot(TimePoint now) const {
    HookBridgeSnapshot s;
    for (HarnessProvider p : kMarkerAgents) {
        auto& out = s.markers[p];
        auto it = markers_.find(p);
        if (it == markers_.end()) continue;
        for (const auto& [sid, m] : it->second) {
            out.emplace(sid, m.marker);
            if (p == HarnessProvider::claudeCode) s.claudeMarkerCreatedAt.emplace(sid, m.createdAt);
        }
    }
    for (const auto& [sid, when] : claudeBusy_) {
        if (now - when < limits_.busyWindow) s.claudeBusy.emplace(sid, when);
    }
    double since = Dates::toSeconds(now - limits_.cursorWindow);
    for (const auto& [cid, p] : cursorPending_) {
        if (p.ts > since) s.cursorPending.emplace(cid, p);
    }
    for (const auto& [cid, a] : cursorActivity_) {
        if (a.ts > since) s.cursorActivity.emplace(cid, a);
    }
    for (const auto& [cid, m] : cursorModels_) s.cursorModels.emplace(cid, m.first);
    s.gates = foreignGates_;
    for (const auto& [sid, g] : gates_) {
        if (g.phase != Phase::checking) s.gates[sid] = {g.id, g.provider, g.phase == Phase::shown};
    }
    return s;
}

void HookSessionState::restore(const HookBridgeSnapshot& saved, TimePoint savedAt, TimePoint now) {
    if (now - savedAt > limits_.restoreWindow) return;  // prompts that are long gone
    for (HarnessProvider p : kMarkerAgents) {
        auto it = saved.markers.find(p);
        if (it == saved.markers.end()) continue;
        auto& map = markersOf(p);
        for (const auto& [sid, m] : it->second) {
            TimePoint created = savedAt;
            if (p == HarnessProvider::claudeCode) {
                auto c = saved.claudeMarkerCreatedAt.find(sid);
                if (c != saved.claudeMarkerCreatedAt.end()) created = c->second;
            }
            AttentionMarker marker = m;
            marker.sessionId = sid;
            map[sid] = Marker{std::move(marker), created};
        }
        capTo(map, limits_.maxMarkersPerAgent, [](const Marker& m) { return m.createdAt; });
    }
    for (const auto& [sid, when] : saved.claudeBusy) claudeBusy_[sid] = when;
    capTo(claudeBusy_, limits_.maxBusy, [](TimePoint t) { return t; });
    for (const auto& [cid, p] : saved.cursorPending) cursorPending_[cid] = p;
    for (const auto& [cid, a] : saved.cursorActivity) cursorActivity_[cid] = a;
    auto byTs = [](const auto& note) { return note.ts; };
    capTo(cursorPending_, limits_.maxCursorNotes, byTs);
    capTo(cursorActivity_, limits_.maxCursorNotes, byTs);
    for (const auto& [cid, model] : saved.cursorModels) cursorModels_[cid] = {model, savedAt};
    capTo(cursorModels_, limits_.maxCursorModels, [](const auto& v) { return v.second; });
    for (const auto& [sid, g] : saved.gates) {
        if (foreignGates_.size() < limits_.maxMarkersPerAgent) foreignGates_[sid] = g;
    }
    prune(now);
    changed_ = true;
}

size_t HookSessionState::entryCount() const {
    size_t n = claudeBusy_.size() + gates_.size() + foreignGates_.size() + cursorPending_.size() +
               cursorActivity_.size() + cursorModels_.size();
    for (const auto& [_, map] : markers_) n += map.size();
    return n;
}

}  // namespace lumora
