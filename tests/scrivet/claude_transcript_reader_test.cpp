#include <gtest/gtest.h>

#include <fstream>

#include "scrivet/claude_config.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/tail_reader.hpp"
#include "support/test_support.hpp"
#include "claude_journal_builder.hpp"

using namespace scrivet;
namespace CTR = scrivet::ClaudeTranscriptReader;
using lumora::test::ClaudeJournal;
using lumora::test::TempDir;
using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

const std::string kCwd = "/home/dev/proj.app";

fs::path sampleProject() { return lumora::test::samplesDir() / "claude/home/.claude/projects/-home-dev-proj-app"; }

std::string sampleName(const std::string& scenario) {
    auto scenarios = Json::parse(lumora::test::readFile(lumora::test::samplesDir() / "claude/SCENARIOS.json"));
    return scenarios.at(scenario).get<std::string>();
}

std::vector<std::string> sampleLines(const std::string& scenario) {
    std::ifstream in(sampleProject() / sampleName(scenario));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A folder laid out like ~/.claude/projects plus a config and a temp folder.
struct Home {
    TempDir dir;
    fs::path projects = dir / "projects";
    fs::path config = dir / "claude.json";
    fs::path folder = projects / CTR::encodedDirName(kCwd);
    CTR::ReadOptions options{std::chrono::system_clock::now(), dir / "claude-tmp"};

    fs::path write(const ClaudeJournal& j, const std::string& name = "") {
        auto file = folder / ((name.empty() ? j.sessionId() : name) + ".jsonl");
        j.writeTo(file);
        return file;
    }
    // A sample journal copied in, cut after its first `lines` lines (all when 0).
    fs::path sample(const std::string& scenario, size_t lines = 0) {
        auto all = sampleLines(scenario);
        if (lines == 0 || lines > all.size()) lines = all.size();
        std::string text;
        for (size_t i = 0; i < lines; ++i) text += all[i] + "\n";
        auto file = folder / sampleName(scenario);
        lumora::test::writeFile(file, text);
        return file;
    }
    TranscriptInfo info(const fs::path& file) {
        auto i = CTR::info(file, kCwd, config, options);
        EXPECT_TRUE(i) << file;
        return i.value_or(TranscriptInfo{});
    }
    TranscriptInfo info(const ClaudeJournal& j) { return info(write(j)); }
};

std::vector<std::string> activityIds(const TranscriptInfo& i) {
    std::vector<std::string> out;
    for (const auto& a : i.recentActivity) out.push_back(a.id());
    return out;
}

}  // namespace

