// The hook bridge over its real socket, against what a long-running app
// meets: bursts of clients, idle and trickling ones, a rules file another
// process holds locked, a second instance, bad state files, prompts no view
// shows, and forged log lines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "hooks/bridge_view.hpp"
#include "hooks/socket_client.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/hook_client.hpp"
#include "lumora/hooks/hook_protocol.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using scrivet::HarnessProvider;

namespace {

const std::string kPassthrough = "{\"v\":1,\"behavior\":\"passthrough\"}\n";
const std::string kAllow = "{\"v\":1,\"behavior\":\"allow\"}\n";

std::string marker(const std::string& sid) { return Json{{"session_id", sid}, {"kind", "idle"}}.dump(); }

std::string gate(const std::string& sid, const std::string& command, const std::string& source = "claude") {
    return Json{{"source", source}, {"session_id", sid}, {"action", "gate"}, {"tool_name", "Bash"}, {"detail", command}}
               .dump() +
           "\n";
}

// Connects the way the hook programs did before they retried: without
// waiting, so a full listen queue fails at once (EAGAIN).
int connectOnce(const std::filesystem::path& socket) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

class HookBridgeLimits : public ::testing::Test {
protected:
    void makeBridge(HookBridgeOptions options = {}) {
        bridge.reset();
        options.traceFile = dir / "trace.log";
        bridge = std::make_unique<HookBridge>(socket, support, rules, options);
    }

    TempDir dir;
    DefaultsStore defaults{dir / "defaults.json"};
    ApprovalRulesStore rules{defaults};
    std::filesystem::path support = dir / "support";
    std::filesystem::path socket = support / "notch.sock";
    std::unique_ptr<HookBridge> bridge;
};

}  // namespace

TEST_F(HookBridgeLimits, ABurstOfClientsLosesNothing) {
    makeBridge();
    ASSERT_TRUE(bridge->start().ok);
    // 50 clients at once, 6 lines each, each on a connection of its own that
    // fails rather than waits when the listen queue is full.
    constexpr int kClients = 50, kLines = 6;
    std::atomic<int> refused{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            for (int i = 0; i < kLines; ++i) {
                int fd = connectOnce(socket);
                if (fd < 0) {
                    ++refused;
                    continue;
                }
                std::string line =
                    Json{{"session_id", "b-" + std::to_string(c) + "-" + std::to_string(i)}, {"action", "busy"}}.dump() + "\n";
                (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
                ::close(fd);
            }
        });
    }
    for (auto& t : clients) t.join();
    EXPECT_EQ(refused.load(), 0);
    EXPECT_TRUE(eventually([&] { return snap(*bridge).claudeBusy.size() == kClients * kLines; }));
}

TEST_F(HookBridgeLimits, IdleAndTricklingClientsNeverLockHooksOut) {
    HookBridgeOptions options;
    options.server.maxConnections = 8;
    options.server.lineTimeout = 10s;
    makeBridge(options);
    ASSERT_TRUE(bridge->start().ok);

    // Every slot taken by a client that sends nothing: a hook still gets in at once.
    std::vector<std::unique_ptr<SocketClient>> idle;
    for (int i = 0; i < 8; ++i) idle.push_back(std::make_unique<SocketClient>(socket));
    ASSERT_TRUE(eventually([&] { return bridge->connectionCount() == 8; }));
    ASSERT_TRUE(sendLine(socket, marker("fresh")));
    EXPECT_TRUE(eventually([&] { return markerOf(*bridge, "fresh").has_value(); }, 1s));

    // A line must end within the time-out of its connection's start, however
    // slowly its bytes keep coming.
    options.server.lineTimeout = 400ms;
    bridge->stop();
    idle.clear();
    makeBridge(options);
    ASSERT_TRUE(bridge->start().ok);
    SocketClient trickle(socket);
    auto started = std::chrono::steady_clock::now();
    bool closed = false;
    while (!closed && std::chrono::steady_clock::now() - started < 5s) {
        closed = !trickle.send("{") || !trickle.staysSilent(100ms);
    }
    EXPECT_TRUE(closed);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1500ms);
}

TEST_F(HookBridgeLimits, RulesBehindALockedFileNeverStallTheSocket) {
    HookBridgeOptions options;
    options.state.ruleCheckTimeout = 300ms;
    makeBridge(options);
    rules.addAlwaysRule(HarnessProvider::claudeCode, "Bash", "git");
    rules.flush();
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);

    // Another process (`lumora --approvals-remove`) holds the defaults' file
    // lock, and the rules need to write: a malformed rule appeared on disk.
    int lock = ::open((dir / "defaults.json.lock").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    auto stored = Json::parse(readFile(dir / "defaults.json"));
    stored["approvalRules.v1"].push_back({{"id", "x"}, {"toolName", "Bash"}, {"head", "persist the disk"},
                                          {"createdAt", "2026-01-01T00:00:00.000Z"}});
    writeFile(dir / "defaults.json", stored.dump());

    SocketClient gated(socket);
    gated.send(gate("s1", "git status"));
    // Other hooks are served at once while the rules wait for the file.
    ASSERT_TRUE(sendLine(socket, marker("meanwhile")));
    EXPECT_TRUE(eventually([&] { return markerOf(*bridge, "meanwhile").has_value(); }, 1s));
    // The rules answer from memory: the gate is allowed while the file is still locked.
    EXPECT_EQ(gated.readUntilClosed(2s), kAllow);

    ::flock(lock, LOCK_UN);
    ::close(lock);
}

