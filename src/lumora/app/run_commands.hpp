#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

// The ways to run the monitor from the command line.
namespace lumora::RunCommands {

// `lumora --scan [--json]`: one scan, one line (or one JSON object) per session.
int scan(bool json);
// `lumora --no-ui`: the monitor and the hook bridge without a screen; every
// prompt goes back to the agent at once unless a desktop notification can
// answer it. Prints one line per status change and peek event until interrupted.
int headless();
// `lumora` with no flag: the terminal view when there is a terminal, else headless.
int interactive();

// One session as a `--scan` line: status, provider, project, branch or
// worktree, model, context, subagents, summary.
std::string scanLine(const AgentInstance& a);
// Every field of a session, for `--scan --json`.
nlohmann::ordered_json toJson(const AgentInstance& a);

}  // namespace lumora::RunCommands
