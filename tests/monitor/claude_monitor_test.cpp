#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>
#include <condition_variable>
#include <mutex>

#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/claude_session_index.hpp"
#include "scrivet/claude_journal_builder.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace std::chrono_literals;
using Kind = HookSignals::MarkerKind;

namespace {

const Date kT0 = std::chrono::system_clock::now();

scrivet::TranscriptInfo facts(bool inProgress, Date last, bool realTurn = true) {
    scrivet::TranscriptInfo i;
    i.inProgress = inProgress;
    i.lastEntryDate = last;
    i.lastModified = last;
    i.hasRealTurn = realTurn;
    i.summary = inProgress ? "Working on it" : "All done.";
    return i;
}

SessionObservation observe(std::string id, std::optional<scrivet::TranscriptInfo> info) {
    SessionObservation o;
    o.id = std::move(id);
    o.pid = 4242;
    o.cwd = "/home/dev/proj";
    o.projectName = "proj";
    o.info = std::move(info);
    return o;
}

// A source whose next answer the test sets, and which can hold a scan open.
class ScriptedSource : public SessionSource {
public:
    std::vector<SessionObservation> observe(const ScanContext&) override {
        std::unique_lock lock(mutex);
        ++scans;
        cv.notify_all();
        cv.wait(lock, [&] { return !blocked; });
        return next;
    }
    void set(std::vector<SessionObservation> obs) {
        std::lock_guard lock(mutex);
        next = std::move(obs);
    }
    void block(bool b) {
        std::lock_guard lock(mutex);
        blocked = b;
        cv.notify_all();
    }
    void waitForScans(int n) {
        std::unique_lock lock(mutex);
        cv.wait_for(lock, 5s, [&] { return scans >= n; });
    }
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<SessionObservation> next;
    bool blocked = false;
    int scans = 0;
};

struct Harness {
    RunLoop loop;
    ScriptedSource* source = nullptr;
    HookSnapshot hooks;
    std::mutex hooksMutex;
    Date clock = kT0;
    bool lowPower = false;
    std::unique_ptr<ClaudeMonitor> monitor;
    std::vector<ClaudeMonitor::Alert> alerts;

    Harness() {
        ClaudeMonitor::Dependencies deps;
        auto s = std::make_unique<ScriptedSource>();
        source = s.get();
        deps.sources.push_back(std::move(s));
        deps.hooks = [this](Date) {
            std::lock_guard lock(hooksMutex);
            return hooks;
        };
        deps.lowPowerMode = [this] { return lowPower; };
        deps.clock = [this] { return clock; };
        deps.loop = &loop;
        monitor = std::make_unique<ClaudeMonitor>(std::move(deps));
        monitor->setOnAlert([this](const ClaudeMonitor::Alert& a) { alerts.push_back(a); });
    }
    // Runs one refresh to its publish.
    void refresh() {
        auto before = monitor->publishCount();
        monitor->refreshNow();
        ASSERT_TRUE(loop.runUntil([&] { return monitor->publishCount() > before; }, 5s));
    }
    AgentStatus status(const std::string& id) {
        for (const auto& a : monitor->instances())
            if (a.id == id) return a.status;
        ADD_FAILURE() << "no row " << id;
        return AgentStatus::idle;
    }
};

}  // namespace

TEST(ClaudeMonitor, RequestsDuringAScanMakeExactlyOneMore) {
    Harness h;
    h.source->set({observe("s1", facts(true, kT0))});
    h.source->block(true);
    h.monitor->refreshNow();
    h.loop.runOnce();  // dispatches the first scan, which now blocks
    h.source->waitForScans(1);
    h.monitor->refreshNow();
    h.monitor->refreshNow();
    h.monitor->refreshNow();
    h.loop.runOnce();
    h.source->block(false);
    ASSERT_TRUE(h.loop.runUntil([&] { return h.monitor->publishCount() == 2; }, 5s));
    h.loop.runOnce(100ms);
    EXPECT_EQ(h.source->scans, 2);
    EXPECT_EQ(h.monitor->publishCount(), 2);
}

