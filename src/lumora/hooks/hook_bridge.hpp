#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "lumora/hooks/attention_marker.hpp"
#include "lumora/hooks/cursor_notes.hpp"

namespace lumora {

class ApprovalRulesStore;
class SerialQueue;

// The file named by LUMORA_DEBUG_LOG, when set and non-empty: where the
// bridge's trace lines go.
std::optional<std::filesystem::path> hookTraceFileFromEnvironment();

// Limits and switches of a HookBridge.
struct HookBridgeOptions {
    // Where trace lines go; by default the file named by LUMORA_DEBUG_LOG, if any.
    std::optional<std::filesystem::path> traceFile = hookTraceFileFromEnvironment();
    // Connections beyond this many are closed as soon as they are accepted.
    size_t maxConnections = 256;
    // A connection whose unfinished line grows past this is closed.
    size_t maxLineBytes = 1 << 20;
    // A connection that is not a held gate and sends nothing for this long is closed.
    std::chrono::milliseconds idleTimeout{10000};
    // Save hook-state.json after changes (coalesced over this delay), not
    // only at stop(), so markers survive a crash.
    bool saveAfterChange = true;
    std::chrono::milliseconds saveDelay{500};
};

// The server end of the hook socket. The agents' hook programs write one JSON
// object per line; the bridge keeps what they report (Claude's busy signal,
// every agent's "needs you" markers, Cursor's notes and models), holds a
// permission request's connection open until the user answers it, and hands
// all of it to the monitor through queries that return copies.
//
// Threads: the socket is served by one thread of the bridge's own (its serial
// queue, "lumora.hookbridge"), which runs a poll loop over the listening
// socket and every connection. All state lives behind one lock, which the
// queries take from any thread. Replies to held gates are written by the
// bridge's thread, off the lock.
class HookBridge {
public:
    using Clock = std::chrono::system_clock;
    using TimePoint = Clock::time_point;
    // Names one client connection for the life of the bridge (never reused).
    using ConnectionId = uint64_t;
    static constexpr ConnectionId noConnection = 0;
    static constexpr const char* queueLabel = "lumora.hookbridge";

    using Options = HookBridgeOptions;

    // A bridge listening on `socketPath` that keeps hook-state.json and
    // approvals.log in `supportFolder` and asks `rules` on every gate.
    HookBridge(std::filesystem::path socketPath, std::filesystem::path supportFolder, ApprovalRulesStore& rules,
               Options options = {});
    // Stops the bridge (saving its state) if it runs.
    ~HookBridge();
    HookBridge(const HookBridge&) = delete;
    HookBridge& operator=(const HookBridge&) = delete;

    // Binds the socket (0600, in a private folder of the user's own: a folder
    // that is not a directory of this user or that group or others may enter
    // is refused), restores the saved state and starts serving. Returns false,
    // leaving the bridge without a socket, when any of that fails; true when
    // already running.
    bool start();
    // Stops serving, closes every connection (held gates fail open), saves the
    // state and removes the socket file. Nothing happens when not running.
    void stop();
    bool isRunning() const { return running_.load(); }

    // Whether gates are held for the user (approve-from-notch); when off they
    // are answered "passthrough" at once.
    void setGating(bool enabled);
    bool gatingEnabled() const;

    // The user's answer from the notch: the session's held gate gets "allow"
    // or "deny" and is closed, and its Claude and Codex markers are removed
    // (only the markers when no gate is held).
    void resolve(const std::string& sessionId, bool allow);
    // Answers every held gate "passthrough" (the agents show their own
    // prompts); markers stay.
    void releaseAllGates();

    // Called after each batch of changes (lines, a resolve, a disconnect), on
    // the bridge's thread — or on the caller's thread for handleLine() and
    // resolve() while the bridge is not running. Post it to the main loop to
    // wake the monitor. Must not call back into stop().
    void setOnEvent(std::function<void()> onEvent);

    // Handles one protocol line (without its "\n") as if `connection` sent
    // it; malformed lines are dropped. While the bridge runs, only its own
    // thread may call this; when stopped, any thread may (tests, fuzzing).
    void handleLine(std::string_view line, ConnectionId connection = noConnection);

    // The current markers of each agent, as lists (copies taken under the lock).
    std::vector<AttentionMarker> claudeMarkers() const;
    std::vector<AttentionMarker> codexMarkers() const;
    std::vector<AttentionMarker> kimiMarkers() const;
    std::vector<AttentionMarker> openCodeMarkers() const;
    // When each Claude marker was set.
    std::map<std::string, TimePoint> claudeMarkerCreatedAt() const;
    // Claude sessions with a turn-state signal in the last 1800 seconds, and when.
    std::map<std::string, TimePoint> claudeBusy(TimePoint now) const;
    std::set<std::string> claudeBusySessions(TimePoint now) const;
    // Cursor notes by conversation id whose time stamp is within 1800 seconds of now.
    std::map<std::string, CursorPending> cursorPending(TimePoint now) const;
    std::map<std::string, CursorActivity> cursorActivity(TimePoint now) const;
    // Cursor's model slug by conversation id.
    std::map<std::string, std::string> cursorModels() const;
    // True when a gate of this session waits for the user's answer.
    bool hasHeldGate(const std::string& sessionId) const;
    std::set<std::string> heldGateSessions() const;
    // How many client connections are open now.
    size_t connectionCount() const { return connectionCount_.load(); }

