#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "lumora/app/processes_command.hpp"
#include "lumora/monitor/process_discovery.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;

namespace {

const char* kIndexed = "aaaaaaaa-0000-4000-8000-000000000001";
const char* kOlder = "aaaaaaaa-0000-4000-8000-000000000002";
const char* kWtNew = "bbbbbbbb-0000-4000-8000-000000000001";
const char* kWtOld = "bbbbbbbb-0000-4000-8000-000000000002";

void git(const fs::path& dir, const std::string& args) {
    auto r = runCommand("cd '" + dir.string() + "' && git -c user.name=t -c user.email=t@t " + args + " 2>&1");
    ASSERT_EQ(r.status, 0) << r.output;
}

void journal(const fs::path& home, const fs::path& cwd, const std::string& session, Date mtime) {
    auto file = scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", cwd.string(), session);
    writeFile(file, "{\"type\":\"user\",\"sessionId\":\"" + session + "\"}\n");
    setMtime(file, mtime);
}

const DiscoveredAgent* agent(const ProcessDiscovery::Pass& pass, int32_t pid) {
    for (const auto& a : pass.agents)
        if (a.pid == pid) return &a;
    return nullptr;
}

}  // namespace

TEST(ProcessDiscovery, PairsProcessesWithSessionsAndResolvesRepositories) {
    TempHome home;
    auto repo = home / "proj";
    fs::create_directories(repo);
    git(repo, "init -q -b main");
    git(repo, "commit -q --allow-empty -m first");
    git(repo, "worktree add -q -b feature/wt ../wt");
    auto wt = home / "wt";

    auto claude = sleeperNamed(home / "bin", "claude");
    ChildProcess indexed(claude, {"claude", "30"}, repo);
    ChildProcess loose(claude, {"claude", "30"}, repo);
    ChildProcess inWorktree(claude, {"claude", "30"}, wt);
    ChildProcess codex(sleeperNamed(home / "bin", "codex"), {"codex", "30"}, repo);
    sleepScript(home / "app-server");  // the shell standing in for codex runs this file
    ChildProcess codexDaemon("/bin/sh", {"codex", "app-server"}, home.path());

    auto now = std::chrono::system_clock::now();
    // The indexed session's journal is the newest of its folder; recency
    // must hand the other process the older one.
    journal(home.path(), repo, kIndexed, now - 1min);
    journal(home.path(), repo, kOlder, now - 10min);
    journal(home.path(), wt, kWtNew, now - 2min);
    journal(home.path(), wt, kWtOld, now - 20min);

    auto live = ProcessTable::system().snapshot();
    auto startOf = [&](int32_t pid) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(live.find(pid)->start->time_since_epoch())
            .count();
    };
    nlohmann::json record = {{"pid", indexed.pid()},     {"sessionId", kIndexed}, {"cwd", repo.string()},
                             {"startedAt", startOf(indexed.pid())}, {"status", "waiting"},
                             {"waitingFor", "permission prompt"},  {"tmux", "h:@0.%0"}};
    writeFile(home / ".claude/sessions" / (std::to_string(indexed.pid()) + ".json"), record.dump());
    writeFile(home / ".claude/sessions" / (std::to_string(indexed.pid()) + ".abc.key"), "{}");

    ProcessDiscovery discovery(ProcessTable::system(), home / ".claude/sessions", home / ".claude/projects");
    auto pass = discovery.run();

    const DiscoveredAgent* a = agent(pass, indexed.pid());
    ASSERT_TRUE(a);
    EXPECT_EQ(a->provider, HarnessProvider::claudeCode);
    EXPECT_EQ(a->cwd, repo.string());
    EXPECT_EQ(a->sessionId, kIndexed);
    EXPECT_EQ(a->pairing, DiscoveredAgent::Pairing::index);
    ASSERT_TRUE(a->indexRecord);
    EXPECT_EQ(a->indexRecord->status, "waiting");
    ASSERT_TRUE(a->multiplexer);
    EXPECT_EQ(a->multiplexer->session, "h");
    EXPECT_EQ(a->multiplexer->pane, "%0");
    EXPECT_EQ(a->worktree, (WorktreeResolver::Resolution{"proj", false, std::nullopt}));
    EXPECT_EQ(a->gitBranch, "main");
    EXPECT_EQ(a->raw().pid, indexed.pid());

    const DiscoveredAgent* b = agent(pass, loose.pid());
    ASSERT_TRUE(b);
    EXPECT_EQ(b->sessionId, kOlder);
    EXPECT_EQ(b->pairing, DiscoveredAgent::Pairing::fallback);

    const DiscoveredAgent* c = agent(pass, inWorktree.pid());
    ASSERT_TRUE(c);
    EXPECT_EQ(c->sessionId, kWtNew);
    EXPECT_EQ(c->pairing, DiscoveredAgent::Pairing::fallback);
    EXPECT_EQ(c->worktree, (WorktreeResolver::Resolution{"proj", true, "wt"}));
    EXPECT_EQ(c->gitBranch, "feature/wt");

    const DiscoveredAgent* d = agent(pass, codex.pid());
    ASSERT_TRUE(d);
    EXPECT_EQ(d->provider, HarnessProvider::codex);
    EXPECT_FALSE(d->sessionId);

    // The command line prints the same pass.
    auto line = ProcessesCommand::formatLine(*a);
    EXPECT_NE(line.find("pid=" + std::to_string(indexed.pid()) + " provider=claudeCode"), std::string::npos) << line;
    EXPECT_NE(line.find(std::string("session=") + kIndexed + " paired=index"), std::string::npos) << line;
    EXPECT_NE(line.find("mux=tmux:h:@0.%0 repo=proj branch=main worktree=-"), std::string::npos) << line;
    auto out = runCommand("'" + lumoraBinary().string() + "' --processes");
    EXPECT_EQ(out.status, 0);
    EXPECT_NE(out.output.find("session=" + std::string(kWtNew) + " paired=fallback"), std::string::npos)
        << out.output;
    EXPECT_NE(out.output.find("repo=proj branch=feature/wt worktree=wt"), std::string::npos) << out.output;
    // The long-lived daemon an editor talks to is no session.
    EXPECT_FALSE(agent(pass, codexDaemon.pid()));
    EXPECT_EQ(out.output.find("pid=" + std::to_string(codexDaemon.pid()) + " "), std::string::npos) << out.output;

    // A second pass: the dead process is gone, and the session it held is
    // free for recency again.
    indexed.stop();
    auto second = discovery.run();
    EXPECT_FALSE(agent(second, indexed.pid()));
    EXPECT_EQ(agent(second, loose.pid())->sessionId, kIndexed);
}

