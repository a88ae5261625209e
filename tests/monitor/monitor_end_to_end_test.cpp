// The monitor end to end: a real process named like the Claude Code CLI, its
// session file and journal on disk, the real hook bridge on a real socket,
// and the published list checked after each step.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "hooks/socket_client.hpp"
#include "lumora/app/lumora_app.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

const std::string kSession = "5f0c1b8e-3a2d-4c6e-9f10-2b7d8e4a1c01";

std::string isoNow(std::chrono::seconds offset = 0s) {
    auto t = std::chrono::system_clock::now() + offset;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    std::time_t secs = ms / 1000;
    std::tm tm{};
    ::gmtime_r(&secs, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    char out[80];
    std::snprintf(out, sizeof out, "%s.%03lldZ", buf, static_cast<long long>(ms % 1000));
    return out;
}

// Journal lines shaped like the ones Claude Code writes.
std::string userPrompt(const std::string& text) {
    return Json{{"parentUuid", nullptr}, {"isSidechain", false}, {"type", "user"},
                {"message", {{"role", "user"}, {"content", text}}}, {"uuid", "u-" + text.substr(0, 4)},
                {"timestamp", isoNow()}, {"cwd", "/x"}, {"sessionId", kSession}, {"gitBranch", "main"}}
               .dump() + "\n";
}

std::string assistant(const Json& block, const char* stop, const std::string& id) {
    return Json{{"type", "assistant"},
                {"message", {{"id", id}, {"type", "message"}, {"role", "assistant"}, {"model", "claude-opus-5-5"},
                             {"content", Json::array({block})}, {"stop_reason", stop ? Json(stop) : Json(nullptr)},
                             {"usage", {{"input_tokens", 1200}, {"cache_read_input_tokens", 30000},
                                        {"cache_creation_input_tokens", 800}, {"output_tokens", 60}}}}},
                {"timestamp", isoNow()}, {"sessionId", kSession}, {"gitBranch", "main"}}
               .dump() + "\n";
}

std::string bookkeeping() {
    return Json{{"type", "last-prompt"}, {"lastPrompt", "run the tests"}, {"sessionId", kSession}}.dump() + "\n" +
           Json{{"type", "cost-state"}, {"sessionId", kSession}, {"totalCostUSD", 0.01}}.dump() + "\n";
}

void append(const fs::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::app);
    out << text;
}

struct Fixture {
    TempHome home;
    fs::path project = home / "proj";
    fs::path journal;
    fs::path socket;
    std::unique_ptr<ChildProcess> claude;
    std::unique_ptr<ScopedEnv> socketEnv;

    Fixture() {
        fs::create_directories(project);
        runCommand("cd '" + project.string() + "' && git init -q -b main");
        fs::create_directories(home / "run");
        ::chmod((home / "run").c_str(), 0700);
        socket = home / "run/notch.sock";
        socketEnv = std::make_unique<ScopedEnv>("LUMORA_SOCKET", socket.string());
        fs::create_directories(home / "bin");
        fs::copy_file("/bin/sleep", home / "bin/claude");
        claude = std::make_unique<ChildProcess>(home / "bin/claude", std::vector<std::string>{"claude", "120"}, project);
        auto start = ProcessTable::system().snapshot().find(claude->pid())->start.value();
        Json record = {{"pid", claude->pid()},
                       {"sessionId", kSession},
                       {"cwd", project.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()},
                       {"kind", "interactive"},
                       {"entrypoint", "cli"},
                       {"status", "busy"}};
        writeFile(home / ".claude/sessions" / (std::to_string(claude->pid()) + ".json"), record.dump());
        journal = scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", project.string(), kSession);
        writeFile(journal, userPrompt("run the tests") +
                               assistant({{"type", "tool_use"}, {"id", "toolu_1"}, {"name", "Read"},
                                          {"input", {{"file_path", "README.md"}}}},
                                         "tool_use", "msg_1") +
                               bookkeeping());
    }
};

const AgentInstance* row(LumoraApp& app) {
    for (const auto& a : app.monitor().instances())
        if (a.id == kSession) return &a;
    return nullptr;
}

bool waitFor(LumoraApp& app, const std::function<bool(const AgentInstance&)>& check,
             std::chrono::milliseconds timeout = 5000ms) {
    return RunLoop::main().runUntil(
        [&] {
            auto* a = row(app);
            return a && check(*a);
        },
        timeout);
}

