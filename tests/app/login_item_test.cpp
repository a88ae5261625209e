// Launch at login: the autostart entry written and removed by
// `lumora --launch-at-login`, read back by the settings, and the clear
// refusals when its folder cannot take it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lumora/app/settings_store.hpp"
#include "lumora/platform/login_item.hpp"
#include "lumora/platform/paths.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

TEST(LaunchAtLogin, TheFlagWritesAndRemovesTheAutostartEntry) {
    TempHome home;
    fs::path entry = home / ".config/autostart/lumora.desktop";
    EXPECT_EQ(Paths::loginItemFile(), entry);
    EXPECT_FALSE(SettingsStore::shared().launchAtLogin());

    auto on = runCommand("'" + lumoraBinary().string() + "' --launch-at-login on 2>&1");
    ASSERT_EQ(on.status, 0) << on.output;
    EXPECT_EQ(on.output, "Launch at login: on (" + entry.string() + ")\n");
    std::string text = readFile(entry);
    EXPECT_NE(text.find("\nExec=" + fs::canonical(lumoraBinary()).string() + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nTerminal=false\n"), std::string::npos);
    EXPECT_TRUE(SettingsStore::shared().launchAtLogin());

    auto off = runCommand("'" + lumoraBinary().string() + "' --launch-at-login off 2>&1");
    EXPECT_EQ(off.status, 0);
    EXPECT_FALSE(fs::exists(entry));
    EXPECT_FALSE(SettingsStore::shared().launchAtLogin());
    // Off when already off is fine; anything but on or off is misuse.
    EXPECT_EQ(runCommand("'" + lumoraBinary().string() + "' --launch-at-login off").status, 0);
    EXPECT_NE(runCommand("'" + lumoraBinary().string() + "' --launch-at-login yes 2>/dev/null").status, 0);

    // A path that needs quoting is quoted the way desktop entries want it.
    EXPECT_NE(LoginItem::entryText("/opt/my apps/lumora$1").find("\nExec=\"/opt/my apps/lumora\\\\$1\"\n"),
              std::string::npos);
}

TEST(LaunchAtLogin, AnAutostartFolderThatIsAFileOrClosedIsAClearRefusal) {
    TempHome home;
    writeFile(home / ".config/autostart", "mine");
    auto refused = runCommand("'" + lumoraBinary().string() + "' --launch-at-login on 2>&1");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "Launch at login: can't write " + (home / ".config/autostart/lumora.desktop").string() +
                                  ": " + (home / ".config/autostart").string() + " is not a folder\n");
    EXPECT_EQ(readFile(home / ".config/autostart"), "mine");

    fs::remove(home / ".config/autostart");
    fs::create_directories(home / ".config/autostart");
    writeFile(home / ".config/autostart/other.desktop", "[Desktop Entry]\n");
    ::chmod((home / ".config/autostart").c_str(), 0555);
    // Root is not bound by modes: the attempt runs as an unprivileged user.
    int code = inChildAsOtherUser([] { return LoginItem::enable("/usr/bin/lumora") ? 0 : 1; });
    EXPECT_EQ(code, 0) << "an unwritable folder must be refused";
    ::chmod((home / ".config/autostart").c_str(), 0755);
    EXPECT_FALSE(fs::exists(home / ".config/autostart/lumora.desktop"));
    std::vector<fs::path> left;
    for (const auto& e : fs::directory_iterator(home / ".config/autostart")) left.push_back(e.path().filename());
    EXPECT_EQ(left, std::vector<fs::path>{"other.desktop"});
}
