#include "lumora/hooks/hook_bridge.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <nlohmann/json.hpp>

#include "hooks/bridge_view.hpp"
#include "hooks/socket_client.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/dates.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using scrivet::HarnessProvider;

namespace {

const std::string kSid = "80d8d2c1-2509-42b4-a779-139b17caf0ef";
const std::string kAllow = "{\"v\":1,\"behavior\":\"allow\"}\n";
const std::string kDeny = "{\"v\":1,\"behavior\":\"deny\"}\n";
const std::string kPassthrough = "{\"v\":1,\"behavior\":\"passthrough\"}\n";

std::string line(Json j) { return j.dump(); }

std::string gate(const std::string& sid, const std::string& command, const std::string& source = "claude") {
    return line({{"v", 1}, {"source", source}, {"session_id", sid}, {"action", "gate"}, {"tool_name", "Bash"},
                 {"detail", command}, {"reason", "Run the tests"}, {"cwd", "/home/dev/proj.app"}});
}

std::string action(const std::string& sid, const std::string& act, const std::string& source = "claude") {
    return line({{"v", 1}, {"source", source}, {"session_id", sid}, {"action", act}});
}

class HookBridgeTest : public ::testing::Test {
protected:
    void SetUp() override { makeBridge(); }

    void makeBridge(HookBridgeOptions options = {}) {
        bridge.reset();
        options.traceFile = dir / "trace.log";
        bridge = std::make_unique<HookBridge>(socket, support, rules, options);
        bridge->setOnEvent([this] { ++events; });
    }

    std::optional<AttentionMarker> claudeMarker(const std::string& sid) const { return markerOf(*bridge, sid); }
    bool isHeld(const std::string& sid) const { return heldGate(*bridge, sid).has_value(); }

    TempDir dir;
    DefaultsStore defaults{dir / "defaults.json"};
    ApprovalRulesStore rules{defaults};
    std::filesystem::path support = dir / "support";
    std::filesystem::path socket = support / "notch.sock";
    std::atomic<int> events{0};
    std::unique_ptr<HookBridge> bridge;
};

}  // namespace

