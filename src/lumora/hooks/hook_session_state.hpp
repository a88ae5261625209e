#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/base/status.hpp"
#include "lumora/hooks/attention_marker.hpp"
#include "lumora/hooks/cursor_notes.hpp"
#include "lumora/hooks/hook_protocol.hpp"
#include "scrivet/harness_provider.hpp"

namespace lumora {

// Everything the hook bridge knows at one moment, taken under its one lock:
// what the monitor merges into a scan, what hook-state.json keeps (all but
// the busy flags and the gates) and what the "state" query answers.
struct HookBridgeSnapshot {
    using TimePoint = std::chrono::system_clock::time_point;

    // A held permission prompt: a hook waits on its connection for an answer.
    struct Gate {
        uint64_t id = 0;  // numbers the prompt; a decision names it, so it answers only the prompt shown
        scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
        bool shown = false;  // a view shows its row with buttons (else the short wait for one runs)
        bool operator==(const Gate&) const = default;
    };

    // The "needs you" markers of Claude Code, Codex, Kimi and OpenCode, by session id.
    std::map<scrivet::HarnessProvider, std::map<std::string, AttentionMarker>> markers;
    std::map<std::string, TimePoint> claudeMarkerCreatedAt;
    // Claude sessions with a turn-state signal in the last 1800 seconds, and when.
    std::map<std::string, TimePoint> claudeBusy;
    // Cursor notes by conversation id whose time stamp is within 1800 seconds.
    std::map<std::string, CursorPending> cursorPending;
    std::map<std::string, CursorActivity> cursorActivity;
    std::map<std::string, std::string> cursorModels;
    // Held gates by session id.
    std::map<std::string, Gate> gates;
    // Whether the bridge serves its socket, and if not, why (set by the bridge).
    Status listening = Status::failure("not started");

    // The session's marker of this agent, if any.
    const AttentionMarker* marker(scrivet::HarnessProvider provider, const std::string& sessionId) const;
    // The session's held gate, if any.
    const Gate* gate(const std::string& sessionId) const;

    bool operator==(const HookBridgeSnapshot&) const = default;
};

// Bounds that keep a process running for weeks from growing.
struct HookSessionLimits {
    size_t maxMarkersPerAgent = 256;
    size_t maxBusy = 1024;
    size_t maxCursorNotes = 256;  // of each kind
    size_t maxCursorModels = 1024;
    std::chrono::seconds markerLifetime{86400};
    std::chrono::seconds busyWindow{1800};
    std::chrono::seconds cursorWindow{1800};
    std::chrono::seconds modelLifetime{86400};
    std::chrono::seconds restoreWindow{1800};
    // How long a held gate waits for a view to show its row before the
    // agent is told to show its own prompt.
    std::chrono::milliseconds showGrace{3000};
    // How long a gate waits for the standing rules before it is shown anyway.
    std::chrono::milliseconds ruleCheckTimeout{1000};
    std::chrono::seconds pruneEvery{60};
};

// The hook bridge's per-session state as a pure machine: every call takes
// the time, nothing here does I/O or knows about threads. It turns protocol
// requests into state changes and into effects the bridge carries out:
// replies to write, rule checks to run. Not thread-safe; the bridge keeps it
// behind its one lock.
class HookSessionState {
public:
    using TimePoint = std::chrono::system_clock::time_point;
    using ConnectionId = uint64_t;
    using Behavior = HookProtocol::Behavior;
    static constexpr ConnectionId noConnection = 0;

    using Limits = HookSessionLimits;

    // A reply to write on a connection, which is then closed.
    struct Reply {
        ConnectionId connection = noConnection;
        Behavior behavior = Behavior::passthrough;
        bool operator==(const Reply&) const = default;
    };

    // A gate to ask the standing rules about.
    struct RuleCheck {
        uint64_t gateId = 0;
        scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
        std::string sessionId;
        std::string toolName;
        std::optional<std::string> detail;
        bool escalated = false;
        bool operator==(const RuleCheck&) const = default;
    };

    // A held gate that waits for a view to show its row.
    struct AwaitingRow {
        uint64_t gateId = 0;
        scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
        std::string sessionId;
    };

    explicit HookSessionState(Limits limits = {});

    // Whether gates are held for the user; when off, a gate no rule covers is
    // answered "passthrough" at once.
    void setGating(bool enabled) { gating_ = enabled; }
    bool gating() const { return gating_; }

    // Applies one request that `connection` sent. A gate gets a number and a
    // rule check (takeRuleChecks); it is held only after the rules said no.
    void apply(const HookProtocol::Request& request, ConnectionId connection, TimePoint now);

