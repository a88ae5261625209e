// Statuses that follow the agent's own files as they change, not the next
// tick: a real process named like the Claude Code CLI, its session index and
// journal written the way Claude Code writes them, the real hook program on
// the real socket, and the real inotify. The safety tick is 10 s (hooks on),
// so each change below must reach the row through the file watcher or a hook.
#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "lumora/app/lumora_app.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/python_locator.hpp"
#include "lumora/platform/threads.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/codex_cursor_builders.hpp"
#include "scrivet/cursor_transcript_reader.hpp"
#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/kimi_wire_builder.hpp"
#include "scrivet/opencode_database_builder.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;
using Kind = FileWatcher::Target::Kind;
namespace W = lumora::test::KimiWire;
namespace Rows = lumora::test::OpenCodeRows;

namespace {

const std::string kSession = "2ba08b56-cdd6-4cd6-a287-5b0a4ea9a300";

// Well under the 10 s safety tick: a row that changes within it was told.
constexpr auto kBeforeTheTick = 3s;

long long epochMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string isoNow() {
    auto ms = epochMillis();
    std::time_t secs = ms / 1000;
    std::tm tm{};
    ::gmtime_r(&secs, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    char out[80];
    std::snprintf(out, sizeof out, "%s.%03lldZ", buf, ms % 1000);
    return out;
}

std::string entry(const Json& message, const std::string& type) {
    return Json{{"type", type}, {"message", message}, {"timestamp", isoNow()}, {"sessionId", kSession},
                {"uuid", "u" + std::to_string(epochMillis())}}
               .dump() + "\n";
}

std::string prompt(const std::string& text) { return entry({{"role", "user"}, {"content", text}}, "user"); }

std::string assistant(const Json& block, const char* stop) {
    return entry({{"id", "msg_" + std::to_string(epochMillis())}, {"role", "assistant"}, {"model", "claude-opus-5-5"},
                  {"content", Json::array({block})}, {"stop_reason", stop},
                  {"usage", {{"input_tokens", 900}, {"cache_read_input_tokens", 20000}, {"output_tokens", 40}}}},
                 "assistant");
}

void append(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::app) << text; }

// What a hook program of the agent received on standard input, from the samples
// when they are there, else in the same shape; aimed at this test's session.
Json hookInput(const std::string& event, const fs::path& cwd, const fs::path& journal) {
    Json input = {{"hook_event_name", event}, {"tool_name", "Bash"},
                  {"tool_input", {{"command", "npm test"}, {"description", "Run the tests"}}}};
    std::ifstream in(samplesDir() / "claude/hook-inputs.jsonl");
    for (std::string line; std::getline(in, line);) {
        auto j = Json::parse(line, nullptr, false);
        if (j.is_object() && j["scenario"] == "tui-manual-approve" && j["event"] == event) input = j["input"];
    }
    input["session_id"] = kSession;
    input["cwd"] = cwd.string();
    input["transcript_path"] = journal.string();
    return input;
}

struct Session {
    TempHome home;
    fs::path project = home / "proj";
    fs::path hooks = home / "hooks";
    fs::path socket = home / "run/notch.sock";
    fs::path index, journal;
    std::unique_ptr<test::ChildProcess> claude;
    std::unique_ptr<ScopedEnv> socketEnv;
    Json record;

    Session() {
        fs::create_directories(project);
        runCommand("cd '" + project.string() + "' && git init -q -b main");
        fs::create_directories(home / "run");
        ::chmod((home / "run").c_str(), 0700);
        socketEnv = std::make_unique<ScopedEnv>("LUMORA_SOCKET", socket.string());
        claude = std::make_unique<test::ChildProcess>(sleeperNamed(home / "bin", "claude"),
                                                std::vector<std::string>{"claude", "120"}, project);
        auto start = ProcessTable::system().snapshot().find(claude->pid())->start.value();
        record = {{"pid", claude->pid()},
                  {"sessionId", kSession},
                  {"cwd", project.string()},
                  {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()},
                  {"kind", "interactive"},
                  {"entrypoint", "cli"}};
        index = home / ".claude/sessions" / (std::to_string(claude->pid()) + ".json");
        setStatus("busy", std::nullopt, false);
        journal = scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", project.string(), kSession);
        writeFile(journal, prompt("run the tests") +
                               assistant({{"type", "tool_use"}, {"id", "toolu_1"}, {"name", "Bash"},
                                          {"input", {{"command", "npm test"}, {"description", "Run the tests"}}}},
                                         "tool_use"));
        fs::create_directories(hooks);
        EXPECT_TRUE(FileUtil::writeAtomically(hooks / "notch-hook.py", *EmbeddedResources::text("notch-hook.py"), 0755));
    }

