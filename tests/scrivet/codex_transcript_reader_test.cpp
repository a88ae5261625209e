#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "scrivet/codex_transcript_reader.hpp"
#include "support/test_support.hpp"
#include "codex_cursor_builders.hpp"

using namespace scrivet;
namespace Codex = scrivet::CodexTranscriptReader;
using lumora::test::CodexRollout;
using lumora::test::TempDir;
using Json = nlohmann::json;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

fs::path sampleDay() { return lumora::test::samplesDir() / "codex/home/.codex/sessions/2026/11/22"; }

fs::path sample(const std::string& id) {
    for (const auto& e : fs::directory_iterator(sampleDay()))
        if (e.path().filename().string().find(id) != std::string::npos) return e.path();
    return {};
}

std::vector<std::string> lines(const fs::path& file) {
    std::ifstream in(file);
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

CodexSession read(const CodexRollout& r, TempDir& dir, const std::string& name = "rollout.jsonl") {
    auto file = dir / name;
    r.writeTo(file);
    auto s = Codex::session(file);
    EXPECT_TRUE(s) << r.text();
    return s ? *s : CodexSession{};
}

bool hasActivity(const TranscriptInfo& info, ActivityLine::Kind kind, const std::string& text) {
    return std::find(info.recentActivity.begin(), info.recentActivity.end(), ActivityLine{kind, text}) !=
           info.recentActivity.end();
}

std::string activityText(const TranscriptInfo& info) {
    std::string out;
    for (const auto& l : info.recentActivity) out += l.id() + "\n";
    return out;
}

}  // namespace

TEST(CodexTranscriptReader, RealRolloutsOfCodex0169) {
    if (!fs::exists(sampleDay())) GTEST_SKIP() << "shared/samples/codex is absent; the builder tests cover the shapes";
    using K = ActivityLine::Kind;

    auto text = Codex::session(sample("01a200b7-f33b"));
    ASSERT_TRUE(text);
    EXPECT_EQ(text->sessionId, "01a200b7-f33b-7c13-aace-3190dfe8020d");
    EXPECT_EQ(text->cwd, "/home/dev/proj");
    EXPECT_EQ(text->projectName, "proj");
    EXPECT_EQ(text->info.gitBranch, "feature/harness");
    EXPECT_EQ(text->model, "GPT-5.5-Codex");
    EXPECT_EQ(text->info.contextMax, 258400);
    EXPECT_GT(text->contextTokens.value_or(0), 0);
    EXPECT_FALSE(text->info.inProgress);
    EXPECT_FALSE(text->info.endsWithQuestion);
    EXPECT_TRUE(text->info.hasRealTurn);
    EXPECT_EQ(text->info.summary, "Hello from the fake OpenAI server. Nothing else to do here.");
    EXPECT_EQ(text->prompt, "[[h:text]] Say hello.");
    EXPECT_EQ(text->info.topic, "[[h:text]] Say hello.");
    EXPECT_EQ(text->hostKind(), CodexSession::HostKind::cli);  // codex_exec
    EXPECT_FALSE(text->rateLimits);  // every reading in it is null
    EXPECT_EQ(text->info.recentActivity,
              (std::vector<ActivityLine>{{K::prompt, "[[h:text]] Say hello."},
                                         {K::reply, "Hello from the fake OpenAI server. Nothing else to do here."}}));

    auto bash = Codex::session(sample("01a200b8-08e9"));
    ASSERT_TRUE(bash);
    EXPECT_TRUE(hasActivity(bash->info, K::tool, "exec_command: echo hi")) << activityText(bash->info);
    EXPECT_TRUE(hasActivity(bash->info, K::ok, "hi")) << activityText(bash->info);
    EXPECT_EQ(bash->info.recentActivity.size(), 4u) << activityText(bash->info);

    auto patch = Codex::session(sample("01a200b8-4b5e"));
    ASSERT_TRUE(patch);
    EXPECT_EQ(patch->info.summary, "The patch is applied.");
    EXPECT_TRUE(hasActivity(patch->info, K::tool, "apply_patch: harness-patched.txt")) << activityText(patch->info);
    EXPECT_TRUE(hasActivity(patch->info, K::ok, "Changed harness-patched.txt")) << activityText(patch->info);

    // Interrupted in the terminal UI: the <turn_aborted> note is not a prompt.
    auto interrupt = Codex::session(sample("01a200bd-737b"));
    ASSERT_TRUE(interrupt);
    EXPECT_EQ(interrupt->hostKind(), CodexSession::HostKind::cli);  // codex-tui
    EXPECT_EQ(interrupt->info.summary, "Interrupted");
    EXPECT_FALSE(interrupt->info.inProgress);
    EXPECT_FALSE(interrupt->info.endsWithQuestion);
    EXPECT_EQ(interrupt->prompt, "[[h:slow]] Harness TUI variant tui-interrupt.");
    EXPECT_EQ(interrupt->info.recentActivity.back(), (ActivityLine{K::error, "Interrupted"}));

    // The escalation sample cut right after the call that asked to leave the
    // sandbox (the moment its approval dialog was up), and cut mid-line.
    TempDir dir;
    auto all = lines(sample("01a200b8-f886"));
    std::string upToCall;
    for (const auto& l : all) {
        upToCall += l + "\n";
        if (l.find("\"function_call\"") != std::string::npos) break;
    }
    lumora::test::writeFile(dir / "cut.jsonl", upToCall + all[10].substr(0, 200));
    auto waiting = Codex::session(dir / "cut.jsonl");
    ASSERT_TRUE(waiting);
    EXPECT_TRUE(waiting->info.inProgress);
    EXPECT_EQ(waiting->info.pendingApproval, PendingApproval::run);
    EXPECT_EQ(waiting->info.summary, "exec_command: touch /home/dev/agents/outside-sandbox.txt");
}

