// Task plans from each agent's records: the plan model and its row slots,
// and the parsers that turn a journal window (or a task file) into a plan.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/hooks/plan_sources.hpp"
#include "scrivet/codex_cursor_builders.hpp"
#include "scrivet/claude_journal_builder.hpp"
#include "scrivet/kimi_wire_builder.hpp"

using namespace lumora;
using Json = nlohmann::json;
using S = TaskPlanItem::Status;

namespace {

TaskPlan planOf(std::initializer_list<std::pair<const char*, S>> steps) {
    TaskPlan p;
    for (auto [text, status] : steps) p.items.push_back({text, text, std::nullopt, status});
    return p;
}

std::vector<std::string> subjects(const TaskPlan& p) {
    std::vector<std::string> out;
    for (const auto& i : p.items) out.push_back(i.subject + ":" + std::string(rawValue(i.status)));
    return out;
}

std::vector<std::string> slotIds(const std::vector<TaskPlan::Slot>& slots) {
    std::vector<std::string> out;
    for (const auto& s : slots) out.push_back(s.id + "=" + s.text);
    return out;
}

std::string updatePlan(const Json& steps, bool asString = true) {
    Json args = {{"explanation", "why"}, {"plan", steps}};
    lumora::test::CodexRollout r;
    r.response({{"type", "function_call"}, {"name", "update_plan"}, {"call_id", "c"},
                {"arguments", asString ? Json(args.dump()) : args}});
    auto text = r.text();
    return text.substr(text.find('\n') + 1);  // without the session_meta line
}

Json step(const std::string& text, const std::string& status) { return {{"step", text}, {"status", status}}; }

std::string cursorTodos(const Json& todos, bool merge) {
    lumora::test::CursorTranscript t;
    t.tool("TodoWrite", {{"todos", todos}, {"merge", merge}});
    return t.text();
}

Json todo(const std::string& id, const std::string& content, const std::string& status) {
    Json j = {{"id", id}, {"status", status}};
    if (!content.empty()) j["content"] = content;
    return j;
}

}  // namespace

TEST(TaskPlan, CountsNormalisesAndFitsItsRows) {
    for (auto [raw, want] : std::initializer_list<std::pair<const char*, S>>{
             {"pending", S::pending}, {"in_progress", S::inProgress}, {"inprogress", S::inProgress},
             {"IN_PROGRESS", S::inProgress}, {"completed", S::completed}, {"complete", S::completed},
             {"done", S::completed}, {"blocked", S::pending}, {"", S::pending}})
        EXPECT_EQ(TaskPlanItem::normalizing(raw), want) << raw;

    auto plan = planOf({{"a", S::completed}, {"b", S::completed}, {"c", S::completed}, {"d", S::inProgress},
                        {"e", S::pending}, {"f", S::pending}, {"g", S::pending}});
    EXPECT_EQ(plan.badge(), "3/7");
    EXPECT_TRUE(plan.hasActive());
    EXPECT_EQ(plan.activeItem()->subject, "d");

    EXPECT_EQ(slotIds(plan.rowSlots(7)).size(), 7u);  // everything fits: one slot each
    EXPECT_EQ(slotIds(plan.rowSlots(5)),
              (std::vector<std::string>{"summary=3 done", "item-d=d", "item-e=e", "item-f=f", "item-g=g"}));
    EXPECT_EQ(slotIds(plan.rowSlots(4)), (std::vector<std::string>{"summary=3 done", "item-d=d", "item-e=e", "overflow=+2 more"}));
    EXPECT_EQ(slotIds(plan.rowSlots(1)), (std::vector<std::string>{"overflow=+7 more"}));
    EXPECT_TRUE(plan.rowSlots(0).empty());
    // Never over budget, and every item shown or counted.
    for (int rows = 1; rows <= 9; ++rows) {
        auto slots = plan.rowSlots(rows);
        int counted = 0;
        for (const auto& s : slots) counted += s.count;
        EXPECT_LE(static_cast<int>(slots.size()), rows);
        EXPECT_EQ(counted, plan.totalCount()) << rows;
    }
    // A lone finished step is not worth a summary line.
    auto one = planOf({{"a", S::completed}, {"b", S::pending}, {"c", S::pending}});
    EXPECT_EQ(slotIds(one.rowSlots(2)), (std::vector<std::string>{"item-a=a", "overflow=+2 more"}));
}

