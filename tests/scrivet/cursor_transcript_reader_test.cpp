#include <gtest/gtest.h>

#include "scrivet/cursor_transcript_reader.hpp"
#include "support/test_support.hpp"
#include "codex_cursor_builders.hpp"

using namespace scrivet;
namespace Cursor = scrivet::CursorTranscriptReader;
using lumora::test::CursorTranscript;
using lumora::test::TempDir;
using Json = nlohmann::json;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A ~/.cursor/projects folder with one project.
struct Projects {
    TempDir dir;
    fs::path root = dir / "projects";
    std::string cwd = (dir / "src/my_app.v2").string();
    fs::path folder = root / Cursor::encodedDirName(cwd);

    Projects() { fs::create_directories(cwd); }
    fs::path write(const CursorTranscript& t, const std::string& id = "c0ffee00-1111-4222-8333-944445555666") {
        auto file = folder / "agent-transcripts" / (id + ".jsonl");
        t.writeTo(file);
        return file;
    }
    CursorSession read(const CursorTranscript& t, Date now = std::chrono::system_clock::now()) {
        auto s = Cursor::session(write(t), cwd, now);
        EXPECT_TRUE(s) << t.text();
        return s ? *s : CursorSession{};
    }
};

}  // namespace

TEST(CursorTranscriptReader, PromptsTurnsAndPendingCalls) {
    Projects p;
    EXPECT_EQ(Cursor::encodedDirName("/Users/x/my_app.v2"), "Users-x-my-app-v2");

    // The prompt is inside <user_query>; a preamble outside it is skipped.
    auto asked = CursorTranscript().prompt("fix the login bug", "<skill>use the repo's style</skill>\n");
    auto s = p.read(asked);
    EXPECT_EQ(s.prompt, "fix the login bug");
    EXPECT_EQ(s.info.topic, "fix the login bug");
    EXPECT_TRUE(s.info.inProgress);
    EXPECT_TRUE(s.info.awaitingFirstReply);
    EXPECT_FALSE(s.info.pendingApproval);  // the newest entry is the user's
    EXPECT_EQ(s.info.summary, "You: fix the login bug");
    EXPECT_FALSE(p.read(CursorTranscript().user("no wrapper here")).prompt);

    // A file edit waits for approval; once the agent runs on it no longer does.
    auto editing = CursorTranscript().prompt("fix it").tool("StrReplace", {{"path", "src/login.ts"}}, "Fixing.");
    s = p.read(editing);
    EXPECT_EQ(s.info.pendingApproval, PendingApproval::edit);
    EXPECT_EQ(s.info.summary, "StrReplace: src/login.ts");
    editing.reply("Fixed the check.");
    EXPECT_FALSE(p.read(editing).info.pendingApproval);
    editing.turnEnded();
    s = p.read(editing);
    EXPECT_FALSE(s.info.inProgress);
    EXPECT_FALSE(s.info.pendingApproval);
    EXPECT_EQ(s.info.summary, "Fixed the check.");

    // Shell is a run (with its command); read-only tools and Await wait on nobody.
    s = p.read(CursorTranscript().prompt("test").tool("Shell", {{"command", "npm test"}}));
    EXPECT_EQ(s.info.pendingApproval, PendingApproval::run);
    EXPECT_EQ(s.pendingCommand, "npm test");
    for (auto quiet : {"Read", "Grep", "Await", "TodoWrite", "WebSearch"})
        EXPECT_FALSE(p.read(CursorTranscript().prompt("x").tool(quiet, {{"pattern", "a"}})).info.pendingApproval) << quiet;
    EXPECT_EQ(Cursor::approvalClass("Delete"), PendingApproval::edit);
    EXPECT_EQ(Cursor::confirmationDelaySeconds(PendingApproval::run), 8);

    // A question: dangling AskQuestion needs the user; the next assistant entry clears it.
    auto question = CursorTranscript().prompt("set it up").tool(
        "AskQuestion", {{"title", "Which database?"}, {"questions", {{{"prompt", "Pick one"}}}}});
    s = p.read(question);
    EXPECT_EQ(s.info.pendingApproval, PendingApproval::question);
    EXPECT_EQ(s.info.summary, "Cursor is asking: Which database?");
    question.reply("Using SQLite.");
    EXPECT_FALSE(p.read(question).info.pendingApproval);

    // A finished turn ending on a question, past trailing [REDACTED] blocks.
    auto ends = CursorTranscript().prompt("plan").reply({"Shall I go ahead?", "[REDACTED]", "[REDACTED]"}).turnEnded();
    EXPECT_TRUE(p.read(ends).info.endsWithQuestion);
    EXPECT_FALSE(p.read(CursorTranscript().prompt("plan").reply("Shall I go ahead?")).info.endsWithQuestion);

    // An interrupted turn reads as aborted.
    auto aborted = CursorTranscript().prompt("go").reply("Working").turnEnded({{"reason", "aborted"}});
    s = p.read(aborted);
    EXPECT_EQ(s.info.summary, "Interrupted");
    EXPECT_EQ(s.info.recentActivity.back(), (ActivityLine{ActivityLine::Kind::error, "Interrupted"}));
}

