// Codex and Cursor sessions through the whole monitor: real processes named
// like the agents, their rollouts and transcripts on disk, the real hook
// bridge on a real socket, and the published rows.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "hooks/socket_client.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/app/run_commands.hpp"
#include "lumora/monitor/codex_session_source.hpp"
#include "lumora/monitor/cursor_session_source.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/cursor_transcript_reader.hpp"
#include "scrivet/codex_cursor_builders.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

const std::string kThread = "01a200f0-1111-7222-8333-944445555601";
const std::string kExecThread = "01a200f0-1111-7222-8333-944445555602";
const std::string kConversation = "c0ffee00-1111-4222-8333-944445555601";

std::optional<AgentInstance> row(const std::vector<AgentInstance>& rows, const std::string& id) {
    for (const auto& a : rows)
        if (a.id == id) return a;
    return std::nullopt;
}

std::optional<AgentInstance> rowOfPid(const std::vector<AgentInstance>& rows, int32_t pid) {
    for (const auto& a : rows)
        if (a.pid == pid) return a;
    return std::nullopt;
}

fs::path project(const TempHome& home, const std::string& name) {
    auto dir = home / name;
    fs::create_directories(dir);
    runCommand("cd '" + dir.string() + "' && git init -q -b main");
    return dir;
}

// A process whose argv is `argv` and that stays alive: /bin/sh reading the
// script named by argv[1] in `cwd` (so `codex app-server` runs as itself).
std::unique_ptr<ChildProcess> agentCommand(const fs::path& cwd, std::vector<std::string> argv) {
    writeFile(cwd / argv[1], "sleep 120\n");
    return std::make_unique<ChildProcess>("/bin/sh", std::move(argv), cwd);
}

}  // namespace

TEST(CodexSessions, OneRowPerRunningThreadFollowingItsRollout) {
    TempHome home;
    auto proj = project(home, "proj");
    auto sessions = home / ".codex/sessions";
    auto codexBin = sleeperNamed(home / "bin", "codex");
    ChildProcess tui(codexBin, {"codex", "120"}, proj);
    auto start = std::chrono::system_clock::now();
    CodexRollout rollout(kThread, proj.string(), "codex-tui", start + 1s);
    rollout.turnStart().prompt("run the tests").command("make test", 0, "", false, true);
    auto file = rollout.writeIn(sessions);

    // The shared app-server daemon is no session; `codex exec` is one while it runs.
    auto daemonDir = project(home, "daemon");
    auto daemon = agentCommand(daemonDir, {"codex", "app-server"});
    auto execDir = project(home, "batch");
    auto exec = agentCommand(execDir, {"codex", "exec"});
    CodexRollout(kExecThread, execDir.string(), "codex_exec", std::chrono::system_clock::now() + 1s)
        .turnStart()
        .prompt("summarise the log")
        .writeIn(sessions);
    // A terminal UI that has had no prompt yet: its own row, by process.
    auto idleDir = project(home, "idle");
    ChildProcess fresh(codexBin, {"codex", "120"}, idleDir);

    LumoraApp app;
    auto rows = app.monitor().scanOnce();
    auto a = row(rows, kThread);
    ASSERT_TRUE(a) << rows.size();
    EXPECT_EQ(a->provider, HarnessProvider::codex);
    EXPECT_EQ(a->pid, tui.pid());
    EXPECT_EQ(a->projectName, "proj");
    EXPECT_EQ(a->gitBranch, "main");
    EXPECT_EQ(a->model, "GPT-5.5-Codex");
    EXPECT_EQ(a->status, AgentStatus::working);
    EXPECT_EQ(a->summary, "exec_command: make test");
    EXPECT_EQ(a->topic, "run the tests");
    EXPECT_FALSE(rowOfPid(rows, daemon->pid()));
    auto e = row(rows, kExecThread);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->pid, exec->pid());
    auto idle = rowOfPid(rows, fresh.pid());
    ASSERT_TRUE(idle);
    EXPECT_EQ(idle->id, idleDir.string() + "#" + std::to_string(fresh.pid()));
    EXPECT_EQ(idle->status, AgentStatus::waiting);

    // The turn ends on a question: needs you. Then an abort: waiting, no question.
    rollout.item({{"type", "CommandExecution"}, {"id", "call_3"}, {"command", "make test"}, {"status", "completed"},
                  {"aggregated_output", "ok"}, {"exit_code", 0}});
    rollout.reply("Tests pass. Shall I push?").complete("Tests pass. Shall I push?");
    rollout.writeTo(file);
    rows = app.monitor().scanOnce();
    EXPECT_EQ(row(rows, kThread)->status, AgentStatus::attention);
    EXPECT_TRUE(row(rows, kThread)->endsWithQuestion);
    rollout.turnStart().prompt("yes, push").abort();
    rollout.writeTo(file);
    rows = app.monitor().scanOnce();
    EXPECT_EQ(row(rows, kThread)->status, AgentStatus::waiting);
    EXPECT_EQ(row(rows, kThread)->summary, "Interrupted");

    // The batch run ends: its row goes; the thread's file stays on disk.
    exec->stop();
    rows = app.monitor().scanOnce();
    EXPECT_FALSE(row(rows, kExecThread));
    EXPECT_TRUE(row(rows, kThread));
}