    // The rules' answer for a gate. A match answers "allow" and returns the
    // check, for the approvals log; otherwise the gate waits for its row, or
    // is let go ("passthrough") when gating is off. A late answer (the gate
    // has moved on) changes nothing.
    std::optional<RuleCheck> ruleChecked(uint64_t gateId, bool matched, TimePoint now);

    // The user's answer to the prompt numbered `gateId`: true when that gate
    // was held and now gets "allow" or "deny"; its Claude and Codex markers
    // go. A newer prompt of the session is left alone; with no gate held at
    // all only the markers go.
    bool resolve(const std::string& sessionId, uint64_t gateId, bool allow, TimePoint now);

    // A client went away; a gate it held is forgotten with its marker.
    void disconnected(ConnectionId connection, TimePoint now);
    // Every held gate (and every gate still being checked) is answered "passthrough"; markers stay.
    void releaseAllGates();
    // The face that showed prompt `gateId` went away: when that gate is held
    // and shown, it is answered "passthrough" (the agent asks itself); true then.
    bool handBack(const std::string& sessionId, uint64_t gateId);

    // Gates waiting for a view to show their row, and the row of one appearing.
    std::vector<AwaitingRow> gatesAwaitingRows() const;
    void rowShown(uint64_t gateId);

    // Runs what is due at `now`: rule checks that took too long, gates whose
    // row did not appear in time, pruning by age and count.
    void tick(TimePoint now);
    // When tick() has something to do next, if ever.
    std::optional<TimePoint> nextDeadline() const;

    // True when `connection` holds a gate (it waits for an answer, so it is not idle).
    bool holdsGate(ConnectionId connection) const;

    // Effects, taken by the bridge.
    std::vector<Reply> takeReplies();
    std::vector<RuleCheck> takeRuleChecks();
    // True once after anything the monitor sees changed.
    bool takeChanged();
    // True while the saved state is behind; markSaved() after taking a copy to save.
    bool dirty() const { return dirty_; }
    void markSaved() { dirty_ = false; }

    // What the monitor sees at `now` (the bridge fills in `listening`).
    HookBridgeSnapshot snapshot(TimePoint now) const;
    // Loads saved (or reported) state: nothing when `savedAt` is more than the
    // restore window ago; otherwise every map within the limits, then pruned.
    // Busy flags and gates are loaded only from a running app's report, as
    // gates another process holds (they never get answers from here).
    void restore(const HookBridgeSnapshot& saved, TimePoint savedAt, TimePoint now);

    // How many entries all maps hold together (benchmarks watch it stay bounded).
    size_t entryCount() const;

private:
    enum class Phase { checking, awaitingRow, shown };
    struct Gate {
        uint64_t id = 0;
        ConnectionId connection = noConnection;
        scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
        Phase phase = Phase::checking;
        TimePoint since{};  // when the phase began
        HookProtocol::Request request;
    };
    struct Marker {
        AttentionMarker marker;
        TimePoint createdAt{};
    };
    using MarkerMap = std::map<std::string, Marker>;

    void claude(const HookProtocol::Request& r, ConnectionId connection, TimePoint now);
    void gated(const HookProtocol::Request& r, ConnectionId connection, TimePoint now);
    void cursor(const HookProtocol::Request& r, TimePoint now);
    void gate(const HookProtocol::Request& r, ConnectionId connection, TimePoint now);
    // A gate the rules do not cover: held for a view, or let go.
    void afterRules(std::map<std::string, Gate>::iterator it, TimePoint now);
    MarkerMap& markersOf(scrivet::HarnessProvider provider);
    void setMarker(scrivet::HarnessProvider provider, AttentionMarker marker, TimePoint now);
    void removeMarker(scrivet::HarnessProvider provider, const std::string& sessionId);
    // Forgets the session's gate, answering its client "passthrough".
    void dropGate(const std::string& sessionId);
    void answer(ConnectionId connection, Behavior behavior);
    void prune(TimePoint now);

    Limits limits_;
    bool gating_ = false;
    std::map<scrivet::HarnessProvider, MarkerMap> markers_;
    std::map<std::string, TimePoint> claudeBusy_;
    std::map<std::string, Gate> gates_;
    std::map<std::string, HookBridgeSnapshot::Gate> foreignGates_;  // reported by a running app
    std::map<std::string, CursorPending> cursorPending_;
    std::map<std::string, CursorActivity> cursorActivity_;
    std::map<std::string, std::pair<std::string, TimePoint>> cursorModels_;  // model, last heard
    uint64_t nextGateId_ = 1;
    TimePoint lastPrune_{};
    std::vector<Reply> replies_;
    std::vector<RuleCheck> ruleChecks_;
    bool changed_ = false;
    bool dirty_ = false;
};

}  // namespace lumora
