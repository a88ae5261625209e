// The Kimi reader over session folders, state files, wire journals and the
// configuration, written the way the Kimi command-line tool lays them out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/kimi_wire_builder.hpp"
#include "support/test_support.hpp"

using namespace lumora::test;
using namespace scrivet::KimiTranscriptReader;
using namespace std::chrono_literals;
namespace W = lumora::test::KimiWire;
using Kind = scrivet::ActivityLine::Kind;

namespace {

const std::string kA = "session_5f0c1b8e-3a2d-4c6e-9f10-2b7d8e4a1c01";
const std::string kB = "session_5f0c1b8e-3a2d-4c6e-9f10-2b7d8e4a1c02";
const std::string kC = "session_5f0c1b8e-3a2d-4c6e-9f10-2b7d8e4a1c03";

}  // namespace

TEST(KimiReader, WireStatusFollowsTheTurn) {
    auto head = W::metadata() + W::line({{"type", "config.update"}, {"profileName", "default"}});
    auto idle = wireStatus(head);
    EXPECT_FALSE(idle.inProgress);
    EXPECT_FALSE(idle.hasRealTurn);

    auto running = head + W::prompt("list the files") + W::request("k3") + W::stepBegin(1) +
                   W::call("c1", "Shell", {{"command", "ls"}});
    auto s = wireStatus(running);
    EXPECT_TRUE(s.inProgress);
    EXPECT_TRUE(s.hasRealTurn);
    EXPECT_EQ(s.model, "k3");
    EXPECT_EQ(s.pendingApproval, scrivet::PendingApproval::run);  // a dangling shell call

    running += W::result("c1", "a.txt\nb.txt") + W::stepEnd(1, "tool_use");
    s = wireStatus(running);
    EXPECT_TRUE(s.inProgress);
    EXPECT_FALSE(s.pendingApproval);

    auto settled = running + W::stepBegin(2) + W::text(2, "Two files. Should I proceed?") + W::stepEnd(2, "end_turn") +
                   W::usage(3968, 383, 19200);
    s = wireStatus(settled);
    EXPECT_FALSE(s.inProgress);  // the usage record after the end does not reopen it
    EXPECT_TRUE(s.endsWithQuestion);
    EXPECT_EQ(s.contextTokens, 23551);
    EXPECT_EQ(s.summary, "Two files. Should I proceed?");
    std::vector<scrivet::ActivityLine> expected = {{Kind::prompt, "list the files"},
                                                   {Kind::tool, "Shell: ls"},
                                                   {Kind::ok, "a.txt b.txt"},
                                                   {Kind::reply, "Two files. Should I proceed?"}};
    EXPECT_EQ(s.recentActivity, expected);

    EXPECT_FALSE(wireStatus(W::finishedTurn("go", "Done, all green.")).endsWithQuestion);
    // Garbage lines in between are skipped.
    EXPECT_TRUE(wireStatus(W::prompt("go") + "not json\n{\"type\":\n\x01\x02\n[1,2]\n").inProgress);
}

TEST(KimiReader, SittingQuestions) {
    auto ask = W::prompt("pick a database") + W::request("k3") + W::stepBegin(1) +
               W::call("q1", "AskUserQuestion",
                       W::questions({{"Which database?", {"SQLite", "Postgres"}}, {"Which port?", {}}}));
    auto s = wireStatus(ask);
    ASSERT_TRUE(s.question);
    EXPECT_EQ(s.question->text, "Which database?");
    EXPECT_EQ(s.question->options, (std::vector<std::string>{"SQLite", "Postgres"}));
    EXPECT_EQ(s.question->moreCount, 1);
    EXPECT_EQ(s.pendingApproval, scrivet::PendingApproval::question);

    // A sibling call does not clear it; its own result does.
    EXPECT_TRUE(wireStatus(ask + W::call("c2", "Bash", {{"command", "ls"}})).question);
    EXPECT_FALSE(wireStatus(ask + W::result("q1", "SQLite")).question);
    // The end of the turn clears it and settles the turn.
    auto ended = wireStatus(ask + W::stepEnd(1, "end_turn"));
    EXPECT_FALSE(ended.question);
    EXPECT_FALSE(ended.inProgress);
    // Arguments written as a JSON string count too; empty arguments give no question.
    EXPECT_TRUE(wireStatus(W::prompt("x") + W::call("q2", "AskUserQuestion", W::questions({{"Go?", {}}}).dump())).question);
    auto empty = wireStatus(W::prompt("x") + W::call("q3", "AskUserQuestion", W::Json::object()));
    EXPECT_FALSE(empty.question);
    EXPECT_TRUE(empty.inProgress);
}

TEST(KimiReader, ConfigurationTables) {
    auto config = parseConfig(W::config());
    EXPECT_EQ(config.defaultModel, "k3");
    ASSERT_EQ(config.models.size(), 2u);  // [models.k3] is not a model table
    EXPECT_EQ(config.models["k3"].maxContextSize, 262144);
    EXPECT_EQ(config.models["k3"].displayName, "Kimi K3");
    EXPECT_EQ(displayName("k3", config), "Kimi K3");
    EXPECT_EQ(displayName("kimi-code/k9-test-model", config), "k9-test-model");
    EXPECT_EQ(parseConfig("garbage = = [[\n[models.\"x\"\n").models.size(), 0u);
}