TEST(CodexSessions, AHookGateTurnsTheRowToNeedsYou) {
    TempHome home;
    auto proj = project(home, "proj");
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    ScopedEnv socketEnv("LUMORA_SOCKET", (home / "run/notch.sock").string());
    ChildProcess tui(sleeperNamed(home / "bin", "codex"), {"codex", "120"}, proj);
    CodexRollout rollout(kThread, proj.string(), "codex-tui", std::chrono::system_clock::now() + 1s);
    rollout.turnStart().prompt("clean up").command("rm -rf build", 0, "", true, true).writeIn(home / ".codex/sessions");

    LumoraApp app;
    app.settings().setBool(SettingsStore::kHooksEnabled, true);
    app.start(true);
    auto waitFor = [&](auto check) {
        return RunLoop::main().runUntil(
            [&] {
                auto a = row(app.monitor().instances(), kThread);
                return a && check(*a);
            },
            5000ms);
    };
    ASSERT_TRUE(waitFor([](const AgentInstance& a) { return a.status == AgentStatus::working; }));
    SocketClient gate(home / "run/notch.sock");
    ASSERT_TRUE(gate.connected());
    gate.send(Json{{"v", 1}, {"source", "codex"}, {"session_id", kThread}, {"action", "gate"}, {"tool_name", "Bash"},
                   {"detail", "rm -rf build"}, {"reason", "Clean the build"}, {"escalated", true}}
                  .dump() +
              "\n");
    ASSERT_TRUE(waitFor([](const AgentInstance& a) { return a.status == AgentStatus::attention && a.approval; }));
    auto a = row(app.monitor().instances(), kThread);
    EXPECT_TRUE(a->approval->approvable);
    EXPECT_TRUE(a->approval->escalated);
    EXPECT_EQ(a->approval->detail, "rm -rf build");
    app.stop();
}

