#include <gtest/gtest.h>

#include "lumora/monitor/host_resolver.hpp"
#include "monitor/child_process.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

ProcessInfo withTty(ProcessInfo p, std::string tty) {
    p.tty = std::move(tty);
    return p;
}

}  // namespace

TEST(HostResolver, WalksUpToTheFirstApplication) {
    FixedProcessTable table({
        fakeProcess(1, 0, "/sbin/init"),
        fakeProcess(900, 1, "/lib/systemd/systemd", {"--user"}),
        // GNOME Terminal → bash → claude
        fakeProcess(1000, 900, "/usr/libexec/gnome-terminal-server"),
        fakeProcess(1001, 1000, "bash"),
        fakeProcess(1002, 1001, "claude"),
        // VS Code's integrated terminal: code → code (pty host) → zsh → codex
        fakeProcess(2000, 900, "/usr/share/code/code"),
        fakeProcess(2001, 2000, "/usr/share/code/code", {"--type=utility"}),
        fakeProcess(2002, 2001, "/usr/bin/zsh"),
        fakeProcess(2003, 2002, "codex"),
        // A JetBrains IDE
        fakeProcess(3000, 900, "/opt/pycharm/bin/pycharm"),
        fakeProcess(3001, 3000, "/bin/bash"),
        fakeProcess(3002, 3001, "claude"),
        // An application known only by the unit it was launched in.
        fakeProcess(4000, 900, "/opt/Talvik/talvik-bin"),
        fakeProcess(4001, 4000, "/opt/Talvik/resources/claude"),
        // An application known only by its launch hint.
        fakeProcess(5000, 900, "/opt/Other/other"),
        fakeProcess(5001, 5000, "sh"),
        fakeProcess(5002, 5001, "claude"),
        // Over ssh: nothing hosts it on this screen.
        fakeProcess(6000, 1, "sshd"),
        fakeProcess(6001, 6000, "bash"),
        fakeProcess(6002, 6001, "claude"),
    });
    table.setLaunchUnit(900, "user@1000.service");
    table.setLaunchUnit(4000, "app-gnome-org.example.Talvik-4000.scope");
    table.setLaunchUnit(4001, "app-gnome-org.example.Talvik-4000.scope");
    table.setEnvironment(5000, {{"GIO_LAUNCHED_DESKTOP_FILE", "/usr/share/applications/org.example.Other.desktop"},
                                {"GIO_LAUNCHED_DESKTOP_FILE_PID", "5000"}});
    // Its children inherit the hint; they are not the application.
    table.setEnvironment(5001, {{"GIO_LAUNCHED_DESKTOP_FILE", "/usr/share/applications/org.example.Other.desktop"},
                                {"GIO_LAUNCHED_DESKTOP_FILE_PID", "5000"}});
    auto snap = table.snapshot();
    HostResolver resolver(table);

    EXPECT_EQ(resolver.resolve(1002, snap).host,
              (AgentHost{AgentHost::Kind::terminal, "GNOME Terminal", "org.gnome.Terminal"}));
    EXPECT_EQ(resolver.resolve(2003, snap).host, (AgentHost{AgentHost::Kind::ide, "Visual Studio Code", "code"}));
    EXPECT_EQ(resolver.resolve(3002, snap).host, (AgentHost{AgentHost::Kind::ide, "PyCharm", "jetbrains-pycharm"}));
    EXPECT_EQ(resolver.resolve(4001, snap).host, (AgentHost{AgentHost::Kind::app, "Talvik", "org.example.Talvik"}));
    EXPECT_EQ(resolver.resolve(5002, snap).host, (AgentHost{AgentHost::Kind::app, "Other", "org.example.Other"}));
    EXPECT_EQ(resolver.resolve(6002, snap), HostResolution{});
    EXPECT_FALSE(resolver.resolve(1002, snap).multiplexer);

    EXPECT_TRUE(resolver.isApplicationRunning("org.example.Talvik", snap));
    EXPECT_TRUE(resolver.isApplicationRunning("org.gnome.Terminal", snap));
    EXPECT_FALSE(resolver.isApplicationRunning("com.conductor.app", snap));

    // The cache follows the live pids.
    size_t cached = resolver.cachedPids();
    EXPECT_GT(cached, 0u);
    table.setProcesses({fakeProcess(1, 0, "/sbin/init")});
    resolver.evict(table.snapshot());
    EXPECT_EQ(resolver.cachedPids(), 0u);
}

