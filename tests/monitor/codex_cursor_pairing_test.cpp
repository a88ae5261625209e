// Which process a Codex thread or a Cursor conversation belongs to, on a
// made-up process table with rollouts and transcripts on disk; and Cursor's
// own status rule.
#include <gtest/gtest.h>

#include "lumora/monitor/codex_session_source.hpp"
#include "lumora/monitor/cursor_session_source.hpp"
#include "lumora/monitor/cursor_status_rules.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/codex_cursor_builders.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

namespace {

std::string thread(int i) { return "01a200f1-0000-7000-8000-00000000000" + std::to_string(i); }

struct Machine {
    std::vector<ProcessInfo> processes;
    std::vector<DiscoveredAgent> agents;

    void add(int32_t pid, HarnessProvider provider, const std::string& cwd, Clock::time_point start,
             std::vector<std::string> args = {"120"}) {
        auto p = fakeProcess(pid, 1, provider == HarnessProvider::codex ? "codex" : "cursor-agent", std::move(args), cwd);
        p.start = start;
        processes.push_back(p);
        DiscoveredAgent a;
        a.provider = provider;
        a.pid = pid;
        a.cwd = cwd;
        a.start = start;
        agents.push_back(a);
    }
    ScanContext context(Clock::time_point now, HookSnapshot* hooks = nullptr) const {
        ProcessDiscovery::Pass pass;
        pass.snapshot = ProcessSnapshot(processes);
        pass.agents = agents;
        return {now, std::make_shared<const ProcessDiscovery::Pass>(std::move(pass)), hooks};
    }
};

std::map<std::string, SessionObservation> byId(std::vector<SessionObservation> list) {
    std::map<std::string, SessionObservation> out;
    for (auto& o : list) out[o.id] = std::move(o);
    return out;
}

// A rollout begun at `created`, last written at `written`.
void rollout(const fs::path& root, int i, const std::string& cwd, Clock::time_point created, Clock::time_point written,
             const std::string& originator = "codex-tui") {
    CodexRollout r(thread(i), cwd, originator, created);
    r.turnStart().prompt("task " + std::to_string(i)).reply("done").complete();
    setMtime(r.writeIn(root), written);
}

}  // namespace

TEST(CodexPairing, EachProcessGetsTheThreadItBegunOrResumed) {
    TempDir dir;
    auto root = dir / "sessions";
    auto now = Clock::now();
    std::string cwd = (dir / "proj").string(), other = (dir / "other").string();
    Machine m;
    // Two terminal UIs in one folder: each gets the thread begun since it started,
    // whichever was written last.
    m.add(101, HarnessProvider::codex, cwd, now - 60min);
    m.add(102, HarnessProvider::codex, cwd, now - 30min);
    rollout(root, 1, cwd, now - 59min, now - 1min);
    rollout(root, 2, cwd, now - 29min, now - 5min);
    // A UI started after an old thread of its folder ended has no thread yet.
    rollout(root, 3, other, now - 50min, now - 45min);
    m.add(103, HarnessProvider::codex, other, now - 10min);
    // `codex resume <id>` of a thread begun days ago; a resume without an id
    // takes the thread written since it started.
    std::string resumed = (dir / "resumed").string(), picked = (dir / "picked").string();
    rollout(root, 4, resumed, now - 24h * 5, now - 2min);
    m.add(104, HarnessProvider::codex, resumed, now - 3min, {"resume", thread(4)});
    rollout(root, 5, picked, now - 20h, now - 1min);
    m.add(105, HarnessProvider::codex, picked, now - 4min, {"resume"});
    // A desktop thread in the same folder is never a terminal process's.
    rollout(root, 6, cwd, now - 20min, now - 1min, "Codex Desktop");

    bool desktop = false;
    CodexSessionSource source({root, 30min, [&](const ProcessSnapshot&) { return desktop; }});
    auto rows = byId(source.observe(m.context(now)));
    EXPECT_EQ(rows[thread(1)].pid, 101);
    EXPECT_EQ(rows[thread(2)].pid, 102);
    EXPECT_FALSE(rows.count(thread(3)));
    EXPECT_TRUE(rows.count(other + "#103"));
    EXPECT_EQ(rows[thread(4)].pid, 104);
    EXPECT_EQ(rows[thread(5)].pid, 105);
    EXPECT_FALSE(rows.count(thread(6)));
    EXPECT_EQ(rows.size(), 5u);

    // With the desktop app running its thread shows, without a process.
    desktop = true;
    rows = byId(source.observe(m.context(now)));
    ASSERT_TRUE(rows.count(thread(6)));
    EXPECT_FALSE(rows[thread(6)].pid);
    EXPECT_EQ(rows[thread(6)].host->appName, "Codex");
}