TEST(ClaudeTranscriptReader, ReadsTheRealJournalsOfEachScenario) {
    LUMORA_REQUIRE_SAMPLES();
    Home home;
    auto text = home.info(home.sample("text"));
    EXPECT_FALSE(text.inProgress);
    EXPECT_EQ(text.summary, "Hello from the fake Anthropic server. Nothing else to do here.");
    EXPECT_EQ(text.gitBranch, "feature/harness");
    EXPECT_EQ(text.sessionId, "67393e0f-69a4-4967-bc00-67679219f04f");
    EXPECT_EQ(text.model, "Opus 5.5");
    EXPECT_EQ(text.contextTokens, 458 + 4131);
    EXPECT_EQ(text.contextMax, 1'000'000);  // no ~/.claude.json: the larger window, as a guess
    EXPECT_TRUE(text.contextMaxEstimated);
    EXPECT_TRUE(text.hasRealTurn);
    EXPECT_FALSE(text.endsWithQuestion);
    EXPECT_FALSE(text.awaitingFirstReply);
    EXPECT_FALSE(text.pendingApproval);
    EXPECT_EQ(text.pendingBackgroundAgents, 0);
    EXPECT_EQ(text.subagentCount, 0);
    // The prompt lies beyond the first 64 KiB window, the reply within it.
    EXPECT_EQ(activityIds(text), (std::vector<std::string>{"reply|Hello from the fake Anthropic server. Nothing else to do here."}));
    EXPECT_EQ(text.lastEntryDate, parseIsoDate("2026-11-22T00:47:13.933Z").value_or(Date{})) << "newest stamped entry";
    EXPECT_LE(text.created, text.lastEntryDate);

    auto question = home.info(home.sample("question"));
    EXPECT_TRUE(question.endsWithQuestion);
    EXPECT_FALSE(question.inProgress);

    // Thinking then text, streamed as two entries of one message: settled.
    auto thinking = home.info(home.sample("thinking"));
    EXPECT_FALSE(thinking.inProgress);
    ASSERT_EQ(thinking.recentActivity.size(), 2u);
    EXPECT_EQ(thinking.recentActivity[0].kind, ActivityLine::Kind::thinking);
    // ... and while only the thinking block is on disk, the turn runs.
    EXPECT_TRUE(home.info(home.sample("thinking", 18)).inProgress);

    auto bash = home.info(home.sample("bash"));
    EXPECT_FALSE(bash.inProgress);
    EXPECT_EQ(activityIds(bash), (std::vector<std::string>{"reply|I'll run a shell command.",
                                                          "tool|Bash: echo hi", "ok|hi", "reply|The command finished. All done."}));

    // The interactive approval, caught while the dialog was open: the Bash
    // call sits on disk without its result.
    auto approve = home.info(home.sample("tui-manual-approve", 21));
    EXPECT_TRUE(approve.inProgress);
    EXPECT_EQ(approve.pendingApproval, PendingApproval::run);
    EXPECT_EQ(approve.summary, "touch harness-made.txt");
    EXPECT_EQ(approve.pendingToolCall, (PendingToolCall{"Bash", "touch harness-made.txt"}));
    auto approved = home.info(home.sample("tui-manual-approve"));
    EXPECT_FALSE(approved.inProgress);
    EXPECT_FALSE(approved.pendingApproval);
    EXPECT_FALSE(approved.pendingToolCall);

    auto ask = home.info(home.sample("tui-ask", 20));
    EXPECT_EQ(ask.pendingApproval, PendingApproval::question);
    EXPECT_EQ(ask.summary, "Which database should the service use?");
    EXPECT_FALSE(home.info(home.sample("tui-ask")).inProgress);

    auto write = home.info(home.sample("write-default", 19));
    EXPECT_EQ(write.pendingApproval, PendingApproval::edit);
    ASSERT_TRUE(write.pendingToolCall);
    EXPECT_EQ(write.pendingToolCall->toolName, "Write");

    // Esc while the reply streamed: "stop_reason": null, then the interrupt.
    auto interrupted = home.info(home.sample("tui-interrupt-stream"));
    EXPECT_FALSE(interrupted.inProgress);
    EXPECT_EQ(interrupted.summary, "Interrupted");
    EXPECT_FALSE(interrupted.endsWithQuestion);
    EXPECT_EQ(interrupted.recentActivity.back(), (ActivityLine{ActivityLine::Kind::error, "Interrupted"}));
    EXPECT_TRUE(home.info(home.sample("tui-interrupt-stream", 23)).inProgress) << "text with no stop reason yet";

    // The subagent ran in the background and reported back.
    auto task = home.info(home.sample("task"));
    EXPECT_FALSE(task.inProgress);
    EXPECT_EQ(task.pendingBackgroundAgents, 0);
    EXPECT_EQ(task.summary, "The subagent finished.");
    EXPECT_TRUE(std::find(task.recentActivity.begin(), task.recentActivity.end(),
                          ActivityLine{ActivityLine::Kind::ok, "⚙ Agent \"Say hello in a subagent\" finished"}) !=
                task.recentActivity.end());
    // Cut right after the launch result: one agent out.
    auto launched = home.info(home.sample("task", 22));
    EXPECT_EQ(launched.pendingBackgroundAgents, 1);
    EXPECT_TRUE(launched.inProgress);  // the model still owes an answer to the launch result
    // Cut at the notification: a gear line, never "You: …".
    auto notified = home.info(home.sample("task", 31));
    EXPECT_EQ(notified.summary, "⚙ Agent \"Say hello in a subagent\" finished");
    EXPECT_EQ(notified.pendingBackgroundAgents, 0);
}