TEST(ClaudeMonitor, FinishedTurnRaisesACompletionAndNeedsYouRaisesAPeek) {
    Harness h;
    h.source->set({observe("s1", facts(true, kT0))});
    h.refresh();  // the first publish only establishes what is true at launch
    EXPECT_EQ(h.status("s1"), AgentStatus::working);
    EXPECT_TRUE(h.alerts.empty());

    h.clock = kT0 + 5s;
    h.source->set({observe("s1", facts(false, kT0 + 4s))});
    h.refresh();
    EXPECT_EQ(h.status("s1"), AgentStatus::waiting);
    ASSERT_EQ(h.alerts.size(), 1u);
    EXPECT_TRUE(h.alerts[0].peek.done);
    EXPECT_TRUE(h.alerts[0].sound);
    EXPECT_EQ(h.alerts[0].peek.ask, "All done.");
    EXPECT_EQ(h.monitor->completionPulse(), 1);
    EXPECT_TRUE(h.monitor->unseenCompletions().count("s1"));
    h.monitor->sawRow("s1");
    EXPECT_FALSE(h.monitor->unseenCompletions().count("s1"));

    // A held permission prompt turns the row to needs-you on the next scan.
    {
        std::lock_guard lock(h.hooksMutex);
        HookSignals sig;
        sig.marker = HookSignals::Marker{Kind::permission, "Bash", "git push", "Publish", false, {}, 0, kT0 + 6s};
        sig.gateHeld = true;
        h.hooks.signals[{HarnessProvider::claudeCode, "s1"}] = sig;
    }
    h.refresh();
    EXPECT_EQ(h.status("s1"), AgentStatus::attention);
    const auto& row = h.monitor->instances()[0];
    ASSERT_TRUE(row.approval);
    EXPECT_TRUE(row.approval->approvable);
    EXPECT_EQ(row.approval->detail, "git push");
    EXPECT_TRUE(row.hasHookGroundTruth);
    ASSERT_EQ(h.alerts.size(), 2u);
    EXPECT_FALSE(h.alerts[1].peek.done);
    EXPECT_EQ(h.alerts[1].peek.ask, "Wants to run git push");
    EXPECT_EQ(h.alerts[1].peek.riseCount, 1);
    EXPECT_GT(h.alerts[1].peek.token, h.alerts[0].peek.token);
    h.monitor->sawRow("s1");
    EXPECT_TRUE(h.monitor->acknowledgedAttention().count("s1"));
}

TEST(ClaudeMonitor, ATurnWithoutARealPromptNeverChimes) {
    Harness h;
    h.source->set({observe("s1", facts(true, kT0, false))});
    h.refresh();
    h.source->set({observe("s1", facts(false, kT0 + 1s, false))});
    h.refresh();
    ASSERT_EQ(h.alerts.size(), 1u);
    EXPECT_FALSE(h.alerts[0].sound);
    EXPECT_FALSE(h.monitor->peekEvent()->chimes);
}

TEST(ClaudeMonitor, AReaderThatReturnsNothingKeepsTheLastFacts) {
    Harness h;
    auto info = facts(true, kT0);
    info.model = "Opus 5.5";
    info.subagentCount = 2;
    h.source->set({observe("s1", info)});
    h.refresh();
    h.source->set({observe("s1", std::nullopt)});
    h.refresh();
    ASSERT_EQ(h.monitor->instances().size(), 1u);
    EXPECT_EQ(h.monitor->instances()[0].model, "Opus 5.5");
    EXPECT_EQ(h.monitor->instances()[0].subagentCount, 2);
    EXPECT_EQ(h.status("s1"), AgentStatus::working);
    // A session that ends loses its row and its memo.
    h.source->set({});
    h.refresh();
    EXPECT_TRUE(h.monitor->instances().empty());
}

TEST(ClaudeMonitor, CadenceFollowsHooksActivityAndPower) {
    Harness h;
    h.source->set({observe("s1", facts(true, kT0))});
    h.monitor->start();
    ASSERT_TRUE(h.loop.runUntil([&] { return h.monitor->publishCount() == 1; }, 5s));
    EXPECT_EQ(h.monitor->scheduledRefreshInterval()->count(), 2);
    h.lowPower = true;
    h.refresh();
    EXPECT_EQ(h.monitor->scheduledRefreshInterval()->count(), 5);
    auto s = h.monitor->settings();
    s.hooksEnabled = true;
    h.monitor->setSettings(s);
    EXPECT_EQ(h.monitor->scheduledRefreshInterval()->count(), 25);
    h.lowPower = false;
    h.source->set({});
    h.refresh();
    EXPECT_EQ(h.monitor->scheduledRefreshInterval()->count(), 10);
    s.hooksEnabled = false;
    h.monitor->setSettings(s);
    EXPECT_EQ(h.monitor->scheduledRefreshInterval()->count(), 8);
    h.monitor->stop();
    EXPECT_FALSE(h.monitor->scheduledRefreshInterval());
}