TEST(CursorSessions, ConversationsFollowTheirTranscriptTheProcessTableAndTheHookNotes) {
    TempHome home;
    auto proj = project(home, "web_app");
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    ScopedEnv socketEnv("LUMORA_SOCKET", (home / "run/notch.sock").string());
    ChildProcess agent(sleeperNamed(home / "bin", "cursor-agent"), {"cursor-agent", "120"}, proj);
    auto file = home / ".cursor/projects" / scrivet::CursorTranscriptReader::encodedDirName(proj.string()) /
                "agent-transcripts" / (kConversation + ".jsonl");
    CursorTranscript transcript;
    transcript.prompt("build the site");
    std::this_thread::sleep_for(20ms);
    transcript.writeTo(file);

    LumoraApp app;
    auto rows = app.monitor().scanOnce();
    auto a = row(rows, kConversation);
    ASSERT_TRUE(a) << rows.size();
    EXPECT_EQ(a->provider, HarnessProvider::cursor);
    EXPECT_EQ(a->pid, agent.pid());
    EXPECT_EQ(a->projectName, "web_app");
    EXPECT_EQ(a->status, AgentStatus::working);
    EXPECT_EQ(a->topic, "build the site");

    // A Shell call dangling past 8 s needs you, unless its command visibly runs.
    auto now = std::chrono::system_clock::now();
    transcript.tool("Shell", {{"command", "sleep 119"}});
    transcript.writeTo(file);
    setMtime(file, now - 10s);
    EXPECT_EQ(row(app.monitor().scanOnce(), kConversation)->status, AgentStatus::attention);
    {
        ChildProcess command("/bin/sleep", {"sleep", "119"}, proj);
        auto r = row(app.monitor().scanOnce(), kConversation);
        EXPECT_EQ(r->status, AgentStatus::working);
        EXPECT_FALSE(r->pendingApproval);
    }
    // An edit needs you after 3 s; a finished turn ending on a question too.
    transcript.reply("Ran it.").tool("Write", {{"path", "index.html"}});
    transcript.writeTo(file);
    setMtime(file, now - 4s);
    EXPECT_EQ(row(app.monitor().scanOnce(), kConversation)->status, AgentStatus::attention);
    transcript.reply("Done. Deploy too?").turnEnded();
    transcript.writeTo(file);
    EXPECT_EQ(row(app.monitor().scanOnce(), kConversation)->status, AgentStatus::attention);
    transcript.prompt("no").reply("OK.").turnEnded();
    transcript.writeTo(file);
    setMtime(file, now - 20s);
    EXPECT_EQ(row(app.monitor().scanOnce(), kConversation)->status, AgentStatus::waiting);

    // The hook's notes: a pending tool call past its threshold needs you (with
    // the model the hook reported); the activity note means working.
    app.settings().setBool(SettingsStore::kHooksEnabled, true);
    app.start(true);
    auto send = [&](Json line) {
        line["source"] = "cursor";
        line["session_id"] = kConversation;
        SocketClient(home / "run/notch.sock").send(line.dump() + "\n");
    };
    auto waitFor = [&](auto check) {
        return RunLoop::main().runUntil(
            [&] {
                auto r = row(app.monitor().instances(), kConversation);
                return r && check(*r);
            },
            5000ms);
    };
    double ts = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    send({{"action", "pending"}, {"kind", "tool"}, {"tool_name", "Write"}, {"command", "index.html"},
          {"ts", ts - 5}, {"transcript_path", file.string()}, {"cwd", proj.string()}, {"model", "gpt-5.5"}});
    ASSERT_TRUE(waitFor([](const AgentInstance& r) { return r.status == AgentStatus::attention && r.approval; }));
    a = row(app.monitor().instances(), kConversation);
    EXPECT_FALSE(a->approval->approvable);  // Cursor is never gated: display only
    EXPECT_EQ(a->summary, "Wants to use Write");
    EXPECT_EQ(a->model, "gpt-5.5");
    send({{"action", "pending-clear"}});
    send({{"action", "activity"}, {"status", "editing"}, {"title", "Editing index.html"}, {"ts", ts}});
    ASSERT_TRUE(waitFor([](const AgentInstance& r) { return r.status == AgentStatus::working; }));
    EXPECT_EQ(row(app.monitor().instances(), kConversation)->summary, "Editing index.html");
    app.stop();
}

TEST(CodexCursorSessions, ScanJsonCarriesTheirRows) {
    TempHome home;
    auto proj = project(home, "proj");
    ChildProcess codex(sleeperNamed(home / "bin", "codex"), {"codex", "120"}, proj);
    ChildProcess cursor(sleeperNamed(home / "bin", "cursor-agent"), {"cursor-agent", "120"}, proj);
    CodexRollout(kThread, proj.string(), "codex-tui", std::chrono::system_clock::now() + 1s)
        .turnStart()
        .prompt("hi")
        .reply("Hello.")
        .complete("Hello.")
        .writeIn(home / ".codex/sessions");
    std::this_thread::sleep_for(20ms);
    CursorTranscript().prompt("hi").reply("Hello.").turnEnded().writeTo(
        home / ".cursor/projects" / scrivet::CursorTranscriptReader::encodedDirName(proj.string()) /
        "agent-transcripts" / (kConversation + ".jsonl"));

    auto result = runCommand(lumoraBinary().string() + " --scan --json");
    ASSERT_EQ(result.status, 0) << result.output;
    // The scan sees the whole machine (other tests' agents too): pick ours by id.
    auto rows = Json::parse(result.output);
    std::map<std::string, Json> byProvider;
    for (const auto& r : rows)
        if (r["id"] == kThread || r["id"] == kConversation) byProvider[r["provider"]] = r;
    ASSERT_TRUE(byProvider.count("codex")) << result.output;
    ASSERT_TRUE(byProvider.count("cursor")) << result.output;
    EXPECT_EQ(byProvider["codex"]["pid"], codex.pid());
    EXPECT_EQ(byProvider["codex"]["model"], "GPT-5.5-Codex");
    EXPECT_EQ(byProvider["codex"]["status"], "waiting");
    EXPECT_EQ(byProvider["cursor"]["pid"], cursor.pid());
    EXPECT_EQ(byProvider["cursor"]["summary"], "Hello.");
    // The same fields as every other row.
    for (const auto& provider : {"codex", "cursor"}) {
        std::vector<std::string> keys, expected;
        for (const auto& [k, v] : byProvider[provider].items()) keys.push_back(k);
        auto claudeShaped = RunCommands::scanJson({AgentInstance{}}, nlohmann::ordered_json::object());
        for (const auto& [k, v] : claudeShaped[0].items()) expected.push_back(k);
        std::sort(keys.begin(), keys.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(keys, expected) << provider;
    }
}
