// One service, many faces, for real: `lumora --no-ui` serving a live Claude
// Code session, terminal views in tmux attached to it, the real hook program
// held on a prompt, `--watch` and `--status-line` reading the service, and
// the service killed under its views.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <fstream>

#include "hooks/socket_client.hpp"
#include "lumora/hooks/front_connection.hpp"
#include "lumora/hooks/front_socket_server.hpp"
#include "lumora/hooks/hook_client.hpp"
#include "ui/claude_session.hpp"
#include "ui/tmux.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

// `lumora --no-ui` for the App's home, until killed.
std::unique_ptr<ChildProcess> startService(const App& app) {
    auto service = std::make_unique<ChildProcess>(
        lumoraBinary(), std::vector<std::string>{lumoraBinary().string(), "--no-ui"}, app.home.path(),
        std::map<std::string, std::string>{{"HOME", app.home.path().string()},
                                           {"XDG_CONFIG_HOME", (app.home / ".config").string()},
                                           {"XDG_DATA_HOME", (app.home / ".local/share").string()},
                                           {"LUMORA_SOCKET", app.socket.string()}});
    EXPECT_TRUE(eventually([&] { return HookClient::who(app.socket).pid == service->pid(); }, 20s));
    EXPECT_TRUE(eventually([&] { return fs::exists(FrontSocketServer::pathBeside(app.socket)); }));
    return service;
}

// The held gate's connection, as a hook program holds it: every byte the service sends until it closes.
std::string gateAnswer(const App& app, const std::function<void()>& whileHeld) {
    SocketClient hook(app.socket);
    EXPECT_TRUE(hook.connected());
    hook.send(R"({"v":1,"source":"claude","session_id":")" + kSession +
              R"(","action":"gate","tool_name":"Bash","detail":"npm test"})" "\n");
    whileHeld();
    return hook.readUntilClosed(20s).value_or("(no answer)");
}

}  // namespace

TEST(AttachedView, AViewAttachedToTheServiceAnswersItsPromptAndTakesOverWhenItDies) {
    App app;
    auto service = startService(app);
    std::string watchOut = (app.home / "watch.jsonl").string();
    auto watch = std::make_unique<ChildProcess>(
        "/bin/sh", std::vector<std::string>{"sh", "-c", "exec " + app.env + lumoraBinary().string() + " --watch > " + watchOut},
        app.home.path());

    Tmux tmux(100, 30, app.env + lumoraBinary().string());
    tmux.waitFor("webshop");
    // Attached, not serving: the hook socket is still the service's.
    EXPECT_EQ(HookClient::who(app.socket).pid, service->pid());

    // The real hook program, held: the attached view shows it, `a` answers it.
    auto held = app.permission("npm test");
    tmux.selectRowShowing("[a] Approve");
    tmux.keys("a");
    EXPECT_EQ(behaviorOf(held), "allow");
    tmux.waitForGone("[a] Approve");

    // --watch printed the state at once and follows its changes within a second.
    auto watchLines = [&] {
        std::ifstream in(watchOut);
        std::vector<Json> lines;
        for (std::string l; std::getline(in, l);) lines.push_back(Json::parse(l, nullptr, false));
        return lines;
    };
    ASSERT_TRUE(eventually([&] { return !watchLines().empty(); }));
    auto first = watchLines().front();
    EXPECT_EQ(first["v"], 1);
    ASSERT_TRUE(first["sessions"].is_array());
    EXPECT_TRUE(first.contains("usage"));
    EXPECT_TRUE(first.contains("spend"));
    auto statusInWatch = [&] {
        auto lines = watchLines();
        if (lines.empty() || !lines.back()["sessions"].is_array()) return std::string();
        for (const auto& s : lines.back()["sessions"])
            if (s["id"] == kSession) return s["status"].get<std::string>();
        return std::string();
    };
    SocketClient marker(app.socket);
    auto asked = std::chrono::steady_clock::now();
    marker.send(R"({"v":1,"source":"claude","session_id":")" + kSession +
                R"(","action":"marker","kind":"question","tool_name":"AskUserQuestion","detail":"Which database?"})" "\n");
    ASSERT_TRUE(eventually([&] { return statusInWatch() == "attention"; }));
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 1s) << "the status change reached --watch late";
    marker.send(R"({"v":1,"source":"claude","session_id":")" + kSession + R"(","action":"clear"})" "\n");

    // The service dies: the view says so and becomes the service.
    ::kill(service->pid(), SIGKILL);
    tmux.waitFor("this view is the service now");
    ASSERT_TRUE(eventually([&] {
        auto who = HookClient::who(app.socket);
        return who.kind == HookClient::Who::Kind::lumora && who.pid != service->pid();
    }));
    auto next = app.permission("npm test");
    tmux.selectRowShowing("[a] Approve");
    tmux.keys("a");
    EXPECT_EQ(behaviorOf(next), "allow");
    // --watch follows the new service.
    size_t before = watchLines().size();
    SocketClient again(app.socket);
    again.send(R"({"v":1,"source":"claude","session_id":")" + kSession +
               R"(","action":"marker","kind":"question","tool_name":"AskUserQuestion","detail":"Which?"})" "\n");
    EXPECT_TRUE(eventually([&] { return watchLines().size() > before && statusInWatch() == "attention"; }, 20s));
    tmux.keys("q");
    tmux.waitFor("exit status 0");
}