std::string line(const Json& j) { return j.dump() + "\n"; }

}  // namespace

TEST(MonitorEndToEnd, HookEventsAndTheJournalDriveTheRow) {
    Fixture f;
    LumoraApp app;
    app.settings().setBool(SettingsStore::kHooksEnabled, true);  // the timer is only a 10 s safety net
    app.start(true);
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::working; }));
    {
        const auto* a = row(app);
        EXPECT_EQ(a->pid, f.claude->pid());
        EXPECT_EQ(a->projectName, "proj");
        EXPECT_EQ(a->gitBranch, "main");
        EXPECT_EQ(a->model, "Opus 5.5");
        EXPECT_EQ(a->contextTokens, 32000);
    }
    ASSERT_EQ(app.monitor().scheduledRefreshInterval()->count(), 10);

    // A gate turns the row to needs-you at once, long before the next tick.
    SocketClient gate(f.socket);
    ASSERT_TRUE(gate.connected());
    auto sentAt = std::chrono::steady_clock::now();
    gate.send(line({{"v", 1}, {"source", "claude"}, {"session_id", kSession}, {"action", "gate"}, {"tool_name", "Bash"},
                    {"detail", "git push origin main"}, {"reason", "Publish the branch"}}));
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::attention; }));
    EXPECT_LT(std::chrono::steady_clock::now() - sentAt, 5s);
    const AgentInstance* a = row(app);
    ASSERT_TRUE(a->approval);
    EXPECT_TRUE(a->approval->approvable);
    EXPECT_EQ(a->approval->detail, "git push origin main");
    EXPECT_EQ(a->approval->reason, "Publish the branch");
    ASSERT_TRUE(app.monitor().peekEvent());
    EXPECT_FALSE(app.monitor().peekEvent()->done);

    // Approving from the row sends "allow" to the waiting hook.
    AppBackend backend(app);
    auto choices = backend.approvalChoices(*a->approval);
    ASSERT_EQ(choices.size(), 4u);
    EXPECT_EQ(choices[2].label, "Allow git this session");
    EXPECT_EQ(choices[3].label, "Always allow git");
    backend.choose(*a->approval, ApprovalChoice::Kind::approve);
    auto answer = gate.readUntilClosed();
    ASSERT_TRUE(answer);
    EXPECT_EQ(Json::parse(*answer)["behavior"], "allow");

    // The tool runs and the turn ends: a completion.
    SocketClient(f.socket).send(line({{"session_id", kSession}, {"action", "busydone"}, {"tool_name", "Bash"}}));
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::working; }));
    append(f.journal, assistant({{"type", "text"}, {"text", "Pushed. All tests pass."}}, "end_turn", "msg_2") + bookkeeping());
    SocketClient(f.socket).send(line({{"session_id", kSession}, {"action", "done"}}));
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::waiting; }));
    ASSERT_TRUE(app.monitor().peekEvent());
    EXPECT_TRUE(app.monitor().peekEvent()->done);
    EXPECT_EQ(app.monitor().peekEvent()->ask, "Pushed. All tests pass.");
    EXPECT_TRUE(app.monitor().unseenCompletions().count(kSession));

    // A new prompt; an idle marker flips the working session to needs-you
    // (a question the journal cannot show)...
    SocketClient(f.socket).send(line({{"session_id", kSession}, {"action", "start"}}));
    append(f.journal, userPrompt("and deploy"));
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::working; }));
    SocketClient(f.socket).send(line({{"session_id", kSession}, {"action", "marker"}, {"kind", "idle"}}));
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::attention; }));
    // ... until a journal entry newer than the marker refutes it. Journal
    // times have milliseconds: the entry is written once the clock has moved past the marker's.
    auto flipped = std::chrono::system_clock::now();
    while (std::chrono::system_clock::now() < flipped + 2ms) {
    }
    append(f.journal, assistant({{"type", "tool_use"}, {"id", "toolu_2"}, {"name", "Read"},
                                 {"input", {{"file_path", "deploy.sh"}}}},
                                "tool_use", "msg_3"));
    app.monitor().refreshNow();
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::working; }));

    // A fresh marker flips it again.
    SocketClient(f.socket).send(line({{"session_id", kSession}, {"action", "marker"}, {"kind", "idle"}}));
    ASSERT_TRUE(waitFor(app, [](const AgentInstance& a) { return a.status == AgentStatus::attention; }));

    app.stop();
    EXPECT_FALSE(fs::exists(f.socket));
}
