#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/base/status.hpp"
#include "lumora/hooks/hook_session_state.hpp"
#include "lumora/hooks/hook_socket_server.hpp"

namespace lumora {

class ApprovalRulesStore;
class AutoApprover;
class LogLines;
class SerialQueue;

// The file named by LUMORA_DEBUG_LOG, when set and non-empty: where the
// bridge's trace lines go.
std::optional<std::filesystem::path> hookTraceFileFromEnvironment();

// Limits and switches of a HookBridge.
struct HookBridgeOptions {
    // Where trace lines go; by default the file named by LUMORA_DEBUG_LOG, if any.
    std::optional<std::filesystem::path> traceFile = hookTraceFileFromEnvironment();
    HookSocketServer::Limits server;
    HookSessionState::Limits state;
    // Save hook-state.json after changes, at most once per `saveInterval`
    // and off the socket's thread, not only at stop(), so markers survive a crash.
    bool saveAfterChange = true;
    std::chrono::milliseconds saveInterval{1000};
};

// The server end of the hook socket. The agents' hook programs write one JSON
// object per line (PROTOCOL.md); the bridge keeps what they report (Claude's
// busy signal, every agent's "needs you" markers, Cursor's notes and models),
// holds a permission prompt's connection open while a view shows it, and
// hands all of it to the monitor through one snapshot.
//
// It is made of five parts: the line protocol (HookProtocol), the session
// state machine (HookSessionState), the state file (HookStateFile), the
// rules and approvals.log (AutoApprover) and the socket (HookSocketServer).
//
// Threads: the socket is served by the server's thread ("lumora.hookbridge"),
// which parses lines and applies them. The state lives behind one lock, which
// snapshot() and the commands take from any thread; nothing holds it across
// I/O. The rules are asked, and the log and the state file written, on
// threads of their own, so the socket never waits on the disk.
class HookBridge : private HookSocketServer::Handler {
public:
    using Clock = std::chrono::system_clock;
    using TimePoint = Clock::time_point;
    using ConnectionId = HookSessionState::ConnectionId;
    static constexpr ConnectionId noConnection = HookSessionState::noConnection;
    static constexpr const char* queueLabel = "lumora.hookbridge";
    using Options = HookBridgeOptions;
    // Whether a running view shows this held prompt: a row of this agent and
    // session with the buttons of gate `gateId`. Called on the bridge's thread.
    using CanShow = std::function<bool(scrivet::HarnessProvider provider, const std::string& sessionId, uint64_t gateId)>;

    // A bridge listening on `socketPath` that keeps hook-state.json and
    // approvals.log in `supportFolder` and asks `rules` on every gate.
    HookBridge(std::filesystem::path socketPath, std::filesystem::path supportFolder, ApprovalRulesStore& rules,
               Options options = {});
    // Stops the bridge (saving its state) if it runs.
    ~HookBridge();
    HookBridge(const HookBridge&) = delete;
    HookBridge& operator=(const HookBridge&) = delete;

    // Starts serving the socket, restoring the saved state the first time.
    // Another Lumora already serving the socket is left alone ("Lumora is
    // already running (pid …)"); a socket file nobody serves is replaced.
    // Returns why it cannot serve (the socket's folder is not private, the
    // path is too long, ...); the bridge then has no socket and hooks fail open.
    Status start();
    // Stops serving: held gates are answered "passthrough", every connection
    // closes, the state is saved and the socket file removed. Nothing happens
    // when not running; start() may be called again.
    void stop();
    bool isRunning() const;
    // The outcome of the last start() ("not started" before one, "stopped" after stop()).
    Status listening() const;

    // Whether gates are held for the user (approve-from-notch); when off they
    // are answered "passthrough" at once.
    void setGating(bool enabled);
    bool gatingEnabled() const;
    // Which held prompts a view shows. A gate that no view shows within the
    // short grace (HookSessionState::Limits::showGrace) is answered
    // "passthrough", so the agent asks in its own prompt. Unset: every gate
    // counts as shown.
    void setCanShow(CanShow canShow);
    // The views' rows changed: asks CanShow again for gates waiting for theirs.
    void rowsChanged();