TEST(AttachedView, TwoViewsAnsweringOnePromptGiveTheAgentOneAnswer) {
    App app;
    auto service = startService(app);
    Tmux left(100, 30, app.env + lumoraBinary().string());
    Tmux right(100, 30, app.env + lumoraBinary().string());
    left.waitFor("webshop");
    right.waitFor("webshop");
    std::string answer = gateAnswer(app, [&] {
        left.selectRowShowing("[a] Approve");
        right.selectRowShowing("[a] Approve");
        std::thread a([&] { left.keys("a"); });
        std::thread d([&] { right.keys("d"); });
        a.join();
        d.join();
    });
    EXPECT_TRUE(answer == "{\"v\":1,\"behavior\":\"allow\"}\n" || answer == "{\"v\":1,\"behavior\":\"deny\"}\n") << answer;
    // Both views see it answered.
    left.waitForGone("[a] Approve");
    right.waitForGone("[a] Approve");

    // The service killed under both views: exactly one becomes the service,
    // the other attaches to it, and a prompt still gets one answer.
    ::kill(service->pid(), SIGKILL);
    // Each view's news, read until both have told (a news line shows for a few seconds).
    std::string leftNews, rightNews;
    auto told = [](const Tmux& view, std::string& news) {
        if (!news.empty()) return true;
        std::string shown = view.screen();
        for (const char* text : {"this view is the service now", "The Lumora service restarted"})
            if (shown.find(text) != std::string::npos) news = text;
        return !news.empty();
    };
    EXPECT_TRUE(eventually([&] { return told(left, leftNews) & told(right, rightNews); }, 30s))
        << left.screen() << right.screen();
    EXPECT_NE(leftNews, rightNews) << "exactly one view becomes the service";
    ASSERT_TRUE(eventually([&] {
        auto who = HookClient::who(app.socket);
        return who.kind == HookClient::Who::Kind::lumora && who.pid != service->pid();
    }));
    left.waitForGone("[a] Approve");
    right.waitForGone("[a] Approve");
    answer = gateAnswer(app, [&] {
        left.selectRowShowing("[a] Approve");
        right.selectRowShowing("[a] Approve");
        std::thread a([&] { left.keys("a"); });
        std::thread d([&] { right.keys("d"); });
        a.join();
        d.join();
    });
    EXPECT_TRUE(answer == "{\"v\":1,\"behavior\":\"allow\"}\n" || answer == "{\"v\":1,\"behavior\":\"deny\"}\n") << answer;
    left.waitForGone("[a] Approve");
    right.waitForGone("[a] Approve");

    left.keys("q");
    right.keys("q");
    left.waitFor("exit status 0");
    right.waitFor("exit status 0");
}