TEST(CodexTranscriptReader, BothShapesOfPromptsRepliesAndPatches) {
    TempDir dir;
    using K = ActivityLine::Kind;
    // Codex 0.169's items and the older events read alike.
    auto now = CodexRollout().turnStart().prompt("Is the build green?").command("make test", 0, "ok\n").reply(
        "All green. Shall I push?");
    auto old = CodexRollout().turnStart().legacyPrompt("Is the build green?").command("make test", 0, "ok\n").legacyReply(
        "All green. Shall I push?");
    for (auto* r : {&now, &old}) {
        r->complete("All green. Shall I push?");
        auto s = read(*r, dir);
        EXPECT_EQ(s.prompt, "Is the build green?");
        EXPECT_EQ(s.info.topic, "Is the build green?");
        EXPECT_EQ(s.info.summary, "All green. Shall I push?");
        EXPECT_TRUE(s.info.endsWithQuestion);
        EXPECT_FALSE(s.info.inProgress);
        EXPECT_EQ(s.info.recentActivity,
                  (std::vector<ActivityLine>{{K::prompt, "Is the build green?"},
                                             {K::tool, "exec_command: make test"},
                                             {K::ok, "ok"},
                                             {K::reply, "All green. Shall I push?"}}))
            << activityText(s.info);
    }

    // Patches: a dangling apply_patch, a failed FileChange item, a failed
    // patch_apply_end; a successful one falls through to the call.
    auto base = [] { return CodexRollout().turnStart().prompt("add notes"); };
    EXPECT_EQ(read(base().patch("notes.md", true, true), dir).info.summary, "⚙ apply_patch…");
    auto failed = read(base().patch("notes.md", false), dir);
    EXPECT_EQ(failed.info.summary, "✗ apply_patch failed");
    EXPECT_TRUE(hasActivity(failed.info, K::error, "✗ apply_patch failed"));
    auto legacyFailed = base().patch("notes.md", true, true);
    legacyFailed.patchApplyEnd(false);
    EXPECT_EQ(read(legacyFailed, dir).info.summary, "✗ apply_patch failed");
    auto legacyOk = base().patch("notes.md", true, true);
    legacyOk.patchApplyEnd(true);
    EXPECT_EQ(read(legacyOk, dir).info.summary, "⚙ apply_patch…");

    // A failing command reads as an error; reasoning as thinking.
    auto failing = read(base().reasoning("Checking the tests").command("make test", 2, "boom\nmore"), dir);
    EXPECT_TRUE(hasActivity(failing.info, K::thinking, "Checking the tests")) << activityText(failing.info);
    EXPECT_TRUE(hasActivity(failing.info, K::error, "boom")) << activityText(failing.info);
    EXPECT_TRUE(failing.info.inProgress);
}

