#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "lumora/platform/applications.hpp"
#include "lumora/platform/process_table.hpp"
#include "monitor/child_process.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;

TEST(ProcessTable, SnapshotShowsChildrenAsTheyAre) {
    TempDir dir;
    auto before = std::chrono::system_clock::now();
    auto program = sleeperNamed(dir / "bin", "claude");
    ChildProcess child(program, {"claude", "30"}, dir.path(), {{"LUMORA_PROBE", "yes"}});
    auto& table = ProcessTable::system();
    auto snap = table.snapshot();

    const ProcessInfo* self = snap.find(::getpid());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->ppid, ::getppid());
    EXPECT_EQ(table.selfPid(), ::getpid());

    const ProcessInfo* p = snap.find(child.pid());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->command, "claude");
    EXPECT_EQ(p->arguments, std::vector<std::string>{"30"});
    EXPECT_EQ(p->name, "claude");
    EXPECT_EQ(p->ppid, ::getpid());
    EXPECT_EQ(p->cwd, dir.path().string());
    EXPECT_EQ(p->executable, program.string());
    ASSERT_TRUE(p->start);
    EXPECT_GT(p->startTicks, self->startTicks);
    // Start times count in clock ticks from boot; the wall clock made of them
    // lands within a tick or two of when we started it.
    EXPECT_GE(*p->start, before - 1s);
    EXPECT_LE(*p->start, std::chrono::system_clock::now() + 1s);

    auto env = table.environment(child.pid(), {"LUMORA_PROBE", "LUMORA_MISSING"});
    EXPECT_EQ(env, (std::map<std::string, std::string>{{"LUMORA_PROBE", "yes"}}));

    // A process that is gone is not listed, and asking about it gives nothing.
    int32_t gone = child.pid();
    child.stop();
    auto after = table.snapshot();
    EXPECT_EQ(after.find(gone), nullptr);
    EXPECT_TRUE(table.environment(gone, {"LUMORA_PROBE"}).empty());
    EXPECT_FALSE(table.launchUnit(gone));
}

TEST(ProcessTable, AWrapperThatExecsTheAgentIsSeenAsTheAgent) {
    TempDir dir;
    auto program = sleeperNamed(dir / "bin", "claude");
    // A launcher script that replaces itself with the agent keeps its pid and start.
    ChildProcess wrapper("/bin/bash", {"bash", "-c", "sleep 0.4; exec -a claude '" +
                                                         program.string() + "' 30"},
                         dir.path());
    auto& table = ProcessTable::system();
    const ProcessInfo* before = nullptr;
    auto first = table.snapshot();
    before = first.find(wrapper.pid());
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(before->command, "bash");
    std::string command;
    for (int i = 0; i < 100 && command != "claude"; ++i) {
        std::this_thread::sleep_for(20ms);
        auto snap = table.snapshot();
        if (const ProcessInfo* p = snap.find(wrapper.pid())) command = p->command;
    }
    EXPECT_EQ(command, "claude");
}

TEST(ProcessTable, ProcessorTimeAccumulates) {
    TempDir dir;
    auto script = dir / "spin";
    writeFile(script, "while :; do :; done\n");
    ChildProcess busy("/bin/sh", {"spinner", script.string()}, dir.path());
    auto& table = ProcessTable::system();
    auto first = *table.snapshot().find(busy.pid());
    // However busy the machine, a spinning process gathers processor time.
    auto second = first;
    for (int i = 0; i < 100 && second.cpuSeconds < first.cpuSeconds + 0.05; ++i) {
        std::this_thread::sleep_for(50ms);
        second = *table.snapshot().find(busy.pid());
    }
    EXPECT_GE(second.cpuSeconds, first.cpuSeconds + 0.05);
    EXPECT_EQ(second.startTicks, first.startTicks);
}

TEST(ProcessTable, FixedTableAnswersFromItsFacts) {
    FixedProcessTable table({fakeProcess(10, 1, "a"), fakeProcess(11, 10, "b")});
    table.setEnvironment(11, {{"X", "1"}, {"Y", "2"}});
    table.setLaunchUnit(10, "app-kitty-1.scope");
    auto snap = table.snapshot();
    EXPECT_EQ(snap.size(), 2u);
    EXPECT_EQ(snap.find(11)->ppid, 10);
    EXPECT_EQ(snap.find(12), nullptr);
    EXPECT_EQ(table.environment(11, {"Y", "Z"}), (std::map<std::string, std::string>{{"Y", "2"}}));
    EXPECT_EQ(table.launchUnit(10), "app-kitty-1.scope");
    EXPECT_FALSE(table.launchUnit(11));
}

TEST(Applications, LaunchUnitsDesktopFilesAndRoles) {
    using namespace Applications;
    EXPECT_EQ(forLaunchUnit("app-gnome-org.gnome.Terminal-1234.scope"), "org.gnome.Terminal");
    EXPECT_EQ(forLaunchUnit("app-org.kde.konsole-98f1.scope"), "org.kde.konsole");
    EXPECT_EQ(forLaunchUnit("app-flatpak-com.visualstudio.code-5521.scope"), "com.visualstudio.code");
    EXPECT_EQ(forLaunchUnit("app-gnome-code\\x2dinsiders-77.scope"), "code-insiders");
    EXPECT_EQ(forLaunchUnit("app-com.mitchellh.ghostty@ab12cd.service"), "com.mitchellh.ghostty");
    EXPECT_EQ(forLaunchUnit("app-gnome-kitty.desktop-3.scope"), "kitty");
    EXPECT_FALSE(forLaunchUnit("vte-spawn-2a1b.scope"));
    EXPECT_FALSE(forLaunchUnit("session-2.scope"));
    EXPECT_FALSE(forLaunchUnit("user@1000.service"));

    EXPECT_EQ(forDesktopFile("/usr/share/applications/org.gnome.Terminal.desktop"), "org.gnome.Terminal");
    EXPECT_FALSE(forDesktopFile("/usr/share/applications/readme.txt"));

    EXPECT_EQ(forExecutable("gnome-terminal-server"), "org.gnome.Terminal");
    EXPECT_EQ(forExecutable("wezterm-gui"), "org.wezfurlong.wezterm");
    EXPECT_FALSE(forExecutable("bash"));

    for (auto id : {"org.gnome.Terminal", "org.kde.konsole", "kitty", "Alacritty", "org.wezfurlong.wezterm",
                    "com.mitchellh.ghostty", "foot", "xterm", "com.gexperts.Tilix", "terminator", "dev.warp.Warp"})
        EXPECT_EQ(describe(id).role, Role::terminal) << id;
    for (auto id : {"code", "code-insiders", "cursor", "windsurf", "com.exafunction.windsurf", "dev.zed.Zed",
                    "jetbrains-idea", "jetbrains-pycharm-ce", "com.jetbrains.goland", "code_code"})
        EXPECT_EQ(describe(id).role, Role::editor) << id;
    EXPECT_EQ(describe("jetbrains-pycharm-ce").name, "PyCharm");
    EXPECT_EQ(describe("com.conductor.app"), (Description{"Conductor", Role::other}));
    EXPECT_EQ(describe("org.example.Talvik"), (Description{"Talvik", Role::other}));
}
