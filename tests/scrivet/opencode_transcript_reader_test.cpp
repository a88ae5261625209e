// The OpenCode reader against real SQLite databases built with OpenCode's own
// schema, rows shaped like those OpenCode 1.18.33 writes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>
#include <thread>

#include "scrivet/opencode_database_builder.hpp"
#include "scrivet/opencode_transcript_reader.hpp"
#include "support/test_support.hpp"

using namespace lumora::test;
using namespace scrivet::OpenCodeTranscriptReader;
using namespace std::chrono_literals;
namespace Rows = lumora::test::OpenCodeRows;
using Kind = scrivet::ActivityLine::Kind;
using OcSession = lumora::test::OpenCodeDatabase::Session;

namespace {

const std::string kRoot = "ses_dff4202d1ffeyX70A1FDbPK1ib";
const std::string kChild = "ses_dff41fcd1ffeJxLUVxsHmsrod1";

std::set<std::string> names(const fs::path& dir) {
    std::set<std::string> out;
    for (const auto& e : fs::directory_iterator(dir)) out.insert(e.path().filename().string());
    return out;
}

// A project with one task session: a quoted `opencode run` prompt, a running
// task tool with its child session, and the bookkeeping parts around them.
void taskSession(OpenCodeDatabase& db, const std::string& dir, int64_t t0) {
    db.session(OcSession(kRoot, dir).updatedAt(t0 + 900).costing(0.25).tokens(10, 5, 100, 20, 1));
    db.message("msg_1", kRoot, t0, Rows::user(kRoot, t0));
    db.part("prt_1", "msg_1", kRoot, t0 + 1, Rows::text("\"Use a subagent to say hello.\""));
    db.message("msg_2", kRoot, t0 + 10, Rows::assistant(kRoot, t0 + 10, std::nullopt, 0));
    db.part("prt_2", "msg_2", kRoot, t0 + 11, Rows::stepStart());
    db.part("prt_3", "msg_2", kRoot, t0 + 12, Rows::reasoning("Delegating."));
    db.part("prt_4", "msg_2", kRoot, t0 + 13, Rows::tool("task", "running", "Say hello in a subagent"));
    db.part("prt_5", "msg_2", kRoot, t0 + 14, Rows::patch());
    db.session(OcSession(kChild, dir)
                   .titled("Say hello in a subagent (@general subagent)")
                   .childOf(kRoot)
                   .agentNamed("general")
                   .updatedAt(t0 + 800)
                   .tokens(2456, 55));
    db.message("msg_c1", kChild, t0 + 20, Rows::user(kChild, t0 + 20));
    db.part("prt_c1", "msg_c1", kChild, t0 + 21, Rows::text("Please just say hello."));
    db.message("msg_c2", kChild, t0 + 30, Rows::assistant(kChild, t0 + 30, std::nullopt, 0));
    db.part("prt_c2", "msg_c2", kChild, t0 + 31, Rows::tool("bash", "running", "echo hello"));
}

ScanOptions options(const std::set<std::string>& liveDirs, const fs::path& catalogue = {}) {
    ScanOptions o;
    o.cliRunning = [liveDirs](const std::string& cwd) { return liveDirs.count(cwd) > 0; };
    o.catalogue = catalogue;
    return o;
}

const OpenCodeSession* find(const ScanResult& r, const std::string& id) {
    for (const auto& s : r.sessions)
        if (s.sessionId == id) return &s;
    return nullptr;
}

}  // namespace