TEST(SessionDerivation, OrderedRules) {
    SessionDerivation::Settings settings;
    auto derive = [&](const SessionObservation& o, const HookSignals& hooks, SessionDerivation::Memo memo = {}) {
        return SessionDerivation::derive(o, hooks, memo, kT0, settings);
    };

    // The agent's own index: waiting on a permission prompt is needs-you, display-only.
    // The journal's dangling call names what it asks for.
    auto pending = facts(true, kT0 - 2s);
    pending.pendingApproval = PendingApproval::edit;
    pending.pendingToolCall = scrivet::PendingToolCall{"Write", "src/db.sql"};
    auto obs = observe("s1", pending);
    obs.selfReport = SessionObservation::SelfReport{"waiting", "permission prompt", kT0 - 1s};
    auto a = derive(obs, {});
    EXPECT_EQ(a.status, AgentStatus::attention);
    ASSERT_TRUE(a.approval);
    EXPECT_FALSE(a.approval->approvable);
    EXPECT_EQ(a.approval->toolName, "Write");
    EXPECT_EQ(a.approval->detail, "src/db.sql");
    obs.selfReport->waitingFor = "input needed";
    EXPECT_EQ(derive(obs, {}).status, AgentStatus::attention);
    // A hook marker wins over the index.
    HookSignals question;
    question.marker = HookSignals::Marker{Kind::question, "AskUserQuestion", "Which\ndatabase?", std::nullopt, false,
                                          {"SQLite", "Postgres"}, 1, kT0};
    auto q = derive(obs, question);
    ASSERT_TRUE(q.question);
    EXPECT_EQ(q.question->text, "Which database?");
    EXPECT_EQ(q.question->optionsLine(), "1 SQLite   2 Postgres   +1 more");
    EXPECT_FALSE(q.approval);

    // The index's "busy" is a busy signal at its update time.
    auto settled = observe("s2", facts(false, kT0 - 60s));
    settled.selfReport = SessionObservation::SelfReport{"busy", std::nullopt, kT0 - 10s};
    EXPECT_EQ(derive(settled, {}).status, AgentStatus::working);
    // ... refuted by a settled entry written after it.
    settled.selfReport->updatedAt = kT0 - 90s;
    EXPECT_EQ(derive(settled, {}).status, AgentStatus::waiting);

    // An idle marker flips a working session, unless a newer entry refutes it.
    HookSignals idle;
    idle.marker = HookSignals::Marker{Kind::idle, "", std::nullopt, std::nullopt, false, {}, 0, kT0 - 5s};
    auto working = observe("s3", facts(true, kT0 - 20s));
    EXPECT_EQ(derive(working, idle).status, AgentStatus::attention);
    working.info = facts(true, kT0 - 1s);
    EXPECT_EQ(derive(working, idle).status, AgentStatus::working);
    working.backgroundActive = true;
    working.info = facts(true, kT0 - 20s);
    EXPECT_EQ(derive(working, idle).status, AgentStatus::working);

    // The processor-use hold keeps a busy process working for a while.
    auto finished = observe("s4", facts(false, kT0 - 1s));
    finished.cpu = 40;
    SessionDerivation::Memo memo;
    memo.status = AgentStatus::working;
    memo.cpu = 40;
    auto held = SessionDerivation::derive(finished, {}, memo, kT0, settings);
    EXPECT_EQ(held.status, AgentStatus::working);
    EXPECT_EQ(memo.cpuHoldSince, kT0);
    memo.status = AgentStatus::working;
    auto released = SessionDerivation::derive(finished, {}, memo, kT0 + 600s, settings);
    EXPECT_EQ(released.status, AgentStatus::waiting);
    EXPECT_TRUE(memo.cpuHoldCapped);
}

TEST(ClaudeMonitor, AScanInFlightAtStopIsNotPublished) {
    Harness h;
    h.source->set({observe("s1", facts(true, kT0))});
    h.source->block(true);
    h.monitor->start();
    h.source->waitForScans(1);
    h.monitor->stop();
    h.monitor->refreshNow();  // dropped: the monitor is stopped
    h.source->block(false);
    h.monitor->scanOnce();  // the scan queue is serial: the first scan has handed its result over
    h.loop.runOnce();
    EXPECT_EQ(h.monitor->publishCount(), 0);
    EXPECT_TRUE(h.monitor->instances().empty());
    EXPECT_EQ(h.source->scans, 2);  // the first scan and scanOnce's; no refresh after stop
    // Started again, it publishes.
    h.monitor->start();
    ASSERT_TRUE(h.loop.runUntil([&] { return h.monitor->publishCount() == 1; }, 5s));
}