TEST(TaskPlan, CodexPlansComeFromTheNewestGoodUpdatePlan) {
    // Two calls: the newer one's statuses show.
    auto window = updatePlan({step("Read the code", "completed"), step("Write tests", "pending")}) +
                  updatePlan({step("Read the code", "completed"), step("Write tests", "in_progress")}, false);
    auto plan = CodexPlanSource::plan(window);
    ASSERT_TRUE(plan);
    EXPECT_EQ(subjects(*plan), (std::vector<std::string>{"Read the code:completed", "Write tests:inProgress"}));

    // Two steps with the same text get distinct ids that stay across status flips.
    auto dup1 = CodexPlanSource::plan(updatePlan({step("Run tests", "completed"), step("Fix", "pending"), step("Run tests", "pending")}));
    auto dup2 = CodexPlanSource::plan(updatePlan({step("Run tests", "completed"), step("Fix", "completed"), step("Run tests", "in_progress")}));
    ASSERT_TRUE(dup1 && dup2);
    EXPECT_EQ(dup1->items[2].id, "Run tests#2");
    EXPECT_EQ(dup2->items[2].id, "Run tests#2");
    EXPECT_NE(dup1->items[0].id, dup1->items[2].id);

    // A malformed newest call (not JSON, not a list) falls back to the older good one.
    std::string bad = window;
    lumora::test::CodexRollout r;
    r.response({{"type", "function_call"}, {"name", "update_plan"}, {"arguments", "{not json"}});
    r.response({{"type", "function_call"}, {"name", "update_plan"}, {"arguments", R"({"plan":"not a list"})"}});
    auto rt = r.text();
    bad += rt.substr(rt.find('\n') + 1);
    auto fallback = CodexPlanSource::plan(bad);
    ASSERT_TRUE(fallback);
    EXPECT_EQ(fallback->items[1].status, S::inProgress);

    // Blank steps are dropped; an empty plan or no call gives nothing (the cache stays).
    auto blanks = CodexPlanSource::plan(updatePlan({step("  ", "pending"), step("Ship", "pending")}));
    ASSERT_TRUE(blanks);
    EXPECT_EQ(blanks->totalCount(), 1);
    EXPECT_FALSE(CodexPlanSource::plan(updatePlan(Json::array())));
    EXPECT_FALSE(CodexPlanSource::plan("{\"type\":\"response_item\"}\n"));
    EXPECT_FALSE(CodexPlanSource::planFromArguments("[1,2]"));
    EXPECT_FALSE(CodexPlanSource::planFromArguments("{\"plan\":{}}"));

    // A thread goal is a one-step plan.
    EXPECT_EQ(CodexPlanSource::goalPlan("Ship 1.0", "active").items[0].status, S::inProgress);
    EXPECT_EQ(CodexPlanSource::goalPlan("Ship 1.0", "complete").doneCount(), 1);
    for (auto waiting : {"paused", "blocked", "usage_limited", "budget_limited"})
        EXPECT_EQ(CodexPlanSource::goalPlan("Ship 1.0", waiting).items[0].status, S::pending) << waiting;
}

TEST(TaskPlan, CursorFoldsMergesOntoTheFullWrite) {
    // A full write, then a merge that moves statuses: texts kept, statuses updated.
    auto full = cursorTodos({todo("1", "Read", "completed"), todo("2", "Write", "in_progress"), todo("3", "Ship", "pending")}, false);
    auto merge = cursorTodos({todo("2", "", "completed"), todo("3", "", "in_progress"), todo("4", "Announce", "pending")}, true);
    auto plan = CursorPlanSource::plan(full + merge, std::nullopt);
    ASSERT_TRUE(plan);
    EXPECT_EQ(subjects(*plan), (std::vector<std::string>{"Read:completed", "Write:completed", "Ship:inProgress",
                                                         "Announce:pending"}));
    // The full write has left the window: merges fold onto the cached plan.
    auto later = CursorPlanSource::plan(cursorTodos({todo("4", "", "completed"), todo("1", "", "cancelled")}, true), plan);
    ASSERT_TRUE(later);
    EXPECT_EQ(subjects(*later), (std::vector<std::string>{"Write:completed", "Ship:inProgress", "Announce:completed"}));
    // A merge with no cache still counts its rows, named by their ids.
    auto orphan = CursorPlanSource::plan(merge, std::nullopt);
    ASSERT_TRUE(orphan);
    EXPECT_EQ(subjects(*orphan), (std::vector<std::string>{"2:completed", "3:inProgress", "Announce:pending"}));
    // A quiet window says nothing; a deliberate empty full write clears.
    EXPECT_FALSE(CursorPlanSource::plan("{\"role\":\"assistant\",\"message\":{\"content\":[]}}\n", plan));
    auto cleared = CursorPlanSource::plan(cursorTodos(Json::array(), false), plan);
    ASSERT_TRUE(cleared);
    EXPECT_TRUE(cleared->empty());
}

