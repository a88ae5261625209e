#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/base/defaults_store.hpp"
#include "lumora/base/status.hpp"
#include "lumora/base/run_loop.hpp"
#include "lumora/platform/file_watcher.hpp"
#include "lumora/monitor/agent_display.hpp"
#include "lumora/monitor/notch_state.hpp"
#include "lumora/monitor/tab_layout.hpp"
#include "lumora/usage/opencode_go_usage.hpp"

namespace lumora {

// Tab background styles; only black fuses with the bezel.
enum class TabStyle { black, graphite, clear };
// Panel surfaces.
enum class PanelMaterial { glassy, smoked, black, paper };

std::string_view rawValue(TabStyle s);
std::string_view rawValue(PanelMaterial m);

// Every user preference, read from and written to the user defaults under
// its key, with the default a missing (or unusable) value takes. A change is
// written to the defaults and reported to the listener at once, so the
// monitor, the tab and the panel pick it up without a restart. While watched,
// changes another process makes to the file (`lumora --hooks-enable` in a
// second terminal, a hand edit) reach the listener within one interval.
class SettingsStore {
public:
    // Stored keys.
    static constexpr const char* kSoundEnabled = "soundEnabled";
    static constexpr const char* kDoneSoundName = "doneSoundName";
    static constexpr const char* kAttentionSoundName = "attentionSoundName";
    static constexpr const char* kUsageEnabled = "usageEnabled";
    static constexpr const char* kUsageActiveOnly = "usageActiveOnly";
    static constexpr const char* kSubagentsEnabled = "subagentsEnabled";
    static constexpr const char* kTaskPlanEnabled = "taskPlanEnabled";
    static constexpr const char* kCoworkEnabled = "coworkEnabled";
    static constexpr const char* kCloudTasksEnabled = "cloudTasksEnabled";
    static constexpr const char* kIdleAgentPolicy = "idleAgentPolicy";
    static constexpr const char* kVisibleRowLimit = "visibleRowLimit";
    static constexpr const char* kHooksEnabled = "hooksEnabled";
    static constexpr const char* kApproveRuns = "approveRuns";
    static constexpr const char* kIdleTimeoutMinutes = "idleTimeoutMinutes";
    static constexpr const char* kHoverResponse = "hoverResponse";
    static constexpr const char* kHoverReach = "hoverReach";
    static constexpr const char* kTabStyle = "tabStyle";
    static constexpr const char* kTabMarks = "tabMarks";
    static constexpr const char* kPanelMaterial = "panelMaterial";
    static constexpr const char* kUsageLeftReadout = "usageLeftReadout";
    static constexpr const char* kUsageRightReadout = "usageRightReadout";
    static constexpr const char* kUsageWarnInColour = "usageWarnInColour";
    // OpenCode Go's caps in dollars per rolling window (the plan's published limits by default).
    static constexpr const char* kOpenCodeGoFiveHourCap = "openCodeGoFiveHourCap";
    static constexpr const char* kOpenCodeGoWeeklyCap = "openCodeGoWeeklyCap";
    static constexpr const char* kOpenCodeGoMonthlyCap = "openCodeGoMonthlyCap";
    // The local model server that names sessions (a loopback URL; empty: naming off) and its model.
    static constexpr const char* kNamingEndpoint = "namingEndpoint";
    static constexpr const char* kNamingModel = "namingModel";
    static constexpr const char* kNotchDisplays = "notchDisplays";
    static constexpr const char* kPreferredDisplay = "preferredDisplay";  // legacy single display
    static constexpr const char* kNotchDisplaysMigrated = "notchDisplaysMigrated";
    static constexpr const char* kHasCompletedOnboarding = "hasCompletedOnboarding";
    static constexpr const char* kNotificationsEnabled = "notificationsEnabled";
    static constexpr const char* kNotifyOnDone = "notifyOnDone";

    using Listener = std::function<void(const std::string& key)>;

    static SettingsStore& shared();
    explicit SettingsStore(DefaultsStore& defaults);

    // Called after every change, with the key that changed.
    void setListener(Listener listener);