    // The session index's status, replaced by a rename or rewritten in place.
    void setStatus(const std::string& status, std::optional<std::string> waitingFor, bool inPlace) {
        record["status"] = status;
        if (waitingFor) record["waitingFor"] = *waitingFor;
        else record.erase("waitingFor");
        record["updatedAt"] = record["statusUpdatedAt"] = epochMillis();
        if (inPlace) {
            std::ofstream(index, std::ios::trunc) << record.dump();
        } else {
            writeFile(index.string() + ".tmp", record.dump());
            fs::rename(index.string() + ".tmp", index);
        }
    }

    // Runs the real hook program for one of the agent's hook events; returns what it printed.
    std::string hook(const std::string& action, const std::string& event) {
        auto python = PythonLocator::interpreter().value_or("/usr/bin/python3");
        auto child = lumora::ChildProcess::spawn({python.string(), (hooks / "notch-hook.py").string(), action},
                                         hookInput(event, project, journal).dump(),
                                         {{"LUMORA_SOCKET", socket.string()}});
        if (!child || !child->wait(20s)) return "<did not finish>";
        return child->output();
    }
};

const AgentInstance* row(ClaudeMonitor& monitor, const std::string& id = kSession) {
    for (const auto& a : monitor.instances())
        if (a.id == id) return &a;
    return nullptr;
}

bool waitForStatus(ClaudeMonitor& monitor, AgentStatus status, std::chrono::milliseconds timeout = kBeforeTheTick,
                   const std::string& id = kSession) {
    return RunLoop::main().runUntil(
        [&] {
            auto* a = row(monitor, id);
            return a && a->status == status;
        },
        timeout);
}

bool watches(const ClaudeMonitor& monitor, const fs::path& path) {
    for (const auto& t : monitor.watchedPaths())
        if (t.path == path) return true;
    return false;
}

class CapturedLog {
public:
    CapturedLog() : previous_(spdlog::default_logger()) {
        auto logger = std::make_shared<spdlog::logger>("test", std::make_shared<spdlog::sinks::ostream_sink_mt>(out_));
        logger->set_pattern("%v");
        spdlog::set_default_logger(logger);
    }
    ~CapturedLog() { spdlog::set_default_logger(previous_); }
    int count(const std::string& needle) const {
        int n = 0;
        std::istringstream in(out_.str());
        for (std::string line; std::getline(in, line);) n += line.find(needle) != std::string::npos;
        return n;
    }

private:
    std::ostringstream out_;
    std::shared_ptr<spdlog::logger> previous_;
};

// A source with one session whose journal is `file`; each look takes `cost`
// and can be held open by the test.
class SlowSource : public SessionSource {
public:
    explicit SlowSource(fs::path file) : file_(std::move(file)) {}
    std::vector<SessionObservation> observe(const ScanContext&) override {
        std::unique_lock lock(mutex_);
        ++scans_;
        cv_.notify_all();
        cv_.wait(lock, [&] { return !blocked_; });
        lock.unlock();
        // Stands for reading the journals: processor time, which is what file-driven scans are spaced by.
        auto until = Threads::cpuTimeOfCurrent() + cost.load();
        while (Threads::cpuTimeOfCurrent() < until) {
        }
        SessionObservation o;
        o.id = "s1";
        o.cwd = "/w";
        o.info = scrivet::TranscriptInfo{};
        return {o};
    }
    void addWatchTargets(std::vector<FileWatcher::Target>& out) const override { out.push_back({file_, Kind::file}); }
    void block(bool b) {
        std::lock_guard lock(mutex_);
        blocked_ = b;
        cv_.notify_all();
    }
    bool waitForScans(int n) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, 5s, [&] { return scans_ >= n; });
    }
    int scans() {
        std::lock_guard lock(mutex_);
        return scans_;
    }
    std::atomic<std::chrono::milliseconds> cost{std::chrono::milliseconds(0)};