TEST(ClaudeMonitor, ARowKnownByItsProcessTakesItsSessionIdAndKeepsItsHistory) {
    Harness h;
    auto early = observe("/home/dev/proj#4242", facts(true, kT0));
    early.processStart = kT0 - 10s;
    h.source->set({early});
    h.refresh();
    EXPECT_EQ(h.status("/home/dev/proj#4242"), AgentStatus::working);

    // A hook names the session for that folder: its marker reaches the row.
    const std::string id = "019fb206-97a0-7573-a940-cb4c5cf36e91";
    HookSignals sig;
    sig.marker = HookSignals::Marker{Kind::permission, "Bash", "make deploy", std::nullopt, false, {}, 0, kT0 + 1s};
    sig.gateHeld = true;
    sig.cwd = "/home/dev/proj";
    HookSignals stale = sig;  // heard from before this process started: another session's
    stale.marker->createdAt = kT0 - 60s;
    {
        std::lock_guard lock(h.hooksMutex);
        h.hooks.signals[{HarnessProvider::claudeCode, id}] = sig;
        h.hooks.signals[{HarnessProvider::claudeCode, "0aaaaaaa-0000-4000-8000-000000000000"}] = stale;
    }
    h.clock = kT0 + 2s;
    h.refresh();
    ASSERT_EQ(h.monitor->instances().size(), 1u);
    EXPECT_EQ(h.monitor->instances()[0].id, id);
    EXPECT_EQ(h.status(id), AgentStatus::attention);
    ASSERT_TRUE(h.monitor->instances()[0].approval);
    EXPECT_TRUE(h.monitor->instances()[0].approval->approvable);

    // Re-keyed by its journal instead: the same session, so finishing its
    // turn is a completion, not a new row.
    Harness j;
    j.source->set({early});
    j.refresh();
    j.source->set({observe(id, facts(false, kT0 + 1s))});
    j.clock = kT0 + 2s;
    j.refresh();
    EXPECT_EQ(j.status(id), AgentStatus::waiting);
    ASSERT_EQ(j.alerts.size(), 1u);
    EXPECT_TRUE(j.alerts[0].peek.done);
    EXPECT_EQ(j.alerts[0].peek.sessionId, id);
}

TEST(ClaudeMonitorDeathTest, CallsOffTheMainLoopsThreadAreCaught) {
#ifdef NDEBUG
    GTEST_SKIP() << "assertions are compiled out of this build";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Harness h;
            std::thread([&] { h.monitor->setSettings({}); }).join();
        },
        "main loop");
}

TEST(SessionDerivation, StatusesThatDoNotLie) {
    SessionDerivation::Settings settings;
    auto derive = [&](const SessionObservation& o, const HookSignals& hooks = {}) {
        SessionDerivation::Memo memo;
        return SessionDerivation::derive(o, hooks, memo, kT0, settings);
    };

    // Esc before the first token: the journal ends on the prompt and no hook
    // says the turn ended, but the agent's index is back at its prompt.
    auto stopped = observe("s1", facts(true, kT0 - 90s));
    HookSignals busy;
    busy.busySince = kT0 - 90s;
    EXPECT_EQ(derive(stopped, busy).status, AgentStatus::working);
    stopped.selfReport = SessionObservation::SelfReport{"idle", std::nullopt, kT0 - 80s};
    EXPECT_EQ(derive(stopped, busy).status, AgentStatus::waiting);
    EXPECT_FALSE(derive(stopped).inProgress);
    // ... an index that went idle before the prompt proves nothing.
    stopped.selfReport->updatedAt = kT0 - 95s;
    EXPECT_EQ(derive(stopped, busy).status, AgentStatus::working);

    // A question dismissed in the agent fires no hook; the index or the journal moving on clears it.
    auto asking = facts(true, kT0 - 30s);
    asking.pendingApproval = PendingApproval::question;
    auto q = observe("s2", asking);
    HookSignals question;
    question.marker = HookSignals::Marker{Kind::question, "AskUserQuestion", "Which database?", std::nullopt, false,
                                          {"SQLite"}, 0, kT0 - 29s};
    q.selfReport = SessionObservation::SelfReport{"waiting", "input needed", kT0 - 29s};
    EXPECT_EQ(derive(q, question).status, AgentStatus::attention);
    q.selfReport = SessionObservation::SelfReport{"busy", std::nullopt, kT0 - 5s};
    EXPECT_EQ(derive(q, question).status, AgentStatus::working);
    EXPECT_FALSE(derive(q, question).question);
    q.selfReport.reset();
    EXPECT_EQ(derive(q, question).status, AgentStatus::attention) << "the question's own call still dangles";
    auto movedOn = facts(false, kT0 - 10s);
    q.info = movedOn;
    EXPECT_EQ(derive(q, question).status, AgentStatus::waiting);

    // A process with no journal yet ages from its start.
    auto fresh = observe("/home/dev/proj#77", std::nullopt);
    fresh.processStart = kT0 - 10s;
    auto young = derive(fresh);
    EXPECT_EQ(young.status, AgentStatus::waiting);
    EXPECT_EQ(young.lastActivity, kT0 - 10s);
    fresh.processStart = kT0 - 31min;
    EXPECT_EQ(derive(fresh).status, AgentStatus::idle);

    // A subagent writing keeps its parent fresh: no idle, and its time is the row's.
    auto parent = facts(false, kT0 - 45min);
    parent.subagentActivity = kT0 - 20s;
    auto p = derive(observe("s3", parent));
    EXPECT_EQ(p.status, AgentStatus::waiting);
    EXPECT_EQ(p.lastActivity, kT0 - 20s);
    parent.subagentActivity.reset();
    EXPECT_EQ(derive(observe("s3", parent)).status, AgentStatus::idle);
}

