#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumora/base/run_loop.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/hooks/cursor_notes.hpp"
#include "lumora/monitor/peek_event.hpp"
#include "lumora/monitor/process_discovery.hpp"
#include "lumora/monitor/session_derivation.hpp"
#include "lumora/monitor/session_observation.hpp"
#include "lumora/platform/file_watcher.hpp"

namespace lumora {

struct HookSnapshot;

// What every source of one scan shares: the time and the one process-table pass.
struct ScanContext {
    Date now{};
    std::shared_ptr<const ProcessDiscovery::Pass> processes;  // absent without discovery
    // What the hook bridge knows (absent without one). A source whose agent
    // reports through notes rather than markers (Cursor) turns its notes into
    // its sessions' signals here.
    HookSnapshot* hooks = nullptr;
};

// One provider's way of finding its sessions: its process finder and its
// journal reader. Called on the monitor's scan queue. Adding a provider is
// adding a source; the status rules are shared.
class SessionSource {
public:
    virtual ~SessionSource() = default;
    virtual std::vector<SessionObservation> observe(const ScanContext& context) = 0;
    // What the last observe() read the shown sessions' facts from (journals,
    // state files, databases, subagent folders), and the folders where a
    // session of a running agent that has none yet will appear. The monitor
    // watches them, so a change there scans at once rather than at the next
    // tick. Called on the scan queue right after observe().
    virtual void addWatchTargets(std::vector<FileWatcher::Target>& out) const {}
};

// The session monitor. Despite its name it watches every agent (Claude
// Code, Codex, Cursor, Kimi, OpenCode), one SessionSource per agent.
//
// The centre of the system: on a timer, and at once when a hook event
// arrives, it finds every agent session, reads its facts, folds in what the
// hooks know, decides each status by the ordered rules and publishes the
// list on the main run loop. Scans run on the monitor's own serial queue; at
// most one is in flight, and requests during a scan make exactly one more.
// Everything but refreshNow() is called on the main loop's thread (debug
// builds assert it).
class ClaudeMonitor {
public:
    struct Settings {
        bool hooksEnabled = false;
        bool soundEnabled = true;
        bool subagentsEnabled = true;
        int idleTimeoutMinutes = 30;
        bool operator==(const Settings&) const = default;
    };

    struct Dependencies {
        std::vector<std::unique_ptr<SessionSource>> sources;
        std::function<ProcessDiscovery::Pass()> discover;  // empty: no process table
        std::function<HookSnapshot(Date now)> hooks;  // empty: no hook bridge
        std::function<bool()> lowPowerMode;           // empty: never
        std::function<Date()> clock;                  // empty: the system clock
        RunLoop* loop = nullptr;                      // empty: RunLoop::main()
        // Tells when what the sessions' facts come from changes (empty: only
        // ticks and hook events scan). Must outlive the monitor.
        FileWatcher* files = nullptr;
    };

    // What an alert asks the front end to do beyond showing the peek.
    struct Alert {
        PeekEvent peek;
        bool sound = false;  // ring the done or needs-you sound
    };

    explicit ClaudeMonitor(Dependencies deps);
    ~ClaudeMonitor();

    // Schedules the refresh timer and runs the first refresh.
    void start();
    // Invalidates the timer; a scan in flight finishes without publishing,
    // and requests that arrive until the next start() are dropped.
    void stop();
    // Asks for a scan as soon as possible. Safe from any thread: it only posts
    // to the main loop, so it never blocks the caller.
    void refreshNow();
    // A file that session facts come from changed: asks for a scan like
    // refreshNow(), but file-driven scans keep to a share of a processor, so
    // journals that grow all the time cost a bounded share of a core. The
    // share is a budget of processor time that refills at 1/kFileScanSpacing
    // of the time that passes, up to kFileScanBurst: a change after a quiet
    // spell is scanned at once, a steady stream of them is paced. Safe from
    // any thread.
    void filesChanged();
    static constexpr int kFileScanSpacing = 40;
    static constexpr std::chrono::milliseconds kFileScanBurst{25};
    // A synchronous scan that returns the list without publishing or alerting.
    std::vector<AgentInstance> scanOnce();

    void setSettings(const Settings& settings);
    const Settings& settings() const { return settings_; }