TEST(CodexTranscriptReader, TurnStateAbortsAndInjectedText) {
    TempDir dir;
    // An abort right after a question, and after a tool call: no question, "Interrupted".
    auto afterQuestion = CodexRollout().turnStart().prompt("deploy").reply("Which region?");
    afterQuestion.abort();
    auto s = read(afterQuestion, dir);
    EXPECT_FALSE(s.info.endsWithQuestion);
    EXPECT_EQ(s.info.summary, "Interrupted");
    EXPECT_EQ(s.prompt, "deploy");
    auto afterTool = CodexRollout().turnStart().prompt("deploy").command("make deploy", 0, "", false, true);
    afterTool.abort();
    s = read(afterTool, dir);
    EXPECT_FALSE(s.info.endsWithQuestion);
    EXPECT_FALSE(s.info.inProgress);
    EXPECT_EQ(s.info.summary, "Interrupted");

    // Bookkeeping after the end of a turn changes nothing.
    auto settled = CodexRollout().turnStart().prompt("hi").reply("Hello?");
    settled.complete().usageRecord().line("world_state", {{"full", false}}).event(
        {{"type", "thread_settings_applied"}, {"thread_settings", {{"model", "gpt-5.5-codex"}}}});
    s = read(settled, dir);
    EXPECT_FALSE(s.info.inProgress);
    EXPECT_TRUE(s.info.endsWithQuestion);
    EXPECT_EQ(s.info.summary, "Turn complete");

    // Injected text is never the user's prompt; a thread that holds only it
    // has no prompt, no topic and no real turn.
    auto onlyInjected = CodexRollout().turnStart();
    onlyInjected.injected("# AGENTS.md instructions for /home/dev/proj\n\n<INSTRUCTIONS>be nice</INSTRUCTIONS>");
    s = read(onlyInjected, dir);
    EXPECT_FALSE(s.prompt);
    EXPECT_FALSE(s.info.topic);
    EXPECT_FALSE(s.info.hasRealTurn);
    EXPECT_TRUE(s.info.inProgress);  // task_started, nothing else yet
    for (auto text : {"<environment_context>\n<cwd>/x</cwd>\n</environment_context>",
                      "<turn_aborted>\nThe user interrupted.\n</turn_aborted>",
                      "<permissions instructions>\nsandboxed\n</permissions instructions>",
                      "# AGENTS.md instructions for /x"})
        EXPECT_TRUE(Codex::isInjectedUserText(text)) << text;
    EXPECT_FALSE(Codex::isInjectedUserText("<b>bold</b> is not markup here, fix it"));

    // The first prompt names the topic, however many follow.
    auto two = CodexRollout().turnStart().prompt("first ask").reply("done").complete().turnStart().prompt("second ask");
    s = read(two, dir);
    EXPECT_EQ(s.info.topic, "first ask");
    EXPECT_EQ(s.prompt, "second ask");
    EXPECT_TRUE(s.info.inProgress);
    EXPECT_FALSE(s.info.awaitingFirstReply);  // the first prompt had its reply

    // An escalated call under approval policy "never" waits on nobody.
    EXPECT_FALSE(read(CodexRollout().turnStart("gpt-5.5-codex", "never").prompt("x").command("rm -rf b", 0, "", true, true), dir)
                     .info.pendingApproval);
}