TEST(ClaudeTranscriptReader, LocalCommandsAndMetaEntriesAreNotTurns) {
    Home home;
    ClaudeJournal plugin("a0000000-0000-4000-8000-000000000001");
    plugin.boot().slashCommand("plugin", "Plugins: none");
    auto onlyLocal = home.info(plugin);
    EXPECT_FALSE(onlyLocal.inProgress);
    EXPECT_FALSE(onlyLocal.hasRealTurn);
    EXPECT_FALSE(onlyLocal.awaitingFirstReply);
    EXPECT_FALSE(onlyLocal.summary);
    EXPECT_TRUE(onlyLocal.recentActivity.empty());

    ClaudeJournal finished("a0000000-0000-4000-8000-000000000002");
    finished.boot().prompt("fix the bug").reply("Fixed.").turnEnd().bookkeeping().slashCommand("plugin", "ok");
    auto settled = home.info(finished);
    EXPECT_FALSE(settled.inProgress);
    EXPECT_TRUE(settled.hasRealTurn);
    EXPECT_EQ(settled.summary, "Fixed.");

    finished.slashCommand("clear").prompt("and now the tests");
    auto again = home.info(finished);
    EXPECT_TRUE(again.inProgress);
    EXPECT_EQ(again.summary, "You: and now the tests");

    // Meta-only journal (title and modes), smaller than the window.
    ClaudeJournal meta("a0000000-0000-4000-8000-000000000003");
    meta.raw({{"type", "last-prompt"}, {"lastPrompt", "x"}}).aiTitle("Tidy the parser").raw({{"type", "mode"}, {"mode", "normal"}});
    auto metaInfo = home.info(meta);
    EXPECT_FALSE(metaInfo.hasRealTurn);
    EXPECT_FALSE(metaInfo.inProgress);
    EXPECT_EQ(metaInfo.topic, "Tidy the parser");

    // A prompt with no reply yet.
    ClaudeJournal fresh("a0000000-0000-4000-8000-000000000004");
    fresh.boot().prompt("hello?").bookkeeping(70 * 1000);
    auto first = home.info(fresh);
    EXPECT_TRUE(first.awaitingFirstReply);
    EXPECT_TRUE(first.inProgress);
    EXPECT_TRUE(first.hasRealTurn);
    EXPECT_FALSE(first.endsWithQuestion) << "a user prompt, not an assistant question";
}

TEST(ClaudeTranscriptReader, TurnStateFollowsTheLastBlockAndStopReason) {
    Home home;
    auto state = [&](const std::function<void(ClaudeJournal&)>& build) {
        ClaudeJournal j;
        j.boot().prompt("go");
        build(j);
        return home.info(j);
    };
    // Thinking last under "end_turn": something still comes.
    EXPECT_TRUE(state([](auto& j) { j.message({ClaudeJournal::thinkingBlock("hmm")}); }).inProgress);
    EXPECT_FALSE(state([](auto& j) {
                     j.message({ClaudeJournal::thinkingBlock("hmm"), ClaudeJournal::textBlock("Done.")});
                 }).inProgress);
    // A tool call without its result, even under "end_turn".
    EXPECT_TRUE(state([](auto& j) {
                    j.message({{{"type", "tool_use"}, {"id", "t1"}, {"name", "Read"}, {"input", {{"file_path", "/a"}}}}});
                }).inProgress);
    // Narration with no stop reason yet, and its settled form after the turn-end record.
    EXPECT_TRUE(state([](auto& j) { j.reply("Let me look.", nullptr); }).inProgress);
    EXPECT_FALSE(state([](auto& j) { j.reply("All done.", nullptr).turnEnd(); }).inProgress);
    // A tool result the model must still answer.
    auto result = state([](auto& j) { j.toolCall("t1", "Bash", {{"command", "ls"}}).toolResult("t1", "a\nb"); });
    EXPECT_TRUE(result.inProgress);
    EXPECT_FALSE(result.pendingApproval);
    EXPECT_EQ(result.summary, "ls") << "a tool result never becomes the summary";

    // Both interrupt texts, as a string or as blocks, settle the turn.
    for (bool forTool : {false, true}) {
        for (bool blocks : {false, true}) {
            auto i = state([&](auto& j) {
                j.toolCall("t1", "Bash", {{"command", "sleep 100"}}).toolResult("t1", "Interrupted by user", true);
                j.interrupt(forTool, blocks).bookkeeping();
            });
            EXPECT_FALSE(i.inProgress) << forTool << blocks;
            EXPECT_EQ(i.summary, "Interrupted");
            EXPECT_FALSE(i.pendingApproval);
        }
    }

    // An abort right after a question never reads as needing the user.
    auto aborted = state([](auto& j) { j.reply("Shall I delete the branch?").turnEnd().interrupt(); });
    EXPECT_FALSE(aborted.endsWithQuestion);
    EXPECT_EQ(aborted.summary, "Interrupted");

    // Bookkeeping entries with a user-role message between turns are not prompts.
    auto tail = state([](auto& j) { j.reply("Finished.").turnEnd().bookkeeping(90 * 1000); });
    EXPECT_FALSE(tail.inProgress);
    EXPECT_EQ(tail.summary, "Finished.");
}