TEST_F(HookBridgeLimits, APromptNoViewShowsGoesBackToItsAgent) {
    HookBridgeOptions options;
    options.state.showGrace = 300ms;
    makeBridge(options);
    std::atomic<uint64_t> onScreen{0};
    bridge->setCanShow([&](HarnessProvider provider, const std::string&, uint64_t gateId) {
        return provider == HarnessProvider::claudeCode && gateId == onScreen.load();
    });
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);

    // No row shows this Codex prompt: the hook hears "passthrough" and the
    // agent asks in its own prompt; the session still reads as needing the user.
    SocketClient codex(socket);
    codex.send(gate("cx", "cargo test", "codex"));
    EXPECT_EQ(codex.readUntilClosed(3s), kPassthrough);
    EXPECT_FALSE(heldGate(*bridge, "cx"));
    EXPECT_TRUE(markerOf(*bridge, "cx", HarnessProvider::codex));

    // A row that shows the prompt within the grace keeps it held.
    SocketClient claude(socket);
    claude.send(gate("s1", "npm test"));
    ASSERT_TRUE(eventually([&] { return heldGate(*bridge, "s1").has_value(); }));
    onScreen = *heldGate(*bridge, "s1");
    bridge->rowsChanged();
    ASSERT_TRUE(eventually([&] { return snap(*bridge).gate("s1") && snap(*bridge).gate("s1")->shown; }));
    EXPECT_TRUE(claude.staysSilent(600ms));
    EXPECT_FALSE(bridge->resolve("s1", onScreen + 1, true));  // not the prompt shown
    EXPECT_TRUE(claude.staysSilent(100ms));
    EXPECT_TRUE(bridge->resolve("s1", onScreen, true));
    EXPECT_EQ(claude.readUntilClosed(), kAllow);
}

TEST_F(HookBridgeLimits, OneInstanceOwnsTheSocket) {
    makeBridge();
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);
    ASSERT_TRUE(sendLine(socket, marker("m1")));
    SocketClient held(socket);
    held.send(gate("g1", "make"));
    ASSERT_TRUE(eventually([&] { return heldGate(*bridge, "g1").has_value(); }));

    auto who = HookClient::who(socket);
    EXPECT_EQ(who.kind, HookClient::Who::Kind::lumora);
    EXPECT_EQ(who.pid, ::getpid());

    // A second instance leaves the socket alone and says who has it.
    HookBridge second(socket, dir / "other", rules);
    Status s = second.start();
    EXPECT_EQ(s.why, "Lumora is already running (pid " + std::to_string(::getpid()) + ")");
    ASSERT_TRUE(sendLine(socket, marker("m2")));
    EXPECT_TRUE(eventually([&] { return markerOf(*bridge, "m2").has_value(); }));

    // Read without serving, it reports what the running one knows.
    EXPECT_TRUE(second.readRunningState());
    auto theirs = snap(second);
    EXPECT_TRUE(theirs.marker(HarnessProvider::claudeCode, "m1"));
    ASSERT_TRUE(theirs.gate("g1"));
    EXPECT_EQ(theirs.gate("g1")->id, *heldGate(*bridge, "g1"));

    // Once the first one stops, the socket is free to take.
    bridge->stop();
    EXPECT_EQ(held.readUntilClosed(), kPassthrough);
    EXPECT_TRUE(second.start().ok);
}

TEST_F(HookBridgeLimits, ABadStateFileNeverDelaysTheSocket) {
    std::filesystem::create_directories(support);
    ::chmod(support.c_str(), 0700);
    ASSERT_EQ(::mkfifo((support / "hook-state.json").c_str(), 0600), 0);
    makeBridge();
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(bridge->start().ok);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    ASSERT_TRUE(sendLine(socket, marker("served")));
    EXPECT_TRUE(eventually([&] { return markerOf(*bridge, "served").has_value(); }));
    struct stat st{};
    ASSERT_EQ(::lstat((support / "hook-state.json.bad").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(HookBridgeLimits, ANewlineInASessionIdCannotForgeALogLine) {
    makeBridge();
    rules.addAlwaysRule(HarnessProvider::claudeCode, "Bash", "git");
    rules.flush();
    ASSERT_TRUE(bridge->start().ok);
    std::string forged = "s1\n2026-01-01T00:00:00.000Z  auto-approve tool=Bash session=s2 head=rm -rf ~";
    SocketClient c(socket);
    c.send(gate(forged, "git status"));
    EXPECT_EQ(c.readUntilClosed(), kAllow);
    ASSERT_TRUE(eventually([&] { return readFile(support / "approvals.log").find("git status") != std::string::npos; }));
    std::string log = readFile(support / "approvals.log");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_NE(log.find("session=s1\\n2026-01-01"), std::string::npos) << log;
}

TEST_F(HookBridgeLimits, StartsAndStopsWhileLinesArrive) {
    makeBridge();
    std::atomic<bool> done{false};
    std::thread client([&] {
        while (!done) sendLine(socket, marker("busy"));
    });
    std::vector<std::string> failures;
    for (int i = 0; i < 5; ++i) {
        Status started = bridge->start();
        if (!started) failures.push_back(started.why);
        bridge->stop();
    }
    done = true;
    client.join();  // before any assertion, so a failure never leaves the thread running
    EXPECT_TRUE(failures.empty()) << failures.front();
}