private:
    fs::path file_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool blocked_ = false;
    int scans_ = 0;
};

}  // namespace

TEST(LiveStatus, FileChangesScanOnceForABurstAndKeepToTheirShareOfTime) {
    TempDir dir;
    fs::path journal = dir / "s1.jsonl";
    writeFile(journal, "{}\n");
    auto files = FileWatcher::create();
    RunLoop loop;
    ClaudeMonitor::Dependencies deps;
    auto source = std::make_unique<SlowSource>(journal);
    SlowSource* slow = source.get();
    deps.sources.push_back(std::move(source));
    deps.files = files.get();
    deps.loop = &loop;
    ClaudeMonitor monitor(std::move(deps));
    monitor.start();
    ASSERT_TRUE(loop.runUntil([&] { return monitor.publishCount() == 1; }, 5s));
    ASSERT_EQ(monitor.watchedPaths().size(), 1u);

    // A write scans without anyone asking.
    append(journal, "{}\n");
    ASSERT_TRUE(loop.runUntil([&] { return monitor.publishCount() == 2; }, kBeforeTheTick));

    // Writes while a scan runs make exactly one more scan, however many.
    slow->block(true);
    monitor.refreshNow();
    loop.runOnce();
    ASSERT_TRUE(slow->waitForScans(3));
    for (int i = 0; i < 200; ++i) append(journal, "{}\n");
    loop.runUntil([] { return false; }, 100ms);  // the watcher's reports arrive while the scan is held
    slow->block(false);
    ASSERT_TRUE(loop.runUntil([&] { return monitor.publishCount() == 4; }, kBeforeTheTick));
    EXPECT_EQ(slow->scans(), 4);

    // A journal that grows all the time: scans are spaced by their cost.
    slow->cost = 20ms;
    auto until = std::chrono::steady_clock::now() + 1s;
    int before = slow->scans();
    while (std::chrono::steady_clock::now() < until) {
        append(journal, "{}\n");
        loop.runOnce(5ms);
    }
    int scans = slow->scans() - before;
    EXPECT_GE(scans, 1);
    // What the budget holds (at most the burst) and earns in 1 s, in scans
    // of 20 ms, and one already under way.
    auto earned = std::chrono::milliseconds(1000 / ClaudeMonitor::kFileScanSpacing) + ClaudeMonitor::kFileScanBurst;
    EXPECT_LE(scans, earned / 20ms + 2) << scans << " scans in 1 s";
    monitor.stop();
}

