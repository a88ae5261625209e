#include "lumora/hooks/jump_service.hpp"

#include <gtest/gtest.h>

#include "hooks/jump_support.hpp"
#include "lumora/hooks/herdr_bridge.hpp"
#include "lumora/hooks/terminal_routes.hpp"

namespace lumora {
namespace {

using namespace test;
using JumpService::Ancestor;
using JumpService::Facts;
using JumpService::HostKind;
using JumpService::Inner;
using JumpService::Remote;
using JumpService::Target;
using Session = DesktopFocus::Session;
using scrivet::HarnessProvider;

constexpr const char* kUuid7 = "019fb206-97a0-7573-a940-cb4c5cf36e91";
constexpr const char* kUuid4 = "2f1c8a4e-5d3b-4c2a-9e1f-0a1b2c3d4e5f";

bool has(const std::vector<std::string>& lines, const std::string& part) {
    for (const auto& l : lines) {
        if (l.find(part) != std::string::npos) return true;
    }
    return false;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& l : lines) out += l + "\n";
    return out;
}

TEST(JumpService, DeepLinks) {
    Target talvik{.sessionId = kUuid4, .cwd = "/Users/x/my proj/", .hostKind = HostKind::app, .hostName = "Talvik"};
    EXPECT_EQ(JumpService::deeplinkURL(talvik), std::string("talvik://chat?session=") + kUuid4 + "&cwd=/Users/x/my%20proj");
    Target fallback = talvik;
    fallback.sessionId = "/Users/x/proj#4242";
    fallback.cwd = "/Users/x/proj/";
    EXPECT_EQ(JumpService::deeplinkURL(fallback), "talvik://chat?cwd=/Users/x/proj");
    fallback.cwd.clear();
    EXPECT_EQ(JumpService::deeplinkURL(fallback), std::nullopt);  // neither: plain activation

    Target codex{.sessionId = kUuid7, .provider = HarnessProvider::codex, .activeTurn = true,
                 .hostKind = HostKind::app, .hostName = "Codex", .hostAppId = "com.openai.codex"};
    EXPECT_EQ(JumpService::deeplinkURL(codex), std::string("codex://threads/") + kUuid7);
    Target idle = codex;
    idle.activeTurn = false;  // the thread may be archived
    Target notV7 = codex;
    notV7.sessionId = kUuid4;
    Target inTerminal = codex;
    inTerminal.hostKind = HostKind::terminal;
    inTerminal.hostName = "kitty";
    Target demo = codex;
    demo.demo = true;
    for (const auto& t : {idle, notV7, inTerminal, demo}) EXPECT_EQ(JumpService::deeplinkURL(t), std::nullopt);
}

TEST(JumpService, PlanFallsDownTheLadder) {
    Target t{.sessionId = kUuid4, .pid = 500, .cwd = "/home/u/proj", .title = "proj"};
    Facts f;
    f.session = Session::x11;

    // A dead pid: a no-op with its line.
    auto dead = JumpService::plan(t, f);
    EXPECT_TRUE(dead.noOp);
    EXPECT_EQ(dead.lines, std::vector<std::string>{"NO hosting app for pid 500 — jump is a no-op (pid dead or unpaired?)"});

    // A terminal's window: its processes by pid, then the title.
    f.lineage = {{500, "claude", "claude", {}}, {400, "bash", "bash", {}},
                 {300, "gnome-terminal-server", "gnome-terminal-", "org.gnome.Terminal"}, {200, "systemd", "systemd", {}}};
    auto plain = JumpService::plan(t, f);
    ASSERT_TRUE(plain.window);
    EXPECT_EQ(plain.window->appName, "GNOME Terminal");
    EXPECT_EQ(plain.window->pids, std::vector<int32_t>{300});
    EXPECT_EQ(plain.window->childPid, 400);
    EXPECT_EQ(plain.window->titleWords, std::vector<std::string>{"proj"});
    EXPECT_TRUE(plain.inner.empty());
    EXPECT_FALSE(plain.noOp);

    // An editor's helpers and main process are all its own.
    f.lineage = {{500, "claude", "claude", {}}, {410, "bash", "bash", {}}, {420, "code", "code", "code"},
                 {430, "code", "code", "code"}};
    auto editor = JumpService::plan(t, f);
    ASSERT_TRUE(editor.window);
    EXPECT_EQ(editor.window->kind, HostKind::ide);
    EXPECT_EQ(editor.window->pids, (std::vector<int32_t>{420, 430}));

    // tmux between: its pane first; the scan's host stands in for the detached server's terminal.
    f.lineage = {{500, "claude", "claude", {}}, {400, "bash", "bash", {}}, {350, "tmux", "tmux: server", {}}};
    f.environment = {{"TMUX", "/tmp/tmux-1000/default,350,0"}};
    Target hosted = t;
    hosted.hostKind = HostKind::terminal;
    hosted.hostName = "kitty";
    hosted.hostAppId = "kitty";
    auto tmux = JumpService::plan(hosted, f);
    EXPECT_EQ(tmux.inner, std::vector<Inner>{Inner::tmux});
    ASSERT_TRUE(tmux.window);
    EXPECT_EQ(tmux.window->classWords, std::vector<std::string>{"kitty"});
    EXPECT_EQ(tmux.remote, Remote::none);  // kitty's own variables are stale behind tmux

    // kitty with remote control on, and off.
    f.lineage = {{500, "claude", "claude", {}}, {400, "zsh", "zsh", {}}, {300, "kitty", "kitty", "kitty"}};
    f.environment = {{"KITTY_LISTEN_ON", "unix:/tmp/kitty-1"}};
    EXPECT_EQ(JumpService::plan(t, f).remote, Remote::kitty);
    f.environment.clear();
    auto off = JumpService::plan(t, f);
    EXPECT_EQ(off.remote, Remote::none);
    EXPECT_TRUE(has(off.lines, "kitty remote control is off"));

    // herdr without a socket says so; with one it goes first.
    f.lineage = {{500, "claude", "claude", {}}, {450, "herdr", "herdr", {}}, {300, "kitty", "kitty", "kitty"}};
    EXPECT_TRUE(has(JumpService::plan(t, f).lines, "herdr: no server socket"));
    f.herdrSockets = {"/run/herdr.sock"};
    EXPECT_EQ(JumpService::plan(t, f).inner, std::vector<Inner>{Inner::herdr});

    // A pure Wayland session ends the ladder with its line.
    f.session = Session::wayland;
    auto wayland = JumpService::plan(t, f);
    EXPECT_FALSE(wayland.window);
    EXPECT_TRUE(has(wayland.lines, "the Wayland compositor does not allow raising kitty's window"));

    // An unhosted live Claude process falls back to the desktop app; Codex has nowhere to go.
    f = Facts{};
    f.session = Session::x11;
    f.lineage = {{500, "claude", "claude", {}}, {1, "init", "init", {}}};
    auto unhosted = JumpService::plan(t, f);
    ASSERT_TRUE(unhosted.window);
    EXPECT_EQ(unhosted.window->appName, "Claude");
    EXPECT_TRUE(has(unhosted.lines, "NO hosting app for pid 500"));
    Target codex = t;
    codex.provider = HarnessProvider::codex;
    EXPECT_TRUE(JumpService::plan(codex, f).noOp);

    // Rows without a process: Cowork goes to the desktop app, a demo row nowhere.
    Target cowork{.sessionId = "local_1", .cowork = true};
    auto desk = JumpService::plan(cowork, f);
    ASSERT_TRUE(desk.window);
    EXPECT_TRUE(desk.mayLaunch);
    Target demo = t;
    demo.demo = true;
    EXPECT_TRUE(JumpService::plan(demo, f).noOp);

    // A deep link goes first only where an application handles it.
    Target app{.sessionId = kUuid7, .provider = HarnessProvider::codex, .activeTurn = true,
               .hostKind = HostKind::app, .hostName = "Codex", .hostAppId = "codex"};
    EXPECT_FALSE(JumpService::plan(app, f).deepLink);
    EXPECT_TRUE(has(JumpService::plan(app, f).lines, "no application handles its scheme"));
    f.linkHandled = true;
    EXPECT_EQ(JumpService::plan(app, f).deepLink, std::string("codex://threads/") + kUuid7);
}

TEST(JumpService, HerdrRepliesAndPanes) {
    using namespace HerdrBridge;
    auto panes = parseProcessInfo(R"({"id":"notch","result":[{"pane_id":"a","shell_pid":10,"foreground_processes":[{"pid":11,"argv0":"vim"}]},{"pane_id":7}]})");
    ASSERT_TRUE(panes);
    ASSERT_EQ(panes->size(), 2u);
    EXPECT_EQ((*panes)[0].foregroundProcesses[0].argv0, "vim");
    EXPECT_EQ((*panes)[1].paneID, "7");
    EXPECT_EQ(parseProcessInfo(R"({"id":"notch","result":{"pane_id":"b","shell_pid":3}})")->front().paneID, "b");
    EXPECT_FALSE(parseProcessInfo(R"({"id":"notch","error":{"code":"pane_not_found"}})"));
    EXPECT_FALSE(parseProcessInfo("garbage"));
    EXPECT_FALSE(parseProcessInfo(""));

    PaneProcessInfo pane{"a", 10, {{11, "vim"}}};
    EXPECT_TRUE(holds(pane, 11, {11, 99}));      // a foreground process
    EXPECT_TRUE(holds(pane, 12, {12, 10, 1}));   // descends from the shell
    EXPECT_FALSE(holds(pane, 13, {13, 20, 1}));  // another pane's shell
    EXPECT_FALSE(holds(PaneProcessInfo{"empty", {}, {}}, 13, {13, 10}));
    EXPECT_TRUE(isHerdrProcess("/usr/bin/herdr"));
    EXPECT_TRUE(isHerdrProcess("herdrctl"));
    EXPECT_FALSE(isHerdrProcess("herdrd"));

    TempHome home;
    fs::create_directories(home / "cfg");
    writeFile(home / "cfg/herdr.sock", "a plain file");
    auto env = [&](const std::string& name) -> std::string {
        if (name == "HERDR_SOCKET_PATH") return (home / "cfg/herdr.sock").string();
        return "";
    };
    EXPECT_TRUE(socketCandidates(env, home / "none").empty());  // a plain file is no socket
}

TEST(JumpService, TmuxListings) {
    using namespace TerminalRoutes;
    auto panes = parsePanes("%1\t100\t$0\t@0\tmain\n%2\t200\t$1\t@3\tother\nbroken line\n%3\tx\t$1\t@3\t\n");
    ASSERT_EQ(panes.size(), 2u);
    EXPECT_EQ(paneHolding(panes, {300, 200, 50})->paneID, "%2");
    EXPECT_FALSE(paneHolding(panes, {300, 50}));
    auto clients = parseClients("/dev/pts/1\t900\t$0\t1700000000\n/dev/pts/2\t901\t$1\t1600000000\n");
    EXPECT_EQ(clientFor(clients, "$1")->tty, "/dev/pts/2");  // already on the session, though older
    EXPECT_EQ(clientFor(clients, "$9")->tty, "/dev/pts/1");  // else the most recent, to switch
    EXPECT_FALSE(clientFor({}, "$0"));
}

TEST(JumpService, DeadPidIsANoOp) {
    TempHome home;
    pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ::waitpid(child, nullptr, 0);
    Target t{.sessionId = kUuid4, .pid = child, .cwd = "/tmp", .title = "tmp"};
    auto r = JumpService::jump(t);
    EXPECT_FALSE(r.landed);
    EXPECT_EQ(r.lines, std::vector<std::string>{"NO hosting app for pid " + std::to_string(child) +
                                                " — jump is a no-op (pid dead or unpaired?)"});
}

TEST(JumpService, RealTmuxSelectsThePaneAndSwitchesTheClient) {
    TempHome home;
    TmuxServer inner("inner"), outer("outer");
    ASSERT_EQ(inner.run("new-session -d -s one -x 80 -y 24 'sleep 600'").status, 0);
    ASSERT_EQ(inner.run("new-window -t one 'sleep 600'").status, 0);
    ASSERT_EQ(inner.run("split-window -t one:1 \"sh -c 'sleep 601; :'\"").status, 0);
    std::string target = inner.paneId("one:1.1");
    ASSERT_EQ(inner.run("select-pane -t one:1.0").status, 0);
    ASSERT_EQ(inner.run("select-window -t one:0").status, 0);
    ASSERT_EQ(inner.run("new-session -d -s two -x 80 -y 24 'sleep 600'").status, 0);
    // A client attached to session "two", in a terminal of its own (the outer server's pane).
    ASSERT_EQ(outer.run("new-session -d -x 100 -y 30 " + quoted("tmux -L " + inner.name() + " attach -t two")).status, 0);
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (inner.run("list-clients -F '#{session_name}'").output.find("two") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(20ms);
    ASSERT_NE(inner.run("list-clients -F '#{session_name}'").output.find("two"), std::string::npos);

    // The agent is the pane shell's child: the pane's process tree holds it.
    int32_t agent = waitForChild(inner.panePid(target));
    ASSERT_GT(agent, 0);
    Target t{.sessionId = kUuid4, .pid = agent, .cwd = "/tmp", .title = "tmp"};
    auto r = JumpService::jump(t);
    EXPECT_TRUE(r.landed) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "tmux pane " + target + " (window")) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "switched to session one")) << joined(r.lines);
    EXPECT_EQ(inner.activePane("one"), target);
    EXPECT_NE(inner.run("list-clients -F '#{session_name}'").output.find("one"), std::string::npos);

    // A server that hangs: every command gives up at its time-out.
    int32_t server = inner.serverPid();
    ASSERT_GT(server, 0);
    ::kill(server, SIGSTOP);
    auto start = std::chrono::steady_clock::now();
    auto hung = JumpService::jump(t);
    auto took = std::chrono::steady_clock::now() - start;
    ::kill(server, SIGCONT);
    EXPECT_FALSE(hung.landed);
    EXPECT_TRUE(has(hung.lines, "tmux list-panes → error/empty: no answer, killed")) << joined(hung.lines);
    EXPECT_LT(took, 6s);
}