TEST(HostResolver, SeesThroughMultiplexersToTheAttachedTerminal) {
    FixedProcessTable table({
        fakeProcess(1, 0, "/sbin/init"),
        // kitty → zsh → tmux client (attached, with a terminal)
        fakeProcess(100, 1, "kitty"),
        fakeProcess(101, 100, "zsh"),
        withTty(fakeProcess(102, 101, "tmux", {"attach", "-t", "work"}), "pts/1"),
        // The tmux server, detached, and a claude in one of its panes.
        fakeProcess(200, 1, "tmux", {"new-session", "-d", "-s", "work"}),
        withTty(fakeProcess(201, 200, "bash"), "pts/2"),
        withTty(fakeProcess(202, 201, "claude"), "pts/2"),
        // zellij with no client attached.
        fakeProcess(300, 1, "zellij", {"--server", "/run/user/1000/zellij/0.41/s"}),
        withTty(fakeProcess(301, 300, "bash"), "pts/3"),
        withTty(fakeProcess(302, 301, "opencode"), "pts/3"),
    });
    table.processes()[4].name = "tmux: server";
    table.processes()[3].name = "tmux: client";
    table.setEnvironment(202, {{"TMUX", "/tmp/tmux-1000/default,200,0"}, {"TMUX_PANE", "%3"}});
    table.setEnvironment(302, {{"ZELLIJ_SESSION_NAME", "s"}, {"ZELLIJ_PANE_ID", "2"}});
    auto snap = table.snapshot();
    HostResolver resolver(table);

    auto tmux = resolver.resolve(202, snap);
    EXPECT_EQ(tmux.host, (AgentHost{AgentHost::Kind::terminal, "kitty", "kitty"}));
    ASSERT_TRUE(tmux.multiplexer);
    EXPECT_EQ(tmux.multiplexer->kind, Multiplexer::Kind::tmux);
    EXPECT_EQ(tmux.multiplexer->serverPid, 200);
    EXPECT_EQ(tmux.multiplexer->pane, "%3");
    EXPECT_EQ(tmux.multiplexer->socket, "/tmp/tmux-1000/default");

    auto zellij = resolver.resolve(302, snap);
    EXPECT_FALSE(zellij.host);
    ASSERT_TRUE(zellij.multiplexer);
    EXPECT_EQ(zellij.multiplexer->kind, Multiplexer::Kind::zellij);
    EXPECT_EQ(zellij.multiplexer->session, "s");
    EXPECT_EQ(zellij.multiplexer->pane, "2");
}

TEST(HostResolver, RealTmuxServerIsRecorded) {
    if (runCommand("command -v tmux >/dev/null").status != 0) GTEST_SKIP() << "no tmux";
    TempDir dir;
    auto claude = sleeperNamed(dir / "bin", "claude");
    auto socket = dir / "tmux.sock";
    auto started = runCommand("tmux -S '" + socket.string() + "' new-session -d -s lumora-test '" + claude.string() +
                              " 30'");
    ASSERT_EQ(started.status, 0);
    std::optional<int32_t> pid;
    ProcessSnapshot snap;
    for (int i = 0; i < 200 && !pid; ++i) {
        snap = ProcessTable::system().snapshot();
        for (const auto& p : snap.processes())
            if (p.command == claude.string() || (p.executable && *p.executable == claude.string())) pid = p.pid;
        if (!pid) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    HostResolution r;
    if (pid) r = HostResolver(ProcessTable::system()).resolve(*pid, snap);
    runCommand("tmux -S '" + socket.string() + "' kill-server");
    ASSERT_TRUE(pid);
    ASSERT_TRUE(r.multiplexer);
    EXPECT_EQ(r.multiplexer->kind, Multiplexer::Kind::tmux);
    EXPECT_EQ(r.multiplexer->socket, socket.string());
    EXPECT_TRUE(r.multiplexer->pane && r.multiplexer->pane->starts_with("%"));
}