TEST(KimiReader, SessionsOfRunningProcesses) {
    TempHome home;
    auto root = sessionsRoot(home / ".kimi-code");
    writeFile(home / ".kimi-code/config.toml", W::config());
    auto a = W::write(root, kA, "/work/a", W::metadata() + W::prompt("<b>fix</b> the **login** bug") + W::request("k3") +
                                               W::stepBegin(1) + W::call("c1", "ReadFile", {{"path", "a.py"}}) +
                                               W::usage(1000, 20, 500, "step"));
    W::write(root, kB, "/work/b", W::finishedTurn("hello", "hi"), "Login bug triage");
    auto c = W::write(root, kC, "/work/c", W::finishedTurn("old", "done"));
    setMtime(c.wire, std::chrono::system_clock::now() - 48h);
    writeFile(a.dir / "agents/main/tasks/t1.json", R"({"taskId":"t1","status":"running"})");
    writeFile(a.dir / "agents/main/tasks/t2.json", R"({"taskId":"t2","status":"completed"})");
    writeFile(a.dir / "agents/main/tasks/t3.json", R"({"taskId":"t3","status":"timed_out"})");

    ScanOptions options;
    options.configFile = home / ".kimi-code/config.toml";
    options.cliRunning = [](const std::string& cwd) { return cwd != "/work/b"; };
    auto sessions = runningSessions(root, options);
    ASSERT_EQ(sessions.size(), 1u);  // b has no process, c is too old
    const auto& s = sessions[0];
    EXPECT_EQ(s.sessionId, kA);
    EXPECT_EQ(s.cwd, "/work/a");
    EXPECT_EQ(s.projectName, "a");
    EXPECT_EQ(s.model, "Kimi K3");
    EXPECT_EQ(s.contextMax, 262144);
    EXPECT_EQ(s.contextTokens, 1520);
    EXPECT_TRUE(s.info.inProgress);
    EXPECT_EQ(s.info.topic, "fix the login bug");  // the default title falls back to the prompt
    EXPECT_EQ(s.info.pendingBackgroundAgents, 1);
    EXPECT_TRUE(s.info.recentSubagentActivity);

    options.keepAlive = {kC};
    options.cliRunning = {};
    sessions = runningSessions(root, options);
    ASSERT_EQ(sessions.size(), 3u);
    EXPECT_EQ(sessions.back().sessionId, kC);
    auto b = std::find_if(sessions.begin(), sessions.end(), [](const KimiSession& k) { return k.sessionId == kB; });
    EXPECT_EQ(b->info.topic, "Login bug triage");  // a custom title wins
    EXPECT_EQ(jumpTitleNeedle(root, kB), "Login bug triage");
    EXPECT_FALSE(isSessionId("session_nope"));
}

TEST(KimiReader, BrokenSessionsAreSkippedWithOneNoteEach) {
    TempHome home;
    auto root = sessionsRoot(home / ".kimi-code");
    auto good = W::write(root, kA, "/work/a", W::finishedTurn("hi", "hello"));
    // state.json that is a folder.
    auto dirState = W::write(root, kB, "/work/b", W::finishedTurn("hi", "hello"));
    fs::remove(dirState.dir / "state.json");
    fs::create_directories(dirState.dir / "state.json");
    // A wire journal that ends in one 100 MB line (a sparse file: no disk, no time).
    auto huge = W::write(root, kC, "/work/c", "");
    {
        int fd = ::open(huge.wire.c_str(), O_WRONLY | O_TRUNC);
        ASSERT_GE(fd, 0);
        std::string start = W::finishedTurn("hi", "hello") + "{\"type\":\"content.part\",\"part\":{\"text\":\"";
        ASSERT_EQ(::write(fd, start.data(), start.size()), static_cast<ssize_t>(start.size()));
        ASSERT_EQ(::ftruncate(fd, 100 * 1000 * 1000), 0);
        ASSERT_EQ(::pwrite(fd, "\"}}\n", 4, 100 * 1000 * 1000), 4);
        ::close(fd);
    }

    std::vector<std::string> notes;
    ScanOptions options;
    options.note = [&](const std::string& cause) { notes.push_back(cause); };
    auto sessions = runningSessions(root, options);
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].sessionId, kA);
    ASSERT_EQ(notes.size(), 2u);
    std::sort(notes.begin(), notes.end());
    EXPECT_NE(notes[0].find("state.json: not a regular file"), std::string::npos) << notes[0];
    EXPECT_NE(notes[1].find("no readable line"), std::string::npos) << notes[1];
    (void)good;
}

TEST(KimiReader, OneWireOnItsOwn) {
    TempHome home;
    auto s = W::write(home / "sessions", kA, "/work/a", W::finishedTurn("check the build", "Green."));
    auto read = parseWire(s.wire, s.dir / "state.json", std::chrono::system_clock::now());
    ASSERT_TRUE(read);
    EXPECT_EQ(read->sessionId, kA);
    EXPECT_EQ(read->cwd, "/work/a");
    EXPECT_EQ(read->info.topic, "check the build");
    writeFile(home / "loose/wire.jsonl", W::finishedTurn("x", "y"));
    auto loose = parseWire(home / "loose/wire.jsonl", std::nullopt, std::chrono::system_clock::now());
    ASSERT_TRUE(loose);
    EXPECT_FALSE(loose->info.sessionId);
}
