// Task-plan polling: 20 registered sessions of every agent (Claude task
// folders, Codex rollouts and a goals database, Cursor and Kimi journals,
// OpenCode's to-do table), polled with nothing changed and with one journal
// grown by a line. Target: under 1 ms per poll with nothing changed.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <nlohmann/json.hpp>

#include "bench_support.hpp"
#include "lumora/hooks/task_plan_store.hpp"

using namespace lumora;
using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

std::string uuid(int i) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "5f0c1b8e-3a2d-4c6e-9f10-%012d", i);
    return buf;
}

void write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

std::string line(const Json& j) { return j.dump() + "\n"; }

// A long working journal: `turns` turns of filler around the plan calls.
std::string codexRollout(const std::string& id, int turns) {
    std::string out = line({{"type", "session_meta"}, {"payload", {{"id", id}, {"cwd", "/home/dev/proj"}}}});
    for (int t = 0; t < turns; ++t) {
        out += line({{"type", "response_item"}, {"payload", {{"type", "function_call"}, {"name", "exec_command"},
                                                             {"arguments", Json{{"cmd", "make test"}}.dump()}}}});
        out += line({{"type", "event_msg"}, {"payload", {{"type", "agent_message"}, {"message", std::string(800, 'r')}}}});
        Json plan = Json::array();
        for (int s = 0; s < 6; ++s) plan.push_back({{"step", "Step " + std::to_string(s)}, {"status", s < t % 6 ? "completed" : "pending"}});
        out += line({{"type", "response_item"}, {"payload", {{"type", "function_call"}, {"name", "update_plan"},
                                                             {"arguments", Json{{"plan", plan}}.dump()}}}});
    }
    return out;
}

void sql(sqlite3* db, const std::string& s) { sqlite3_exec(db, s.c_str(), nullptr, nullptr, nullptr); }

struct Machine {
    TaskPlanPaths paths;
    std::vector<PlanSession> sessions;
    fs::path growing;
};

Machine machine() {
    auto home = bench::scratch("plans");
    Machine m;
    m.paths = {home / ".claude/tasks", home / ".claude/projects", home / ".codex/sessions", home / ".codex/goals_1.sqlite",
               home / ".cursor/projects", home / ".kimi-code/sessions", home / "opencode.db"};
    int n = 0;
    for (int i = 0; i < 8; ++i, ++n) {  // Claude: five task files each
        auto id = uuid(n);
        for (int t = 1; t <= 5; ++t)
            write(m.paths.claudeTasks / id / (std::to_string(t) + ".json"),
                  Json{{"id", std::to_string(t)}, {"subject", "Task " + std::to_string(t)}, {"status", "pending"}}.dump());
        m.sessions.push_back({HarnessProvider::claudeCode, id});
    }
    auto now = std::chrono::system_clock::now();
    auto today = std::chrono::floor<std::chrono::days>(now);
    std::chrono::year_month_day ymd{today};
    char day[16];
    std::snprintf(day, sizeof day, "%04d/%02u/%02u", static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                  static_cast<unsigned>(ymd.day()));
    for (int i = 0; i < 4; ++i, ++n) {  // Codex: 1 MB rollouts with plans
        auto id = uuid(n);
        auto file = m.paths.codexSessions / day / ("rollout-2026-11-22T00-46-25-" + id + ".jsonl");
        write(file, codexRollout(id, 1000));
        if (i == 0) m.growing = file;
        m.sessions.push_back({HarnessProvider::codex, id});
    }
    for (int i = 0; i < 4; ++i, ++n) {  // Cursor
        auto id = uuid(n);
        std::string text;
        for (int t = 0; t < 200; ++t)
            text += line({{"role", "assistant"}, {"message", {{"content", {{{"type", "tool_use"}, {"name", "TodoWrite"},
                {"input", {{"merge", t > 0}, {"todos", {{{"id", std::to_string(t % 7)}, {"content", "Do " + std::to_string(t)}, {"status", "in_progress"}}}}}}}}}}}});
        write(m.paths.cursorProjects / "home-dev-proj/agent-transcripts" / (id + ".jsonl"), text);
        m.sessions.push_back({HarnessProvider::cursor, id});
    }
    for (int i = 0; i < 2; ++i, ++n) {  // Kimi
        auto id = "session_" + uuid(n);
        write(m.paths.kimiSessions / "wd_x" / id / "agents/main/wire.jsonl",
              line({{"type", "tool.call"}, {"name", "TodoList"}, {"args", {{"todos", {{{"title", "Pick"}, {"status", "done"}}}}}}}));
        m.sessions.push_back({HarnessProvider::kimi, id});
    }
    sqlite3* goals = nullptr;
    sqlite3_open(m.paths.codexGoals.c_str(), &goals);
    sql(goals, "CREATE TABLE thread_goals (thread_id TEXT PRIMARY KEY, objective TEXT, status TEXT)");
    sql(goals, "INSERT INTO thread_goals VALUES ('" + uuid(9) + "', 'Ship', 'active')");
    sqlite3_close(goals);
    sqlite3* oc = nullptr;
    sqlite3_open(m.paths.openCodeDatabase.c_str(), &oc);
    sql(oc, "CREATE TABLE todo (session_id TEXT, content TEXT, status TEXT, priority TEXT, position INTEGER)");
    for (int i = 0; i < 2; ++i, ++n) {  // OpenCode
        std::string id = "ses_bench" + std::to_string(i);
        for (int t = 0; t < 5; ++t)
            sql(oc, "INSERT INTO todo VALUES ('" + id + "', 'Todo " + std::to_string(t) + "', 'pending', 'high', " + std::to_string(t) + ")");
        m.sessions.push_back({HarnessProvider::opencode, id});
    }
    sqlite3_close(oc);
    return m;
}

void BM_PlanPoll_20Sessions_Unchanged(benchmark::State& state) {
    auto m = machine();
    TaskPlanPoller poller(m.paths);
    poller.setSessions(m.sessions);
    if (!poller.poll() || poller.plans().size() != m.sessions.size()) state.SkipWithError("the plans were not all read");
    for (auto _ : state) benchmark::DoNotOptimize(poller.poll());
}
BENCHMARK(BM_PlanPoll_20Sessions_Unchanged)->Unit(benchmark::kMicrosecond);

void BM_PlanPoll_20Sessions_OneJournalGrew(benchmark::State& state) {
    auto m = machine();
    TaskPlanPoller poller(m.paths);
    poller.setSessions(m.sessions);
    poller.poll();
    int k = 0;
    for (auto _ : state) {
        state.PauseTiming();
        {
            std::ofstream out(m.growing, std::ios::app);
            out << line({{"type", "response_item"}, {"payload", {{"type", "function_call"}, {"name", "update_plan"},
                {"arguments", Json{{"plan", {{{"step", "Step"}, {"status", ++k % 2 ? "completed" : "pending"}}}}}.dump()}}}});
        }
        state.ResumeTiming();
        benchmark::DoNotOptimize(poller.poll());
    }
}
BENCHMARK(BM_PlanPoll_20Sessions_OneJournalGrew)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