TEST(AttachedView, BadFacesNeverHoldUpTheServiceAndTheStatusLineReadsIt) {
    App app;
    auto service = startService(app);
    auto faces = FrontSocketServer::pathBeside(app.socket);

    SocketClient garbage(faces), sleeper(faces), flooder(faces);
    garbage.send(std::string("\x01\xff{{{not json\n") + R"({"v":1,"action":"decide","session":"x"})" "\n");
    std::string flood;
    for (int i = 0; i < 5000; ++i)
        flood += R"({"v":1,"action":"decide","session":"nobody-)" + std::to_string(i) +
                 R"(","gate":7,"choice":"approve"})" "\n";
    std::thread floodThread([&] { flooder.send(flood); });

    // A face that shows buttons: the service holds prompts once it knows of it.
    auto face = FrontConnection::connect(faces);
    ASSERT_TRUE(face);
    ASSERT_TRUE(face->send(R"({"v":1,"action":"face","answers":true})" "\n"));
    // The newest state the face has read, and the gate it shows for the session;
    // the service's replies to its decisions.
    Json state;
    std::vector<Json> replies;
    auto heldGate = [&] {
        while (auto line = face->readLine(50ms)) {
            auto json = Json::parse(*line, nullptr, false);
            if (json.contains("sessions")) state = json;
            if (json.contains("decided")) replies.push_back(json);
        }
        for (const auto& s : state["sessions"])
            if (s["id"] == kSession && s["approval"].is_object() && s["approval"]["approvable"] == true)
                return s["approval"]["gateId"].get<uint64_t>();
        return uint64_t{0};
    };
    ASSERT_TRUE(eventually([&] { return heldGate() == 0 && state.value("answeringFaces", 0) == 1; }));
    auto decide = [&](uint64_t gate, const char* choice) {
        return R"({"v":1,"action":"decide","session":")" + kSession + R"(","gate":)" + std::to_string(gate) +
               R"(,"choice":")" + choice + "\"}\n";
    };
    uint64_t first = 0;
    std::string answer = gateAnswer(app, [&] {
        ASSERT_TRUE(eventually([&] { return (first = heldGate()) != 0; }));
        // The same decision twice: the prompt is answered once.
        face->send(decide(first, "deny") + decide(first, "deny"));
    });
    EXPECT_EQ(answer, "{\"v\":1,\"behavior\":\"deny\"}\n");
    // The face hears which of its decisions reached the agent.
    ASSERT_TRUE(eventually([&] { return heldGate() == 0 && replies.size() == 2; }));
    EXPECT_EQ(replies[0]["taken"], true);
    EXPECT_EQ(replies[1]["taken"], false);
    EXPECT_EQ(replies[1]["decided"], first);
    // A late decision for the answered prompt does not answer the next one:
    // commands are carried out in order, so the next prompt hears "deny".
    answer = gateAnswer(app, [&] {
        uint64_t second = 0;
        ASSERT_TRUE(eventually([&] { return (second = heldGate()) != 0 && second != first; }));
        face->send(decide(first, "approve") + decide(second, "deny"));
    });
    EXPECT_EQ(answer, "{\"v\":1,\"behavior\":\"deny\"}\n");
    floodThread.join();
    // The face goes, and its hold with it: with none left, prompts go straight back.
    face.reset();
    EXPECT_EQ(gateAnswer(app, [] {}), "{\"v\":1,\"behavior\":\"passthrough\"}\n");

    // The status line asks the service, alone and inside tmux's status line.
    auto direct = runCommand(app.env + lumoraBinary().string() + " --status-line --format tmux");
    EXPECT_EQ(direct.status, 0);
    EXPECT_NE(direct.output.find("#[fg=#"), std::string::npos) << direct.output;
    std::string plain = runCommand(app.env + lumoraBinary().string() + " --status-line").output;
    ASSERT_FALSE(plain.empty());
    plain.pop_back();
    EXPECT_FALSE(plain.empty());
    Tmux bar(100, 10, "sleep 300");
    bar.run("set -g status-interval 1");
    bar.run("set -g status-right " + shellQuoted("[#(" + app.env + lumoraBinary().string() + " --status-line)]"));
    // A status line is drawn for a client: a terminal attached to that tmux shows it.
    Tmux terminal(100, 10, "env -u TMUX tmux -L " + bar.socketName() + " attach -t view");
    terminal.waitFor("[" + plain + "]");
    EXPECT_EQ(HookClient::who(app.socket).pid, service->pid());
}