TEST(OpenCodeReader, ReadsSessionsTurnsSubagentsAndTitles) {
    TempHome home;
    auto file = home / ".local/share/opencode/opencode.db";
    OpenCodeDatabase db(file);
    int64_t t0 = millisNow(-60s);
    taskSession(db, "/home/dev/proj", t0);
    // A settled session elsewhere, titled by OpenCode, ending on a question.
    db.session(OcSession("ses_titled", "/home/dev/other")
                   .titled("Refactor the parser")
                   .modelJson(R"({"id":"gpt-5","providerID":"openai","variant":"default"})")
                   .updatedAt(t0 + 500));
    db.message("msg_t1", "ses_titled", t0, Rows::user("ses_titled", t0, "gpt-5", "openai"));
    db.part("prt_t1", "msg_t1", "ses_titled", t0 + 1, Rows::text("refactor it"));
    db.message("msg_t2", "ses_titled", t0 + 5, Rows::assistant("ses_titled", t0 + 5, t0 + 9, 4000, "stop", "gpt-5", "openai"));
    db.part("prt_t2", "msg_t2", "ses_titled", t0 + 6, Rows::stepStart());
    db.part("prt_t3", "msg_t2", "ses_titled", t0 + 7, Rows::tool("bash", "completed", "ls", "a.txt\nb.txt"));
    db.part("prt_t4", "msg_t2", "ses_titled", t0 + 8, Rows::text("Refactor the parser or add tests first?"));
    db.part("prt_t5", "msg_t2", "ses_titled", t0 + 9, Rows::stepFinish());
    // Archived, and one without a process: never listed / not read.
    db.session(OcSession("ses_archived", "/home/dev/proj").updatedAt(t0 + 950).archivedAt(t0));
    db.session(OcSession("ses_elsewhere", "/home/dev/nobody").updatedAt(t0 + 990));
    writeFile(home / "models.json", R"({"openai":{"id":"openai","models":{"gpt-5":{"id":"gpt-5","name":"GPT-5",
        "limit":{"context":400000,"output":128000},"cost":{"input":1.25,"output":10,"cache_read":0.125}}}}})");

    auto result = runningSessions(file, options({"/home/dev/proj", "/home/dev/other"}, home / "models.json"));
    ASSERT_FALSE(result.failure);
    ASSERT_EQ(result.sessions.size(), 2u);
    EXPECT_EQ(result.sessions[0].sessionId, kRoot);  // newest first
    EXPECT_FALSE(find(result, kChild));              // a child is never a session of its own
    EXPECT_FALSE(find(result, "ses_archived"));
    EXPECT_FALSE(find(result, "ses_elsewhere"));

    const auto& task = *find(result, kRoot);
    EXPECT_EQ(task.projectName(), "proj");
    EXPECT_FALSE(task.title);  // the placeholder counts as none
    EXPECT_EQ(task.firstPrompt, "Use a subagent to say hello.");
    EXPECT_EQ(task.info.topic, "Use a subagent to say hello.");
    EXPECT_EQ(task.tokens.blended(), 36);  // reasoning left out
    EXPECT_DOUBLE_EQ(task.cost, 0.25);
    EXPECT_EQ(task.modelID, "harness-model");
    EXPECT_EQ(task.info.model, "harness-model");
    EXPECT_FALSE(task.info.contextMax);  // the catalogue does not know it
    EXPECT_TRUE(task.info.inProgress);
    EXPECT_FALSE(task.info.awaitingFirstReply);
    ASSERT_EQ(task.info.subagentCount, 1);
    EXPECT_EQ(task.info.subagents[0].id, kChild);
    EXPECT_EQ(task.info.subagents[0].type, "general");
    EXPECT_EQ(task.info.subagents[0].task, "Say hello in a subagent");
    EXPECT_EQ(task.info.subagents[0].action, "bash: echo hello");
    EXPECT_EQ(task.info.subagents[0].tokens, 2511);
    EXPECT_TRUE(task.info.recentSubagentActivity);
    std::vector<scrivet::ActivityLine> expected = {{Kind::prompt, "Use a subagent to say hello."},
                                                   {Kind::thinking, "Delegating."},
                                                   {Kind::tool, "task: Say hello in a subagent"}};
    EXPECT_EQ(task.info.recentActivity, expected);  // no step or patch lines

    const auto& titled = *find(result, "ses_titled");
    EXPECT_EQ(titled.title, "Refactor the parser");
    EXPECT_EQ(titled.info.topic, "Refactor the parser");
    EXPECT_EQ(titled.info.model, "GPT-5");
    EXPECT_EQ(titled.info.contextTokens, 4000);
    EXPECT_EQ(titled.info.contextMax, 400000);
    EXPECT_FALSE(titled.info.inProgress);
    EXPECT_TRUE(titled.info.endsWithQuestion);
    EXPECT_EQ(titled.info.summary, "Refactor the parser or add tests first?");
    ASSERT_EQ(titled.info.recentActivity.size(), 4u);
    EXPECT_EQ(titled.info.recentActivity[1], (scrivet::ActivityLine{Kind::tool, "bash: ls"}));
    EXPECT_EQ(titled.info.recentActivity[2], (scrivet::ActivityLine{Kind::ok, "a.txt b.txt"}));

    // An old session stays while it is on screen (kept alive), not otherwise.
    auto o = options({"/home/dev/proj", "/home/dev/other"});
    o.now = std::chrono::system_clock::now() + 48h;
    EXPECT_TRUE(runningSessions(file, o).sessions.empty());
    o.keepAlive = {kRoot};
    auto kept = runningSessions(file, o);
    ASSERT_EQ(kept.sessions.size(), 1u);
    EXPECT_EQ(kept.sessions[0].sessionId, kRoot);
}

