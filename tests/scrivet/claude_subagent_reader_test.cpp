#include <gtest/gtest.h>

#include <unistd.h>

#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/tail_reader.hpp"
#include "support/test_support.hpp"
#include "claude_journal_builder.hpp"

using namespace scrivet;
namespace CSR = scrivet::ClaudeSubagentReader;
namespace CTR = scrivet::ClaudeTranscriptReader;
using lumora::test::ClaudeJournal;
using lumora::test::TempDir;
using lumora::test::setMtime;
using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

const std::string kTask = "cf9ff97d-2bbd-48a5-b3cd-df36264f26b9";

fs::path samples() { return lumora::test::samplesDir() / "claude/home/.claude/projects/-home-dev-proj-app"; }

// The "task" sample copied into a fresh project folder, with its subagent.
struct TaskSession {
    TempDir dir;
    fs::path folder = dir / "projects" / "-home-dev-proj-app";
    fs::path transcript = folder / (kTask + ".jsonl");
    fs::path agent = folder / kTask / "subagents" / "agent-a99c8a91daa624b13.jsonl";
    fs::path meta = folder / kTask / "subagents" / "agent-a99c8a91daa624b13.meta.json";
    Date now = std::chrono::system_clock::now();

    TaskSession() {
        fs::create_directories(agent.parent_path());
        for (auto rel : {kTask + ".jsonl", kTask + "/subagents/agent-a99c8a91daa624b13.jsonl",
                         kTask + "/subagents/agent-a99c8a91daa624b13.meta.json"}) {
            fs::copy_file(samples() / rel, folder / rel);
            fs::permissions(folder / rel, fs::perms::owner_read | fs::perms::owner_write);
        }
    }
    // The subagent still at work: its meta not yet marked finished, its
    // journal written `age` ago.
    void running(std::chrono::seconds age = std::chrono::seconds(3)) {
        auto m = Json::parse(lumora::test::readFile(meta));
        m["finished"] = false;
        lumora::test::writeFile(meta, m.dump());
        setMtime(agent, now - age);
    }
};

}  // namespace

TEST(ClaudeSubagentReader, RunningSubagentsPairWithTheirLaunch) {
    LUMORA_REQUIRE_SAMPLES();
    TaskSession s;
    // The sample's subagent is finished: nothing runs, even when just written.
    setMtime(s.agent, s.now);
    EXPECT_TRUE(CSR::running(s.transcript, s.now).empty());

    s.running();
    auto live = CSR::running(s.transcript, s.now);
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].id, "toolu_h13f5e76f735b486d914e28");  // the launching call, named by the meta file
    EXPECT_EQ(live[0].type, "general-purpose");
    EXPECT_EQ(live[0].task, "Say hello in a subagent");
    EXPECT_EQ(live[0].model, "Opus 5.5");
    EXPECT_EQ(live[0].action, "Hello from the fake Anthropic server. Nothing else to do here.");
    EXPECT_TRUE(live[0].isRunning);
    EXPECT_GT(live[0].tokens.value_or(0), 0);
    EXPECT_EQ(CSR::liveAgentIDs(s.transcript, s.now), (std::set<std::string>{"a99c8a91daa624b13"}));

    // With no meta file, the launch prompt pairs it.
    fs::remove(s.meta);
    live = CSR::running(s.transcript, s.now);
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].id, "toolu_h13f5e76f735b486d914e28");
    EXPECT_EQ(live[0].type, "general-purpose");
    EXPECT_EQ(CSR::launchPrompt(s.agent), "[[h:text]] Please just say hello.");

    // Older than 120 s: not running.
    setMtime(s.agent, s.now - std::chrono::seconds(121));
    EXPECT_TRUE(CSR::running(s.transcript, s.now).empty());
    EXPECT_EQ(CSR::liveAgentIDs(s.transcript, s.now), std::set<std::string>{});

    // An interrupted tail: not running. An unmatched journal: shown as "Subagent".
    auto other = s.agent.parent_path() / "agent-b1.jsonl";
    ClaudeJournal stray;
    stray.prompt("something nobody launched").toolCall("x1", "mcp__fs__read_file", {{"path", "/etc/hosts"}});
    stray.writeTo(other);
    ClaudeJournal stopped;
    stopped.prompt("stopped one").reply("working", nullptr).interrupt();
    stopped.writeTo(s.agent.parent_path() / "agent-c1.jsonl");
    live = CSR::running(s.transcript, s.now);
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].id, "b1");
    EXPECT_EQ(live[0].type, "Subagent");
    EXPECT_EQ(live[0].action, "read_file: /etc/hosts");

    // No subagents folder at all.
    TempDir empty;
    EXPECT_TRUE(CSR::running(empty / "x.jsonl", s.now).empty());
    EXPECT_EQ(CSR::liveAgentIDs(empty / "x.jsonl", s.now), std::nullopt);
    EXPECT_EQ(CSR::newestSubagentActivity(empty / "x.jsonl"), std::nullopt);
}

