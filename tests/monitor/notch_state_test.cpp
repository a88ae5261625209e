#include <gtest/gtest.h>

#include "lumora/monitor/notch_state.hpp"

using namespace lumora;
using namespace lumora::Hover;
using Phase = NotchState::Phase;

TEST(Hover, ResponsesDecideTheBeat) {
    EXPECT_TRUE(skipsBeat(HoverResponse::instant, 0));
    EXPECT_TRUE(skipsBeat(HoverResponse::adaptive, approachSpeed(300, -2500)));   // a diagonal flick
    EXPECT_FALSE(skipsBeat(HoverResponse::adaptive, approachSpeed(2500, 0)));     // a sideways swipe
    EXPECT_FALSE(skipsBeat(HoverResponse::adaptive, approachSpeed(0, 2500)));     // moving away
    EXPECT_FALSE(skipsBeat(HoverResponse::adaptive, approachSpeed(0, -300)));     // a slow approach
    EXPECT_FALSE(skipsBeat(HoverResponse::deliberate, approachSpeed(0, -2500)));
    EXPECT_TRUE(isStill(0));
    EXPECT_TRUE(isStill(50));
    EXPECT_FALSE(isStill(200));
    EXPECT_FALSE(isStill(2500));
    EXPECT_LE(beatSeconds(HoverResponse::adaptive), beatSeconds(HoverResponse::deliberate));
    EXPECT_GT(beatSeconds(HoverResponse::adaptive), 0.2);  // outlasts a human reaction
}

TEST(Hover, PreciseReachIgnoresACursorPassingThrough) {
    for (double s : {0.0, 200.0, 350.0, 500.0}) EXPECT_TRUE(passesTransitGate(HoverReach::precise, s, 0)) << s;
    for (double s : {650.0, 900.0, 2000.0}) EXPECT_FALSE(passesTransitGate(HoverReach::precise, s, 0)) << s;
    EXPECT_TRUE(passesTransitGate(HoverReach::precise, 2500, approachSpeed(0, -2500)));  // a flick at the notch
    EXPECT_FALSE(passesTransitGate(HoverReach::precise, 2500, approachSpeed(2500, 0)));  // a sweep cannot fake it
    EXPECT_FALSE(passesTransitGate(HoverReach::precise, std::nullopt, 0));
    EXPECT_TRUE(passesTransitGate(HoverReach::generous, 2000, 0));
    EXPECT_LT(approachRadius(HoverReach::precise), approachRadius(HoverReach::balanced));
    EXPECT_LT(approachRadius(HoverReach::balanced), approachRadius(HoverReach::generous));
    EXPECT_LT(approachRadius(HoverReach::generous), 490);
}

TEST(Hover, WhatHangsFromTheBezel) {
    // Nothing live and Reduce Motion: collapsed and primed draw only the lip.
    EXPECT_FALSE(blobVisible(Phase::collapsed, false, true));
    EXPECT_FALSE(blobVisible(Phase::primed, false, true));
    EXPECT_TRUE(restingLipVisible(Phase::collapsed, false, false));
    EXPECT_TRUE(restingLipVisible(Phase::primed, false, false));
    EXPECT_TRUE(blobVisible(Phase::primed, false, false));  // with motion the swell is the reaction
    EXPECT_TRUE(blobVisible(Phase::collapsed, true, true));  // real content always shows
    EXPECT_FALSE(restingLipVisible(Phase::collapsed, true, false));  // a live tab replaces the lip
    EXPECT_FALSE(restingLipVisible(Phase::collapsed, false, true));  // so does a peek
    EXPECT_FALSE(restingLipVisible(Phase::expanded, false, false));
}

TEST(Layout, OpenZoneCoversTheNotchAndASmallSlack) {
    Size notch{200, 32};
    auto zone = Layout::openZone(1000, 0, notch, true, HoverReach::balanced, false, 0);
    EXPECT_TRUE(zone.contains(1000, 32 + 2.5));
    EXPECT_FALSE(zone.contains(1000, 32 + 6.5));
    EXPECT_TRUE(zone.contains(1000 - 99, 10));
    EXPECT_FALSE(zone.contains(1000 - 104, 10));
    EXPECT_FALSE(zone.contains(1000 - 140, 10));
    EXPECT_TRUE(zone.contains(1000, 0));  // pinned to the screen's top edge
    // With the tab shown, the drawn tab about 50 pt below the top opens too, and a wide tab widens the zone.
    auto tabbed = Layout::openZone(1000, 0, notch, true, HoverReach::balanced, true, 230);
    EXPECT_TRUE(tabbed.contains(1000, 50));
    EXPECT_TRUE(tabbed.contains(1000 - 114, 10));
    EXPECT_FALSE(tabbed.contains(1000 - 140, 10));
    // A notchless pill: 1 pt below is inside, 6 pt below is past it.
    auto pill = Layout::openZone(800, 0, Size{120, 24}, true, HoverReach::generous, false, 0);
    EXPECT_TRUE(pill.contains(800, 25));
    EXPECT_FALSE(pill.contains(800, 30));
    EXPECT_FALSE(pill.contains(800 - 100, 5));  // the old wings beside the pill no longer open
    EXPECT_EQ(Layout::openZone(800, 0, Size{120, 24}, false, HoverReach::generous, false, 0), Rect{});
}

TEST(NotchDisplays, AutomaticChoiceAndSelections) {
    DisplayInfo builtIn{"uuid-a", "Built-in", true, false, true, {1512, 982}};
    DisplayInfo left{"uuid-b", "Studio", false, true, false, {2560, 1440}};
    DisplayInfo right{"uuid-c", "Studio", false, false, false, {5120, 2880}};
    std::vector<DisplayInfo> all{builtIn, left, right};
    EXPECT_EQ(NotchDisplays::automatic(all)->key, "uuid-a");
    EXPECT_EQ(NotchDisplays::automatic({left, right})->key, "uuid-b");  // main when nothing has a notch
    EXPECT_FALSE(NotchDisplays::automatic({}));

    EXPECT_EQ(NotchDisplays::chosen({}, all).size(), 1u);
    EXPECT_EQ(NotchDisplays::chosen({"uuid-c"}, all).front().key, "uuid-c");
    auto two = NotchDisplays::chosen({"uuid-c", "uuid-a"}, all);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0].key, "uuid-a");  // connected order
    EXPECT_EQ(NotchDisplays::chosen({"gone"}, all).front().key, "uuid-a");

    auto sel = NotchDisplays::updated({}, "uuid-b", true, all);
    EXPECT_EQ(sel, (std::vector<std::string>{"uuid-a", "uuid-b"}));  // the automatic one stays
    EXPECT_EQ(NotchDisplays::updated(sel, "uuid-b", true, all), sel);  // no duplicates
    EXPECT_EQ(NotchDisplays::updated(sel, "uuid-a", false, all), (std::vector<std::string>{"uuid-b"}));
    // An unplugged screen's key survives a toggle of another.
    auto unplugged = NotchDisplays::updated({"uuid-z", "uuid-a"}, "uuid-b", true, all);
    EXPECT_EQ(unplugged, (std::vector<std::string>{"uuid-z", "uuid-a", "uuid-b"}));

    // Only same-named displays are twins, labelled by size.
    EXPECT_EQ(NotchDisplays::label(builtIn, all), "Built-in");
    EXPECT_EQ(NotchDisplays::label(left, all), "Studio (2560×1440)");
    EXPECT_EQ(NotchDisplays::label(right, all), "Studio (5120×2880)");
}