TEST(SessionDerivation, TheIndexWaitingOnAPermissionNamesTheRealCommand) {
    // A session caught while its permission dialog is open: the index file
    // says it waits, the journal ends on the dangling call.
    lumora::test::TempDir dir;
    auto check = [&](const std::string& indexFile, const std::string& journalText) {
        auto record = ClaudeSessionIndex::parse(indexFile);
        ASSERT_TRUE(record && record->statusUpdatedAt);
        auto journal = dir / "journal.jsonl";
        lumora::test::writeFile(journal, journalText);
        auto info = scrivet::ClaudeTranscriptReader::info(journal, record->cwd, dir / "none.json");
        ASSERT_TRUE(info);
        auto obs = observe(record->sessionId, info);
        obs.selfReport = SessionObservation::SelfReport{*record->status, record->waitingFor, record->statusUpdatedAt};
        SessionDerivation::Memo memo;
        auto a = SessionDerivation::derive(obs, {}, memo, *record->statusUpdatedAt + 5s, {});
        EXPECT_EQ(a.status, AgentStatus::attention);
        ASSERT_TRUE(a.approval);
        EXPECT_EQ(a.approval->toolName, "Bash");
        EXPECT_EQ(a.approval->detail, "touch harness-made.txt");
    };

    // Built in the shape of the real files.
    const std::string session = "2ba08b56-cdd6-4cd6-a287-5b0a4ea9a300";
    lumora::test::ClaudeJournal j(session);
    j.boot().prompt("make the file");
    j.toolCall("toolu_1", "Bash", {{"command", "touch harness-made.txt"}, {"description", "Create the file"}},
               "I'll run a shell command.");
    j.raw({{"type", "last-prompt"}, {"lastPrompt", "make the file"}, {"sessionId", session}});
    nlohmann::json index = {{"pid", 4788}, {"sessionId", session}, {"cwd", "/home/dev/proj.app"},
                            {"startedAt", 1795308445670}, {"procStart", "334822"}, {"version", "2.1.330"},
                            {"kind", "interactive"}, {"entrypoint", "cli"}, {"tmux", "h:@0.%0"},
                            {"status", "waiting"}, {"updatedAt", 1795308450329}, {"statusUpdatedAt", 1795308450329},
                            {"waitingFor", "permission prompt"}};
    check(index.dump(), j.text());

    // The real files, when they are beside the repository.
    auto samples = lumora::test::samplesDir() / "claude";
    if (!std::filesystem::exists(samples)) GTEST_SKIP() << "no agent samples at " << samples;
    auto snapshots = nlohmann::json::parse(lumora::test::readFile(samples / "session-index-snapshots.json"));
    std::ifstream in(samples / "home/.claude/projects/-home-dev-proj-app" / (session + ".jsonl"));
    std::string text;
    for (std::string line; std::getline(in, line);) {
        text += line + "\n";
        if (line.find("\"tool_use\"") != std::string::npos && line.find("\"Bash\"") != std::string::npos) break;
    }
    check(snapshots["sessions_while_running"]["4788.json"].dump(), text);
}
