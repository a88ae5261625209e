// Kimi and OpenCode sessions in the monitor: real processes named like the
// agents, Kimi's session folders and a real OpenCode database on disk, and
// the list a scan publishes.
#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <sstream>

#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/kimi_session_source.hpp"
#include "lumora/monitor/opencode_session_source.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/kimi_wire_builder.hpp"
#include "scrivet/opencode_database_builder.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
namespace W = lumora::test::KimiWire;
namespace Rows = lumora::test::OpenCodeRows;
using OcSession = lumora::test::OpenCodeDatabase::Session;

namespace {

const std::string kKimiLive = "session_0a0a0a0a-1111-4222-8333-444455556666";
const std::string kKimiAlone = "session_0a0a0a0a-1111-4222-8333-444455557777";

// Log lines, for counting what a source reported.
class CapturedLog {
public:
    CapturedLog() : previous_(spdlog::default_logger()) {
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(out_);
        auto logger = std::make_shared<spdlog::logger>("test", sink);
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

struct Machine {
    TempHome home;
    fs::path kimiRoot = scrivet::KimiTranscriptReader::sessionsRoot(home / ".kimi-code");
    fs::path database = home / ".local/share/opencode/opencode.db";
    ProcessDiscovery discovery{ProcessTable::system(), home / ".claude/sessions", home / ".claude/projects"};
    RunLoop loop;
    std::unique_ptr<ClaudeMonitor> monitor;

    Machine() {
        ClaudeMonitor::Dependencies deps;
        deps.discover = [this] { return discovery.run(); };
        deps.sources.push_back(std::make_unique<KimiSessionSource>(
            KimiSessionSource::Paths{kimiRoot, home / ".kimi-code/config.toml"}));
        deps.sources.push_back(std::make_unique<OpenCodeSessionSource>(
            OpenCodeSessionSource::Paths{database, home / ".cache/opencode/models.json"}));
        deps.loop = &loop;
        monitor = std::make_unique<ClaudeMonitor>(std::move(deps));
    }

    fs::path project(const std::string& name) {
        auto dir = home / name;
        fs::create_directories(dir);
        return dir;
    }
};

const AgentInstance* row(const std::vector<AgentInstance>& list, const std::string& id) {
    for (const auto& a : list)
        if (a.id == id) return &a;
    return nullptr;
}

}  // namespace

TEST(KimiOpenCodeSources, RowsOnlyWhileTheAgentRunsInTheSessionsDirectory) {
    Machine m;
    CapturedLog log;
    auto kimiDir = m.project("kimi-proj"), kimiIdle = m.project("kimi-idle");
    auto ocDir = m.project("oc-proj"), ocIdle = m.project("oc-idle");
    runCommand("cd '" + kimiDir.string() + "' && git init -q -b main");

    writeFile(m.home / ".kimi-code/config.toml", W::config());
    W::write(m.kimiRoot, kKimiLive, kimiDir.string(),
             W::metadata() + W::prompt("pick a database") + W::request("k3") + W::stepBegin(1) +
                 W::call("q1", "AskUserQuestion", W::questions({{"Which database?", {"SQLite", "Postgres"}}})));
    W::write(m.kimiRoot, kKimiAlone, kimiIdle.string(), W::finishedTurn("hi", "hello"));

    int64_t t0 = millisNow(-30s);
    OpenCodeDatabase db(m.database);
    db.session(OcSession("ses_root", ocDir.string()).updatedAt(t0 + 100));
    db.message("m1", "ses_root", t0, Rows::user("ses_root", t0));
    db.part("p1", "m1", "ses_root", t0 + 1, Rows::text("\"ship the release\""));
    db.message("m2", "ses_root", t0 + 5, Rows::assistant("ses_root", t0 + 5, std::nullopt, 0));
    db.part("p2", "m2", "ses_root", t0 + 6, Rows::tool("task", "running", "Check the changelog"));
    db.session(OcSession("ses_child", ocDir.string())
                   .titled("Check the changelog (@general subagent)")
                   .childOf("ses_root")
                   .agentNamed("general")
                   .updatedAt(t0 + 90));
    db.message("c1", "ses_child", t0 + 10, Rows::user("ses_child", t0 + 10));
    db.session(OcSession("ses_idle", ocIdle.string()).updatedAt(t0 + 200));
    db.close();

    auto kimi = sleeperNamed(m.home / "bin", "kimi");
    auto opencode = sleeperNamed(m.home / "bin", "opencode");
    auto kimiProcess = std::make_unique<ChildProcess>(kimi, std::vector<std::string>{"kimi", "60"}, kimiDir);
    ChildProcess opencodeProcess(opencode, {"opencode", "60"}, ocDir);

    auto list = m.monitor->scanOnce();
    ASSERT_EQ(list.size(), 2u);
    const auto* k = row(list, kKimiLive);
    ASSERT_TRUE(k);
    EXPECT_EQ(k->provider, HarnessProvider::kimi);
    EXPECT_EQ(k->pid, kimiProcess->pid());
    EXPECT_EQ(k->projectName, "kimi-proj");
    EXPECT_EQ(k->gitBranch, "main");
    EXPECT_EQ(k->model, "Kimi K3");
    EXPECT_EQ(k->status, AgentStatus::attention);  // a sitting question needs the user at once
    ASSERT_TRUE(k->question);
    EXPECT_EQ(k->question->text, "Which database?");
    EXPECT_EQ(k->topic, "pick a database");

    const auto* o = row(list, "ses_root");
    ASSERT_TRUE(o);
    EXPECT_EQ(o->provider, HarnessProvider::opencode);
    EXPECT_EQ(o->pid, opencodeProcess.pid());
    EXPECT_EQ(o->status, AgentStatus::working);
    EXPECT_EQ(o->subagentCount, 1);
    EXPECT_EQ(o->subagents.at(0).task, "Check the changelog");
    EXPECT_EQ(o->topic, "ship the release");
    EXPECT_FALSE(row(list, "ses_child"));
    EXPECT_FALSE(row(list, kKimiAlone));
    EXPECT_FALSE(row(list, "ses_idle"));

    // The database goes bad: OpenCode's rows go, Kimi's stay, and the cause
    // is logged once however many scans meet it.
    auto bytes = readFile(m.database);
    writeFile(m.database, bytes.substr(0, 100) + std::string(bytes.size() - 100, '\x5a'));
    for (int i = 0; i < 3; ++i) {
        list = m.monitor->scanOnce();
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].id, kKimiLive);
    }
    EXPECT_EQ(log.count("opencode: "), 1);