TEST_F(HookBridgeTest, HeldGateShowsMarkerUntilResolved) {
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);

    struct stat st{};
    ASSERT_EQ(::stat(socket.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat(support.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    SocketClient client(socket);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send(gate(kSid, "npm test") + "\n"));
    ASSERT_TRUE(eventually([&] { return isHeld(kSid); }));
    auto marker = claudeMarker(kSid);
    ASSERT_TRUE(marker);
    EXPECT_EQ(marker->kind, "permission");
    EXPECT_EQ(marker->toolName, "Bash");
    EXPECT_EQ(marker->detail, "npm test");
    EXPECT_EQ(marker->reason, "Run the tests");
    EXPECT_EQ(snap(*bridge).claudeMarkerCreatedAt.count(kSid), 1u);
    EXPECT_TRUE(eventually([&] { return events > 0; }));
    EXPECT_TRUE(client.staysSilent(100ms));

    resolveHeld(*bridge, kSid, true);
    EXPECT_EQ(client.readUntilClosed(), kAllow);
    EXPECT_FALSE(isHeld(kSid));
    EXPECT_FALSE(claudeMarker(kSid));

    // A Codex gate, denied; its escalation and reason travel with the marker.
    SocketClient codex(socket);
    codex.send(line({{"v", 1}, {"source", "codex"}, {"session_id", "codex-1"}, {"action", "gate"},
                     {"tool_name", "Bash"}, {"detail", "rm -rf build"}, {"reason", "needs write access"},
                     {"escalated", true}}) +
               "\n");
    ASSERT_TRUE(eventually([&] { return isHeld("codex-1"); }));
    auto codexMarker = markerOf(*bridge, "codex-1", HarnessProvider::codex);
    ASSERT_TRUE(codexMarker);
    EXPECT_TRUE(codexMarker->escalated);
    EXPECT_EQ(codexMarker->reason, "needs write access");
    resolveHeld(*bridge, "codex-1", false);
    EXPECT_EQ(codex.readUntilClosed(), kDeny);
    EXPECT_TRUE(markerCount(*bridge, HarnessProvider::codex) == 0);

    // Resolving a session without a held gate only removes its markers.
    sendLine(socket, line({{"session_id", "s2"}, {"kind", "permission"}, {"tool_name", "Edit"}}));
    ASSERT_TRUE(eventually([&] { return claudeMarker("s2").has_value(); }));
    bridge->resolve("s2", 0, true);
    EXPECT_FALSE(claudeMarker("s2"));
}

TEST_F(HookBridgeTest, GatingOffRulesAndReplacedGates) {
    ASSERT_TRUE(bridge->start().ok);

    // Gating off: "passthrough" at once, nothing shown.
    SocketClient off(socket);
    off.send(gate(kSid, "npm test") + "\n");
    EXPECT_EQ(off.readUntilClosed(), kPassthrough);
    EXPECT_FALSE(claudeMarker(kSid));

    // A matching always rule answers "allow" with no marker and logs it, gating or not.
    bridge->setGating(true);
    rules.addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Bash", "git");
    SocketClient ruled(socket);
    ruled.send(gate(kSid, "git status") + "\n");
    EXPECT_EQ(ruled.readUntilClosed(), kAllow);
    EXPECT_FALSE(claudeMarker(kSid));
    EXPECT_FALSE(isHeld(kSid));
    // The line is appended by the bridge's thread after the answer went out.
    const std::string expected = "  auto-approve tool=Bash session=" + kSid + " head=git status";
    EXPECT_TRUE(eventually([&] { return readFile(support / "approvals.log").find(expected) != std::string::npos; }))
        << readFile(support / "approvals.log");

    // A compound command is covered only when each program is.
    SocketClient compound(socket);
    compound.send(gate(kSid, "git status && npm test") + "\n");
    ASSERT_TRUE(eventually([&] { return isHeld(kSid); }));

    // A newer gate of the same session replaces the older one, which is let go.
    SocketClient newer(socket);
    newer.send(gate(kSid, "make") + "\n");
    EXPECT_EQ(compound.readUntilClosed(), kPassthrough);
    ASSERT_TRUE(eventually([&] { return isHeld(kSid); }));
    EXPECT_EQ(claudeMarker(kSid)->detail, "make");

    // Escalated Codex requests are never auto-approved.
    rules.addAlwaysRule(scrivet::HarnessProvider::codex, "Bash", "ls");
    SocketClient escalated(socket);
    escalated.send(line({{"source", "codex"}, {"session_id", "c"}, {"action", "gate"}, {"tool_name", "Bash"},
                         {"detail", "ls"}, {"escalated", true}}) +
                   "\n");
    ASSERT_TRUE(eventually([&] { return isHeld("c"); }));

    // Quitting the view lets every held gate go; markers stay.
    bridge->releaseAllGates();
    EXPECT_EQ(newer.readUntilClosed(), kPassthrough);
    EXPECT_EQ(escalated.readUntilClosed(), kPassthrough);
    EXPECT_TRUE(snap(*bridge).gates.empty());
    EXPECT_TRUE(claudeMarker(kSid));
}

TEST_F(HookBridgeTest, TurnStateBusydoneAndDisconnect) {
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);
    auto now = std::chrono::system_clock::now();

    sendLine(socket, action(kSid, "start"));
    ASSERT_TRUE(eventually([&] { return snap(*bridge).claudeBusy.count(kSid); }));
    auto started = snap(*bridge).claudeBusy.at(kSid);
    EXPECT_GE(started, now - 1s);
    EXPECT_TRUE(bridge->snapshot(started + 1801s).claudeBusy.empty());

    // busydone while a gate is held: the prompt was answered in the terminal.
    SocketClient held(socket);
    held.send(gate(kSid, "npm test") + "\n");
    ASSERT_TRUE(eventually([&] { return isHeld(kSid); }));
    sendLine(socket, action(kSid, "busy"));
    sendLine(socket, action(kSid, "busydone"));
    EXPECT_EQ(held.readUntilClosed(), kPassthrough);
    EXPECT_FALSE(claudeMarker(kSid));
    EXPECT_TRUE(snap(*bridge).claudeBusy.count(kSid));

    // A question marker survives busydone; "start" clears it; "done" ends busy.
    sendLine(socket, line({{"session_id", kSid}, {"action", "marker"}, {"kind", "question"},
                           {"tool_name", "AskUserQuestion"}, {"detail", "Which colour?"},
                           {"options", {"Red", "Blue"}}, {"more_questions", 1}}));
    ASSERT_TRUE(eventually([&] { return claudeMarker(kSid).has_value(); }));
    sendLine(socket, action(kSid, "busydone"));
    sendLine(socket, action("other", "busy"));
    ASSERT_TRUE(eventually([&] { return snap(*bridge).claudeBusy.count("other"); }));
    auto question = claudeMarker(kSid);
    ASSERT_TRUE(question);
    EXPECT_EQ(question->kind, "question");
    EXPECT_EQ(question->options, (std::vector<std::string>{"Red", "Blue"}));
    EXPECT_EQ(question->moreQuestions, 1);
    sendLine(socket, action(kSid, "start"));
    ASSERT_TRUE(eventually([&] { return !claudeMarker(kSid); }));
    sendLine(socket, action(kSid, "done"));
    ASSERT_TRUE(eventually([&] { return !snap(*bridge).claudeBusy.count(kSid); }));

    // A client that goes away while held takes its marker with it.
    {
        SocketClient gone(socket);
        gone.send(gate("s3", "cargo build", "opencode") + "\n");
        ASSERT_TRUE(eventually([&] { return isHeld("s3"); }));
        EXPECT_EQ(markerCount(*bridge, HarnessProvider::opencode), 1u);
    }
    EXPECT_TRUE(eventually([&] { return !isHeld("s3") && markerCount(*bridge, HarnessProvider::opencode) == 0; }));

    // "done" while held lets the gate go; an OpenCode marker outlives resolve until its "clear".
    SocketClient open(socket);
    open.send(gate("s4", "ls", "opencode") + "\n");
    ASSERT_TRUE(eventually([&] { return isHeld("s4"); }));
    resolveHeld(*bridge, "s4", true);
    EXPECT_EQ(open.readUntilClosed(), kAllow);
    EXPECT_EQ(markerCount(*bridge, HarnessProvider::opencode), 1u);
    sendLine(socket, action("s4", "clear", "opencode"));
    EXPECT_TRUE(eventually([&] { return markerCount(*bridge, HarnessProvider::opencode) == 0; }));

    // Kimi: markers and clear; "observe" changes nothing.
    sendLine(socket, line({{"source", "kimi"}, {"session_id", "session_k"}, {"kind", "idle"}}));
    sendLine(socket, action("session_k", "observe", "kimi"));
    ASSERT_TRUE(eventually([&] { return markerCount(*bridge, HarnessProvider::kimi) == 1; }));
    EXPECT_EQ(markerOf(*bridge, "session_k", HarnessProvider::kimi)->kind, "idle");
    sendLine(socket, action("session_k", "clear", "kimi"));
    EXPECT_TRUE(eventually([&] { return markerCount(*bridge, HarnessProvider::kimi) == 0; }));
}

