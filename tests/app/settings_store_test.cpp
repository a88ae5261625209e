#include <gtest/gtest.h>

#include "lumora/app/settings_store.hpp"
#include "support/test_support.hpp"

using namespace lumora;

TEST(SettingsStore, FreshInstallDefaults) {
    test::TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    SettingsStore s(defaults);
    EXPECT_EQ(s.tabStyle(), TabStyle::black);
    EXPECT_EQ(s.panelMaterial(), PanelMaterial::smoked);
    EXPECT_EQ(s.visibleRowLimit(), 8);
    EXPECT_EQ(s.idleTimeoutMinutes(), 30);
    EXPECT_TRUE(s.soundEnabled());
    EXPECT_EQ(s.doneSoundName(), "Ping");
    EXPECT_EQ(s.attentionSoundName(), "Sosumi");
    EXPECT_FALSE(s.cloudTasksEnabled());
    EXPECT_FALSE(s.hasCompletedOnboarding());
    EXPECT_EQ(s.tabMarks(), kDefaultTabMarks);
    EXPECT_TRUE(s.notchDisplays().empty());
}

TEST(SettingsStore, FallbacksForUnusableStoredValues) {
    test::TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    SettingsStore s(defaults);
    defaults.setInteger("idleTimeoutMinutes", 0);
    EXPECT_EQ(s.idleTimeoutMinutes(), 30);
    defaults.setInteger("idleTimeoutMinutes", -4);
    EXPECT_EQ(s.idleTimeoutMinutes(), 30);
    defaults.setInteger("idleTimeoutMinutes", 45);
    EXPECT_EQ(s.idleTimeoutMinutes(), 45);
    for (long long v : {7, -2}) {
        defaults.setInteger("visibleRowLimit", v);
        EXPECT_EQ(s.visibleRowLimit(), 8);
    }
    defaults.setString("tabStyle", "neon");  // retired
    EXPECT_EQ(s.tabStyle(), TabStyle::black);
    defaults.setString("panelMaterial", "garbage");
    EXPECT_EQ(s.panelMaterial(), PanelMaterial::smoked);
    defaults.setString("tabMarks", "garbage");
    EXPECT_EQ(s.tabMarks(), kDefaultTabMarks);
    // A stored off is the user's choice.
    defaults.setBool("soundEnabled", false);
    EXPECT_FALSE(s.soundEnabled());
}

TEST(SettingsStore, ChangesRoundTripAndReachTheListener) {
    test::TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    SettingsStore s(defaults);
    std::vector<std::string> changed;
    s.setListener([&](const std::string& key) { changed.push_back(key); });
    s.setIdleAgentPolicy(IdleAgentPolicy::hide);
    s.setTabMarks(TabMarks::harness);
    s.setHoverResponse(HoverResponse::deliberate);
    s.setHoverReach(HoverReach::precise);
    s.setPanelMaterial(PanelMaterial::paper);
    s.setVisibleRowLimit(6);
    s.setBool(SettingsStore::kHooksEnabled, true);
    // A second store over the same file (a later launch) reads every choice back.
    DefaultsStore again(dir / "defaults.json");
    SettingsStore t(again);
    EXPECT_EQ(t.idleAgentPolicy(), IdleAgentPolicy::hide);
    EXPECT_EQ(t.tabMarks(), TabMarks::harness);
    EXPECT_EQ(t.hoverResponse(), HoverResponse::deliberate);
    EXPECT_EQ(t.hoverReach(), HoverReach::precise);
    EXPECT_EQ(t.panelMaterial(), PanelMaterial::paper);
    EXPECT_EQ(t.visibleRowLimit(), 6);
    EXPECT_TRUE(t.hooksEnabled());
    EXPECT_EQ(changed.size(), 7u);
    EXPECT_EQ(changed.back(), "hooksEnabled");
    EXPECT_EQ(*again.string("tabMarks"), "harness");  // enumerations are stored as raw values
}

TEST(SettingsStore, LegacyDisplayMigratesOnce) {
    test::TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    SettingsStore s(defaults);
    std::vector<DisplayInfo> connected = {{"uuid-a", "Built-in", true, true, true, {1512, 982}},
                                          {"uuid-b", "Studio", false, false, false, {2560, 1440}}};
    defaults.setString("preferredDisplay", "Studio");
    s.migrateLegacyDisplay(connected);
    EXPECT_EQ(s.notchDisplays(), (std::vector<std::string>{"uuid-b"}));
    s.setDisplayEnabled("uuid-b", false, connected);
    EXPECT_FALSE(defaults.contains("preferredDisplay"));
    defaults.setString("preferredDisplay", "Studio");
    s.migrateLegacyDisplay(connected);  // never runs twice
    EXPECT_TRUE(s.notchDisplays().empty());
}

TEST(SettingsStore, ChangesMadeByAnotherProcessReachTheListener) {
    test::TempDir dir;
    DefaultsStore ours(dir / "defaults.json"), theirs(dir / "defaults.json");  // two processes, one file
    SettingsStore s(ours);
    std::vector<std::string> heard;
    s.setListener([&](const std::string& key) { heard.push_back(key); });
    s.reloadIfChanged();  // the baseline
    s.setBool(SettingsStore::kSoundEnabled, false);  // our own change is heard once, at once
    s.reloadIfChanged();
    EXPECT_EQ(heard, std::vector<std::string>{SettingsStore::kSoundEnabled});
    heard.clear();
    theirs.setBool(SettingsStore::kHooksEnabled, true);
    theirs.setString("approvalRules.v1", "not a setting");
    s.reloadIfChanged();
    EXPECT_EQ(heard, std::vector<std::string>{SettingsStore::kHooksEnabled});
    EXPECT_TRUE(s.hooksEnabled());
    s.reloadIfChanged();  // nothing new
    EXPECT_EQ(heard.size(), 1u);
    test::writeFile(dir / "defaults.json", "{\"hooksEnabled\": false, \"soundEnabled\": false}\n");  // by hand
    s.reloadIfChanged();
    EXPECT_EQ(heard, (std::vector<std::string>{SettingsStore::kHooksEnabled, SettingsStore::kHooksEnabled}));
}