TEST(CodexTranscriptReader, RateLimitsKeepTheLastGoodWindows) {
    TempDir dir;
    Json good = {{"primary", {{"used_percent", 42.5}, {"window_minutes", 300}, {"resets_at", 1795320000}}},
                 {"secondary", {{"used_percent", 7}, {"window_minutes", 10080}, {"resets_at", 1795900000}}}};
    auto r = CodexRollout().turnStart().prompt("x");
    r.tokens(100, 100, {{"primary", {{"used_percent", 90}, {"window_minutes", 300}}}});
    r.tokens(100, 100, good);
    r.tokens(200, 300);  // null windows: the reading above stays
    auto s = read(r, dir);
    ASSERT_TRUE(s.rateLimits);
    ASSERT_EQ(s.rateLimits->windows.size(), 2u);
    EXPECT_EQ(s.rateLimits->windows[0].percentUsed, 42.5);
    EXPECT_EQ(s.rateLimits->windows[0].period, 18000s);
    EXPECT_EQ(s.rateLimits->windows[0].resetsAt, Date{} + 1795320000s);
    EXPECT_EQ(s.rateLimits->windows[1].period, std::chrono::seconds(10080 * 60));
    EXPECT_EQ(s.contextTokens, 200);
    EXPECT_EQ(s.totalUsageTokens, 300);

    // Shortest period first; a window without used_percent is none.
    simdjson::dom::parser parser;
    auto parse = [&](const Json& j) { return Codex::rateLimitsFromPayload(parser.parse(j.dump()).value(), Date{} + 100s); };
    auto swapped = parse({{"primary", {{"used_percent", 1}, {"window_minutes", 10080}}},
                          {"secondary", {{"used_percent", 2}, {"window_minutes", 300}, {"resets_in_seconds", 60}}}});
    ASSERT_TRUE(swapped);
    EXPECT_EQ(swapped->windows[0].percentUsed, 2);
    EXPECT_EQ(swapped->windows[0].resetsAt, Date{} + 160s);
    auto primaryOnly = parse({{"primary", {{"used_percent", 3}, {"window_minutes", 300}}}, {"secondary", nullptr}});
    ASSERT_TRUE(primaryOnly);
    EXPECT_EQ(primaryOnly->windows.size(), 1u);
    EXPECT_FALSE(parse({{"primary", {{"window_minutes", 300}}}}));
    EXPECT_FALSE(parse({{"primary", nullptr}, {"secondary", nullptr}}));

    // Over a sessions folder: the newest rollout with a reading wins; a newer
    // one without any defers to it.
    auto root = dir / "sessions";
    auto now = std::chrono::system_clock::now();
    auto older = CodexRollout("01a200b8-0000-7000-8000-000000000001", "/p", "codex-tui", now - 60s).turnStart().prompt("a");
    older.tokens(1, 1, good);
    lumora::test::setMtime(older.writeIn(root), now - 60s);
    auto newer = CodexRollout("01a200b8-0000-7000-8000-000000000002", "/p", "codex-tui", now - 10s).turnStart().prompt("b");
    newer.tokens(1, 1);
    newer.writeIn(root);
    auto found = Codex::rateLimits(root, now);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->windows[0].percentUsed, 42.5);
    EXPECT_FALSE(Codex::rateLimits(dir / "nowhere", now));
}

TEST(CodexTranscriptReader, HostsSubagentsAndModels) {
    auto kind = [](std::optional<std::string> originator) {
        CodexSession s;
        s.originator = std::move(originator);
        return s.hostKind();
    };
    EXPECT_EQ(kind("codex_exec"), CodexSession::HostKind::cli);
    EXPECT_EQ(kind("codex-tui"), CodexSession::HostKind::cli);
    EXPECT_EQ(kind("Codex Desktop"), CodexSession::HostKind::desktop);
    EXPECT_EQ(kind("codex_vscode"), CodexSession::HostKind::desktop);
    EXPECT_EQ(kind(std::nullopt), CodexSession::HostKind::unknown);
    CodexSession unknown;
    EXPECT_TRUE(unknown.hostAlive(false, true));
    EXPECT_FALSE(unknown.hostAlive(false, false));
    EXPECT_EQ(Codex::displayModel("gpt-5-codex-mini"), "GPT-5-Codex-Mini");
    EXPECT_EQ(Codex::displayModel("o3"), "o3");

    // A running subagent counts on its parent; a finished one does not; both leave the list.
    TempDir dir;
    auto root = dir / "sessions";
    auto now = std::chrono::system_clock::now();
    CodexRollout parent("01a200c0-0000-7000-8000-00000000000a", "/home/dev/proj", "codex-tui", now - 30s);
    parent.turnStart().prompt("review the module").command("spawn", 0, "", false, true).writeIn(root);
    CodexRollout busy("01a200c0-0000-7000-8000-00000000000b", "/home/dev/proj", "codex-tui", now - 20s);
    busy.asSubagent(parent.threadId(), "Euclid").turnStart().prompt("read the tests").writeIn(root);
    CodexRollout done("01a200c0-0000-7000-8000-00000000000c", "/home/dev/proj", "codex-tui", now - 10s);
    done.asSubagent(parent.threadId(), "Hypatia").turnStart().prompt("read docs").reply("ok").complete().writeIn(root);
    auto sessions = Codex::runningSessions(root, 30min, {}, now, false, true);
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].sessionId, parent.threadId());
    EXPECT_EQ(sessions[0].info.subagentCount, 1);
    EXPECT_EQ(sessions[0].info.subagents[0].type, "Euclid");
    EXPECT_EQ(sessions[0].info.subagents[0].task, "read the tests");
    // Without a host running nothing is a session.
    EXPECT_TRUE(Codex::runningSessions(root, 30min, {}, now, false, false).empty());
}

