#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <fstream>

#include <thread>

#include "lumora/platform/applications.hpp"
#include "lumora/platform/linux/applications_linux.hpp"
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

// Polls the real table until `pred` holds for the process, for up to 4 s.
template <typename Pred>
std::optional<ProcessInfo> waitFor(int32_t pid, Pred pred, const SnapshotOptions& options = {}) {
    std::optional<ProcessInfo> last;
    for (int i = 0; i < 200; ++i) {
        auto snap = ProcessTable::system().snapshot(options);
        const ProcessInfo* p = snap.find(pid);
        last = p ? std::optional(*p) : std::nullopt;
        if (p && pred(*p)) break;
        std::this_thread::sleep_for(20ms);
    }
    return last;
}

TEST(ProcessTable, ExecsAndOrphaningAreSeenOnProcessesAlreadyKnown) {
    TempDir dir;
    auto program = sleeperNamed(dir / "bin", "claude");
    // A launcher script that replaces itself with the agent keeps its pid and
    // start; it execs after its first second, when it is long known.
    ChildProcess wrapper("/bin/bash", {"bash", "-c", "sleep 1.3; exec -a claude '" +
                                                         program.string() + "' 30"},
                         dir.path());
    // Follow nothing: all that is known of these comes from the cheap checks.
    SnapshotOptions none;
    none.wantsDetails = [](const ProcessInfo&) { return false; };
    auto first = ProcessTable::system().snapshot(none);
    ASSERT_NE(first.find(wrapper.pid()), nullptr);
    EXPECT_EQ(first.find(wrapper.pid())->command, "bash");
    auto after = waitFor(wrapper.pid(), [](const ProcessInfo& p) { return p.command == "claude"; }, none);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->command, "claude");
    EXPECT_EQ(after->arguments, std::vector<std::string>{"30"});
    EXPECT_EQ(after->startTicks, first.find(wrapper.pid())->startTicks);

    // A process whose parent ends is handed to another (here, to us): its
    // parent is read again though nothing else about it changed.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    auto pidFile = dir / "orphan.pid";
    ChildProcess parent("/bin/bash", {"bash", "-c", "sleep 30 & echo $! > '" + pidFile.string() + "'; wait"},
                        dir.path());
    int32_t orphan = 0;
    for (int i = 0; i < 200 && orphan == 0; ++i) {
        std::this_thread::sleep_for(10ms);
        std::ifstream(pidFile) >> orphan;
    }
    ASSERT_GT(orphan, 0);
    std::this_thread::sleep_for(1100ms);  // known and settled
    auto before = waitFor(orphan, [&](const ProcessInfo& p) { return p.ppid == parent.pid(); }, none);
    ASSERT_TRUE(before);
    EXPECT_EQ(before->ppid, parent.pid());
    ::kill(parent.pid(), SIGKILL);
    ::waitpid(parent.pid(), nullptr, 0);
    auto adopted = waitFor(orphan, [](const ProcessInfo& p) { return p.ppid == ::getpid(); }, none);
    ::kill(orphan, SIGKILL);
    ::waitpid(orphan, nullptr, 0);
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    ASSERT_TRUE(adopted);
    EXPECT_EQ(adopted->ppid, ::getpid());
}

TEST(ProcessTable, FollowedProcessesAreReadAfreshTheOthersFromWhatIsKnown) {
    TempDir dir;
    auto script = dir / "spin";
    writeFile(script, "while :; do :; done\n");
    ChildProcess busy("/bin/sh", {"spinner", script.string()}, dir.path());
    ChildProcess idle("/bin/sh", {"idler", sleepScript(dir / "idle.sh").string()}, dir.path());
    SnapshotOptions onlyBusy;
    onlyBusy.wantsDetails = [&](const ProcessInfo& p) { return p.pid == busy.pid(); };
    auto& table = ProcessTable::system();
    auto snap = table.snapshot(onlyBusy);
    ASSERT_NE(snap.find(idle.pid()), nullptr);
    EXPECT_EQ(snap.find(idle.pid())->command, "idler");
    EXPECT_FALSE(snap.find(idle.pid())->cwd);
    EXPECT_FALSE(snap.find(idle.pid())->executable);
    auto first = *snap.find(busy.pid());
    EXPECT_EQ(first.cwd, dir.path().string());
    EXPECT_EQ(first.executable, fs::canonical("/bin/sh").string());
    // However busy the machine, a spinning process gathers processor time,
    // also once it is past its first second and known.
    std::this_thread::sleep_for(1100ms);
    first = *table.snapshot(onlyBusy).find(busy.pid());
    auto second = waitFor(busy.pid(), [&](const ProcessInfo& p) { return p.cpuSeconds >= first.cpuSeconds + 0.05; },
                          onlyBusy);
    ASSERT_TRUE(second);
    EXPECT_GE(second->cpuSeconds, first.cpuSeconds + 0.05);
    EXPECT_EQ(second->startTicks, first.startTicks);
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
