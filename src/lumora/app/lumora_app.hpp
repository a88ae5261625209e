#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumora/app/settings_store.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/desktop_session_source.hpp"
#include "lumora/monitor/process_discovery.hpp"
#include "lumora/monitor/sdk_sessions.hpp"
#include "lumora/ui/view_backend.hpp"
#include "lumora/ui/view_state.hpp"

namespace lumora {

// The long-lived services of one run, created once and wired together: the
// monitor and its sources, the hook bridge, the approval rules and the
// settings. Every front end (the terminal view, the headless run, the
// command-line scan) starts from here.
class LumoraApp {
public:
    LumoraApp();
    ~LumoraApp();

    // Starts the socket (with gating as asked, if the settings allow it) and
    // the monitor's timers, and runs the first refresh.
    void start(bool gatingWanted);
    // Answers every held gate "passthrough", stops the monitor, saves the
    // bridge's state and removes the socket.
    void stop();

    ClaudeMonitor& monitor() { return *monitor_; }
    HookBridge& bridge() { return *bridge_; }
    ApprovalRulesStore& rules() { return rules_; }
    SettingsStore& settings() { return settings_; }

    // What the hook bridge knows, as the monitor's status rules read it.
    static HookSnapshot hookSnapshot(const HookBridge& bridge, Date now);

    // Jumps to the session on the app's jump queue (one jump at a time) and
    // hands the route lines to `done` on the main loop.
    void jump(const AgentInstance& session, std::function<void(std::vector<std::string>)> done);

private:
    void applySettings();

    DefaultsStore& defaults_;
    SettingsStore& settings_;
    ApprovalRulesStore& rules_;
    std::unique_ptr<HookBridge> bridge_;
    std::unique_ptr<ProcessDiscovery> discovery_;
    std::unique_ptr<ClaudeMonitor> monitor_;
    DesktopSessionSource* desktop_ = nullptr;  // owned by the monitor
    std::unique_ptr<SerialQueue> jumps_;
    bool gatingWanted_ = false;
    bool started_ = false;
};

// The settings a view draws with, as the user set them.
ui::ViewSettings viewSettings(const SettingsStore& store);

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
    void jump(const AgentInstance& session, JumpDone done) override;
    void setOnChange(std::function<void()> onChange) override;

private:
    LumoraApp& app_;
};

}  // namespace lumora
