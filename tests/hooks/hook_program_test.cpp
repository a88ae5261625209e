// The real hook programs, run with python3 against a socket server, fed the
// inputs the agents really send.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "hooks/fake_hook_server.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/python_locator.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using lumora::test::FakeHookServer;
using lumora::test::TempDir;
using lumora::test::TempHome;
using Json = nlohmann::ordered_json;

namespace {

struct ProgramRun {
    int exitCode = -1;
    std::string output;
    std::chrono::milliseconds took{0};
};

// The hook programs written out beside a socket, as an install would.
class HookPrograms : public ::testing::Test {
protected:
    void SetUp() override {
        auto python = PythonLocator::interpreter();
        ASSERT_TRUE(python) << "no python3";
        python_ = *python;
        for (const char* name : {"notch-hook.py", "notch-codex-hook.py", "notch-cursor-hook.py", "notch-kimi-hook.py"}) {
            ASSERT_TRUE(FileUtil::writeAtomically(dir_ / name, *EmbeddedResources::text(name), 0755));
        }
        ::chmod(dir_.path().c_str(), 0700);  // the programs talk only to a socket in a private folder
        socket_ = dir_ / "s.sock";
        server_ = std::make_unique<FakeHookServer>(socket_);
        ASSERT_TRUE(server_->start());
    }

    ProgramRun run(const std::string& program, const std::string& action, const std::string& input,
            std::optional<std::string> socket = std::nullopt, ChildProcess::Environment env = {}) {
        std::vector<std::string> argv = {python_.string(), (dir_ / program).string()};
        if (!action.empty()) argv.push_back(action);
        env.push_back({"LUMORA_SOCKET", socket.value_or(socket_.string())});
        auto began = std::chrono::steady_clock::now();
        auto child = ChildProcess::spawn(argv, input, env);
        ProgramRun r;
        if (!child) return r;
        if (!child->wait(20s)) {
            child->kill();
            return r;
        }
        r.took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);
        r.exitCode = child->exitCode();
        r.output = child->output();
        return r;
    }

    ProgramRun run(const std::string& program, const std::string& action, const Json& input) {
        return run(program, action, input.dump());
    }

    // The sample inputs of one agent: (scenario, event) → input.
    static std::vector<std::tuple<std::string, std::string, Json>> samples(const std::string& agent) {
        std::vector<std::tuple<std::string, std::string, Json>> out;
        std::ifstream in(test::agentSample(agent + "/hook-inputs.jsonl"));
        std::string line;
        while (std::getline(in, line)) {
            Json j = Json::parse(line);
            out.emplace_back(j["scenario"], j["event"], j["input"]);
        }
        return out;
    }

    static Json sample(const std::string& agent, const std::string& scenario, const std::string& event) {
        for (auto& [s, e, input] : samples(agent)) {
            if (s == scenario && e == event) return input;
        }
        ADD_FAILURE() << "no sample " << scenario << "/" << event;
        return Json::object();
    }

    TempDir dir_;
    fs::path python_, socket_;
    std::unique_ptr<FakeHookServer> server_;
};

}  // namespace

TEST_F(HookPrograms, ClaudeReportsTurnStateFromTheRealInputsWithoutPrinting) {
    const std::map<std::string, std::string> actions = {
        {"UserPromptSubmit", "start"}, {"PreToolUse", "busy"}, {"PostToolUse", "busydone"}, {"Stop", "done"}};
    size_t expected = 0;
    for (auto& [scenario, event, input] : samples("claude")) {
        auto it = actions.find(event);
        if (it == actions.end()) continue;
        ProgramRun r = run("notch-hook.py", it->second, input);
        EXPECT_EQ(r.exitCode, 0);
        EXPECT_EQ(r.output, "");
        ++expected;
        ASSERT_TRUE(server_->waitForLines(expected)) << scenario << "/" << event;
        Json line = server_->lines().back();
        EXPECT_EQ(line["v"], 1);
        EXPECT_EQ(line["source"], "claude");
        EXPECT_EQ(line["action"], it->second);
        EXPECT_EQ(line["session_id"], input["session_id"]);
        EXPECT_EQ(line["cwd"], input["cwd"]);
    }
    EXPECT_GT(expected, 10u);
    EXPECT_EQ(server_->connections(), expected);
}