TEST(ClaudeTranscriptReader, QuestionsThroughMarkdownAndRedaction) {
    for (std::string text : {"Which one?", "**Should I continue?**", "Pick one (A or B?)", "Ready?\n\n[REDACTED]",
                             "Do you want `main`?`", "Proceed?\u201D", "\u4F60\u597D\uFF1F"})
        EXPECT_TRUE(CTR::textEndsWithQuestion(text)) << text;
    for (std::string text : {"Done.", "What? No, it works.", "", "[REDACTED]", "?)."}) EXPECT_FALSE(CTR::textEndsWithQuestion(text)) << text;

    Home home;
    ClaudeJournal j;
    j.boot().prompt("go").message({ClaudeJournal::thinkingBlock("x"), ClaudeJournal::textBlock("Want me to **push**?")});
    EXPECT_TRUE(home.info(j).endsWithQuestion);
    ClaudeJournal k;
    k.boot().prompt("go").toolCall("t1", "Bash", {{"command", "git push"}}, "Shall I push?");
    EXPECT_FALSE(home.info(k).endsWithQuestion) << "a tool call follows the question";
}

TEST(ClaudeTranscriptReader, ModelAndContextWindow) {
    Home home;
    auto withUsage = [&](const std::string& model, Json usage) {
        ClaudeJournal j;
        j.boot().prompt("go").message({ClaudeJournal::textBlock("ok")}, "end_turn", model, usage);
        return home.info(j);
    };
    Json small = {{"input_tokens", 1000}, {"cache_read_input_tokens", 50000}, {"cache_creation_input_tokens", 2000}};
    lumora::test::writeFile(home.config, Json{{"projects",
                                               {{kCwd,
                                                 {{"lastModelUsage",
                                                   {{"claude-sonnet-4-5-20250929", {{"inputTokens", 10}}},
                                                    {"claude-opus-4-6[1m]", {{"inputTokens", 10}}},
                                                    {"claude-haiku-4-5-20251001", {{"inputTokens", 0}}}}}}}}}}
                                              .dump());

    auto sonnet = withUsage("claude-sonnet-4-5-20250929", small);
    EXPECT_EQ(sonnet.model, "Sonnet 4.5");
    EXPECT_EQ(sonnet.contextTokens, 53000);
    EXPECT_EQ(sonnet.contextMax, 200'000);
    EXPECT_FALSE(sonnet.contextMaxEstimated);

    auto opus = withUsage("claude-opus-4-6", small);  // used with the 1M tier in this project
    EXPECT_EQ(opus.contextMax, 1'000'000);
    EXPECT_FALSE(opus.contextMaxEstimated);

    auto haiku = withUsage("claude-haiku-4-5-20251001", small);  // no tokens recorded: unknown
    EXPECT_EQ(haiku.contextMax, 1'000'000);
    EXPECT_TRUE(haiku.contextMaxEstimated);

    auto tagged = withUsage("claude-sonnet-4-5[1m]", small);
    EXPECT_EQ(tagged.contextMax, 1'000'000);
    EXPECT_FALSE(tagged.contextMaxEstimated);
    EXPECT_EQ(tagged.model, "Sonnet 4.5");

    auto big = withUsage("claude-sonnet-4-5-20250929", {{"input_tokens", 10000}, {"cache_read_input_tokens", 200000}});
    EXPECT_EQ(big.contextTokens, 210000);
    EXPECT_EQ(big.contextMax, 1'000'000);
    EXPECT_FALSE(big.contextMaxEstimated);

    // The 5-minute and 1-hour cache counts stand in for a missing total.
    auto split = withUsage("claude-sonnet-4-5-20250929",
                           {{"input_tokens", 5},
                            {"cache_read_input_tokens", 100},
                            {"cache_creation", {{"ephemeral_5m_input_tokens", 20}, {"ephemeral_1h_input_tokens", 7}}}});
    EXPECT_EQ(split.contextTokens, 132);

    auto none = withUsage("claude-sonnet-4-5-20250929", Json::object());
    EXPECT_FALSE(none.contextTokens);
    EXPECT_FALSE(none.contextMax);

    // Claude Code's own notes after an error carry a "<synthetic>" model: the
    // real one stays.
    ClaudeJournal synthetic;
    synthetic.boot().prompt("go").message({ClaudeJournal::textBlock("ok")}, "end_turn", "claude-opus-4-1-20250805", small);
    synthetic.message({ClaudeJournal::textBlock("No response requested.")}, "stop_sequence", "<synthetic>",
                      {{"input_tokens", 0}, {"output_tokens", 0}});
    auto s = home.info(synthetic);
    EXPECT_EQ(s.model, "Opus 4.1");
    EXPECT_EQ(s.contextTokens, 53000);

    EXPECT_EQ(CTR::cleanModelName("claude-3-5-sonnet-20241022"), "Sonnet 3.5");
    EXPECT_EQ(CTR::cleanModelName("claude-sonnet-4-20250514"), "Sonnet 4");
    EXPECT_EQ(CTR::cleanModelName("claude-3-5-haiku@20241022"), "Haiku 3.5");
    EXPECT_EQ(CTR::cleanModelName("gpt-5-codex"), "gpt-5-codex");
}

TEST(ClaudeTranscriptReader, ActivityLinesToolsAndTitles) {
    Home home;
    ClaudeJournal j;
    // A tool result of several hundred kilobytes hides everything before it
    // from the tail window; everything after it shows.
    j.boot().prompt("read it all").toolCall("t0", "Read", {{"file_path", "/src/big.cpp"}});
    j.toolResult("t0", std::string(600 * 1024, 'x'));
    j.message({ClaudeJournal::thinkingBlock("")});
    j.toolCall("t1", "mcp__github__search_issues", {{"query", "crash on start"}}, "Searching.");
    j.toolResult("t1", Json::array({ClaudeJournal::textBlock("3 issues")}));
    j.toolCall("t2", "Bash", {{"command", "make test"}, {"description", "Run tests"}});
    j.toolResult("t2", "Build failed: 2 errors");
    j.toolCall("t3", "Read", {{"file_path", "/src/a.cpp"}});
    j.toolResult("t3", "no such file", true);
    j.reply("Tests fail in the parser.").turnEnd().aiTitle("Investigate parser crash").aiTitle("Fix the parser crash");
    j.bookkeeping(70 * 1000);
    auto file = home.write(j);
    auto info = home.info(file);
    EXPECT_EQ(info.topic, "Fix the parser crash");
    EXPECT_EQ(CTR::aiTitle(file), "Fix the parser crash");
    std::vector<std::string> want = {"reply|Searching.",
                                     "tool|search_issues: crash on start",
                                     "ok|3 issues",
                                     "tool|Bash: make test",
                                     "error|Build failed: 2 errors",
                                     "tool|Read: /src/a.cpp",
                                     "error|no such file",
                                     "reply|Tests fail in the parser."};
    EXPECT_EQ(activityIds(info), want);
    auto all = CTR::recentActivity(CTR::tailEntries(file), 100);
    ASSERT_EQ(all.size(), 9u);
    EXPECT_EQ(all.front().id(), "thinking|Thinking…");

    // Prompts on one line; a giant result shortened.
    ClaudeJournal small;
    small.prompt("look around\nplease").toolCall("t4", "Read", {{"file_path", "/src/big.cpp"}});
    small.toolResult("t4", std::string(300 * 1024, 'y'));
    auto lines = CTR::recentActivity(CTR::tailEntries(home.write(small, "small")), 100);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].id(), "prompt|look around please");
    EXPECT_EQ(lines[2].kind, ActivityLine::Kind::ok);
    EXPECT_LT(lines[2].text.size(), 400u);
}

