#include "lumora/app/settings_store.hpp"

#include <algorithm>
#include <cmath>

#include "lumora/platform/login_item.hpp"

namespace lumora {

std::string_view rawValue(TabStyle s) {
    switch (s) {
        case TabStyle::black: return "black";
        case TabStyle::graphite: return "graphite";
        case TabStyle::clear: return "clear";
    }
    return "black";
}

std::string_view rawValue(PanelMaterial m) {
    switch (m) {
        case PanelMaterial::glassy: return "glassy";
        case PanelMaterial::smoked: return "smoked";
        case PanelMaterial::black: return "black";
        case PanelMaterial::paper: return "paper";
    }
    return "smoked";
}

int idleTimeoutMinutes(std::optional<long long> stored) { return stored && *stored > 0 ? static_cast<int>(*stored) : 30; }

SettingsStore& SettingsStore::shared() {
    static SettingsStore store(DefaultsStore::shared());
    return store;
}

SettingsStore::SettingsStore(DefaultsStore& defaults) : defaults_(defaults) {}

void SettingsStore::setListener(Listener listener) { listener_ = std::move(listener); }

const std::vector<std::string>& SettingsStore::keys() {
    static const std::vector<std::string> kKeys = {
        kSoundEnabled,     kDoneSoundName,     kAttentionSoundName, kUsageEnabled,      kUsageActiveOnly,
        kSubagentsEnabled, kTaskPlanEnabled,   kCoworkEnabled,      kCloudTasksEnabled, kIdleAgentPolicy,
        kVisibleRowLimit,  kHooksEnabled,      kApproveRuns,        kIdleTimeoutMinutes, kHoverResponse,
        kHoverReach,       kTabStyle,          kTabMarks,           kPanelMaterial,     kUsageLeftReadout,
        kUsageRightReadout, kUsageWarnInColour, kNotchDisplays,     kHasCompletedOnboarding, kNotificationsEnabled, kNotifyOnDone,
        kNamingEndpoint, kNamingModel};
    return kKeys;
}

std::map<std::string, DefaultsStore::Json> SettingsStore::storedValues() const {
    std::map<std::string, DefaultsStore::Json> out;
    for (const auto& key : keys()) {
        if (auto v = defaults_.value(key)) out.emplace(key, std::move(*v));
    }
    return out;
}

void SettingsStore::reloadIfChanged() {
    auto revision = defaults_.revision();
    if (seenRevision_ == revision) return;
    bool first = !seenRevision_;
    seenRevision_ = revision;
    auto now = storedValues();
    std::vector<std::string> changedKeys;
    if (!first) {
        for (const auto& key : keys()) {
            auto a = seen_.find(key);
            auto b = now.find(key);
            bool same = (a == seen_.end() && b == now.end()) ||
                        (a != seen_.end() && b != now.end() && a->second == b->second);
            if (!same) changedKeys.push_back(key);
        }
    }
    seen_ = std::move(now);
    for (const auto& key : changedKeys) {
        if (listener_) listener_(key);
    }
}

void SettingsStore::watch(RunLoop& loop, std::chrono::milliseconds interval) {
    stopWatching();
    reloadIfChanged();  // what is stored now is the baseline
    watchLoop_ = &loop;
    watchTimer_ = loop.addTimer(interval, [this] { reloadIfChanged(); });
}

void SettingsStore::watch(RunLoop& loop, FileWatcher& files, std::chrono::milliseconds interval,
                          std::chrono::milliseconds fallback) {
    auto id = files.subscribe([this, &loop](const auto&) { loop.post([this] { reloadIfChanged(); }); });
    files.setWatched(id, {{defaults_.file(), FileWatcher::Target::Kind::file}});
    watch(loop, files.problem() ? fallback : interval);  // stops any earlier watching first
    files_ = &files;
    filesId_ = id;
}

void SettingsStore::stopWatching() {
    if (files_) files_->unsubscribe(filesId_);
    files_ = nullptr;
    if (watchLoop_ && watchTimer_) watchLoop_->cancelTimer(*watchTimer_);
    watchLoop_ = nullptr;
    watchTimer_.reset();
}

bool SettingsStore::flag(const char* key, bool fallback) const {
    // Read as an object first: a stored off is the user's choice, missing is the default.
    return defaults_.boolean(key).value_or(fallback);
}

void SettingsStore::changed(const std::string& key) {
    // Our own change is reported here, not again by the next reload.
    if (seenRevision_) {
        if (auto v = defaults_.value(key)) seen_[key] = std::move(*v);
        else seen_.erase(key);
    }
    if (listener_) listener_(key);
}

bool SettingsStore::soundEnabled() const { return flag(kSoundEnabled, true); }
std::string SettingsStore::doneSoundName() const { return defaults_.string(kDoneSoundName).value_or("Ping"); }
std::string SettingsStore::attentionSoundName() const { return defaults_.string(kAttentionSoundName).value_or("Sosumi"); }
bool SettingsStore::usageEnabled() const { return flag(kUsageEnabled, true); }
bool SettingsStore::usageActiveOnly() const { return flag(kUsageActiveOnly, false); }
bool SettingsStore::subagentsEnabled() const { return flag(kSubagentsEnabled, true); }
bool SettingsStore::taskPlanEnabled() const { return flag(kTaskPlanEnabled, true); }
bool SettingsStore::coworkEnabled() const { return flag(kCoworkEnabled, true); }
bool SettingsStore::cloudTasksEnabled() const { return flag(kCloudTasksEnabled, false); }
bool SettingsStore::hooksEnabled() const { return flag(kHooksEnabled, false); }
bool SettingsStore::approveRuns() const { return flag(kApproveRuns, true); }
bool SettingsStore::hasCompletedOnboarding() const { return flag(kHasCompletedOnboarding, false); }
bool SettingsStore::notificationsEnabled() const { return flag(kNotificationsEnabled, true); }
bool SettingsStore::notifyOnDone() const { return flag(kNotifyOnDone, false); }
bool SettingsStore::launchAtLogin() const { return LoginItem::enabled(); }

Status SettingsStore::setLaunchAtLogin(bool enabled) {
    auto failure = enabled ? LoginItem::enable(LoginItem::thisProgram()) : LoginItem::disable();
    return failure ? Status::failure(*failure) : Status::success();
}
bool SettingsStore::usageWarnInColour() const { return flag(kUsageWarnInColour, true); }
std::string SettingsStore::namingEndpoint() const { return defaults_.string(kNamingEndpoint).value_or(""); }
std::string SettingsStore::namingModel() const { return defaults_.string(kNamingModel).value_or(""); }

IdleAgentPolicy SettingsStore::idleAgentPolicy() const {
    auto raw = defaults_.string(kIdleAgentPolicy);
    return raw ? idlePolicyFromRaw(*raw).value_or(IdleAgentPolicy::shrink) : IdleAgentPolicy::shrink;
}

int SettingsStore::visibleRowLimit() const {
    auto stored = defaults_.integer(kVisibleRowLimit);
    return AgentDisplay::visibleRowLimit(stored ? std::optional<long long>(*stored) : std::nullopt);
}

int SettingsStore::idleTimeoutMinutes() const {
    auto stored = defaults_.integer(kIdleTimeoutMinutes);
    return lumora::idleTimeoutMinutes(stored ? std::optional<long long>(*stored) : std::nullopt);
}

HoverResponse SettingsStore::hoverResponse() const {
    auto raw = defaults_.string(kHoverResponse);
    return raw ? hoverResponseFromRaw(*raw).value_or(HoverResponse::adaptive) : HoverResponse::adaptive;
}

HoverReach SettingsStore::hoverReach() const {
    auto raw = defaults_.string(kHoverReach);
    return raw ? hoverReachFromRaw(*raw).value_or(HoverReach::balanced) : HoverReach::balanced;
}

TabStyle SettingsStore::tabStyle() const {
    auto raw = defaults_.string(kTabStyle).value_or("");
    for (auto s : {TabStyle::black, TabStyle::graphite, TabStyle::clear}) {
        if (rawValue(s) == raw) return s;
    }
    return TabStyle::black;  // missing, unknown or retired: black, never none
}

TabMarks SettingsStore::tabMarks() const {
    auto raw = defaults_.string(kTabMarks);
    return raw ? tabMarksFromRaw(*raw).value_or(kDefaultTabMarks) : kDefaultTabMarks;
}

PanelMaterial SettingsStore::panelMaterial() const {
    auto raw = defaults_.string(kPanelMaterial).value_or("");
    for (auto m : {PanelMaterial::glassy, PanelMaterial::smoked, PanelMaterial::black, PanelMaterial::paper}) {
        if (rawValue(m) == raw) return m;
    }
    return PanelMaterial::smoked;
}

GoUsage::Caps SettingsStore::openCodeGoCaps() const {
    GoUsage::Caps caps;
    auto read = [&](const char* key, double& out) {
        auto v = defaults_.real(key);
        if (v && std::isfinite(*v) && *v > 0) out = *v;
    };
    read(kOpenCodeGoFiveHourCap, caps.fiveHour);
    read(kOpenCodeGoWeeklyCap, caps.weekly);
    read(kOpenCodeGoMonthlyCap, caps.monthly);
    return caps;
}

std::string SettingsStore::usageLeftReadout() const { return defaults_.string(kUsageLeftReadout).value_or("remaining"); }
std::string SettingsStore::usageRightReadout() const { return defaults_.string(kUsageRightReadout).value_or("resetTime"); }

std::vector<std::string> SettingsStore::notchDisplays() const {
    std::vector<std::string> out;
    if (auto list = defaults_.list(kNotchDisplays)) {
        for (const auto& v : *list) {
            if (v.is_string()) out.push_back(v.get<std::string>());
        }
    }
    return out;
}

void SettingsStore::setBool(const std::string& key, bool value) {
    defaults_.setBool(key, value);
    changed(key);
}

void SettingsStore::setString(const std::string& key, const std::string& value) {
    defaults_.setString(key, value);
    changed(key);
}

void SettingsStore::setIdleAgentPolicy(IdleAgentPolicy p) { setString(kIdleAgentPolicy, std::string(rawValue(p))); }
void SettingsStore::setHoverResponse(HoverResponse r) { setString(kHoverResponse, std::string(rawValue(r))); }
void SettingsStore::setHoverReach(HoverReach r) { setString(kHoverReach, std::string(rawValue(r))); }
void SettingsStore::setTabStyle(TabStyle s) { setString(kTabStyle, std::string(rawValue(s))); }
void SettingsStore::setTabMarks(TabMarks m) { setString(kTabMarks, std::string(rawValue(m))); }
void SettingsStore::setPanelMaterial(PanelMaterial m) { setString(kPanelMaterial, std::string(rawValue(m))); }

void SettingsStore::setVisibleRowLimit(int rows) {
    defaults_.setInteger(kVisibleRowLimit, AgentDisplay::visibleRowLimit(rows));
    changed(kVisibleRowLimit);
}

void SettingsStore::setIdleTimeoutMinutes(int minutes) {
    defaults_.setInteger(kIdleTimeoutMinutes, lumora::idleTimeoutMinutes(minutes));
    changed(kIdleTimeoutMinutes);
}

void SettingsStore::setDisplayEnabled(const std::string& key, bool enabled, const std::vector<DisplayInfo>& connected) {
    auto next = NotchDisplays::updated(notchDisplays(), key, enabled, connected);
    defaults_.setValue(kNotchDisplays, DefaultsStore::Json(next));
    if (!enabled) defaults_.remove(kPreferredDisplay);
    changed(kNotchDisplays);
}

void SettingsStore::migrateLegacyDisplay(const std::vector<DisplayInfo>& connected) {
    if (defaults_.boolean(kNotchDisplaysMigrated).value_or(false)) return;
    if (auto legacy = defaults_.string(kPreferredDisplay)) {
        // The legacy preference named a display; keep it if it still matches one.
        std::vector<std::string> selection = notchDisplays();
        for (const auto& d : connected) {
            if ((d.name == *legacy || d.key == *legacy) &&
                std::find(selection.begin(), selection.end(), d.key) == selection.end())
                selection.push_back(d.key);
        }
        defaults_.setValue(kNotchDisplays, DefaultsStore::Json(selection));
    }
    defaults_.setBool(kNotchDisplaysMigrated, true);
    changed(kNotchDisplays);
}

}  // namespace lumora
