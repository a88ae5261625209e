// The task-plan store on real files: Claude's task folders, journals found
// by session id and read as they grow, Codex's goals database and OpenCode's.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <nlohmann/json.hpp>

#include "lumora/hooks/task_plan_store.hpp"
#include "scrivet/codex_cursor_builders.hpp"
#include "scrivet/kimi_wire_builder.hpp"
#include "scrivet/opencode_database_builder.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;
using S = TaskPlanItem::Status;

namespace {

const std::string kClaude = "5a1e0c2e-1111-4222-8333-944445555666";
const std::string kCodex = "01a200b8-08e9-7700-a95d-dc5d02af79ad";
const std::string kCursor = "7c0c0c0c-2222-4333-8444-555566667777";
const std::string kKimi = "session_0b0b0b0b-1111-4222-8333-444455556666";

TaskPlanPaths pathsIn(const fs::path& home) {
    return {home / ".claude/tasks", home / ".claude/projects", home / ".codex/sessions", home / ".codex/goals_1.sqlite",
            home / ".cursor/projects", home / ".kimi-code/sessions", home / ".local/share/opencode/opencode.db"};
}

std::string task(const std::string& id, const std::string& subject, const std::string& status) {
    return Json{{"id", id}, {"subject", subject}, {"activeForm", "Doing " + subject}, {"status", status},
                {"blocks", Json::array()}, {"blockedBy", Json::array()}}
        .dump();
}

std::string updatePlan(const std::string& status) {
    CodexRollout r;
    r.response({{"type", "function_call"}, {"name", "update_plan"},
                {"arguments", Json{{"plan", {{{"step", "Build"}, {"status", status}}}}}.dump()}});
    auto text = r.text();
    return text.substr(text.find('\n') + 1);
}

void append(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::app) << text; }

void sql(sqlite3* db, const std::string& statement) {
    ASSERT_EQ(sqlite3_exec(db, statement.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
}

}  // namespace

TEST(TaskPlanStore, PollsEachAgentsPlanAndOnlyWhatChanged) {
    TempHome home;
    auto paths = pathsIn(home.path());
    TaskPlanPoller poller(paths);

    // Claude: task files, with garbage beside them.
    auto folder = paths.claudeTasks / kClaude;
    writeFile(folder / "1.json", task("1", "Read the code", "completed"));
    writeFile(folder / "2.json", task("2", "Write the fix", "in_progress"));
    writeFile(folder / "3.json", "garbage {");
    writeFile(folder / "4.json", task("4", std::string(300 * 1024, 'h'), "pending"));  // too large to be a task
    writeFile(folder / ".lock", "");
    fs::create_directories(folder / "5.json");  // a folder named like a task
    // Codex: a rollout in its dated folder, written in pieces.
    CodexRollout rollout(kCodex);
    rollout.turnStart().prompt("build it");
    auto rolloutFile = rollout.writeIn(paths.codexSessions);
    append(rolloutFile, updatePlan("pending"));
    // Cursor and Kimi journals.
    CursorTranscript cursor;
    cursor.prompt("plan it").tool("TodoWrite", {{"merge", false},
                                                {"todos", {{{"id", "a"}, {"content", "Design"}, {"status", "in_progress"}}}}});
    cursor.writeTo(paths.cursorProjects / "home-dev-proj/agent-transcripts" / (kCursor + ".jsonl"));
    KimiWire::write(paths.kimiSessions, kKimi, "/home/dev/proj",
                    KimiWire::call("t1", "TodoList", {{"todos", {{{"title", "Pick"}, {"status", "done"}}}}}));

    poller.setSessions({{HarnessProvider::claudeCode, kClaude}, {HarnessProvider::codex, kCodex},
                        {HarnessProvider::cursor, kCursor}, {HarnessProvider::kimi, kKimi},
                        {HarnessProvider::claudeCode, "9a1e0c2e-1111-4222-8333-944445555666"}});  // no plan anywhere
    auto first = poller.poll();
    ASSERT_TRUE(first);
    ASSERT_EQ(first->size(), 4u);
    EXPECT_EQ(first->at(kClaude).badge(), "1/2");
    EXPECT_EQ(first->at(kClaude).activeItem()->activeForm, "Doing Write the fix");
    EXPECT_EQ(first->at(kCodex).items[0].status, S::pending);
    EXPECT_EQ(first->at(kCursor).items[0].subject, "Design");
    EXPECT_EQ(first->at(kKimi).doneCount(), 1);
    EXPECT_FALSE(poller.poll());  // nothing changed: nothing to publish

    // A task file rewritten in place, a journal that grew, half a line still being written.
    writeFile(folder / "2.json", task("2", "Write the fix", "completed"));
    setMtime(folder / "2.json", std::chrono::system_clock::now() + 2s);
    append(rolloutFile, updatePlan("in_progress"));
    append(rolloutFile, R"({"timestamp":"2026-11-22T00:46:25.128Z","type":"response_item","payl)");
    auto second = poller.poll();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->at(kClaude).badge(), "2/2");
    EXPECT_EQ(second->at(kCodex).items[0].status, S::inProgress);
    append(rolloutFile, "oad\":{}}\n" + updatePlan("completed"));
    auto third = poller.poll();
    ASSERT_TRUE(third);
    EXPECT_EQ(third->at(kCodex).items[0].status, S::completed);

    // The task folder gone: Claude's plan goes with it; a session no longer shown is forgotten.
    fs::remove_all(folder);
    poller.setSessions({{HarnessProvider::claudeCode, kClaude}, {HarnessProvider::codex, kCodex}});
    auto fourth = poller.poll();
    ASSERT_TRUE(fourth);
    EXPECT_EQ(fourth->size(), 1u);
    EXPECT_TRUE(fourth->count(kCodex));
}

