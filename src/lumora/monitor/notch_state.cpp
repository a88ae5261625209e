#include "lumora/monitor/notch_state.hpp"

#include <algorithm>
#include <cmath>

namespace lumora {

std::string_view rawValue(HoverResponse r) {
    switch (r) {
        case HoverResponse::instant: return "instant";
        case HoverResponse::adaptive: return "adaptive";
        case HoverResponse::deliberate: return "deliberate";
    }
    return "adaptive";
}

std::optional<HoverResponse> hoverResponseFromRaw(std::string_view raw) {
    for (auto r : {HoverResponse::instant, HoverResponse::adaptive, HoverResponse::deliberate}) {
        if (rawValue(r) == raw) return r;
    }
    return std::nullopt;
}

std::string_view rawValue(HoverReach r) {
    switch (r) {
        case HoverReach::precise: return "precise";
        case HoverReach::balanced: return "balanced";
        case HoverReach::generous: return "generous";
    }
    return "balanced";
}

std::optional<HoverReach> hoverReachFromRaw(std::string_view raw) {
    for (auto r : {HoverReach::precise, HoverReach::balanced, HoverReach::generous}) {
        if (rawValue(r) == raw) return r;
    }
    return std::nullopt;
}

namespace Hover {

double approachSpeed(double vx, double vy) {
    (void)vx;
    return vy < 0 ? -vy : 0;  // upwards, towards the top edge
}

bool skipsBeat(HoverResponse response, double approach) {
    switch (response) {
        case HoverResponse::instant: return true;
        case HoverResponse::adaptive: return approach >= kFlickSpeed;
        case HoverResponse::deliberate: return false;
    }
    return false;
}

bool isStill(double speed) { return speed < kStillSpeed; }

bool passesTransitGate(HoverReach reach, std::optional<double> speed, double approach) {
    if (reach != HoverReach::precise) return true;
    if (approach >= kFlickSpeed) return true;  // a flick at the notch opens on arrival
    if (!speed) return false;                  // unknown speed: treat as moving
    return *speed <= kTransitPassSpeed;
}

double approachRadius(HoverReach reach) {
    switch (reach) {
        case HoverReach::precise: return 90;
        case HoverReach::balanced: return 220;
        case HoverReach::generous: return 420;
    }
    return 220;
}

double beatSeconds(HoverResponse response) {
    return response == HoverResponse::deliberate ? kDeliberateBeatSeconds : kPrimedBeatSeconds;
}

bool blobVisible(NotchState::Phase phase, bool live, bool reduceMotion) {
    if (live) return true;  // real content always shows
    if (phase == NotchState::Phase::primed) return !reduceMotion;  // the swell is the reaction
    return phase == NotchState::Phase::expanded;
}

bool restingLipVisible(NotchState::Phase phase, bool live, bool peekShown) {
    if (live || peekShown) return false;  // a tab or a peek replaces the lip
    return phase != NotchState::Phase::expanded;  // the open panel is its own anchor
}

}  // namespace Hover

namespace Layout {

Rect openZone(double centerX, double top, Size notch, bool notchActive, HoverReach reach, bool tabShown,
              double tabWidth) {
    (void)reach;  // reach decides the approach radius and the transit gate, not the target
    if (!notchActive) return {};
    double width = notch.width;
    double height = notch.height;
    if (tabShown) {
        width = std::max(width, tabWidth);
        height += kTabHangHeight;
    }
    return {centerX - width / 2, top, width, height + kAimSlack};
}

}  // namespace Layout

namespace NotchDisplays {

std::optional<DisplayInfo> automatic(const std::vector<DisplayInfo>& connected) {
    if (connected.empty()) return std::nullopt;
    for (const auto& d : connected) {
        if (d.hasNotch) return d;
    }
    for (const auto& d : connected) {
        if (d.isMain) return d;
    }
    return connected.front();
}

std::vector<DisplayInfo> chosen(const std::vector<std::string>& selection, const std::vector<DisplayInfo>& connected) {
    std::vector<DisplayInfo> out;
    for (const auto& d : connected) {
        if (std::find(selection.begin(), selection.end(), d.key) != selection.end()) out.push_back(d);
    }
    if (out.empty()) {
        if (auto a = automatic(connected)) out.push_back(*a);
    }
    return out;
}

std::vector<std::string> updated(std::vector<std::string> selection, const std::string& k, bool enabled,
                                 const std::vector<DisplayInfo>& connected) {
    bool present = std::find(selection.begin(), selection.end(), k) != selection.end();
    if (enabled) {
        if (present) return selection;
        if (selection.empty()) {
            // Switching a second screen on keeps the one chosen automatically.
            if (auto a = automatic(connected); a && a->key != k) selection.push_back(a->key);
        }
        selection.push_back(k);
        return selection;
    }
    if (selection.empty()) {
        // Switching one off from automatic keeps every other connected screen.
        for (const auto& d : chosen({}, connected)) {
            if (d.key != k) selection.push_back(d.key);
        }
        return selection;
    }
    selection.erase(std::remove(selection.begin(), selection.end(), k), selection.end());
    return selection;
}

std::string key(const DisplayInfo& display) { return display.key; }

std::string label(const DisplayInfo& display, const std::vector<DisplayInfo>& connected) {
    int sameName = static_cast<int>(std::count_if(connected.begin(), connected.end(),
                                                  [&](const DisplayInfo& d) { return d.name == display.name; }));
    if (sameName < 2) return display.name;
    return display.name + " (" + std::to_string(static_cast<long>(std::lround(display.size.width))) + "×" +
           std::to_string(static_cast<long>(std::lround(display.size.height))) + ")";
}

}  // namespace NotchDisplays

}  // namespace lumora
