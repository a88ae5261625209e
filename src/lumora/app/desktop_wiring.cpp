#include "lumora/app/desktop_wiring.hpp"

#include "lumora/app/lumora_app.hpp"

namespace lumora {

namespace {

using Choices = std::vector<std::pair<std::string, std::string>>;

ui::SettingsField flag(SettingsStore& s, const char* key, const char* label, bool (SettingsStore::*get)() const) {
    return {key, label, {}, [&s, get] { return (s.*get)() ? std::string("true") : std::string("false"); },
            [&s, key](const std::string& v) { s.setBool(key, v == "true"); }};
}

template <typename Getter>
ui::SettingsField choice(SettingsStore& s, const char* key, const char* label, Choices choices, Getter get) {
    return {key, label, std::move(choices), [&s, get] { return std::string(get(s)); },
            [&s, key](const std::string& v) { s.setString(key, v); }};
}

}  // namespace

ui::DesktopLook desktopLook(const SettingsStore& store) {
    ui::DesktopLook look;
    look.tabStyle = std::string(rawValue(store.tabStyle()));
    look.panelMaterial = std::string(rawValue(store.panelMaterial()));
    look.hoverResponse = store.hoverResponse();
    look.hoverReach = store.hoverReach();
    look.displays = store.notchDisplays();
    return look;
}

ui::DesktopViewOptions desktopOptions(SettingsStore& s) {
    using S = SettingsStore;
    ui::DesktopViewOptions o;
    o.settings = [&s] { return viewSettings(s); };
    o.look = [&s] { return desktopLook(s); };
    o.setDisplay = [&s](const std::string& key, bool enabled, const std::vector<DisplayInfo>& connected) {
        s.setDisplayEnabled(key, enabled, connected);
    };
    o.displaysFound = [&s](const std::vector<DisplayInfo>& connected) { s.migrateLegacyDisplay(connected); };
    o.settingsFields = {
        flag(s, S::kSoundEnabled, "Sounds", &S::soundEnabled),
        choice(s, S::kHoverResponse, "Hover response",
               {{"instant", "Instant"}, {"adaptive", "Adaptive"}, {"deliberate", "Deliberate"}},
               [](const S& st) { return rawValue(st.hoverResponse()); }),
        choice(s, S::kHoverReach, "Hover reach",
               {{"precise", "Precise"}, {"balanced", "Balanced"}, {"generous", "Generous"}},
               [](const S& st) { return rawValue(st.hoverReach()); }),
        choice(s, S::kIdleAgentPolicy, "Idle sessions",
               {{"keepFull", "Keep full rows"}, {"shrink", "Shrink to one line"}, {"hide", "Hide"}},
               [](const S& st) { return rawValue(st.idleAgentPolicy()); }),
        ui::SettingsField{S::kVisibleRowLimit, "Visible rows", {{"4", "4"}, {"6", "6"}, {"8", "8"}, {"10", "10"}},
                          [&s] { return std::to_string(s.visibleRowLimit()); },
                          [&s](const std::string& v) { s.setVisibleRowLimit(std::stoi(v)); }},
        choice(s, S::kTabStyle, "Tab style", {{"black", "Black"}, {"graphite", "Graphite"}, {"clear", "Clear"}},
               [](const S& st) { return rawValue(st.tabStyle()); }),
        choice(s, S::kTabMarks, "Tab marks",
               {{"dots", "Dots"}, {"harness", "Harness"}, {"onApproach", "On approach"}},
               [](const S& st) { return rawValue(st.tabMarks()); }),
        choice(s, S::kPanelMaterial, "Panel material",
               {{"glassy", "Glassy"}, {"smoked", "Smoked"}, {"black", "Black"}, {"paper", "Paper"}},
               [](const S& st) { return rawValue(st.panelMaterial()); }),
        flag(s, S::kHooksEnabled, "Hooks", &S::hooksEnabled),
        flag(s, S::kApproveRuns, "Approve commands from the pill", &S::approveRuns),
    };
    return o;
}

}  // namespace lumora