TEST(TaskPlanStore, ReadsCodexGoalsAndOpenCodeTodosReadOnly) {
    TempHome home;
    auto paths = pathsIn(home.path());
    fs::create_directories(paths.codexGoals.parent_path());
    sqlite3* goals = nullptr;
    ASSERT_EQ(sqlite3_open(paths.codexGoals.c_str(), &goals), SQLITE_OK);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> closeGoals(goals, sqlite3_close);
    sql(goals, "PRAGMA journal_mode=WAL");
    sql(goals, "CREATE TABLE thread_goals (thread_id TEXT PRIMARY KEY, objective TEXT NOT NULL, status TEXT NOT NULL)");
    sql(goals, "INSERT INTO thread_goals VALUES ('" + kCodex + "', 'Ship the 1.0 release', 'active')");
    OpenCodeDatabase oc(paths.openCodeDatabase);
    oc.session(OpenCodeDatabase::Session("ses_plan", "/home/dev/proj"));
    oc.todo("ses_plan", 0, "Write docs", "completed", "high");
    oc.todo("ses_plan", 1, "Drop this", "cancelled", "low");
    oc.todo("ses_plan", 2, "Publish", "in_progress", "medium");

    RunLoop loop;
    TaskPlanStore store(paths, loop);
    int changes = 0;
    store.setOnChange([&] { ++changes; });
    store.registerSessions({{HarnessProvider::codex, kCodex}, {HarnessProvider::opencode, "ses_plan"},
                            {HarnessProvider::claudeCode, "/home/dev/proj#4242"}});  // a process-only row: never asked
    store.pollNow();
    ASSERT_EQ(store.plans().size(), 2u);
    EXPECT_EQ(store.plan(kCodex)->items[0].subject, "Ship the 1.0 release");
    EXPECT_EQ(store.plan(kCodex)->items[0].status, S::inProgress);
    EXPECT_EQ(store.plan("ses_plan")->badge(), "1/2");
    EXPECT_EQ(store.inlineRowCount(std::string("ses_plan"), 6), 2);
    EXPECT_EQ(store.inlineRowCount(std::nullopt, 6), 0);
    EXPECT_EQ(changes, 1);

    // The timer's polls publish what the writers change, on the loop.
    store.start();
    sql(goals, "UPDATE thread_goals SET status = 'complete'");
    ASSERT_TRUE(loop.runUntil([&] { return store.plan(kCodex) && store.plan(kCodex)->doneCount() == 1; }, 10s));
    oc.exec("UPDATE todo SET status = 'completed' WHERE content = 'Publish'");
    ASSERT_TRUE(loop.runUntil([&] { return store.plan("ses_plan") && store.plan("ses_plan")->doneCount() == 2; }, 10s));
    store.stop();

    // Plans off: none shown; the demo's preview holds until cleared.
    store.setEnabled(false);
    EXPECT_TRUE(store.plans().empty());
    store.setPreview({{"demo", TaskPlan{{{"x", "x", std::nullopt, S::pending}}}}});
    EXPECT_EQ(store.plans().size(), 1u);
    store.clearPreview();
    EXPECT_TRUE(store.plans().empty());

    EXPECT_TRUE(TaskPlanStore::acceptsId(HarnessProvider::kimi, kKimi));
    EXPECT_FALSE(TaskPlanStore::acceptsId(HarnessProvider::kimi, kClaude));
    EXPECT_FALSE(TaskPlanStore::acceptsId(HarnessProvider::codex, "../../etc"));
    EXPECT_FALSE(TaskPlanStore::acceptsId(HarnessProvider::opencode, "ses_../x"));
}