TEST_F(HookBridgeTest, CursorNotesAndModels) {
    ASSERT_TRUE(bridge->start().ok);
    double ts = Dates::toSeconds(std::chrono::system_clock::now());
    // The Cursor hook writes several lines on one connection.
    {
        SocketClient c(socket);
        c.send(line({{"v", 1}, {"source", "cursor"}, {"session_id", "cid-1"}, {"action", "pending"},
                     {"kind", "shell"}, {"command", std::string(300, 'x')}, {"tool_name", "Shell"}, {"ts", ts},
                     {"transcript_path", "/tmp/t.jsonl"}, {"cwd", "/w"}, {"model", "gpt-5"}}) +
               "\n" +
               line({{"v", 1}, {"source", "cursor"}, {"session_id", "cid-1"}, {"action", "activity"},
                     {"status", "shell"}, {"title", std::string(200, 't')}, {"ts", ts}}) +
               "\n");
    }
    ASSERT_TRUE(eventually([&] { return snap(*bridge).cursorActivity.size() == 1; }));
    auto now = std::chrono::system_clock::now();
    auto pending = bridge->snapshot(now).cursorPending;
    ASSERT_EQ(pending.count("cid-1"), 1u);
    const auto& p = pending.at("cid-1");
    EXPECT_EQ(p.kind, "shell");
    EXPECT_EQ(p.toolName, "Shell");
    EXPECT_EQ(p.cwd, "/w");
    EXPECT_EQ(p.transcriptPath, "/tmp/t.jsonl");
    EXPECT_DOUBLE_EQ(p.ts, ts);
    EXPECT_LE(p.command.size(), 202u);  // 200 characters with the ellipsis
    EXPECT_EQ(bridge->snapshot(now).cursorActivity.at("cid-1").status, "shell");
    EXPECT_EQ(snap(*bridge).cursorModels.at("cid-1"), "gpt-5");
    EXPECT_TRUE(bridge->snapshot(now + 1801s).cursorPending.empty());
    EXPECT_TRUE(bridge->snapshot(now + 1801s).cursorActivity.empty());
    EXPECT_TRUE(markerCount(*bridge) == 0);  // Cursor is never gated

    sendLine(socket, line({{"source", "cursor"}, {"session_id", "cid-1"}, {"action", "pending-clear"}}));
    sendLine(socket, line({{"source", "cursor"}, {"session_id", "cid-1"}, {"action", "activity-clear"}}));
    EXPECT_TRUE(eventually([&] {
        auto t = std::chrono::system_clock::now();
        auto s = bridge->snapshot(t);
        return s.cursorPending.empty() && s.cursorActivity.empty();
    }));
    EXPECT_EQ(snap(*bridge).cursorModels.at("cid-1"), "gpt-5");
}