TEST(JumpService, StandInHerdrServer) {
    TempHome home;
    HostedAgent agent(home / "bin", "herdr");
    ASSERT_GT(agent.agent(), 0);
    fs::path socket = HerdrBridge::defaultConfigRoot() / "herdr.sock";
    std::string panes = R"({"id":"notch","result":[{"pane_id":"other","shell_pid":1,"foreground_processes":[]},)"
                        R"({"pane_id":"mine","shell_pid":)" + std::to_string(agent.host()) +
                        R"(,"foreground_processes":[]}]})" "\n";
    Target t{.sessionId = kUuid4, .pid = agent.agent(), .cwd = "/tmp", .title = "tmp"};
    {
        HerdrServer server(socket, [&](const std::string& request) -> std::optional<std::string> {
            if (request.find("pane.process_info") != std::string::npos) return panes;
            return std::string(R"({"id":"notch","result":{"focused":true}})") + "\n";
        });
        auto r = JumpService::jump(t);
        EXPECT_TRUE(r.landed) << joined(r.lines);
        EXPECT_TRUE(has(r.lines, "herdr pane mine focused")) << joined(r.lines);
        auto requests = server.requests();
        ASSERT_EQ(requests.size(), 2u);
        EXPECT_NE(requests[0].find(R"("id":"notch")"), std::string::npos);
        EXPECT_NE(requests[1].find(R"("pane_id":"mine")"), std::string::npos);
    }
    {
        HerdrServer garbage(socket, [](const std::string&) { return std::optional<std::string>("}{ not json\n"); });
        auto r = JumpService::jump(t);
        EXPECT_FALSE(r.landed);
        EXPECT_TRUE(has(r.lines, "error/empty: }{ not json")) << joined(r.lines);
        EXPECT_TRUE(has(r.lines, "herdr focus failed — falling through to terminal tab ladder"));
    }
    {
        HerdrServer silent(socket, [](const std::string&) { return std::nullopt; });
        auto start = std::chrono::steady_clock::now();
        auto r = JumpService::jump(t);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
        EXPECT_TRUE(has(r.lines, "no reply within")) << joined(r.lines);
        EXPECT_TRUE(has(r.lines, "herdr focus failed"));
    }
}