TEST(OpenCodeReader, TurnStateFromTheNewestMessages) {
    const std::string s = "ses_x";
    auto turn = [](std::vector<MessageRow> rows) { return turnFromMessages(rows); };

    auto asked = turn({{Rows::user(s, 100), 100}});
    EXPECT_TRUE(asked.inProgress);
    EXPECT_TRUE(asked.awaitingFirstReply);
    EXPECT_TRUE(asked.hasRealTurn);

    auto streaming = turn({{Rows::assistant(s, 200, std::nullopt, 0), 200}, {Rows::user(s, 100), 100}});
    EXPECT_TRUE(streaming.inProgress);
    EXPECT_FALSE(streaming.awaitingFirstReply);

    auto betweenSteps = turn({{Rows::assistant(s, 200, 250, 3000, "tool-calls"), 200}, {Rows::user(s, 100), 100}});
    EXPECT_TRUE(betweenSteps.inProgress);
    EXPECT_EQ(betweenSteps.contextTokens, 3000);

    auto done = turn({{Rows::assistant(s, 200, 250), 200}, {Rows::user(s, 100), 100}});
    EXPECT_FALSE(done.inProgress);
    EXPECT_EQ(done.contextTokens, 2509);
    EXPECT_EQ(done.lastEntry, scrivet::Date{} + 250ms);

    // Aborted: completed with an error and no tokens.total: settled; the
    // context comes from the answer before it.
    auto abort = turn({{Rows::aborted(s, 400, 450), 400}, {Rows::user(s, 300), 300},
                       {Rows::assistant(s, 200, 250), 200}, {Rows::user(s, 100), 100}});
    EXPECT_FALSE(abort.inProgress);
    EXPECT_TRUE(abort.interrupted);
    EXPECT_EQ(abort.contextTokens, 2509);

    // A row whose JSON does not parse is skipped.
    auto torn = turn({{"{\"role\":\"assis", 500}, {Rows::assistant(s, 200, 250), 200}});
    EXPECT_FALSE(torn.inProgress);
    EXPECT_EQ(torn.modelID, "harness-model");

    EXPECT_FALSE(turn({}).hasRealTurn);
}

TEST(OpenCodeReader, SmallPieces) {
    EXPECT_TRUE(isPlaceholderTitle("New session - 2026-11-22T00:52:42.544Z"));
    EXPECT_TRUE(isPlaceholderTitle("New session"));
    EXPECT_FALSE(isPlaceholderTitle("Harness title"));
    EXPECT_EQ(subagentTask("Say hello in a subagent (@general subagent)"), "Say hello in a subagent");
    EXPECT_EQ(parseSessionModel(R"({"id":"m","providerID":"p","variant":"default"})"),
              (SessionModel{"m", "p", "default"}));
    EXPECT_FALSE(parseSessionModel("not json"));
    EXPECT_EQ(promptText(Rows::text("\"[[h:text]] Say hello.\"")), "[[h:text]] Say hello.");
    EXPECT_FALSE(promptText(R"({"type":"text","text":"<file>","synthetic":true})"));

    ModelCatalogue catalogue;
    ModelSpec spec;
    spec.name = "M";
    spec.contextLimit = 1000;
    catalogue.providers["p"]["m"] = spec;
    EXPECT_EQ(catalogue.model("p", "m")->contextLimit, 1000);
    EXPECT_FALSE(catalogue.model("p", "other"));
    EXPECT_FALSE(ModelCatalogue::parse("[1,2]"));
    EXPECT_TRUE(ModelCatalogue::load("/no/such/models.json").providers.empty());
}