TEST(ClaudeTranscriptReader, TaskNotificationsAndTheBackgroundCounts) {
    Home home;
    ClaudeJournal j;
    j.boot().prompt("fan out");
    j.toolCall("t1", "Agent", {{"description", "Survey A"}, {"prompt", "look at A"}, {"subagent_type", "Explore"}});
    j.toolResult("t1", "Async agent launched successfully.", false, {{"isAsync", true}, {"status", "async_launched"}, {"agentId", "agA"}});
    j.toolCall("t2", "Agent", {{"description", "Survey B"}, {"prompt", "look at B"}});
    j.toolResult("t2", "Async agent launched successfully.", false, {{"isAsync", true}, {"agentId", "agB"}});
    j.toolCall("t3", "Bash", {{"command", "npm run dev"}, {"run_in_background", true}});
    j.toolResult("t3", "Command running in background with ID: sh1", false, {{"backgroundTaskId", "sh1"}});
    j.reply("Three jobs are running.").turnEnd(2, 1).bookkeeping();
    auto file = home.write(j);
    auto launched = home.info(file);
    EXPECT_EQ(launched.pendingBackgroundAgents, 3);
    auto tasks = CTR::outstandingBackgroundTasks(file);
    EXPECT_EQ(tasks.pending, (std::set<std::string>{"agA", "agB", "sh1"}));
    EXPECT_EQ(tasks.shells, (std::set<std::string>{"sh1"}));
    EXPECT_EQ(CTR::backgroundTasks(file), tasks.pending);
    EXPECT_FALSE(launched.inProgress);
    EXPECT_EQ(launched.subagentCount, 0) << "async launches have their results";

    ClaudeJournal more;
    more.taskNotification("agA", "Agent \"Survey A\" finished", true).reply("A is done.").turnEnd().bookkeeping();
    more.appendTo(file);
    auto one = home.info(file);
    EXPECT_EQ(CTR::outstandingBackgroundTasks(file).pending, (std::set<std::string>{"agB", "sh1"}));
    EXPECT_EQ(one.pendingBackgroundAgents, 2);

    auto entries = CTR::tailEntries(file);
    auto notification = std::find_if(entries.begin(), entries.end(), [](const JournalEntry& e) { return CTR::isTaskNotification(e); });
    ASSERT_NE(notification, entries.end());
    EXPECT_EQ(CTR::taskNotificationId(*notification), "agA");
    EXPECT_EQ(CTR::summarize(*notification), "⚙ Agent \"Survey A\" finished");

    ClaudeJournal killed;
    killed.system("agents_killed").taskNotification("sh1", "").prompt("next");
    killed.appendTo(file);
    auto none = home.info(file);
    EXPECT_EQ(none.pendingBackgroundAgents, 0);
    EXPECT_TRUE(CTR::outstandingBackgroundTasks(file).pending.empty());

    // The turn-end count alone: its notifications are subtracted; a kill zeroes it.
    ClaudeJournal t;
    t.prompt("x").reply("y").turnEnd(2).taskNotification("q", "");
    EXPECT_EQ(CTR::turnDurationBackgroundAgents(CTR::tailEntries(home.write(t, "t"))), 1);
    ClaudeJournal gear;
    gear.prompt("x").taskNotification("q", "");
    EXPECT_EQ(home.info(home.write(gear, "g")).summary, "⚙ Background task completed");
}