TEST(JumpService, WaylandWithoutXEndsWithItsLine) {
    TempHome home;
    ScopedEnv noX("DISPLAY", std::nullopt), wayland("WAYLAND_DISPLAY", "wayland-0");
    HostedAgent agent(home / "bin", "xterm");
    Target t{.sessionId = kUuid4, .pid = agent.agent(), .cwd = "/home/u/proj", .title = "proj"};
    auto r = JumpService::jump(t);
    EXPECT_FALSE(r.landed);
    EXPECT_EQ(r.lines, std::vector<std::string>{
                           "the Wayland compositor does not allow raising xterm's window from outside — the jump ends here"});
}

TEST(JumpService, DeepLinkOpensThroughXdgOpen) {
    TempHome home;
    fs::path bin = home / "bin";
    fs::create_directories(bin);
    writeFile(bin / "xdg-open", "#!/bin/sh\necho \"$1\" > \"$HOME/opened\"\n");
    fs::permissions(bin / "xdg-open", fs::perms::owner_all);
    ScopedEnv path("PATH", bin.string() + ":" + std::getenv("PATH"));
    Target t{.sessionId = kUuid7, .provider = HarnessProvider::codex, .activeTurn = true,
             .hostKind = HostKind::app, .hostName = "Codex", .hostAppId = "codex"};
    EXPECT_FALSE(DesktopFocus::system().handlesScheme("codex"));
    EXPECT_FALSE(JumpService::jump(t).landed);  // no handler: the link is skipped
    EXPECT_FALSE(fs::exists(home / "opened"));

    writeFile(home / ".local/share/applications/codex.desktop",
              "[Desktop Entry]\nName=Codex\nExec=codex %u\nMimeType=x-scheme-handler/codex;\n");
    EXPECT_TRUE(DesktopFocus::system().handlesScheme("codex"));
    EXPECT_FALSE(DesktopFocus::system().handlesScheme("talvik"));
    auto r = JumpService::jump(t);
    EXPECT_TRUE(r.landed) << joined(r.lines);
    EXPECT_EQ(readFile(home / "opened"), std::string("codex://threads/") + kUuid7 + "\n");

    // A demonstration row never opens anything.
    fs::remove(home / "opened");
    t.demo = true;
    EXPECT_FALSE(JumpService::jump(t).landed);
    EXPECT_FALSE(fs::exists(home / "opened"));
}

}  // namespace
}  // namespace lumora