    // The user's answer to the prompt numbered `gateId` (ApprovalRequest::gateId):
    // true when it was held and now gets "allow" or "deny". A newer prompt of
    // the same session is not answered; with no gate held at all only the
    // session's Claude and Codex markers are removed.
    bool resolve(const std::string& sessionId, uint64_t gateId, bool allow);
    // Answers every held gate "passthrough" (the agents show their own
    // prompts); markers stay.
    void releaseAllGates();
    // No face shows prompt `gateId` any more (its notification was
    // dismissed): it goes back to the agent, unless a newer one replaced it.
    bool handBack(const std::string& sessionId, uint64_t gateId);

    // Called after each batch of changes (lines, a resolve, a disconnect), on
    // the bridge's thread — or on the caller's thread for handleLine() and
    // resolve() while the bridge is not running. Post it to the main loop to
    // wake the monitor. Must not call back into stop().
    void setOnEvent(std::function<void()> onEvent);

    // Handles one protocol line (without its "\n") as if `connection` sent
    // it; malformed lines are dropped. While the bridge runs, only its own
    // thread may call this; when stopped, any thread may (tests).
    void handleLine(std::string_view line, ConnectionId connection = noConnection);

    // Everything the bridge knows at `now`, taken under its one lock.
    HookBridgeSnapshot snapshot(TimePoint now) const;

    // For one-shot commands that read without serving: takes in what the
    // running app reports over its socket (true), or else the saved state.
    bool readRunningState(std::chrono::milliseconds timeout = std::chrono::seconds(2));

    // How many client connections are open now.
    size_t connectionCount() const { return server_.connectionCount(); }
    // How many well-formed lines have been handled (diagnostics and benchmarks).
    uint64_t linesHandled() const { return linesHandled_.load(); }

    // Writes hook-state.json now (atomically); failures are logged and ignored.
    void persistNow();

    const std::filesystem::path& socketPath() const { return socketPath_; }
    std::filesystem::path stateFile() const;
    std::filesystem::path approvalsLog() const;

private:
    // HookSocketServer::Handler, on the server's thread.
    void onLine(ConnectionId connection, std::string_view line) override;
    void onClosed(ConnectionId connection) override;
    void afterBatch() override;
    std::optional<HookSocketServer::SteadyTime> nextDeadline() override;
    void trace(std::string_view text) override;

    // Answers "who" and "state".
    void answerQuery(const HookProtocol::Request& request, ConnectionId connection);
    // Carries out what the state asks for: replies, rule checks, the monitor's wake-up.
    void runEffects(bool onLoop);
    void ruleAnswered(uint64_t gateId, bool matched);
    void saveIfDue();
    // The lock file beside the socket ("<socket>.lock"): false when another process holds it.
    bool takeServiceLock();
    void releaseServiceLock();
    void afterChangeOffThread();

    const std::filesystem::path socketPath_;
    const std::filesystem::path supportFolder_;
    const Options options_;

    // The one lock, over everything up to the socket's own state.
    mutable std::mutex mutex_;
    HookSessionState state_;
    CanShow canShow_;
    std::function<void()> onEvent_;
    Status listening_ = Status::failure("not started");
    bool restored_ = false;
    int lockFd_ = -1;  // the service lock while serving

    // The socket thread's own.
    std::chrono::steady_clock::time_point lastSave_{};
    std::atomic<uint64_t> linesHandled_{0};

    std::mutex saveMutex_;  // serialises writes of the state file
    std::unique_ptr<LogLines> trace_;
    std::unique_ptr<SerialQueue> saveQueue_;
    HookSocketServer server_;
    // Last: its thread calls back into the members above until it is gone.
    std::unique_ptr<AutoApprover> approver_;
};

}  // namespace lumora