TEST_F(HookBridgeTest, StateSurvivesRestartWithinHalfAnHour) {
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);
    sendLine(socket, line({{"session_id", kSid}, {"kind", "question"}, {"tool_name", "AskUserQuestion"},
                           {"detail", "Ship it?"}}));
    sendLine(socket, line({{"source", "codex"}, {"session_id", "cx"}, {"action", "marker"}, {"kind", "idle"}}));
    sendLine(socket, line({{"source", "cursor"}, {"session_id", "cid"}, {"action", "activity"},
                           {"status", "editing"}, {"model", "composer-1"}}));
    sendLine(socket, action(kSid, "busy"));
    ASSERT_TRUE(eventually([&] { return snap(*bridge).cursorModels.size() == 1 && markerCount(*bridge, HarnessProvider::codex) == 1; }));

    // Saved after each change, not only at teardown, so a crash keeps the markers.
    ASSERT_TRUE(eventually([&] {
        auto state = Json::parse(readFile(support / "hook-state.json"), nullptr, false);
        return !state.is_discarded() && state["claudeMarkers"].contains(kSid) && state["cursorModels"].contains("cid");
    }));
    auto createdAt = snap(*bridge).claudeMarkerCreatedAt.at(kSid);
    bridge->stop();
    EXPECT_FALSE(std::filesystem::exists(socket));

    auto state = Json::parse(readFile(support / "hook-state.json"));
    for (const char* key : {"savedAt", "claudeMarkers", "codexMarkers", "cursorPending", "cursorActivity",
                            "cursorModels", "claudeMarkerCreatedAt", "kimiMarkers", "openCodeMarkers"})
        EXPECT_TRUE(state.contains(key)) << key;
    EXPECT_EQ(state["claudeMarkers"][kSid]["kind"], "question");
    EXPECT_EQ(state["claudeMarkers"][kSid]["sessionId"], kSid);

    makeBridge();
    ASSERT_TRUE(bridge->start().ok);
    auto marker = claudeMarker(kSid);
    ASSERT_TRUE(marker);
    EXPECT_EQ(marker->detail, "Ship it?");
    EXPECT_EQ(markerCount(*bridge, HarnessProvider::codex), 1u);
    EXPECT_EQ(snap(*bridge).cursorModels.at("cid"), "composer-1");
    EXPECT_EQ(snap(*bridge).cursorActivity.size(), 1u);
    EXPECT_LT(std::chrono::abs(snap(*bridge).claudeMarkerCreatedAt.at(kSid) - createdAt), 1ms);
    EXPECT_TRUE(snap(*bridge).claudeBusy.empty());  // busy is not saved
    bridge->stop();

    // A state file older than 1800 seconds describes prompts that are long gone.
    state = Json::parse(readFile(support / "hook-state.json"));
    state["savedAt"] = Dates::format(std::chrono::system_clock::now() - 1801s);
    writeFile(support / "hook-state.json", state.dump());
    makeBridge();
    ASSERT_TRUE(bridge->start().ok);
    EXPECT_TRUE(markerCount(*bridge) == 0);
    EXPECT_TRUE(snap(*bridge).cursorModels.empty());
    bridge->stop();

    // Within the window, Claude markers older than a day are pruned; a corrupt file starts empty.
    state["savedAt"] = Dates::format(std::chrono::system_clock::now() - 1700s);
    state["claudeMarkerCreatedAt"][kSid] = Dates::format(std::chrono::system_clock::now() - 86401s);
    writeFile(support / "hook-state.json", state.dump());
    makeBridge();
    ASSERT_TRUE(bridge->start().ok);
    EXPECT_FALSE(claudeMarker(kSid));
    EXPECT_EQ(markerCount(*bridge, HarnessProvider::codex), 1u);
    bridge->stop();
    writeFile(support / "hook-state.json", "{not json");
    makeBridge();
    ASSERT_TRUE(bridge->start().ok);
    EXPECT_TRUE(markerCount(*bridge, HarnessProvider::codex) == 0);
}

