#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "lumora/app/session_notifications.hpp"
#include "lumora/app/settings_store.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/hooks/task_plan_store.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/desktop_session_source.hpp"
#include "lumora/monitor/process_discovery.hpp"
#include "lumora/monitor/sdk_sessions.hpp"
#include "lumora/spend/spend_service.hpp"
#include "lumora/ui/view_backend.hpp"
#include "lumora/ui/view_state.hpp"
#include "lumora/usage/usage_poller.hpp"
#include "scrivet/session_namer.hpp"

namespace lumora {

// The long-lived services of one run, created once and wired together: the
// monitor and its sources, the hook bridge, the approval rules, plan usage,
// the settings and the spend figures (scanned on a queue of their own, never
// on the monitor's). Every front end (the terminal view, the headless run, the
// command-line scan) starts from here.
class LumoraApp {
public:
    LumoraApp();
    ~LumoraApp();

    // Starts the socket (with gating as asked, if the settings allow it) and
    // the monitor's timers, and runs the first refresh. Returns why the socket
    // is not served, if it is not: the monitor then polls at the hooks-off
    // pace and the views show hooksProblem().
    Status start(bool gatingWanted);
    // Answers every held gate "passthrough", stops the monitor, saves the
    // bridge's state and removes the socket.
    void stop();
    // The view is put in the background (Ctrl-Z): every held prompt goes back
    // to its agent and the socket is removed, so no hook waits for a stopped
    // process. resume() listens again.
    void suspend();
    Status resume();

    // "Hooks not listening: <why>" once start() could not serve the socket.
    std::optional<std::string> hooksProblem() const;
    // For one-shot commands: what the running app knows (or the saved state),
    // read without serving.
    void readRunningHookState();

    // Called after every publish of the monitor and every change of the task
    // plans (on the main loop).
    void setOnPublish(std::function<void()> onPublish) { onPublish_ = std::move(onPublish); }
    // Called (on the main loop) after anything a face shows may have changed:
    // a publish, the plans, the quota readings, the spend figures. Listeners
    // stay for the app's life.
    void addChangeListener(std::function<void()> listener) { listeners_.push_back(std::move(listener)); }
    // The view of this process (the terminal view or the pill), one slot.
    void setOnViewChange(std::function<void()> onChange) { onViewChange_ = std::move(onChange); }

    // How many attached faces can answer prompts (they show rows with
    // buttons). While one is attached, prompts are held as for a view of our
    // own; when the last goes, the prompts only it could show go back to their agents.
    void setAnsweringFaces(int count);
    int answeringFaces() const { return answeringFaces_; }

    // Like start(), for a face that only reads (`--watch` with no service):
    // the monitor, usage, spend and plans, but no socket and no notifications.
    void startReadOnly();

    ClaudeMonitor& monitor() { return *monitor_; }
    SessionNotifications& notifications() { return *notifications_; }
    HookBridge& bridge() { return *bridge_; }
    ApprovalRulesStore& rules() { return rules_; }
    SettingsStore& settings() { return settings_; }
    // Plan usage: polled while the app runs and "usageEnabled" is on.
    UsagePoller& usage() { return *usage_; }
    SpendService& spend() { return *spend_; }
    FileWatcher& files() { return *files_; }
    // Each shown session's task plan, polled while the app runs.
    TaskPlanStore& plans() { return *plans_; }

    // What the hook bridge knows, as the monitor's status rules read it.
    static HookSnapshot hookSnapshot(const HookBridgeSnapshot& bridge);

    // Jumps to the session on the app's jump queue (one jump at a time) and
    // hands the route lines to `done` on the main loop.
    void jump(const AgentInstance& session, std::function<void(std::vector<std::string>)> done);

private:
    void applySettings();
    // Tells the bridge which held prompts the published rows show with buttons.
    void published();
    bool canShow(HarnessProvider provider, const std::string& sessionId, uint64_t gateId) const;
    // Whether a view's row shows prompt `gateId` with its buttons.
    bool viewShows(const std::string& sessionId, uint64_t gateId) const;
    // Hands the naming settings to the session namer when they changed.
    void configureNamer();
    // A face shows rows with buttons: a view of this process or an attached one.
    bool facesShowButtons() const { return gatingWanted_ || answeringFaces_ > 0; }
    // Tells the view and the listeners.
    void changed();

    DefaultsStore& defaults_;
    SettingsStore& settings_;
    ApprovalRulesStore& rules_;
    // Tells the monitor and the settings when their files change; outlives both.
    std::unique_ptr<FileWatcher> files_;
    std::unique_ptr<HookBridge> bridge_;
    std::unique_ptr<ProcessDiscovery> discovery_;
    std::unique_ptr<ClaudeMonitor> monitor_;
    std::unique_ptr<UsagePoller> usage_;
    std::unique_ptr<SpendService> spend_;
    std::unique_ptr<TaskPlanStore> plans_;
    std::optional<std::pair<std::string, std::string>> namerSettings_;  // endpoint and model given to the namer
    DesktopSessionSource* desktop_ = nullptr;  // owned by the monitor
    std::unique_ptr<SerialQueue> jumps_;
    // Desktop notifications; a prompt with Approve and Deny on screen counts as shown.
    std::unique_ptr<SessionNotifications> notifications_;
    bool gatingWanted_ = false;
    bool started_ = false;
    std::function<void()> onPublish_;
    std::function<void()> onViewChange_;
    std::vector<std::function<void()>> listeners_;
    int answeringFaces_ = 0;
    bool readOnly_ = false;
    // (agent, session id, gate id) of every published row with buttons; read by the bridge's thread.
    mutable std::mutex showableMutex_;
    std::set<std::tuple<HarnessProvider, std::string, uint64_t>> showable_;
};

// How the session namer reaches the local model server: a POST through the
// HTTP client, never through a proxy; no answer (refused, timed out, larger
// than the namer allows) is status 0.
scrivet::SessionNamer::Transport namingTransport();

// The settings a view draws with, as the user set them.
ui::ViewSettings viewSettings(const SettingsStore& store);

// The buttons a prompt offers: none for a display-only one; Approve and
// Deny; and the wider scopes its command allows.
std::vector<ApprovalChoice> approvalChoicesFor(const ApprovalRequest& request);
// The row's confirmation after `kind` on `request` ("Approved · this
// session", "Approved · won't ask again"), as decide() gives it.
std::optional<std::string> confirmationFor(const ApprovalRequest& request, ApprovalChoice::Kind kind);

// The front ends' view of a running app: the monitor's published list and
// the approval decisions on the bridge and the rules.
class AppBackend : public ViewBackend {
public:
    explicit AppBackend(LumoraApp& app);

    std::vector<AgentInstance> instances() const override;
    std::set<std::string> unseenCompletions() const override;
    std::set<std::string> acknowledgedAttention() const override;
    std::optional<PeekEvent> peekEvent() const override;
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& request) const override;
    std::optional<std::string> choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) override;
    void sawRow(const std::string& sessionId) override;
    std::vector<QuotaReading> quotaReadings() const override;
    std::optional<UsageAlert> usageAlert() const override;
    void jump(const AgentInstance& session, JumpDone done) override;
    void setOnChange(std::function<void()> onChange) override;
    std::optional<std::string> hooksProblem() const override;
    std::optional<SpendSummary> spendSummary() const override;
    TaskPlans taskPlans() const override;

private:
    LumoraApp& app_;
};

}  // namespace lumora