TEST(CursorPairing, ProcessesConversationsAndNotes) {
    TempDir dir;
    auto root = dir / "projects";
    auto now = Clock::now();
    std::string cwd = (dir / "site").string();
    fs::create_directories(cwd);
    auto folder = root / scrivet::CursorTranscriptReader::encodedDirName(cwd) / "agent-transcripts";
    auto write = [&](const std::string& id, Clock::time_point at) {
        CursorTranscript().prompt("task " + id).reply("done").turnEnded().writeTo(folder / (id + ".jsonl"));
        setMtime(folder / (id + ".jsonl"), at);
    };
    write("old", now - 3h);
    write("earlier", now - 20min);
    write("current", now - 1min);
    Machine m;
    m.add(201, HarnessProvider::cursor, cwd, now - 10min);

    CursorSessionSource source({root, 30min});
    HookSnapshot hooks;
    auto rows = byId(source.observe(m.context(now, &hooks)));
    EXPECT_EQ(rows["current"].pid, 201);
    EXPECT_FALSE(rows["earlier"].pid);  // fresh, shown while Cursor runs, with no process
    EXPECT_FALSE(rows.count("old"));
    EXPECT_EQ(rows.size(), 2u);

    // Nothing of Cursor runs: only a conversation a note names is a row.
    Machine none;
    CursorPending note;
    note.conversationId = "old";
    note.cwd = cwd;
    note.kind = "mcp";
    note.ts = std::chrono::duration<double>((now - 1s).time_since_epoch()).count();
    hooks.cursor.pending["old"] = note;
    hooks.cursor.models["old"] = "gpt-5.5";
    rows = byId(source.observe(none.context(now, &hooks)));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows["old"].info->model, "gpt-5.5");
    EXPECT_FALSE(hooks.signals.count({HarnessProvider::cursor, "old"}));  // an MCP note never waits on the user
    hooks.cursor = {};
    EXPECT_TRUE(source.observe(none.context(now, &hooks)).empty());
}

TEST(CursorStatusRules, ConfirmsSoonerAndStopsCountingAStalledTurn) {
    using Facts = StatusRules::TranscriptFacts;
    auto status = [](Facts f) { return CursorStatusRules::initialStatus(f, 30); };
    EXPECT_EQ(status({true, PendingApproval::edit, false, 2.9, std::nullopt}), AgentStatus::working);
    EXPECT_EQ(status({true, PendingApproval::edit, false, 3, std::nullopt}), AgentStatus::attention);
    EXPECT_EQ(status({true, PendingApproval::run, false, 7.9, std::nullopt}), AgentStatus::working);
    EXPECT_EQ(status({true, PendingApproval::run, false, 8, std::nullopt}), AgentStatus::attention);
    EXPECT_EQ(status({true, PendingApproval::question, false, 0, std::nullopt}), AgentStatus::attention);
    EXPECT_EQ(status({true, std::nullopt, false, 599, std::nullopt}), AgentStatus::working);
    EXPECT_EQ(status({true, std::nullopt, false, 601, std::nullopt}), AgentStatus::waiting);
    EXPECT_EQ(status({false, std::nullopt, true, 10, std::nullopt}), AgentStatus::attention);
    EXPECT_EQ(status({false, std::nullopt, true, 1801, std::nullopt}), AgentStatus::idle);
}