TEST_F(HookBridgeTest, BadInputHarmsNobody) {
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);

    SocketClient held(socket);
    held.send(gate(kSid, "npm test") + "\n");
    ASSERT_TRUE(eventually([&] { return isHeld(kSid); }));

    std::vector<std::string> bad = {
        "not json",
        "[1,2,3]",
        "{}",
        R"({"session_id":""})",
        R"({"session_id":42})",
        R"({"session_id":"x","action":7})",
        R"({"session_id":"x","source":["claude"]})",
        R"({"session_id":"x","tool_name":{}})",
        R"({"session_id":"x","escalated":"yes"})",
        R"({"session_id":"x","options":[1,2]})",
        R"({"session_id":"x","more_questions":"2"})",
        R"({"session_id":"x","detail":false})",
        R"({"session_id":"x","source":"cursor","action":"pending","ts":"soon"})",
        R"({"session_id":"x","action":"explode"})",
        R"({"session_id":"x","source":"codex","action":"start"})",
        std::string(100, '[') + std::string(100, ']'),
        std::string("\xff\xfe\x00\x01garbage", 12),
    };
    for (const auto& b : bad) sendLine(socket, b);
    {
        // A client that sends half a line and goes away.
        SocketClient half(socket);
        half.send(R"({"session_id":"half","kind":"idle")");
    }
    {
        // A client that asks for a gate and never reads its answer.
        SocketClient deaf(socket);
        deaf.send(gate("deaf", "ls", "claude") + "\n");
        ASSERT_TRUE(eventually([&] { return isHeld("deaf"); }));
        resolveHeld(*bridge, "deaf", true);
    }
    // After all that, the bridge still serves everyone, and the held gate is intact.
    sendLine(socket, line({{"session_id", "good"}, {"kind", "idle"}}));
    ASSERT_TRUE(eventually([&] { return claudeMarker("good").has_value(); }));
    EXPECT_FALSE(claudeMarker("x"));
    EXPECT_FALSE(claudeMarker("half"));
    EXPECT_TRUE(isHeld(kSid));
    resolveHeld(*bridge, kSid, true);
    EXPECT_EQ(held.readUntilClosed(), kAllow);

    std::string trace = readFile(dir / "trace.log");
    EXPECT_NE(trace.find("RECV source=claude action=gate tool=Bash sid=80d8d2c1"), std::string::npos) << trace;
    EXPECT_NE(trace.find("DROP"), std::string::npos);
    EXPECT_NE(trace.find("RECV source=codex action=start tool=- sid=x"), std::string::npos);
}

TEST_F(HookBridgeTest, ConnectionLimitsLongLinesAndIdleClients) {
    HookBridgeOptions options;
    options.server.maxConnections = 3;
    options.server.lineTimeout = 300ms;
    makeBridge(options);
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);

    std::vector<std::unique_ptr<SocketClient>> gates;
    for (int i = 0; i < 3; ++i) {
        gates.push_back(std::make_unique<SocketClient>(socket));
        gates.back()->send(gate("g" + std::to_string(i), "make") + "\n");
    }
    ASSERT_TRUE(eventually([&] { return snap(*bridge).gates.size() == 3; }));

    // A fourth connection is refused while the held gates keep working.
    SocketClient extra(socket);
    EXPECT_EQ(extra.readUntilClosed(2s), "");
    // Held gates outlive the idle time-out.
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(snap(*bridge).gates.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        resolveHeld(*bridge, "g" + std::to_string(i), i % 2 == 0);
        EXPECT_EQ(gates[i]->readUntilClosed(), i % 2 == 0 ? kAllow : kDeny);
    }

    // A silent client is closed after the idle time-out.
    SocketClient silent(socket);
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(silent.readUntilClosed(3s), "");
    EXPECT_GE(std::chrono::steady_clock::now() - before, 250ms);

    // A line longer than the limit closes only its own connection.
    SocketClient huge(socket);
    std::string big = R"({"session_id":"big","detail":")" + std::string((1 << 20) + 10, 'a');
    huge.send(big);
    EXPECT_EQ(huge.readUntilClosed(), "");
    sendLine(socket, line({{"session_id", "after"}, {"kind", "idle"}}));
    EXPECT_TRUE(eventually([&] { return claudeMarker("after").has_value(); }));
    EXPECT_FALSE(claudeMarker("big"));
    EXPECT_TRUE(eventually([&] { return bridge->connectionCount() == 0; }));
}