    // The Kimi process ends: so does its row.
    kimiProcess.reset();
    EXPECT_TRUE(m.monitor->scanOnce().empty());
}

TEST(KimiOpenCodeSources, TheDatabaseIsLeftExactlyAsItWas) {
    Machine m;
    auto dir = m.project("oc");
    {
        OpenCodeDatabase db(m.database);
        int64_t t0 = millisNow(-10s);
        db.session(OcSession("ses_done", dir.string()).titled("Release notes").updatedAt(t0));
        db.message("m1", "ses_done", t0, Rows::user("ses_done", t0));
        db.message("m2", "ses_done", t0 + 5, Rows::assistant("ses_done", t0 + 5, t0 + 9));
        db.part("p1", "m2", "ses_done", t0 + 6, Rows::text("Notes written."));
    }
    ChildProcess opencode(sleeperNamed(m.home / "bin", "opencode"), {"opencode", "60"}, dir);
    auto folder = m.database.parent_path();
    auto before = readFile(m.database);
    std::set<std::string> files;
    for (const auto& e : fs::directory_iterator(folder)) files.insert(e.path().filename().string());
    for (int i = 0; i < 10; ++i) {
        auto list = m.monitor->scanOnce();
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].status, AgentStatus::waiting);
        EXPECT_EQ(list[0].topic, "Release notes");
    }
    std::set<std::string> after;
    for (const auto& e : fs::directory_iterator(folder)) after.insert(e.path().filename().string());
    EXPECT_EQ(after, files);
    EXPECT_TRUE(readFile(m.database) == before);
}