TEST(OpenCodeReader, GoChargesAndTodos) {
    TempHome home;
    auto file = home / "opencode.db";
    OpenCodeDatabase db(file);
    auto now = std::chrono::system_clock::now();
    auto ms = [&](std::chrono::seconds ago) { return millisNow(-ago); };
    auto charge = [&](const std::string& id, std::chrono::seconds ago, double cost, const std::string& provider) {
        Json m = {{"role", "assistant"}, {"providerID", provider}, {"cost", cost},
                  {"time", {{"created", ms(ago)}, {"completed", ms(ago) + 1000}}}};
        db.message(id, "ses_go", ms(ago), m.dump());
    };
    charge("m1", 1h, 2.0, "opencode-go");
    charge("m2", 2h, 1.5, "opencode-go");
    charge("m3", 3 * 24h, 10.0, "opencode-go");
    charge("m4", 1h, 99.0, "anthropic");
    db.message("m5", "ses_go", ms(1h), "{broken");

    std::string why;
    auto usage = goUsage(file, now, GoPlan{}, &why);
    ASSERT_TRUE(usage) << why;
    EXPECT_DOUBLE_EQ(usage->fiveHour.spent, 3.5);
    EXPECT_DOUBLE_EQ(usage->weekly.spent, 13.5);
    EXPECT_EQ(usage->turns, 3);
    EXPECT_NEAR(usage->fiveHour.percentUsed(), 3.5 / 12 * 100, 1e-9);
    ASSERT_TRUE(usage->fiveHour.resetsAt);
    // The oldest charge in the window (two hours ago, completed a second later) rolls off in three hours.
    EXPECT_NEAR(std::chrono::duration<double>(*usage->fiveHour.resetsAt - now).count(), 3 * 3600 + 1, 2);

    db.todo("ses_go", 1, "Write the fix", "in_progress", "high");
    db.todo("ses_go", 0, "Read the code", "completed", "high");
    auto list = todos(file, "ses_go");
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 2u);
    EXPECT_EQ((*list)[0], (OpenCodeTodo{"Read the code", "completed", "high", 0}));
    EXPECT_EQ((*list)[1].status, "in_progress");
    EXPECT_FALSE(todos(home / "missing.db", "ses_go"));
}