TEST(CodexTranscriptReader, FindsRolloutsInTheDatedFoldersOnly) {
    TempDir dir;
    auto root = dir / "sessions";
    auto now = std::chrono::system_clock::now();
    auto fresh = CodexRollout("01a200d0-0000-7000-8000-000000000001", "/p", "codex-tui", now - 5min).writeIn(root);
    auto stale = CodexRollout("01a200d0-0000-7000-8000-000000000002", "/p", "codex-tui", now - 3h).writeIn(root);
    lumora::test::setMtime(stale, now - 3h);
    // A rollout in a folder of long ago, touched now: its folder is never walked.
    auto ancient = root / "2019/01/01/rollout-2019-01-01T00-00-00-01a200d0-0000-7000-8000-000000000003.jsonl";
    CodexRollout("01a200d0-0000-7000-8000-000000000003").writeTo(ancient);
    lumora::test::writeFile(root / "notes.txt", "x");
    lumora::test::writeFile(fresh.parent_path() / "rollout-broken.json", "x");

    auto found = Codex::recentRollouts(root, 1h, false, now);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], fresh);
    EXPECT_EQ(Codex::recentRollouts(root, 4h, false, now).size(), 2u);
    EXPECT_EQ(Codex::threadIdFromName(fresh.filename().string()), "01a200d0-0000-7000-8000-000000000001");
}

TEST(CodexTranscriptReader, BadInputGivesNothing) {
    TempDir dir;
    auto now = std::chrono::system_clock::now();
    auto day = CodexRollout("01a200e0-0000-7000-8000-000000000001", "/p", "codex-tui", now).pathIn(dir / "s").parent_path();
    fs::create_directories(day);
    auto name = [&](int i) { return day / ("rollout-2026-01-01T00-00-0" + std::to_string(i) + "-01a200e0-0000-7000-8000-00000000000" + std::to_string(i) + ".jsonl"); };
    // A first line that is not session_meta; malformed lines only; binary bytes; a FIFO.
    lumora::test::writeFile(name(1), R"({"timestamp":"x","type":"event_msg","payload":{"type":"task_started"}})" "\n");
    lumora::test::writeFile(name(2), "{not json\n{\"type\":\n");
    std::string binary(70000, '\0');
    for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 131 % 256);
    lumora::test::writeFile(name(3), binary);
    ASSERT_EQ(::mkfifo(name(4).c_str(), 0600), 0);
    for (int i = 1; i <= 4; ++i) {
        EXPECT_FALSE(Codex::session(name(i))) << i;
        EXPECT_FALSE(Codex::isRollout(name(i))) << i;
    }
    EXPECT_TRUE(Codex::runningSessions(dir / "s", 1h, {}, now, true, true).empty());

    // Malformed lines inside a good rollout are skipped.
    auto r = CodexRollout().turnStart().prompt("hello");
    lumora::test::writeFile(dir / "mixed.jsonl", r.text() + "{broken\n\xff\xfe\n" + "[1,2]\n");
    auto s = Codex::session(dir / "mixed.jsonl");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->prompt, "hello");

    // A sessions folder that is a file, or a loop of symlinks.
    lumora::test::writeFile(dir / "file-root", "x");
    EXPECT_TRUE(Codex::recentRollouts(dir / "file-root", 1h, true, now).empty());
    fs::create_directories(dir / "loop");
    fs::create_directory_symlink(dir / "loop", dir / "loop/2026");
    fs::create_directory_symlink(dir / "loop/a", dir / "loop/b");
    fs::create_directory_symlink(dir / "loop/b", dir / "loop/a");
    EXPECT_TRUE(Codex::recentRollouts(dir / "loop", 1h, true, now).empty());
}

TEST(CodexTranscriptReader, AGiantOutputAtTheEndStillShowsTheTurn) {
    TempDir dir;
    // One command output of 700 KB after the turn: the window grows past it.
    auto r = CodexRollout().turnStart().prompt("dump the log").command("cat big.log", 0, std::string(700 * 1024, 'a'));
    r.line("world_state", {{"full", true}, {"state", {{"filler", std::string(90 * 1024, 'w')}}}});
    auto s = read(r, dir);
    EXPECT_EQ(s.prompt, "dump the log");
    EXPECT_TRUE(s.info.inProgress);
}