TEST_F(HookBridgeTest, RefusesFoldersOthersCanEnterAndReplacesStaleSocket) {
    // A folder that group or others may enter is refused, and the bridge says why.
    std::filesystem::create_directories(support);
    ::chmod(support.c_str(), 0755);
    Status refused = bridge->start();
    EXPECT_FALSE(refused);
    EXPECT_EQ(refused.why, "the socket's folder " + support.string() + " is open to group or others");
    EXPECT_EQ(bridge->listening(), refused);
    EXPECT_EQ(snap(*bridge).listening, refused);
    EXPECT_FALSE(std::filesystem::exists(socket));

    // A socket file left by a crashed run is replaced.
    ::chmod(support.c_str(), 0700);
    {
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    ASSERT_TRUE(std::filesystem::exists(socket));
    ASSERT_TRUE(bridge->start().ok);
    sendLine(socket, line({{"session_id", "s"}, {"kind", "idle"}}));
    EXPECT_TRUE(eventually([&] { return claudeMarker("s").has_value(); }));
    bridge->stop();

    // A regular file at the socket's path is not ours to remove.
    writeFile(socket, "keep me");
    EXPECT_EQ(bridge->start().why, socket.string() + " is taken by something that is not a socket");
    EXPECT_EQ(readFile(socket), "keep me");

    // A path too long for a socket address fails cleanly.
    auto deep = support / std::string(120, 'd');
    HookBridge longPath(deep / "notch.sock", support, rules);
    EXPECT_NE(longPath.start().why.find("the socket path is too long"), std::string::npos);
}

TEST_F(HookBridgeTest, LineHandlerWorksWithoutSocket) {
    bridge->setGating(true);
    bridge->handleLine(gate(kSid, "npm test"), 7);
    EXPECT_TRUE(isHeld(kSid));
    EXPECT_EQ(events.load(), 1);
    bridge->handleLine("garbage", 7);
    EXPECT_EQ(events.load(), 1);  // a dropped line changes nothing
    bridge->handleLine(action(kSid, "done"));
    EXPECT_FALSE(isHeld(kSid));
    EXPECT_FALSE(claudeMarker(kSid));
    EXPECT_EQ(events.load(), 2);

    // Source and action default to Claude and "marker".
    bridge->handleLine(R"({"session_id":"m","kind":"plan","tool_name":"ExitPlanMode"})");
    ASSERT_TRUE(claudeMarker("m"));
    EXPECT_EQ(claudeMarker("m")->kind, "plan");
    bridge->persistNow();
    EXPECT_TRUE(Json::parse(readFile(support / "hook-state.json"))["claudeMarkers"].contains("m"));
}

TEST_F(HookBridgeTest, PythonHookClientGetsItsAnswer) {
    ASSERT_TRUE(bridge->start().ok);
    bridge->setGating(true);
    // A client written the way the hook programs are: connect, one line, wait for one line.
    writeFile(dir / "client.py", R"(import json, socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.settimeout(10)
s.connect(sys.argv[1])
s.sendall((json.dumps({"v": 1, "source": "codex", "session_id": sys.argv[2], "action": "gate",
                       "tool_name": "Bash", "detail": "cargo test", "reason": "run the tests"}) + "\n").encode())
reply = s.makefile().readline()
print(json.loads(reply)["behavior"] if reply else "none")
)");
    CommandResult result;
    std::thread client([&] { result = runCommand("python3 " + (dir / "client.py").string() + " " + socket.string() + " py-1"); });
    bool wasHeld = eventually([&] { return isHeld("py-1"); });
    resolveHeld(*bridge, "py-1", true);
    client.join();
    ASSERT_TRUE(wasHeld);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "allow\n");
}