TEST(ClaudeSubagentReader, ParentLaunchesAreParsedIncrementally) {
    TempDir dir;
    auto parent = dir / "p.jsonl";
    ClaudeJournal j;
    j.prompt("go").toolCall("t1", "Task", {{"description", "One"}, {"prompt", "first  job\n please"}, {"subagent_type", "Explore"}});
    j.writeTo(parent);
    auto blocks = CSR::parentAgentBlocks(parent);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0], (CSR::AgentBlock{"t1", "first job please", "Explore", "One"}));

    ClaudeJournal more;
    more.toolResult("t1", "ok").toolCall("t2", "Agent", {{"description", "Two"}, {"prompt", std::string(500, 'p')}});
    more.appendTo(parent);
    blocks = CSR::parentAgentBlocks(parent);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[1].type, "Subagent");
    EXPECT_EQ(blocks[1].promptPrefix.size(), CSR::kPromptPrefixBytes);

    // Replaced by a shorter file: parsed afresh.
    ClaudeJournal other;
    other.toolCall("t9", "Agent", {{"description", "Nine"}, {"prompt", "p"}});
    other.writeTo(dir / "q.jsonl");
    fs::rename(dir / "q.jsonl", parent);
    blocks = CSR::parentAgentBlocks(parent);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].toolUseId, "t9");
    fs::remove(parent);
    EXPECT_TRUE(CSR::parentAgentBlocks(parent).empty());
}

TEST(ClaudeSubagentReader, FreshnessFromSubagentsWorkflowsAndBackgroundOutput) {
    LUMORA_REQUIRE_SAMPLES();
    TaskSession s;
    auto temp = s.dir / "claude-tmp";
    CTR::ReadOptions options{s.now, temp};
    setMtime(s.agent, s.now - std::chrono::hours(2));
    setMtime(s.transcript, s.now - std::chrono::hours(2));
    EXPECT_EQ(CSR::newestSubagentActivity(s.transcript), s.now - std::chrono::hours(2));
    auto info = CTR::info(s.transcript, "/home/dev/proj.app", s.dir / "none.json", options);
    ASSERT_TRUE(info);
    EXPECT_FALSE(info->recentSubagentActivity);

    // A workflow journal written five minutes ago keeps the session fresh.
    auto wf = s.folder / kTask / "workflows" / "wf_1" / "journal.jsonl";
    lumora::test::writeFile(wf, "{}\n");
    setMtime(wf, s.now - std::chrono::minutes(5));
    EXPECT_EQ(CSR::newestSubagentActivity(s.transcript), s.now - std::chrono::minutes(5));
    EXPECT_TRUE(CTR::info(s.transcript, "/home/dev/proj.app", s.dir / "none.json", options)->recentSubagentActivity);
    setMtime(wf, s.now - std::chrono::minutes(16));
    EXPECT_FALSE(CTR::info(s.transcript, "/home/dev/proj.app", s.dir / "none.json", options)->recentSubagentActivity);

    // A background shell's output file, found through the ledger's pending ids.
    ClaudeJournal shell(kTask);
    shell.toolCall("t5", "Bash", {{"command", "npm run dev"}, {"run_in_background", true}})
        .toolResult("t5", "Running in background with ID: bsh1", false, {{"backgroundTaskId", "bsh1"}});
    shell.appendTo(s.transcript);
    auto output = temp / "-home-dev-proj-app" / kTask / "tasks" / "bsh1.output";
    lumora::test::writeFile(output, "listening on :3000\n");
    setMtime(output, s.now - std::chrono::seconds(30));
    EXPECT_EQ(CSR::newestBackgroundTaskActivity(s.transcript, {"bsh1", "nope"}, temp), s.now - std::chrono::seconds(30));
    EXPECT_EQ(CSR::newestBackgroundTaskActivity(s.transcript, {}, temp), std::nullopt);
    info = CTR::info(s.transcript, "/home/dev/proj.app", s.dir / "none.json", options);
    EXPECT_TRUE(info->recentSubagentActivity);
    EXPECT_EQ(info->pendingBackgroundAgents, 1);
    // Pending work backed by fresh output ranks the session as live.
    TranscriptInfo newer;
    newer.lastModified = s.now;
    EXPECT_EQ(CTR::rankedByLiveness({newer, *info}, 1).front().sessionId, kTask);

    // No subagents folder: the session's own newest entry decides.
    TempDir dir;
    ClaudeJournal plain;
    plain.prompt("hi").reply("hello");
    plain.writeTo(dir / "plain.jsonl");
    auto entryDate = parseIsoDate("2026-11-22T01:00:00.000Z").value();
    CTR::ReadOptions soon{entryDate + std::chrono::minutes(10), temp};
    EXPECT_TRUE(CTR::info(dir / "plain.jsonl", "/x", dir / "none.json", soon)->recentSubagentActivity);
    CTR::ReadOptions late{entryDate + std::chrono::minutes(20), temp};
    EXPECT_FALSE(CTR::info(dir / "plain.jsonl", "/x", dir / "none.json", late)->recentSubagentActivity);
}

TEST(ClaudeSubagentReader, ActionAndTokensOfASubagentJournal) {
    TempDir dir;
    ClaudeJournal j;
    Json usage = {{"input_tokens", 100}, {"cache_creation_input_tokens", 50}, {"cache_read_input_tokens", 9999}, {"output_tokens", 7}};
    j.prompt("task").message({ClaudeJournal::textBlock("Looking."), {{"type", "tool_use"}, {"id", "g"}, {"name", "Grep"}, {"input", {{"pattern", "main"}}}}},
                             "tool_use", "claude-haiku-4-5-20251001", usage);
    j.toolResult("g", "src/main.cpp").message({ClaudeJournal::textBlock("Found it.")}, "end_turn", "claude-haiku-4-5-20251001", usage);
    j.writeTo(dir / "agent-z.jsonl");
    auto entries = TailReader::entries(dir / "agent-z.jsonl", 100);
    EXPECT_EQ(CSR::latestAction(entries), "Grep: main");
    EXPECT_EQ(CSR::totalTokens(entries), 2 * 157) << "each streamed message counted once";
    EXPECT_FALSE(CSR::isInterruptedTail(entries));
    EXPECT_EQ(CSR::totalTokens({}), std::nullopt);
    EXPECT_EQ(CSR::latestAction({}), std::nullopt);
}