TEST(ClaudeTranscriptReader, SubagentLaunchesWithoutResultsCount) {
    auto launches = [](const std::function<void(ClaudeJournal&)>& build) {
        ClaudeJournal j;
        j.prompt("go");
        build(j);
        TempDir dir;
        j.writeTo(dir / "j.jsonl");
        return CTR::runningSubagentLaunches(TailReader::entries(dir / "j.jsonl", 1000));
    };
    Json input = {{"description", "Find the bug"}, {"prompt", "search"}, {"subagent_type", "Explore"}};
    auto one = launches([&](auto& j) { j.toolCall("t1", "Task", input); });
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0], (CTR::SubagentLaunch{"t1", "Explore", "Find the bug"}));
    EXPECT_TRUE(launches([&](auto& j) { j.toolCall("t1", "Task", input).toolResult("t1", "found"); }).empty());
    auto parallel = [&](bool resolveOne) {
        return launches([&](auto& j) {
            j.message({{{"type", "tool_use"}, {"id", "a"}, {"name", "Agent"}, {"input", {{"description", "A"}}}},
                       {{"type", "tool_use"}, {"id", "b"}, {"name", "Task"}, {"input", {{"description", "B"}}}}},
                      "tool_use");
            if (resolveOne) j.toolResult("a", "done");
        });
    };
    EXPECT_EQ(parallel(false).size(), 2u);
    auto remaining = parallel(true);
    ASSERT_EQ(remaining.size(), 1u);
    EXPECT_EQ(remaining[0].type, "Subagent");
    EXPECT_EQ(launches([&](auto& j) { j.toolCall("t1", "Task", input).toolResult("t1", "ok").toolCall("t2", "Task", input); }).size(), 1u);

    Home home;
    ClaudeJournal j;
    j.prompt("go").toolCall("t1", "Task", input);
    auto info = home.info(j);
    EXPECT_EQ(info.subagentCount, 1);
    ASSERT_EQ(info.subagents.size(), 1u);
    EXPECT_EQ(info.subagents[0].task, "Find the bug");
    EXPECT_TRUE(info.subagents[0].isRunning);
}