TEST(CursorTranscriptReader, AJumboLineIsReadWhole) {
    Projects p;
    std::string jumbo(5 * 1024 * 1024, 'j');
    auto s = p.read(CursorTranscript().prompt(jumbo));
    EXPECT_TRUE(s.info.inProgress);
    EXPECT_TRUE(s.info.awaitingFirstReply);
    s = p.read(CursorTranscript().prompt(jumbo).tool("AskQuestion", {{"title", "Keep the log?"}}));
    EXPECT_EQ(s.info.pendingApproval, PendingApproval::question);
}

TEST(CursorTranscriptReader, SubagentsAndFreshness) {
    Projects p;
    auto now = std::chrono::system_clock::now();
    auto file = p.write(CursorTranscript().prompt("review").tool("Task", {{"description", "read"}}));
    lumora::test::setMtime(file, now - 10min);
    auto s = Cursor::session(file, p.cwd, now);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->info.lastModified, *modificationDate(file));  // no subagents folder: the transcript alone
    EXPECT_EQ(s->info.subagentCount, 0);

    // Two subagent files: the newer one dates the conversation; a live one runs.
    auto subs = Cursor::subagentsFolder(file);
    CursorTranscript().user("read the parser").tool("Read", {{"path", "parser.c"}}).writeTo(subs / "a1.jsonl");
    CursorTranscript().user("old").reply("done").turnEnded().writeTo(subs / "a2.jsonl");
    lumora::test::setMtime(subs / "a1.jsonl", now - 30s);
    lumora::test::setMtime(subs / "a2.jsonl", now - 5min);
    s = Cursor::session(file, p.cwd, now);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->info.lastModified, *modificationDate(subs / "a1.jsonl"));
    EXPECT_TRUE(s->info.recentSubagentActivity);
    ASSERT_EQ(s->info.subagentCount, 1);
    EXPECT_EQ(s->info.subagents[0].task, "read the parser");
    EXPECT_EQ(s->info.subagents[0].action, "Read: parser.c");
}

TEST(CursorTranscriptReader, FindsTheProjectsDirectory) {
    Projects p;
    auto now = std::chrono::system_clock::now();
    auto id = "c0ffee00-aaaa-4222-8333-944445555666";
    p.write(CursorTranscript().prompt("hi").reply("hello").turnEnded(), id);

    // From a terminal's "cwd:" line (a subfolder of the project counts).
    lumora::test::writeFile(p.folder / "terminals/1.txt", "pid: 12\ncwd: " + p.cwd + "/src\nlast command: ls\n");
    EXPECT_EQ(Cursor::cwdFromTerminals(p.folder), p.cwd);
    auto sessions = Cursor::runningSessions(p.root, 30min, {}, now);
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].cwd, p.cwd);
    EXPECT_EQ(sessions[0].sessionId, id);
    EXPECT_EQ(sessions[0].projectName, "my_app.v2");

    // From a path the transcript mentions, cut from the words after it.
    std::string folderName = Cursor::encodedDirName("/Users/x/my app");
    EXPECT_EQ(Cursor::cwdFromText("I edited /Users/x/my app/src/main.c as asked", folderName), "/Users/x/my app");
    EXPECT_FALSE(Cursor::cwdFromText("nothing here", folderName));

    // Old conversations are left out unless kept alive; a project folder
    // without transcripts, or without a directory we can tell, has none.
    fs::remove_all(p.folder / "terminals");
    lumora::test::setMtime(p.folder / "agent-transcripts" / (std::string(id) + ".jsonl"), now - 2h);
    EXPECT_TRUE(Cursor::runningSessions(p.root, 30min, {}, now).empty());
    EXPECT_EQ(Cursor::runningSessions(p.root, 30min, {id}, now).size(), 1u);  // the folder resolves on disk
    fs::create_directories(p.root / "Users-nobody-empty/agent-transcripts");
    fs::create_directories(p.root / "Users-nobody-gone/agent-transcripts");
    CursorTranscript().prompt("x").writeTo(p.root / "Users-nobody-gone/agent-transcripts/x.jsonl");
    EXPECT_EQ(Cursor::runningSessions(p.root, 30min, {id}, now).size(), 1u);
    EXPECT_TRUE(Cursor::runningSessions(p.dir / "no-such", 30min, {}, now).empty());
}

TEST(CursorTranscriptReader, TellsATranscriptFromOtherJournals) {
    Projects p;
    auto file = p.write(CursorTranscript().prompt("hi").turnEnded());
    EXPECT_TRUE(Cursor::isTranscript(file));
    lumora::test::writeFile(p.dir / "claude.jsonl", R"({"type":"user","message":{"role":"user","content":"hi"}})" "\n");
    EXPECT_FALSE(Cursor::isTranscript(p.dir / "claude.jsonl"));
    lumora::test::writeFile(p.dir / "junk.jsonl", "junk\n");
    EXPECT_FALSE(Cursor::isTranscript(p.dir / "junk.jsonl"));
    EXPECT_FALSE(Cursor::session(p.dir / "junk.jsonl", p.cwd, std::chrono::system_clock::now()));
}