    // Looks at the defaults file again (a stamp check; the file is read only
    // when it changed) and reports each setting that changed since the last
    // look to the listener.
    void reloadIfChanged();
    // Runs reloadIfChanged() on `loop` every `interval` until stopWatching().
    void watch(RunLoop& loop, std::chrono::milliseconds interval = std::chrono::seconds(2));
    // The same, but told by `files` when the defaults file changes, so a
    // change reaches the listener within moments; the poll stays as a
    // safety net, every `interval` while `files` sees changes and every
    // `fallback` while it cannot. `files` must outlive the watching.
    void watch(RunLoop& loop, FileWatcher& files, std::chrono::milliseconds interval = std::chrono::seconds(30),
               std::chrono::milliseconds fallback = std::chrono::seconds(2));
    void stopWatching();

    bool soundEnabled() const;
    std::string doneSoundName() const;
    std::string attentionSoundName() const;
    bool usageEnabled() const;
    bool usageActiveOnly() const;
    bool subagentsEnabled() const;
    bool taskPlanEnabled() const;
    bool coworkEnabled() const;
    bool cloudTasksEnabled() const;
    IdleAgentPolicy idleAgentPolicy() const;
    int visibleRowLimit() const;
    bool hooksEnabled() const;
    bool approveRuns() const;
    int idleTimeoutMinutes() const;
    HoverResponse hoverResponse() const;
    HoverReach hoverReach() const;
    TabStyle tabStyle() const;
    TabMarks tabMarks() const;
    PanelMaterial panelMaterial() const;
    std::string usageLeftReadout() const;
    std::string usageRightReadout() const;
    bool usageWarnInColour() const;
    // The OpenCode Go caps; a missing, zero, negative or non-number value takes the default.
    GoUsage::Caps openCodeGoCaps() const;
    std::vector<std::string> notchDisplays() const;
    std::string namingEndpoint() const;
    std::string namingModel() const;
    bool hasCompletedOnboarding() const;
    // Desktop notifications (on when missing), and for finished turns too (off when missing).
    bool notificationsEnabled() const;
    bool notifyOnDone() const;
    // Launch at login is no stored key: it is whether the login entry is there.
    bool launchAtLogin() const;
    // Writes or removes the login entry; returns why it could not.
    Status setLaunchAtLogin(bool enabled);

    void setBool(const std::string& key, bool value);
    void setString(const std::string& key, const std::string& value);
    void setIdleAgentPolicy(IdleAgentPolicy p);
    void setVisibleRowLimit(int rows);
    void setIdleTimeoutMinutes(int minutes);
    void setHoverResponse(HoverResponse r);
    void setHoverReach(HoverReach r);
    void setTabStyle(TabStyle s);
    void setTabMarks(TabMarks m);
    void setPanelMaterial(PanelMaterial m);
    // Switches one display's notch on or off (an off also clears the legacy entry).
    void setDisplayEnabled(const std::string& key, bool enabled, const std::vector<DisplayInfo>& connected);
    // Moves the legacy single-display preference into the selection, once.
    void migrateLegacyDisplay(const std::vector<DisplayInfo>& connected);

    DefaultsStore& defaults() const { return defaults_; }

    // Every key above, for watching.
    static const std::vector<std::string>& keys();

private:
    bool flag(const char* key, bool fallback) const;
    void changed(const std::string& key);
    std::map<std::string, DefaultsStore::Json> storedValues() const;

    DefaultsStore& defaults_;
    Listener listener_;
    std::optional<uint64_t> seenRevision_;
    std::map<std::string, DefaultsStore::Json> seen_;  // the settings as last reported
    RunLoop* watchLoop_ = nullptr;
    std::optional<RunLoop::TimerId> watchTimer_;
    FileWatcher* files_ = nullptr;
    FileWatcher::SubscriptionId filesId_ = 0;
};

// The idle threshold in minutes from a stored value: missing, zero or negative give 30.
int idleTimeoutMinutes(std::optional<long long> stored);

}  // namespace lumora