TEST(LiveStatus, APromptAnsweredInTheAgentsOwnDialogAndTheTurnsEndShowAtOnce) {
    Session s;
    LumoraApp app;
    app.settings().setBool(SettingsStore::kHooksEnabled, true);
    app.start(false);  // gating off, as `--no-ui` runs: the agent shows its own prompts
    auto& monitor = app.monitor();
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::working, 10s));
    ASSERT_EQ(monitor.scheduledRefreshInterval()->count(), 10);
    EXPECT_TRUE(watches(monitor, s.home / ".claude/sessions"));
    EXPECT_TRUE(watches(monitor, s.journal));
    EXPECT_TRUE(watches(monitor, s.journal.parent_path() / kSession / "subagents"));

    // The permission request is answered "passthrough" (nobody to ask here);
    // the agent shows its dialog and its index says so, by a rename.
    EXPECT_EQ(s.hook("busy", "PreToolUse"), "");
    EXPECT_EQ(s.hook("gate", "PermissionRequest"), "");
    s.setStatus("waiting", "permission prompt", false);
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::attention));
    ASSERT_TRUE(row(monitor)->approval);
    EXPECT_EQ(row(monitor)->approval->detail, "npm test");

    // Approved in the agent's dialog: its index says "busy" (rewritten in
    // place) while the command runs on, and no hook speaks until it ends.
    s.setStatus("busy", std::nullopt, true);
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::working));

    // The turn ends: the reply in the journal, the index back at the prompt, the Stop hook.
    append(s.journal, assistant({{"type", "text"}, {"text", "All 40 tests pass."}}, "end_turn"));
    s.setStatus("idle", std::nullopt, false);
    EXPECT_EQ(s.hook("done", "Stop"), "");
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::waiting));
    EXPECT_EQ(row(monitor)->summary, "All 40 tests pass.");

    // A new prompt written to the journal alone (no hook): working again.
    append(s.journal, prompt("and lint it"));
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::working));

    // The session ends: its process goes and its index file with it. The row
    // goes, and so do the watches on its files.
    s.claude->stop();
    fs::remove(s.index);
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return row(monitor) == nullptr; }, kBeforeTheTick));
    EXPECT_FALSE(watches(monitor, s.journal));
    EXPECT_TRUE(watches(monitor, s.home / ".claude/sessions"));
    app.stop();
}

TEST(LiveStatus, WithoutWatchesTheTickStillGetsItRightAndTheLogSaysWhyOnce) {
    Session s;
    CapturedLog log;
    RunLoop& loop = RunLoop::main();
    FileWatcher::Options options;
    options.maxWatches = 1;  // as if the system's limit were reached
    auto files = FileWatcher::create(options);
    ProcessDiscovery discovery(ProcessTable::system(), s.home / ".claude/sessions", s.home / ".claude/projects");
    ClaudeMonitor::Dependencies deps;
    deps.discover = [&] { return discovery.run(); };
    deps.sources.push_back(std::make_unique<ClaudeSessionSource>(
        ClaudeSessionSource::Paths{s.home / ".claude/projects", s.home / ".claude.json", s.home / "tmp",
                                   s.home / ".claude/sessions"},
        SDKHostMemory::shared(), nullptr));
    deps.files = files.get();
    deps.loop = &loop;
    ClaudeMonitor monitor(std::move(deps));
    monitor.start();
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::working, 10s));
    for (int i = 0; i < 3; ++i) {
        auto before = monitor.publishCount();
        monitor.refreshNow();  // as the tick does
        ASSERT_TRUE(loop.runUntil([&] { return monitor.publishCount() > before; }, 10s));
    }
    EXPECT_EQ(log.count("file changes may go unseen"), 1);
    EXPECT_EQ(log.count("limit"), 1);

    // Right at the tick, watched or not.
    s.setStatus("waiting", "permission prompt", false);
    auto before = monitor.publishCount();
    monitor.refreshNow();
    ASSERT_TRUE(loop.runUntil([&] { return monitor.publishCount() > before; }, 10s));
    EXPECT_EQ(row(monitor)->status, AgentStatus::attention);
    monitor.stop();
}