TEST(OpenCodeReader, BrokenDatabasesGiveNothingAndSayWhy) {
    TempHome home;
    auto probe = [&](const fs::path& file) { return runningSessions(file, ScanOptions{}); };

    EXPECT_EQ(probe(home / "missing.db").failure->why, "no database file");
    writeFile(home / "empty.db", "");
    EXPECT_EQ(probe(home / "empty.db").failure->why, "empty database file");
    writeFile(home / "garbage.db", std::string(4096, 'x'));
    EXPECT_EQ(probe(home / "garbage.db").failure->why, "not an SQLite database");
    ::mkfifo((home / "fifo.db").c_str(), 0600);
    EXPECT_EQ(probe(home / "fifo.db").failure->why, "not a regular file");

    // A database cut short: the header is intact, the pages are not.
    {
        OpenCodeDatabase db(home / "whole.db", false);
        db.exec("BEGIN");
        for (int i = 0; i < 200; ++i) {
            auto id = "ses_" + std::to_string(i);
            db.session(OcSession(id, "/p").titled(std::string(300, 'x')));
            db.message("m" + std::to_string(i), id, millisNow(), Rows::user(id, millisNow()));
        }
        db.exec("COMMIT");
    }
    auto whole = readFile(home / "whole.db");
    writeFile(home / "truncated.db", whole.substr(0, whole.size() / 3));
    auto truncated = probe(home / "truncated.db");
    EXPECT_TRUE(truncated.failure);
    EXPECT_TRUE(truncated.sessions.empty());

    // A schema from the future: a column we read has gone; an extra one is fine.
    {
        OpenCodeDatabase db(home / "future.db");
        db.session(OcSession("ses_f", "/p"));
        db.exec("ALTER TABLE session ADD COLUMN mood text");
        EXPECT_EQ(probe(db.file()).sessions.size(), 1u);
        db.exec("ALTER TABLE session DROP COLUMN agent");
        auto r = probe(db.file());
        ASSERT_TRUE(r.failure);
        EXPECT_NE(r.failure->why.find("agent"), std::string::npos) << r.failure->why;
        EXPECT_FALSE(r.failure->busy);
    }

    // Rows whose JSON does not parse are skipped; the rest still reads.
    {
        OpenCodeDatabase db(home / "rows.db");
        db.session(OcSession("ses_r", "/p").modelJson("{not json"));
        db.message("m1", "ses_r", 100, Rows::user("ses_r", 100));
        db.part("p1", "m1", "ses_r", 101, Rows::text("hello"));
        db.message("m2", "ses_r", 200, "[[[");
        db.part("p2", "m2", "ses_r", 201, "{\"type\":");
        auto r = probe(db.file());
        ASSERT_FALSE(r.failure);
        ASSERT_EQ(r.sessions.size(), 1u);
        EXPECT_EQ(r.sessions[0].info.topic, "hello");
        EXPECT_TRUE(r.sessions[0].info.inProgress);
    }

    // Locked by its writer: reported as busy, within the short busy wait.
    {
        OpenCodeDatabase db(home / "locked.db", false);
        db.session(OcSession("ses_l", "/p"));
        db.exec("BEGIN EXCLUSIVE");
        db.exec("UPDATE session SET title = 'x'");
        auto started = std::chrono::steady_clock::now();
        auto r = probe(db.file());
        EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
        ASSERT_TRUE(r.failure);
        EXPECT_TRUE(r.failure->busy);
        EXPECT_TRUE(r.sessions.empty());
        db.exec("COMMIT");
        EXPECT_FALSE(probe(db.file()).failure);
    }
}

TEST(OpenCodeReader, ReadingChangesNothingBesideTheDatabase) {
    TempHome home;
    auto dir = home / "data";
    auto file = dir / "opencode.db";
    {
        OpenCodeDatabase db(file);
        taskSession(db, "/home/dev/proj", millisNow(-60s));
    }
    // OpenCode is not running: no -wal or -shm, and reading must not make them.
    auto before = readFile(file);
    ASSERT_EQ(names(dir), std::set<std::string>{"opencode.db"});
    for (int i = 0; i < 5; ++i) {
        auto r = runningSessions(file, options({"/home/dev/proj"}));
        ASSERT_EQ(r.sessions.size(), 1u);
        ASSERT_TRUE(goUsage(file, std::chrono::system_clock::now()));
        ASSERT_TRUE(todos(file, kRoot));
    }
    EXPECT_EQ(names(dir), std::set<std::string>{"opencode.db"});  // no -wal or -shm made
    EXPECT_TRUE(readFile(file) == before);

    // OpenCode running: its connection holds the WAL; we read what it
    // committed and leave every file as it was.
    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &writer), SQLITE_OK);
    sqlite3_exec(writer, "PRAGMA wal_autocheckpoint=0", nullptr, nullptr, nullptr);
    auto insert = [&](const std::string& id) {
        std::string sql = "INSERT INTO session (id, project_id, slug, directory, title, version, time_created, "
                          "time_updated) VALUES ('" + id + "', 'prj', 's', '/home/dev/proj', 'Live', '1', 0, " +
                          std::to_string(millisNow()) + ")";
        ASSERT_EQ(sqlite3_exec(writer, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    };
    insert("ses_live1");
    auto withWriter = names(dir);
    auto bytes = readFile(file);
    for (int i = 0; i < 5; ++i) {
        auto o = options({"/home/dev/proj"});
        auto r = runningSessions(file, o);
        ASSERT_FALSE(r.failure) << r.failure->why;
        ASSERT_FALSE(r.sessions.empty());
        EXPECT_EQ(r.sessions[0].sessionId, "ses_live1");
    }
    EXPECT_EQ(names(dir), withWriter);
    EXPECT_TRUE(readFile(file) == bytes);
    sqlite3_close(writer);
}
