#pragma once

#include <string>

#include "lumora/monitor/process_discovery.hpp"

// `lumora --processes`: one discovery pass over the real process table,
// printed one agent process a line.
namespace lumora::ProcessesCommand {

// One agent as a line of key=value fields: pid, provider, cwd, session and
// how it was paired, host kind and name, multiplexer, repository, branch,
// worktree. Values holding blanks are quoted; unknown values print as "-".
std::string formatLine(const DiscoveredAgent& agent);

// Runs a pass over the machine's processes with the user's Claude folders
// and prints it; returns the exit code.
int run();

}  // namespace lumora::ProcessesCommand
