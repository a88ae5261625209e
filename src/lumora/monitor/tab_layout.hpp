#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

namespace lumora {

// One slot of the tab: a group of sessions sharing a status (and a provider
// when the tab draws provider marks).
struct TabCluster {
    AgentStatus status = AgentStatus::working;
    std::optional<HarnessProvider> provider;  // absent when the slot does not tell harnesses apart
    int count = 1;
    int index = 0;  // position in the tab, 0 first
    bool operator==(const TabCluster&) const = default;
};

// What a tab slot draws.
enum class TabMarks { dots, harness, onApproach };

inline constexpr TabMarks kDefaultTabMarks = TabMarks::onApproach;

std::string_view rawValue(TabMarks m);
// The marks option stored as `raw`; an unknown value is not an option.
std::optional<TabMarks> tabMarksFromRaw(std::string_view raw);
std::string_view label(TabMarks m);  // "Dots", "Harness", "On approach"
// Only onApproach follows the cursor.
bool followsProximity(TabMarks m);
// True when slots draw provider shapes (so a status is split by harness).
bool distinguishesHarness(TabMarks m);
// A slot's width in points. `reveal` (0...1) blooms an onApproach dot into a
// mark; `emergence` (0...1) scales a slot that is appearing.
double slotWidth(TabMarks m, double reveal, double emergence = 1.0);

inline constexpr double kDotSlotWidth = 8.0;
inline constexpr double kMarkSlotWidth = 14.0;
inline constexpr int kTabSlotCap = 4;

namespace AgentDisplay {

struct TabGrouping {
    std::vector<TabCluster> clusters;
    int hidden = 0;  // sessions that got no slot, shown as the "+N" tail
    bool operator==(const TabGrouping&) const = default;
};

// Groups sessions into at most `cap` slots, worst status first. Idle sessions
// take no slot unless every session is idle. Up to three needs-you sessions
// keep a slot each; the counts of the slots plus `hidden` always add up to
// the sessions grouped.
TabGrouping tabClusters(const std::vector<AgentInstance>& instances, bool distinguishesHarness,
                        int cap = kTabSlotCap);

}  // namespace AgentDisplay

namespace Layout {

// Width of the "+N" overflow tail; 0 when nothing is hidden.
double tabOverflowWidth(int hidden);
// The tab's content width: its slots, the spacing between them, the fixed
// ends (and the notchless pill's allowance), the overflow tail and the
// numerals of counted slots.
double tabContentWidth(int slots, double slotWidth, bool hasNotch, int overflow, const std::vector<int>& counts);
// Reveal progress (0...1) of onApproach marks for a cursor `distance` points
// from the tab: 0 at and beyond the threshold, easing in, 1 before the cursor lands.
double tabRevealProgress(double distance);
inline constexpr double kRevealStartDistance = 160.0;
inline constexpr double kRevealFullDistance = 24.0;
// The tab's drawn width as marks reveal: from its resting (dots) width to its
// revealed (marks) width, and never narrower than the notch, so it only ever
// slides out of the bezel.
double approachTabWidth(double restWidth, double revealedWidth, double notchWidth, double proximity);

}  // namespace Layout

}  // namespace lumora
