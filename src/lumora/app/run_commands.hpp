#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <vector>

#include "lumora/hooks/task_plan_store.hpp"
#include "lumora/monitor/agent_instance.hpp"

// The ways to run the monitor from the command line.
namespace lumora::RunCommands {

// `lumora --scan [--json]`: one scan, one line (or one JSON object) per
// session; in JSON each session also carries its provider's plan usage.
int scan(bool json);
// `lumora --no-ui`: the monitor and the hook bridge without a screen; every
// prompt goes back to the agent at once unless a desktop notification can
// answer it. Prints one line per status change and peek event until interrupted.
int headless();
// Blocks the stop signals (SIGINT, SIGTERM, SIGHUP) in every thread made
// from here on; one thread waits for them, sets stopRequested() and stops the
// main loop. The stop gets 1.5 s; a second signal, or the deadline, ends the
// process at once.
void stopOnSignals();
bool stopRequested();

// Which face `lumora` shows.
enum class Face {
    automatic,  // the terminal view in a terminal, else the pill when there is a display, else headless
    terminal,   // `--terminal`
    desktop,    // `--desktop`
};
// `lumora` with no flag (or `--terminal`, `--desktop`): the monitor, the hook
// bridge and a front end that can answer prompts.
int interactive(Face face = Face::automatic);

// One session as a `--scan` line: status, provider, project, branch or
// worktree, model, context, subagents, summary.
std::string scanLine(const AgentInstance& a);
// Every field of a session, for `--scan --json`.
nlohmann::ordered_json toJson(const AgentInstance& a);
// A task plan: "doneCount", "totalCount" and "items" ("id", "subject",
// "activeForm", "status": "pending", "inProgress" or "completed").
nlohmann::ordered_json toJson(const TaskPlan& plan);
// The `--scan --json` array: every session's fields and, as "planUsage", its
// provider's entry of `usage` (UsageCommand::toJson of the readings), or
// null, and as "taskPlan" its plan from `plans`, or null.
nlohmann::ordered_json scanJson(const std::vector<AgentInstance>& list, const nlohmann::ordered_json& usage,
                                const TaskPlans& plans = {});

}  // namespace lumora::RunCommands
