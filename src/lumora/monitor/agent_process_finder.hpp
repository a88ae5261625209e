#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lumora/platform/process_table.hpp"
#include "scrivet/harness_provider.hpp"

// Recognises the agents' processes in the process table. What counts is the
// program a process runs — its argv[0], or the script an interpreter (node,
// bun, python) was asked to run — never a word somewhere in its arguments, so
// `rg claude` or `cat claude.md` are not agents.
namespace lumora::AgentProcessFinder {

using scrivet::HarnessProvider;

// The program a process runs, as far as recognising agents goes.
struct Program {
    std::string path;                    // argv[0], or the interpreter's script
    std::string name;                    // the last component of `path`
    std::vector<std::string> arguments;  // the program's own arguments
    bool viaInterpreter = false;         // node, bun or python runs `path`
    bool operator==(const Program&) const = default;
};

// One recognised agent process.
struct AgentProcess {
    HarnessProvider provider = HarnessProvider::claudeCode;
    int32_t pid = 0;
    bool operator==(const AgentProcess&) const = default;
};

// The program a process runs: argv[0], or for an interpreter the script it runs.
Program program(const ProcessInfo& process);

// Which agent a process is, or nothing when it is none (helper modes of an
// agent's executable are not agents).
std::optional<HarnessProvider> provider(const ProcessInfo& process);

// True when the process is a Claude Code session: the `claude` executable in
// any of its installed forms, or node running the package's cli.js; not its
// helper modes ("bg-pty-host", "bg-spare", "daemon run", "--chrome-native-host").
bool isClaudeProcess(const ProcessInfo& process);

// Every agent process of the snapshot, in the snapshot's order, without our
// own process. An interpreter wrapper whose direct child is a native process
// of the same agent is left out in favour of the child, which does the work.
std::vector<AgentProcess> find(const ProcessSnapshot& snapshot, int32_t selfPid);

}  // namespace lumora::AgentProcessFinder