TEST(AttachedView, WithoutAServiceTheFacesLookForThemselvesAndJumpNextAsksTheService) {
    App app;
    std::string lumora = app.env + lumoraBinary().string();
    // --status-line scans once, serving nothing.
    auto once = runCommand(lumora + " --status-line");
    EXPECT_EQ(once.status, 0);
    // Counts per status, worst first ("?1", "!1 *2"): other tests' agents may be counted too.
    EXPECT_TRUE(once.output.size() >= 3 && once.output.back() == '\n' &&
                once.output.find_first_of("0123456789") != std::string::npos)
        << once.output;
    EXPECT_FALSE(fs::exists(app.socket));

    // --watch runs a monitor of its own, read-only: waybar's JSON at once, and it ends on SIGINT.
    std::string out = (app.home / "waybar.jsonl").string();
    ChildProcess watch("/bin/sh", {"sh", "-c", "exec " + lumora + " --watch --format waybar > " + out}, app.home.path());
    Json bar;
    ASSERT_TRUE(eventually([&] {
        std::ifstream in(out);
        std::string first;
        if (!std::getline(in, first)) return false;
        bar = Json::parse(first, nullptr, false);
        return true;
    }));
    EXPECT_TRUE(bar["text"].is_string() && bar["tooltip"].is_string()) << bar;
    EXPECT_NE(bar["tooltip"].get<std::string>().find("webshop"), std::string::npos) << bar;
    EXPECT_EQ(bar["class"], bar["alt"]);
    EXPECT_FALSE(fs::exists(app.socket));
    ::kill(watch.pid(), SIGINT);
    int status = -1;
    EXPECT_TRUE(eventually([&] { return ::waitpid(watch.pid(), &status, WNOHANG) == watch.pid(); }));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    // With a service, --jump-next takes the session that needs you from it and has it jump there.
    auto service = startService(app);
    // (Whether something else needs you now depends on other tests' agents on this machine.)
    EXPECT_EQ(runCommand(lumora + " --jump-next").status, 0);
    SocketClient marker(app.socket);
    marker.send(R"({"v":1,"source":"claude","session_id":")" + kSession +
                R"(","action":"marker","kind":"question","tool_name":"AskUserQuestion","detail":"Which database?"})" "\n");
    ASSERT_TRUE(eventually([&] { return runCommand(lumora + " --status-line").output.rfind("!", 0) == 0; }));
    auto jumped = runCommand(lumora + " --jump-next 2>&1");
    EXPECT_EQ(jumped.status, 0) << jumped.output;
    EXPECT_NE(jumped.output.find("jumped to webshop"), std::string::npos) << jumped.output;
    EXPECT_EQ(HookClient::who(app.socket).pid, service->pid());

    // Misuse: one line and a non-zero exit.
    auto misuse = runCommand(lumora + " --format waybar 2>&1");
    EXPECT_NE(misuse.status, 0);
    EXPECT_EQ(misuse.output, "lumora: --format goes with --watch or --status-line\n");
}