TEST(ClaudeTranscriptReader, BadInputNeverCrashes) {
    Home home;
    fs::create_directories(home.folder);
    EXPECT_FALSE(CTR::info(home.folder / "missing.jsonl", kCwd, home.config, home.options));
    lumora::test::writeFile(home.folder / "empty.jsonl", "");
    EXPECT_FALSE(CTR::info(home.folder / "empty.jsonl", kCwd, home.config, home.options));
    std::string binary;
    for (int i = 0; i < 200000; ++i) binary += static_cast<char>((i * 7919) % 256);
    lumora::test::writeFile(home.folder / "binary.jsonl", binary);
    EXPECT_FALSE(CTR::info(home.folder / "binary.jsonl", kCwd, home.config, home.options));
    EXPECT_FALSE(CTR::info(home.folder, kCwd, home.config, home.options)) << "a folder";

    // Malformed lines are skipped; a torn last line being written is ignored.
    ClaudeJournal j;
    j.prompt("go").line("{not json").line("[1,2]").line("{\"type\":\"user\",\"message\":42}").reply("Done.");
    j.line(R"({"type":"assistant","message":{"content":[{"type":"text","text":"half)");
    auto file = home.write(j);
    auto i = home.info(file);
    EXPECT_EQ(i.summary, "Done.");
    EXPECT_FALSE(i.inProgress);

    // Wrong types everywhere.
    ClaudeJournal odd;
    odd.line(R"({"type":"assistant","message":{"content":"plain","usage":{"input_tokens":"many"},"model":7,"stop_reason":3}})");
    odd.line(R"({"type":"user","message":{"content":[{"type":"tool_result","content":{"x":1}},{"type":"text"}]},"toolUseResult":"Error: failed"})");
    odd.line(R"({"type":"system","subtype":"turn_duration","pendingBackgroundAgentCount":-5,"timestamp":"9999-12-31T23:59:59Z"})");
    odd.line(R"({"type":"user","message":{"content":[{"type":"tool_use","name":null}]},"gitBranch":"HEAD"})");
    auto oddInfo = home.info(home.write(odd, "odd"));
    EXPECT_FALSE(oddInfo.gitBranch) << "HEAD means detached";
    EXPECT_EQ(oddInfo.pendingBackgroundAgents, 0);
    EXPECT_LT(oddInfo.lastEntryDate, parseIsoDate("2200-01-01T00:00:00Z").value()) << "an absurd stamp is no date";

    // A ~/.claude.json that is not JSON: unknown tier, and fine again once fixed.
    lumora::test::writeFile(home.config, "{ not json");
    ClaudeJournal s;
    s.prompt("go").message({ClaudeJournal::textBlock("ok")}, "end_turn", "claude-sonnet-4-5-20250929");
    auto sf = home.write(s, "s");
    EXPECT_TRUE(home.info(sf).contextMaxEstimated);
    lumora::test::writeFile(home.config,
                            Json{{"projects", {{kCwd, {{"lastModelUsage", {{"claude-sonnet-4-5-20250929", {{"inputTokens", 3}}}}}}}}}}.dump());
    lumora::test::setMtime(home.config, std::chrono::system_clock::now() + std::chrono::seconds(5));
    EXPECT_EQ(home.info(sf).contextMax, 200'000);
}

TEST(ClaudeTranscriptReader, UnknownShapesAreNotedOncePerTag) {
    Home home;
    ClaudeJournal j;
    j.prompt("<shiny-new-tag>payload</shiny-new-tag>").reply("ok").prompt("<shiny-new-tag>again</shiny-new-tag>");
    j.prompt("<system-reminder>known</system-reminder>").prompt("<b>bold</b> text").prompt("a < b");
    auto file = home.write(j);
    home.info(file);  // no directory set: nothing written
    auto logDir = home.dir / "diag";
    CTR::setDiagnosticLogDirectory(logDir);
    home.info(file);
    home.info(file);
    CTR::setDiagnosticLogDirectory(std::nullopt);
    auto log = lumora::test::readFile(logDir / "unknown-shapes.log");
    EXPECT_NE(log.find("<shiny-new-tag>"), std::string::npos);
    EXPECT_NE(log.find("<b>"), std::string::npos);
    EXPECT_EQ(log.find("system-reminder"), std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
}

TEST(ClaudeTranscriptReader, RecentInfosRankLiveSessionsFirst) {
    Home home;
    auto now = std::chrono::system_clock::now();
    home.options.now = now;
    std::vector<fs::path> files;
    for (int i = 0; i < 12; ++i) {
        char id[64];
        std::snprintf(id, sizeof id, "b0000000-0000-4000-8000-%012d", i);
        ClaudeJournal j(id);
        j.boot().prompt("task " + std::to_string(i)).reply("done " + std::to_string(i)).turnEnd();
        auto file = home.write(j);
        lumora::test::setMtime(file, now - std::chrono::minutes(60 - i));  // i = 11 newest
        files.push_back(file);
    }
    auto ids = [](const std::vector<TranscriptInfo>& infos) {
        std::vector<std::string> out;
        for (const auto& i : infos) out.push_back(i.sessionId.value_or("?").substr(24));
        return out;
    };
    auto recent = CTR::recentInfos(home.projects, kCwd, 3, {}, home.config, home.options);
    EXPECT_EQ(ids(recent), (std::vector<std::string>{"000000000011", "000000000010", "000000000009"}));
    auto excluded = CTR::recentInfos(home.projects, kCwd, 2, {"b0000000-0000-4000-8000-000000000011"}, home.config, home.options);
    EXPECT_EQ(ids(excluded), (std::vector<std::string>{"000000000010", "000000000009"}));

    // Session 8 has a subagent writing right now: it ranks first.
    auto sub = files[8].parent_path() / files[8].stem() / "subagents" / "agent-x1.jsonl";
    ClaudeJournal agent;
    agent.prompt("sub work").toolCall("s1", "Grep", {{"pattern", "TODO"}});
    agent.writeTo(sub);
    lumora::test::setMtime(sub, now - std::chrono::seconds(5));
    auto ranked = CTR::recentInfos(home.projects, kCwd, 3, {}, home.config, home.options);
    EXPECT_EQ(ids(ranked), (std::vector<std::string>{"000000000008", "000000000011", "000000000010"}));
    EXPECT_EQ(ranked[0].subagents.at(0).action, "Grep: TODO");

    // A stale pending count without recent subagent activity gives no advantage.
    TranscriptInfo stale, fresh;
    stale.lastModified = now - std::chrono::hours(2);
    stale.pendingBackgroundAgents = 2;
    fresh.lastModified = now;
    auto order = CTR::rankedByLiveness({stale, fresh}, 5);
    EXPECT_EQ(order.front().lastModified, now);
    stale.recentSubagentActivity = true;
    order = CTR::rankedByLiveness({fresh, stale}, 1);
    ASSERT_EQ(order.size(), 1u);
    EXPECT_EQ(order.front().pendingBackgroundAgents, 2);

    EXPECT_EQ(CTR::infoForCwd(home.projects, kCwd, home.config)->sessionId, "b0000000-0000-4000-8000-000000000011");
    EXPECT_EQ(CTR::recordedCwd(files[0]), kCwd);
}
