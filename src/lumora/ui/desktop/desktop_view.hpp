#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "lumora/base/run_loop.hpp"
#include "lumora/monitor/notch_state.hpp"
#include "lumora/ui/view_backend.hpp"
#include "lumora/ui/view_state.hpp"

// The desktop front end: a pill hanging from the top centre of each chosen
// display that carries the tab, peeks on alerts and hovers open into the
// panel. Built only when Qt 6 Widgets is there; this header never names Qt, so
// the app can wire it either way.
namespace lumora::ui {

// How the pill looks and answers the cursor, as the stored settings say.
struct DesktopLook {
    std::string tabStyle = "black";        // "black", "graphite", "clear"
    std::string panelMaterial = "smoked";  // "glassy", "smoked", "black", "paper"
    HoverResponse hoverResponse = HoverResponse::adaptive;
    HoverReach hoverReach = HoverReach::balanced;
    std::vector<std::string> displays;  // the chosen display keys; empty means automatic
    bool operator==(const DesktopLook&) const = default;
};

// One line of the settings window, bound to one stored setting.
struct SettingsField {
    std::string key;    // the stored key
    std::string label;  // what the window calls it
    // The values offered, as (stored value, label); empty for an on/off flag,
    // whose values are "true" and "false".
    std::vector<std::pair<std::string, std::string>> choices;
    std::function<std::string()> get;
    std::function<void(const std::string&)> set;  // stores it; takes effect at once
};

struct DesktopViewOptions {
    std::function<ViewSettings()> settings;  // read again on every change
    std::function<DesktopLook()> look;       // likewise
    std::vector<SettingsField> settingsFields;
    // Switches the pill on one display on or off.
    std::function<void(const std::string& key, bool enabled, const std::vector<DisplayInfo>& connected)> setDisplay;
    // Told the connected displays once at start, before the pills are placed
    // (the place to move an older display preference into the selection).
    std::function<void(const std::vector<DisplayInfo>& connected)> displaysFound;
    // Runs when the pill closes (a stop signal, the display going away) before
    // the loop stops: the place to hand held prompts back and save state.
    std::function<void()> onQuit;
    // The loop whose tasks and timers run beside the window system's events.
    // Defaults to RunLoop::main().
    RunLoop* loop = nullptr;
};

// True when this build carries the desktop front end.
bool desktopBuilt();
// True when a display is there to draw on (DISPLAY or WAYLAND_DISPLAY set).
bool displayAvailable();
// Runs the pill until a stop signal or the display goes away and returns the
// exit code; 1 (after one line on standard error) when it cannot start.
int runDesktopView(ViewBackend& backend, const DesktopViewOptions& options);
// `lumora --demo --desktop`: the pill over the scripted sessions.
int runDesktopDemo(const DesktopViewOptions& options);

}  // namespace lumora::ui