TEST(ProcessDiscovery, ProcessorUseComesFromTwoSamples) {
    TempDir dir;
    FixedProcessTable table({fakeProcess(1, 0, "/sbin/init"), fakeProcess(10, 1, "claude", {}, dir.path().string())});
    table.processes()[1].cpuSeconds = 5.0;
    auto t0 = std::chrono::steady_clock::now();
    table.setTakenAt(t0);
    ProcessDiscovery discovery(table, dir / "sessions", dir / "projects");
    discovery.run();
    table.setTakenAt(t0 + 200ms);
    table.processes()[1].cpuSeconds = 5.1;  // 0.1 s of processor in 0.2 s
    auto pass = discovery.run();
    ASSERT_EQ(pass.agents.size(), 1u);
    EXPECT_NEAR(pass.agents[0].cpu, 50.0, 0.01);
    // A new process under a reused pid starts over.
    table.setTakenAt(t0 + 400ms);
    table.processes()[1].startTicks += 1;
    table.processes()[1].cpuSeconds = 0;
    EXPECT_EQ(discovery.run().agents[0].cpu, 0.0);
}

TEST(ProcessDiscovery, FallbackPairingPrefersTheSessionWithLiveWork) {
    TempHome home;
    auto cwd = home / "proj";
    fs::create_directories(cwd);
    auto now = std::chrono::system_clock::now();
    const std::string parent = "dddddddd-0000-4000-8000-000000000001", oneShot = "dddddddd-0000-4000-8000-000000000002";
    // The parent launched a subagent that has not reported back; a one-shot
    // in the same folder finished after it and wrote last.
    auto parentFile = scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", cwd.string(), parent);
    writeFile(parentFile,
              "{\"type\":\"user\",\"sessionId\":\"" + parent + "\",\"message\":{\"role\":\"user\",\"content\":\"audit\"}}\n"
              "{\"type\":\"assistant\",\"sessionId\":\"" + parent + "\",\"message\":{\"role\":\"assistant\",\"stop_reason\":"
              "\"tool_use\",\"content\":[{\"type\":\"tool_use\",\"id\":\"toolu_a\",\"name\":\"Agent\",\"input\":"
              "{\"description\":\"Audit\",\"prompt\":\"Audit the code\",\"subagent_type\":\"general-purpose\"}}]}}\n");
    setMtime(parentFile, now - 5min);
    journal(home.path(), cwd, oneShot, now - 1min);
    auto claude = sleeperNamed(home / "bin", "claude");
    ChildProcess process(claude, {"claude", "30"}, cwd);
    auto snapshot = ProcessTable::system().snapshot();
    auto paired = pairByRecency({snapshot.find(process.pid())}, {}, home / ".claude/projects");
    EXPECT_EQ(paired[process.pid()], parent);
    // With a single recent journal recency alone decides, without reading any.
    EXPECT_EQ(pairByRecency({snapshot.find(process.pid())}, {parent}, home / ".claude/projects")[process.pid()], oneShot);
}