TEST(LiveStatus, EachAgentsOwnFilesMoveItsRow) {
    TempHome home;
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    ScopedEnv socketEnv("LUMORA_SOCKET", (home / "run/notch.sock").string());
    auto dir = [&](const std::string& name) {
        fs::create_directories(home / name);
        return home / name;
    };
    auto bin = home / "bin";

    // Codex: a terminal thread running a command.
    const std::string thread = "01a200f0-1111-7222-8333-944445555601";
    test::ChildProcess codex(sleeperNamed(bin, "codex"), {"codex", "120"}, dir("cx"));
    CodexRollout rollout(thread, (home / "cx").string(), "codex-tui", std::chrono::system_clock::now() + 1s);
    rollout.turnStart().prompt("run the tests").command("make test", 0, "", false, true);
    auto rolloutFile = rollout.writeIn(home / ".codex/sessions");

    // Cursor: a conversation under way.
    const std::string conversation = "c0ffee00-1111-4222-8333-944445555601";
    test::ChildProcess cursor(sleeperNamed(bin, "cursor-agent"), {"cursor-agent", "120"}, dir("cu"));
    auto transcriptFile = home / ".cursor/projects" /
                          scrivet::CursorTranscriptReader::encodedDirName((home / "cu").string()) / "agent-transcripts" /
                          (conversation + ".jsonl");
    CursorTranscript transcript;
    transcript.prompt("build the site");
    std::this_thread::sleep_for(20ms);  // written after the process started, as it would be
    transcript.writeTo(transcriptFile);

    // Kimi: a turn under way.
    const std::string kimiSession = "session_0a0a0a0a-1111-4222-8333-444455556666";
    test::ChildProcess kimi(sleeperNamed(bin, "kimi"), {"kimi", "120"}, dir("km"));
    writeFile(home / ".kimi-code/config.toml", W::config());
    auto wire = W::write(scrivet::KimiTranscriptReader::sessionsRoot(home / ".kimi-code"), kimiSession,
                         (home / "km").string(), W::metadata() + W::prompt("tidy up") + W::request("k3") + W::stepBegin(1))
                    .wire;

    // OpenCode: a reply streaming.
    test::ChildProcess opencode(sleeperNamed(bin, "opencode"), {"opencode", "120"}, dir("oc"));
    int64_t t0 = test::millisNow(-30s);
    OpenCodeDatabase db(home / ".local/share/opencode/opencode.db");
    db.session(OpenCodeDatabase::Session("ses_root", (home / "oc").string()).updatedAt(t0 + 100));
    db.message("m1", "ses_root", t0, Rows::user("ses_root", t0));
    db.part("p1", "m1", "ses_root", t0 + 1, Rows::text("ship the release"));
    db.message("m2", "ses_root", t0 + 5, Rows::assistant("ses_root", t0 + 5, std::nullopt, 0));
    db.part("p2", "m2", "ses_root", t0 + 6, Rows::text("Looking at the changelog"));

    LumoraApp app;
    app.settings().setBool(SettingsStore::kHooksEnabled, true);
    app.start(false);
    auto& monitor = app.monitor();
    ASSERT_TRUE(waitForStatus(monitor, AgentStatus::working, 10s, thread));
    for (const auto& id : {conversation, kimiSession, std::string("ses_root")})
        ASSERT_TRUE(waitForStatus(monitor, AgentStatus::working, 10s, id)) << id;
    ASSERT_EQ(monitor.scheduledRefreshInterval()->count(), 10);
    for (const auto& file : {rolloutFile, transcriptFile, wire, home / ".local/share/opencode/opencode.db-wal"})
        EXPECT_TRUE(watches(monitor, file)) << file;

    // Each turn ends in the agent's own file; each row follows before the tick.
    rollout.item({{"type", "CommandExecution"}, {"id", "call_3"}, {"command", "make test"}, {"status", "completed"},
                  {"aggregated_output", "ok"}, {"exit_code", 0}});
    rollout.reply("Tests pass. Shall I push?").complete("Tests pass. Shall I push?");
    rollout.writeTo(rolloutFile);
    EXPECT_TRUE(waitForStatus(monitor, AgentStatus::attention, kBeforeTheTick, thread));

    transcript.reply("Built.").turnEnded();
    transcript.writeTo(transcriptFile);
    EXPECT_TRUE(waitForStatus(monitor, AgentStatus::waiting, kBeforeTheTick, conversation));

    append(wire, W::text(1, "Tidied.") + W::stepEnd(1, "end_turn") + W::usage(3968, 383, 19200));
    EXPECT_TRUE(waitForStatus(monitor, AgentStatus::waiting, kBeforeTheTick, kimiSession));

    int64_t t1 = test::millisNow();
    db.message("m3", "ses_root", t1, Rows::assistant("ses_root", t1, t1 + 1));
    db.part("p3", "m3", "ses_root", t1 + 1, Rows::text("Shipped."));
    EXPECT_TRUE(waitForStatus(monitor, AgentStatus::waiting, kBeforeTheTick, "ses_root"));
    app.stop();
}
