#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/hooks/task_plan.hpp"
#include "scrivet/opencode_transcript_reader.hpp"

// Where each agent keeps a session's to-do list, and how a window of its
// journal turns into a TaskPlan. Claude Code writes one JSON file per task
// (and, in older versions, "TodoWrite" calls in its journal); Codex, Cursor
// and Kimi record their lists only as tool calls in their journals, so the
// plan is rebuilt from the newest call (Cursor folds merges onto what it
// had); Codex also keeps a thread's goal in an SQLite database and OpenCode
// its list in its own.
//
// A window is whole JSON lines (a broken first line is skipped). A parser
// returns nothing when the window says nothing about the plan, in which case
// the caller keeps the plan it had; an empty plan is a deliberate clear.
namespace lumora {

namespace fs = std::filesystem;

namespace ClaudePlanSource {
// ~/.claude/tasks/<session>: one JSON file per task.
fs::path taskFolder(const fs::path& tasksRoot, const std::string& sessionId);
// One task file ({"id", "subject", "activeForm", "status"}); nothing when it
// is not a JSON object with a subject. `fallbackId` (the file's name) stands
// in for a missing id.
std::optional<TaskPlanItem> taskFromFile(std::string_view text, std::string_view fallbackId);
// Task files' items in task order (numeric ids by number, then the rest by name).
TaskPlan planFromTasks(std::vector<TaskPlanItem> tasks);
// The session's journal, <projects>/<any project>/<session>.jsonl.
std::optional<fs::path> locateJournal(const std::string& sessionId, const fs::path& projectsRoot);
// The newest "TodoWrite" call's "todos" ({"content", "status", "activeForm"});
// an empty list clears.
std::optional<TaskPlan> plan(std::string_view window);
}  // namespace ClaudePlanSource

namespace CodexPlanSource {
// The rollout "rollout-<time stamp>-<session>.jsonl" in the dated folders
// (YYYY/MM/DD) of the last `maxDays` days under `root`.
std::optional<fs::path> locateRollout(const std::string& sessionId, const fs::path& root, int maxDays,
                                      std::chrono::system_clock::time_point now);
// The steps of one "update_plan" call's arguments ({"plan": [{"step",
// "status"}]}); nothing when they are not JSON or hold no list.
std::optional<TaskPlan> planFromArguments(std::string_view arguments);
// The newest good "update_plan" call's plan; nothing when the window has
// none or the newest plan is empty.
std::optional<TaskPlan> plan(std::string_view window);
// A thread goal as a one-step plan ("active" runs, "complete" is done, the
// paused, blocked and limited states wait).
TaskPlan goalPlan(const std::string& objective, std::string_view status);
// The goal of each thread in ~/.codex/goals_1.sqlite ("thread_goals":
// "thread_id", "objective", "status"), opened read-only; nothing when the
// database can't be read.
std::optional<std::vector<std::pair<std::string, TaskPlan>>> goals(const fs::path& database,
                                                                   const std::vector<std::string>& threadIds);
}  // namespace CodexPlanSource

namespace CursorPlanSource {
// <projects>/<project>/agent-transcripts/<id>.jsonl (or <id>/<id>.jsonl).
std::optional<fs::path> locateTranscript(const std::string& sessionId, const fs::path& projectsRoot);
// Folds the window's "TodoWrite" calls ({"todos": [{"id", "content",
// "status"}], "merge"}) in order onto `onto`: a full write replaces the
// plan, a merge updates known ids and appends new ones. Cancelled steps are
// dropped.
std::optional<TaskPlan> plan(std::string_view window, const std::optional<TaskPlan>& onto);
}  // namespace CursorPlanSource

namespace KimiPlanSource {
// <sessions>/<work dir folder>/<session>/agents/main/wire.jsonl.
std::optional<fs::path> locateJournal(const std::string& sessionId, const fs::path& sessionsRoot);
// The newest "tool.call" of "TodoList" ({"todos": [{"title", "status"}]}); an
// empty list clears.
std::optional<TaskPlan> plan(std::string_view window);
}  // namespace KimiPlanSource

namespace OpenCodePlanSource {
// The "todo" table's rows in order; cancelled steps are dropped.
TaskPlan plan(const std::vector<scrivet::OpenCodeTranscriptReader::OpenCodeTodo>& todos);
}  // namespace OpenCodePlanSource

}  // namespace lumora