    // Published state.
    const std::vector<AgentInstance>& instances() const { return instances_; }
    const std::optional<PeekEvent>& peekEvent() const { return peekEvent_; }
    std::optional<AgentStatus> lastAlertStatus() const { return lastAlertStatus_; }
    long long completionPulse() const { return completionPulse_; }
    const std::set<std::string>& unseenCompletions() const { return unseen_; }
    const std::set<std::string>& acknowledgedAttention() const { return acknowledged_; }
    // True when some session is not idle, or idle for less than 900 s.
    bool agentsActive() const;
    std::optional<StatusRules::Seconds> scheduledRefreshInterval() const { return scheduledInterval_; }
    // How many scans have been published (diagnostics and tests).
    long long publishCount() const { return publishCount_; }
    // The paths watched after the latest scan (diagnostics and tests).
    std::vector<FileWatcher::Target> watchedPaths() const;

    // The user looked at a session's row: its completion is seen and its needs-you acknowledged.
    void sawRow(const std::string& sessionId);

    // Called after every publish.
    void setOnPublish(std::function<void()> f) { onPublish_ = std::move(f); }
    // Called for every alert, after the publish that raised it.
    void setOnAlert(std::function<void(const Alert&)> f) { onAlert_ = std::move(f); }

private:
    struct RawScan {
        Date now;
        std::vector<SessionObservation> observations;
        HookSnapshot hooks;
        bool lowPower = false;
        RunLoop::Clock::duration cost{};  // the processor time collecting took on the queue
    };

    // One scan's findings; `watch` also points the file watcher at what was read.
    RawScan collect(bool watch);
    std::vector<AgentInstance> derive(const RawScan& raw, bool remember);
    // Moves what is remembered about rows that were known by their process
    // ("<cwd>#<pid>") and now carry their session id.
    void carryOverRekeyedRows(const RawScan& raw);
    void requestScan();
    // A file changed: scans now, or once the file-scan spacing allows.
    void scheduleFileScan();
    // Charges a finished scan's processor time to the file-scan budget.
    void spendScanBudget(RunLoop::Clock::duration cost);
    // Hands the watcher what the sources read; logs once why changes may go unseen.
    void updateWatches();
    void finishScan(RawScan raw, uint64_t generation);
    void emitAlerts(const std::vector<AgentInstance>& next, Date now);
    void scheduleRefreshTimer();
    Date now() const;
    // The contract of every call but refreshNow(): the main loop's thread (asserted).
    void onLoopOnly() const;

    Dependencies deps_;
    RunLoop& loop_;
    Settings settings_;
    std::unique_ptr<SerialQueue> queue_;

    // Main-thread state.
    std::vector<AgentInstance> instances_;
    std::optional<PeekEvent> peekEvent_;
    std::optional<AgentStatus> lastAlertStatus_;
    long long completionPulse_ = 0;
    long long nextToken_ = 1;
    long long publishCount_ = 0;
    std::map<std::string, int> alertCounts_;
    std::set<std::string> unseen_;
    std::set<std::string> acknowledged_;
    std::map<std::string, Date> lastSeenAt_;
    std::map<std::string, SessionDerivation::Memo> memos_;
    bool scanInFlight_ = false;
    bool rescanRequested_ = false;
    bool running_ = false;
    bool stopped_ = false;       // stop() was called and start() not since
    uint64_t generation_ = 0;    // bumped by stop(): older scans do not publish
    bool lowPower_ = false;      // as the latest scan found it
    bool firstPublish_ = true;
    std::optional<RunLoop::TimerId> timer_;
    std::optional<StatusRules::Seconds> scheduledInterval_;
    // File-driven scans: a change not yet covered by a scan that started
    // after it, the timer that waits out the spacing, and when it allows one.
    bool fileScanWanted_ = false;
    std::optional<RunLoop::TimerId> fileScanTimer_;
    RunLoop::Clock::time_point fileScanAllowedAt_{};
    RunLoop::Clock::duration fileScanBudget_ = kFileScanBurst;  // processor time scans may still spend
    RunLoop::Clock::time_point fileScanBudgetAt_ = RunLoop::Clock::now();

    // The scan queue's own.
    FileWatcher::SubscriptionId watchId_ = 0;
    std::optional<std::string> loggedWatchProblem_;
    mutable std::mutex watchedMutex_;
    std::vector<FileWatcher::Target> watched_;
    std::function<void()> onPublish_;
    std::function<void(const Alert&)> onAlert_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace lumora