TEST(TaskPlan, KimiAndClaudeTakeTheNewestListAndAnEmptyOneClears) {
    namespace W = lumora::test::KimiWire;
    auto list = [](std::initializer_list<std::pair<const char*, const char*>> items) {
        Json todos = Json::array();
        for (auto [title, status] : items) todos.push_back({{"title", title}, {"status", status}});
        return Json{{"todos", todos}};
    };
    std::string wire = W::call("t1", "TodoList", list({{"Plan", "done"}, {"Build", "pending"}})) +
                       W::text(1, "The TodoList tool has not been updated recently.") +
                       W::line({{"type", "llm.request"}, {"tools", Json::array({{{"name", "TodoList"}}})}}) +
                       W::call("t2", "TodoList", list({{"Plan", "done"}, {"Build", "in_progress"}}));
    auto kimi = KimiPlanSource::plan(wire);
    ASSERT_TRUE(kimi);
    EXPECT_EQ(subjects(*kimi), (std::vector<std::string>{"Plan:completed", "Build:inProgress"}));
    EXPECT_FALSE(KimiPlanSource::plan(W::text(1, "The TodoList tool has not been updated recently.")));
    // Arguments written as a JSON string count too; an explicit empty list clears.
    auto asString = KimiPlanSource::plan(W::line({{"type", "tool.call"}, {"name", "TodoList"},
                                                  {"arguments", list({{"Only", "pending"}}).dump()}}));
    ASSERT_TRUE(asString);
    EXPECT_EQ(asString->totalCount(), 1);
    auto cleared = KimiPlanSource::plan(wire + W::call("t3", "TodoList", list({})));
    ASSERT_TRUE(cleared);
    EXPECT_TRUE(cleared->empty());

    lumora::test::ClaudeJournal j;
    j.toolCall("a", "TodoWrite", {{"todos", Json::array({{{"content", "Read"}, {"status", "completed"}, {"activeForm", "Reading"}},
                                                         {{"content", "Fix"}, {"status", "in_progress"}, {"activeForm", "Fixing"}}})}});
    j.toolResult("a", "Todos have been modified");
    auto claude = ClaudePlanSource::plan(j.text());
    ASSERT_TRUE(claude);
    EXPECT_EQ(subjects(*claude), (std::vector<std::string>{"Read:completed", "Fix:inProgress"}));
    EXPECT_EQ(claude->activeItem()->activeForm, "Fixing");

    // Claude's task files: garbage and subjectless files are no task; numbers order them.
    EXPECT_FALSE(ClaudePlanSource::taskFromFile("garbage", "1"));
    EXPECT_FALSE(ClaudePlanSource::taskFromFile(R"({"id":"1","status":"pending"})", "1"));
    EXPECT_FALSE(ClaudePlanSource::taskFromFile(R"(["not","an","object"])", "1"));
    auto t10 = ClaudePlanSource::taskFromFile(R"({"id":"10","subject":"Tenth","status":"completed"})", "x");
    auto t2 = ClaudePlanSource::taskFromFile(R"({"subject":"Second","activeForm":"Doing the second","status":"in_progress"})", "2");
    ASSERT_TRUE(t10 && t2);
    EXPECT_EQ(t2->id, "2");
    auto tasks = ClaudePlanSource::planFromTasks({*t10, *t2});
    EXPECT_EQ(subjects(tasks), (std::vector<std::string>{"Second:inProgress", "Tenth:completed"}));

    // OpenCode: cancelled steps are not part of the plan.
    using Todo = scrivet::OpenCodeTranscriptReader::OpenCodeTodo;
    auto oc = OpenCodePlanSource::plan({Todo{"Ship", "completed", "high", 0}, Todo{"Drop", "cancelled", "low", 1},
                                        Todo{"  ", "pending", "low", 2}, Todo{"Tell", "in_progress", "low", 3}});
    EXPECT_EQ(subjects(oc), (std::vector<std::string>{"Ship:completed", "Tell:inProgress"}));
}