TEST_F(HookPrograms, ClaudeQuestionAndPlanMarkers) {
    Json ask = sample("claude", "tui-ask", "PreToolUse");
    EXPECT_EQ(run("notch-hook.py", "ask", ask).output, "");
    ASSERT_TRUE(server_->waitForLines(1));
    Json line = server_->lines()[0];
    EXPECT_EQ(line["action"], "marker");
    EXPECT_EQ(line["kind"], "question");
    EXPECT_EQ(line["tool_name"], "AskUserQuestion");
    EXPECT_EQ(line["detail"], "Which database should the service use?");
    EXPECT_EQ(line["options"], Json::array({"SQLite", "Postgres"}));
    EXPECT_EQ(line["more_questions"], 1);

    // Long texts are trimmed, empty labels dropped, at most eight options kept.
    Json big = ask;
    Json options = Json::array();
    for (int i = 0; i < 12; ++i) options.push_back({{"label", i == 3 ? "  " : std::string(200, 'a' + i)}});
    big["tool_input"]["questions"] = Json::array({{{"question", std::string(900, 'q')}, {"options", options}}});
    run("notch-hook.py", "ask", big);
    ASSERT_TRUE(server_->waitForLines(2));
    line = server_->lines()[1];
    EXPECT_EQ(line["detail"].get<std::string>().size(), 500u);
    ASSERT_EQ(line["options"].size(), 8u);
    EXPECT_EQ(line["options"][3].get<std::string>(), std::string(120, 'e'));
    EXPECT_EQ(line["more_questions"], 0);

    Json plan = ask;
    plan["tool_name"] = "ExitPlanMode";
    plan["tool_input"] = {{"plan", "1. do it"}};
    run("notch-hook.py", "ask", plan);
    ASSERT_TRUE(server_->waitForLines(3));
    EXPECT_EQ(server_->lines()[2]["kind"], "plan");

    Json idle = {{"session_id", "s-idle"}, {"hook_event_name", "Notification"}, {"message", "Claude is waiting"}};
    run("notch-hook.py", "idle", idle);
    ASSERT_TRUE(server_->waitForLines(4));
    EXPECT_EQ(server_->lines()[3]["action"], "marker");
    EXPECT_EQ(server_->lines()[3]["kind"], "idle");
}

TEST_F(HookPrograms, ClaudeGatePrintsTheDecisionClaudeCodeHonours) {
    Json input = sample("claude", "bashwrite-hook-allow", "PermissionRequest");
    server_->autoAnswer("allow");
    ProgramRun r = run("notch-hook.py", "gate", input);
    EXPECT_EQ(r.exitCode, 0);
    Json printed = Json::parse(r.output);
    Json expected = {{"hookSpecificOutput",
                      {{"hookEventName", "PermissionRequest"},
                       {"decision", {{"behavior", "allow"}, {"updatedInput", input["tool_input"]}}}}}};
    EXPECT_EQ(printed, expected);
    ASSERT_TRUE(server_->waitForLines(1));
    Json line = server_->lines()[0];
    EXPECT_EQ(line["action"], "gate");
    EXPECT_EQ(line["tool_name"], "Bash");
    EXPECT_EQ(line["detail"], "touch harness-made.txt");
    EXPECT_EQ(line["reason"], "Run touch harness-made.txt");

    server_->autoAnswer("deny");
    printed = Json::parse(run("notch-hook.py", "gate", input).output);
    EXPECT_EQ(printed["hookSpecificOutput"]["decision"],
              Json({{"behavior", "deny"}, {"message", "Denied from Lumora"}}));

    // A file write: the detail is the path, and there is no reason line.
    server_->autoAnswer("passthrough");
    Json write = sample("claude", "write-default", "PermissionRequest");
    r = run("notch-hook.py", "gate", write);
    EXPECT_EQ(r.output, "");  // passthrough: Claude Code shows its own prompt
    ASSERT_TRUE(server_->waitForLines(3));
    EXPECT_EQ(server_->lines()[2]["detail"], "/home/dev/proj.app/harness-written.txt");
    EXPECT_FALSE(server_->lines()[2].contains("reason"));

    // Questions are never gated: nothing is sent, nothing printed.
    r = run("notch-hook.py", "gate", sample("claude", "tui-ask", "PermissionRequest"));
    EXPECT_EQ(r.output, "");
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(server_->lines().size(), 3u);
}

