#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

namespace lumora {

// How the cursor opens the panel.
enum class HoverResponse { instant, adaptive, deliberate };
// How far the approach reaches.
enum class HoverReach { precise, balanced, generous };

std::string_view rawValue(HoverResponse r);
std::optional<HoverResponse> hoverResponseFromRaw(std::string_view raw);
std::string_view rawValue(HoverReach r);
std::optional<HoverReach> hoverReachFromRaw(std::string_view raw);

struct Size {
    double width = 0, height = 0;
    bool operator==(const Size&) const = default;
};

struct Rect {
    double x = 0, y = 0, width = 0, height = 0;  // y grows downwards from the screen's top
    bool contains(double px, double py) const { return px >= x && px <= x + width && py >= y && py <= y + height; }
    bool operator==(const Rect&) const = default;
};

struct NotchGeometry {
    std::string screen;  // the display's key
    double notchWidth = 0;
    double notchHeight = 0;
    bool hasNotch = false;  // without one, a drawn pill is the target
    bool operator==(const NotchGeometry&) const = default;
};

// The shared state of one display's notch, read by the window and the views.
struct NotchState {
    enum class Phase { collapsed, primed, expanded };

    struct PeekContent {
        std::string sessionId;
        std::optional<std::string> projectName;
        std::string ask;
        bool done = false;
        HarnessProvider provider = HarnessProvider::claudeCode;
        bool operator==(const PeekContent&) const = default;
    };

    Phase phase = Phase::collapsed;
    NotchGeometry geometry;
    double proximity = 0;  // 0 far ... 1 at the notch
    std::optional<double> chargeBeat;
    bool dotsOut = false;
    std::optional<std::string> openSubagentSession;
    std::optional<std::string> openTaskPlanSession;
    double renderScrollOffset = 0;
    bool usageStripExpanded = false;
    double spendCardHeight = 0;
    std::optional<std::vector<std::string>> frozenOrder;
    std::optional<PeekContent> peek;
};

// Hover decisions: pure functions of the cursor's measured speeds (points per
// second). Approach speed is the component of motion towards the notch: a
// sideways swipe and a cursor moving away both measure 0.
namespace Hover {

inline constexpr double kFlickSpeed = 1200;        // an approach this fast is a flick
inline constexpr double kStillSpeed = 120;         // below this a cursor counts as still
inline constexpr double kTransitPassSpeed = 560;   // the precise gate passes a cursor up to this
inline constexpr double kPrimedBeatSeconds = 0.28; // the veto window, longer than a reaction
inline constexpr double kDeliberateBeatSeconds = 0.45;

// Speed towards a notch at the top of the screen (y grows downwards).
double approachSpeed(double vx, double vy);
// Whether the panel opens on arrival without the primed beat.
bool skipsBeat(HoverResponse response, double approachSpeed);
// Deliberate opening requires a still cursor.
bool isStill(double speed);
// Whether the reach's transit gate lets a cursor in the open zone count as
// arriving (rather than passing through). `speed` is its total speed, absent
// when unknown (treated as moving).
bool passesTransitGate(HoverReach reach, std::optional<double> speed, double approachSpeed);
// The approach radius in points: how far out the cursor's proximity starts.
double approachRadius(HoverReach reach);
// The primed beat's length for a response.
double beatSeconds(HoverResponse response);

// What hangs from the bezel before the panel opens.
// `live`: a tab or a peek has content to show.
bool blobVisible(NotchState::Phase phase, bool live, bool reduceMotion);
// The hairline lip that marks where the notch is when nothing is live.
bool restingLipVisible(NotchState::Phase phase, bool live, bool peekShown);

}  // namespace Hover

namespace Layout {

inline constexpr double kAimSlack = 4;        // points under the notch's bottom edge that still count
inline constexpr double kTabHangHeight = 22;  // the status tab's height below the notch

// The rectangle in which the cursor opens the panel: the notch (or, without
// one, the drawn pill) and a small aim slack under it, widened with the tab.
Rect openZone(double centerX, double top, Size notch, bool notchActive, HoverReach reach, bool tabShown,
              double tabWidth);

}  // namespace Layout

// One connected display, for choosing where notches go.
struct DisplayInfo {
    std::string key;  // stable identifier (a UUID where the platform has one)
    std::string name;
    bool hasNotch = false;
    bool isMain = false;
    bool isBuiltIn = false;
    Size size;
    bool operator==(const DisplayInfo&) const = default;
};

// Which displays carry a notch window. The selection is a list of display
// keys; empty means automatic.
namespace NotchDisplays {

// The notched display, else the main one, else the first; nothing without displays.
std::optional<DisplayInfo> automatic(const std::vector<DisplayInfo>& connected);
// The displays a selection picks, in connected order; a selection that
// matches nothing attached falls back to automatic.
std::vector<DisplayInfo> chosen(const std::vector<std::string>& selection, const std::vector<DisplayInfo>& connected);
// The selection after the user switches `key` on or off.
std::vector<std::string> updated(std::vector<std::string> selection, const std::string& key, bool enabled,
                                 const std::vector<DisplayInfo>& connected);
std::string key(const DisplayInfo& display);
// The display's name, with its size when another connected display shares the name.
std::string label(const DisplayInfo& display, const std::vector<DisplayInfo>& connected);

}  // namespace NotchDisplays

}  // namespace lumora