    // Prunes and writes hook-state.json now (atomically); failures are ignored.
    void persistNow();

    const std::filesystem::path& socketPath() const { return socketPath_; }
    std::filesystem::path stateFile() const;
    std::filesystem::path approvalsLog() const;

private:
    enum class Source { claude, codex, kimi, openCode, cursor };
    struct Gate {
        ConnectionId connection = noConnection;
        Source source = Source::claude;
    };
    struct Reply {
        ConnectionId connection;
        std::string behavior;
    };
    struct Connection {
        int fd = -1;
        std::string buffer;
        std::chrono::steady_clock::time_point lastHeard;
    };
    struct Request;

    // Line handlers; each runs with mutex_ held.
    void claudeHandlerLocked(const Request& r, ConnectionId connection, TimePoint now);
    void gatedHandlerLocked(const Request& r, Source source, ConnectionId connection, TimePoint now);
    void cursorHandlerLocked(const Request& r, TimePoint now);
    std::map<std::string, AttentionMarker>& markersLocked(Source source);
    void removeMarkerLocked(Source source, const std::string& sessionId);
    // Forgets the session's held gate, answering its client "passthrough".
    void dropGateLocked(const std::string& sessionId);
    void answerLocked(ConnectionId connection, std::string behavior);
    void pruneLocked(TimePoint now);
    // A copy of what hook-state.json keeps, taken under the lock and encoded off it.
    struct SavedState {
        std::map<std::string, AttentionMarker> claude, codex, kimi, openCode;
        std::map<std::string, TimePoint> claudeCreatedAt;
        std::map<std::string, CursorPending> cursorPending;
        std::map<std::string, CursorActivity> cursorActivity;
        std::map<std::string, std::string> cursorModels;
    };
    SavedState snapshotLocked() const;
    static std::string encode(const SavedState& state, TimePoint savedAt);
    void restore(TimePoint now);
    void trace(std::string_view text) const;

    // The socket thread.
    void loop();
    void acceptClients();
    void readClient(ConnectionId id);
    void closeConnection(ConnectionId id);
    void flushOutbox();
    void closeIdleConnections();
    // Connections that hold a gate or have an answer on its way. Requires mutex_.
    std::set<ConnectionId> waitingConnectionsLocked() const;
    void saveIfDue();
    void notifyIfChanged();
    void wake();
    // Runs the outbox and notification directly when no socket thread does.
    void afterChangeOffThread();
    bool onLoopThread() const { return std::this_thread::get_id() == loopThread_.get_id(); }

    const std::filesystem::path socketPath_;
    const std::filesystem::path supportFolder_;
    ApprovalRulesStore& rules_;
    const Options options_;

    // The one lock, over everything below up to the socket thread's own state.
    mutable std::mutex mutex_;
    bool gatingEnabled_ = false;
    std::map<std::string, AttentionMarker> claudeMarkers_, codexMarkers_, kimiMarkers_, openCodeMarkers_;
    std::map<std::string, TimePoint> markerCreatedAt_;
    std::map<std::string, TimePoint> claudeBusy_;
    std::map<std::string, Gate> gates_;
    std::map<std::string, CursorPending> cursorPending_;
    std::map<std::string, CursorActivity> cursorActivity_;
    std::map<std::string, std::string> cursorModels_;
    std::vector<Reply> outbox_;
    std::vector<std::string> approvalLogLines_;
    bool changed_ = false;  // the monitor has not heard of the latest change
    bool dirty_ = false;    // the saved state is behind
    std::function<void()> onEvent_;

    // The socket thread's own state.
    std::atomic<bool> running_{false};
    std::atomic<bool> stopRequested_{false};
    std::thread loopThread_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::mutex wakeMutex_;  // keeps wake() off a pipe that stop() is closing
    std::unordered_map<ConnectionId, Connection> connections_;
    ConnectionId nextConnection_ = 1;
    std::atomic<size_t> connectionCount_{0};
    std::chrono::steady_clock::time_point lastSave_{};
    std::unique_ptr<SerialQueue> saveQueue_;
    std::mutex saveMutex_;  // serialises writes of the state file
    uint64_t socketDevice_ = 0;
    uint64_t socketInode_ = 0;
};

}  // namespace lumora