TEST_F(HookPrograms, ClaudeGateHeldUntilTheUserAnswers) {
    Json input = sample("claude", "tui-manual-approve", "PermissionRequest");
    std::string sid = input["session_id"];
    auto child = ChildProcess::spawn({python_.string(), (dir_ / "notch-hook.py").string(), "gate"}, input.dump(),
                                     {{"LUMORA_SOCKET", socket_.string()}});
    ASSERT_TRUE(child);
    for (int i = 0; i < 500 && !server_->hasHeldGate(sid); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(server_->hasHeldGate(sid));
    EXPECT_FALSE(child->wait(200ms));  // still waiting for the answer
    server_->resolve(sid, false);
    ASSERT_TRUE(child->wait(5s));
    EXPECT_EQ(Json::parse(child->output())["hookSpecificOutput"]["decision"]["behavior"], "deny");
}

TEST_F(HookPrograms, CodexGateTakesTheRealPermissionInput) {
    Json input = sample("codex", "tui-escalate-hook-allow", "PermissionRequest");
    server_->autoAnswer("allow");
    ProgramRun r = run("notch-codex-hook.py", "gate", input);
    EXPECT_EQ(r.exitCode, 0);
    Json expected = {{"continue", true},
                     {"hookSpecificOutput", {{"hookEventName", "PermissionRequest"}, {"decision", {{"behavior", "allow"}}}}}};
    EXPECT_EQ(Json::parse(r.output), expected);
    ASSERT_TRUE(server_->waitForLines(1));
    Json line = server_->lines()[0];
    EXPECT_EQ(line["source"], "codex");
    EXPECT_EQ(line["detail"], "touch /home/dev/agents/outside-sandbox.txt");
    EXPECT_EQ(line["reason"], "The harness needs to write outside the sandbox.");
    EXPECT_EQ(line["escalated"], false);

    server_->autoAnswer("deny");
    Json printed = Json::parse(run("notch-codex-hook.py", "gate", input).output);
    EXPECT_EQ(printed["continue"], true);
    EXPECT_EQ(printed["hookSpecificOutput"]["decision"], Json({{"behavior", "deny"}, {"message", "Denied from Lumora"}}));

    // The older shape: an argument list, a justification, an escalation.
    server_->autoAnswer("passthrough");
    Json older = {{"session_id", "c1"},
                  {"tool_input", {{"command", {"bash", "-lc", "rm -rf build"}}, {"description", "ignored"}}},
                  {"justification", "Clean the build"},
                  {"sandbox_permissions", "require_escalated"}};
    EXPECT_EQ(run("notch-codex-hook.py", "gate", older).output, "");
    older["tool_input"]["command"] = {"ls", "-la", "/tmp"};
    run("notch-codex-hook.py", "gate", older);
    Json patch = {{"session_id", "c2"},
                  {"tool_input", {{"changes", {{"/w/src/a.cpp", {}}, {"/w/b.h", {}}, {"/w/c", {}}, {"/w/d", {}}, {"/w/e", {}}}}}}};
    run("notch-codex-hook.py", "gate", patch);
    ASSERT_TRUE(server_->waitForLines(5));
    auto lines = server_->lines();
    EXPECT_EQ(lines[2]["detail"], "rm -rf build");
    EXPECT_EQ(lines[2]["reason"], "Clean the build");
    EXPECT_EQ(lines[2]["escalated"], true);
    EXPECT_EQ(lines[3]["detail"], "ls -la /tmp");
    EXPECT_EQ(lines[4]["detail"], "patch: a.cpp, b.h, c, d");

    // Turn boundaries clear the marker.
    run("notch-codex-hook.py", "clear", sample("codex", "bash", "Stop"));
    ASSERT_TRUE(server_->waitForLines(6));
    EXPECT_EQ(server_->lines()[5]["action"], "clear");
}

TEST_F(HookPrograms, CursorSendsNotesOnOneConnectionAndNeverPrints) {
    Json shell = {{"conversation_id", "conv-1"}, {"hook_event_name", "beforeShellExecution"},
                  {"command", "npm test -- --watch=false"}, {"workspace_roots", {"/w/app"}}, {"model_id", "gpt-x"},
                  {"transcript_path", "/t.jsonl"}};
    ProgramRun r = run("notch-cursor-hook.py", "", shell);
    EXPECT_EQ(r.output, "");
    ASSERT_TRUE(server_->waitForLines(2));
    auto lines = server_->lines();
    EXPECT_EQ(server_->connections(), 1u);
    EXPECT_EQ(lines[0]["source"], "cursor");
    EXPECT_EQ(lines[0]["action"], "pending");
    EXPECT_EQ(lines[0]["kind"], "shell");
    EXPECT_EQ(lines[0]["command"], "npm test -- --watch=false");
    EXPECT_EQ(lines[0]["cwd"], "/w/app");
    EXPECT_EQ(lines[0]["model"], "gpt-x");
    EXPECT_EQ(lines[0]["transcript_path"], "/t.jsonl");
    EXPECT_TRUE(lines[0]["ts"].is_number());
    EXPECT_EQ(lines[1]["action"], "activity");
    EXPECT_EQ(lines[1]["title"], "Running: npm test -- --watch=false");

    Json edit = {{"conversation_id", "conv-1"}, {"hook_event_name", "preToolUse"}, {"tool_name", "edit_file"},
                 {"tool_input", {{"target_file", "/w/app/src/main.ts"}}}};
    run("notch-cursor-hook.py", "", edit);
    Json read = {{"conversation_id", "conv-1"}, {"hook_event_name", "preToolUse"}, {"tool_name", "read_file"},
                 {"tool_input", {{"path", "/w/app/a"}}}};
    run("notch-cursor-hook.py", "", read);
    Json mcp = {{"session_id", "conv-2"}, {"hook_event_name", "beforeMCPExecution"}, {"tool_name", "search_docs"}};
    run("notch-cursor-hook.py", "", mcp);
    Json stop = {{"conversation_id", "conv-1"}, {"hook_event_name", "stop"}, {"status", "completed"}};
    run("notch-cursor-hook.py", "", stop);
    ASSERT_TRUE(server_->waitForLines(9));
    lines = server_->lines();
    EXPECT_EQ(lines[2]["kind"], "tool");
    EXPECT_EQ(lines[2]["command"], "/w/app/src/main.ts");
    EXPECT_EQ(lines[3]["title"], "Editing main.ts");
    EXPECT_EQ(lines[4]["action"], "activity");  // a read is only activity, never a pending note
    EXPECT_EQ(lines[4]["title"], "Working…");
    EXPECT_EQ(lines[5]["kind"], "mcp");
    EXPECT_EQ(lines[5]["session_id"], "conv-2");
    EXPECT_EQ(lines[6]["title"], "Calling search_docs");
    EXPECT_EQ(lines[7]["action"], "pending-clear");
    EXPECT_EQ(lines[8]["action"], "activity-clear");
}

TEST_F(HookPrograms, KimiClassifiesNotifications) {
    run("notch-kimi-hook.py", "notify",
        Json({{"session_id", "session_1"}, {"title", "Approval required"}, {"message", "ProgramRun `rm -rf build`?"}}));
    run("notch-kimi-hook.py", "notify",
        Json({{"session_id", "session_1"}, {"data", {{"text", "Kimi is Waiting for your answer"}}}, {"body", "Pick one"}}));
    run("notch-kimi-hook.py", "notify", Json({{"session_id", "session_1"}, {"zeta", "done"}, {"alpha", 1}}));
    run("notch-kimi-hook.py", "clear", Json({{"session_id", "session_1"}}));
    // Paths and other fields never decide: a project called approval-service finishing a task is no prompt.
    run("notch-kimi-hook.py", "notify",
        Json({{"session_id", "session_1"}, {"cwd", "/home/u/approval-service"}, {"title", "Task finished"},
              {"message", "Done in /home/u/approval-service/question-bank"}, {"transcript_path", "/k/permission.jsonl"}}));
    ASSERT_TRUE(server_->waitForLines(5));
    auto lines = server_->lines();
    EXPECT_EQ(lines[0]["action"], "marker");
    EXPECT_EQ(lines[0]["kind"], "permission");
    EXPECT_EQ(lines[0]["detail"], "ProgramRun `rm -rf build`?");
    EXPECT_EQ(lines[1]["kind"], "question");
    EXPECT_EQ(lines[1]["detail"], "Pick one");
    EXPECT_EQ(lines[2]["action"], "observe");
    EXPECT_EQ(lines[2]["detail"], "alpha,session_id,zeta");
    EXPECT_EQ(lines[3]["action"], "clear");
    EXPECT_EQ(lines[4]["action"], "observe");
    for (const auto& l : lines) EXPECT_EQ(l["source"], "kimi");
}

TEST_F(HookPrograms, BadInputExitsZeroSilentlyAndSendsNothing) {
    std::string huge(33 * 1024 * 1024, ' ');
    huge.replace(0, 20, "{\"session_id\":\"s\", ");
    const std::vector<std::string> inputs = {"", "garbage\x01\xff", "[1,2,3]", "{\"session_id\": 5}",
                                             "{\"no_session\": true}", "{\"session_id\":\"s\"", huge};
    const std::vector<std::pair<std::string, std::string>> programs = {
        {"notch-hook.py", "gate"}, {"notch-hook.py", "start"}, {"notch-codex-hook.py", "gate"},
        {"notch-cursor-hook.py", ""}, {"notch-kimi-hook.py", "notify"}};
    for (const auto& [program, action] : programs) {
        for (const auto& input : inputs) {
            ProgramRun r = run(program, action, input);
            EXPECT_EQ(r.exitCode, 0) << program << " " << input.substr(0, 30);
            EXPECT_EQ(r.output, "") << program << " " << input.substr(0, 30);
        }
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(server_->lines().empty());
}

TEST_F(HookPrograms, WithNoServerEveryProgramExitsAtOnce) {
    Json gate = sample("claude", "bashwrite-hook-allow", "PermissionRequest");
    TempDir other;
    fs::path notASocket = other / "plain-file";
    test::writeFile(notASocket, "x");
    for (const std::string& socket : {(other / "missing.sock").string(), notASocket.string()}) {
        for (const auto& [program, action] :
             std::vector<std::pair<std::string, std::string>>{{"notch-hook.py", "gate"},
                                                              {"notch-hook.py", "busy"},
                                                              {"notch-codex-hook.py", "gate"},
                                                              {"notch-cursor-hook.py", ""},
                                                              {"notch-kimi-hook.py", "notify"}}) {
            Json input = gate;
            input["hook_event_name"] = "beforeShellExecution";
            input["conversation_id"] = "c";
            input["message"] = "permission needed";
            ProgramRun r = run(program, action, input.dump(), socket);
            EXPECT_EQ(r.exitCode, 0);
            EXPECT_EQ(r.output, "");
            EXPECT_LT(r.took, 2000ms) << program;
        }
    }
}

TEST_F(HookPrograms, FindTheSocketWhereTheAppPutsIt) {
    TempHome home;
    fs::create_directories(Paths::supportFolder());
    FakeHookServer atHome(Paths::socketPath());
    ASSERT_TRUE(atHome.start());
    Json input = {{"session_id", "s"}};
    // No LUMORA_SOCKET: the XDG data folder, as the app computes it.
    std::vector<std::string> argv = {python_.string(), (dir_ / "notch-hook.py").string(), "start"};
    auto child = ChildProcess::spawn(argv, input.dump(), {{"LUMORA_SOCKET", ""}});
    ASSERT_TRUE(child && child->wait(10s));
    EXPECT_TRUE(atHome.waitForLines(1));
    // A relative XDG_DATA_HOME is ignored in favour of ~/.local/share.
    child = ChildProcess::spawn(argv, input.dump(), {{"LUMORA_SOCKET", ""}, {"XDG_DATA_HOME", "relative/data"}});
    ASSERT_TRUE(child && child->wait(10s));
    if (Paths::supportFolder() == home / ".local/share/lumora") {
        EXPECT_TRUE(atHome.waitForLines(2));
    }
    atHome.stop();
}

TEST_F(HookPrograms, TalkOnlyToASocketInAFolderOfTheUsersOwn) {
    // Anyone who may write in the socket's folder could put a socket there and
    // answer the prompts: every program keeps its lines to itself and exits.
    TempDir open;
    ::chmod(open.path().c_str(), 0777);
    FakeHookServer stranger(open / "notch.sock");
    ASSERT_TRUE(stranger.start());
    stranger.autoAnswer("allow");
    Json gate = sample("claude", "bashwrite-hook-allow", "PermissionRequest");
    gate["hook_event_name"] = "beforeShellExecution";
    gate["conversation_id"] = "c";
    gate["message"] = "permission needed";
    for (const auto& [program, action] : std::vector<std::pair<std::string, std::string>>{
             {"notch-hook.py", "gate"}, {"notch-codex-hook.py", "gate"}, {"notch-cursor-hook.py", ""},
             {"notch-kimi-hook.py", "notify"}}) {
        ProgramRun r = run(program, action, gate.dump(), (open / "notch.sock").string());
        EXPECT_EQ(r.exitCode, 0) << program;
        EXPECT_EQ(r.output, "") << program;
    }
    EXPECT_EQ(stranger.connections(), 0u);
}

TEST_F(HookPrograms, WaitForAFullListenQueueUntilTheirConnectDeadline) {
    // A server busy enough that its listen queue is full: a connection is
    // refused with EAGAIN until it accepts again.
    fs::path path = dir_ / "busy.sock";
    int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    std::vector<int> filling;
    for (int i = 0; i < 64; ++i) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            ::close(fd);
            break;
        }
        filling.push_back(fd);
    }
    ASSERT_FALSE(filling.empty());

    Json input = {{"session_id", "queued"}};
    std::vector<std::string> argv = {python_.string(), (dir_ / "notch-hook.py").string(), "busy"};
    auto child = ChildProcess::spawn(argv, input.dump(), {{"LUMORA_SOCKET", path.string()}});
    ASSERT_TRUE(child);
    std::this_thread::sleep_for(500ms);  // the hook is trying by now
    // The server catches up: it takes the queue and reads what comes.
    for (int fd : filling) ::close(fd);
    ::fcntl(listener, F_SETFL, O_NONBLOCK);
    std::string received;
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (received.find("queued") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        int fd = ::accept(listener, nullptr, nullptr);
        if (fd < 0) {
            std::this_thread::sleep_for(10ms);
            continue;
        }
        pollfd p{fd, POLLIN, 0};
        char buf[4096];
        if (::poll(&p, 1, 1000) > 0) {
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n > 0) received.append(buf, static_cast<size_t>(n));
        }
        ::close(fd);
    }
    EXPECT_TRUE(child->wait(10s));
    EXPECT_NE(received.find("\"session_id\":\"queued\""), std::string::npos) << received;
    ::close(listener);
}
