#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"
#include "lumora/monitor/claude_session_index.hpp"
#include "lumora/monitor/host_resolver.hpp"
#include "lumora/monitor/worktree_resolver.hpp"
#include "lumora/platform/process_table.hpp"

namespace lumora {

namespace fs = std::filesystem;

// One sampled agent process.
struct RawProcess {
    int32_t pid = 0;
    double cpu = 0;  // percent of one processor
    Date start{};
    bool operator==(const RawProcess&) const = default;
};

// One agent process found by a discovery pass, with everything known about it.
struct DiscoveredAgent {
    // How the process was tied to its session.
    enum class Pairing { none, index, fallback };

    HarnessProvider provider = HarnessProvider::claudeCode;
    int32_t pid = 0;
    std::string cwd;
    std::optional<Date> start;
    double cpu = 0;  // percent, from this pass and the previous one
    std::optional<std::string> tty;
    std::optional<std::string> sessionId;  // Claude Code only
    Pairing pairing = Pairing::none;
    std::optional<ClaudeSessionIndex::Record> indexRecord;  // the session file, when paired by it
    std::optional<AgentHost> host;
    std::optional<Multiplexer> multiplexer;
    WorktreeResolver::Resolution worktree;
    std::optional<std::string> gitBranch;

    RawProcess raw() const { return {pid, cpu, start.value_or(Date{})}; }
    bool operator==(const DiscoveredAgent&) const = default;
};

std::string_view pairingName(DiscoveredAgent::Pairing pairing);

// One look at the process table per tick: lists the processes, recognises the
// agents, pairs the Claude Code processes with their sessions (exactly through
// the session index, else by recency in their working directory), resolves
// their hosts and repositories, and works out their processor use from this
// pass and the previous one. Keeps its caches between passes; one pass at a
// time (the monitor's scan queue).
class ProcessDiscovery {
public:
    struct Pass {
        ProcessSnapshot snapshot;
        std::vector<DiscoveredAgent> agents;  // in the process table's order
        std::vector<ClaudeSessionIndex::Record> index;  // the validated session records
    };

    // `claudeSessions` is ~/.claude/sessions and `claudeProjects` ~/.claude/projects.
    ProcessDiscovery(ProcessTable& table, fs::path claudeSessions, fs::path claudeProjects);

    // Runs one pass.
    Pass run();
    // The host resolver and its caches, for questions about the last pass
    // (such as whether an application is running).
    HostResolver& hosts() { return hosts_; }

private:
    double cpuPercent(const ProcessInfo& p, std::chrono::steady_clock::time_point at);

    struct CpuSample {
        uint64_t startTicks = 0;
        double cpuSeconds = 0;
        std::chrono::steady_clock::time_point at;
    };

    ProcessTable& table_;
    fs::path claudeSessions_;
    fs::path claudeProjects_;
    HostResolver hosts_;
    std::unordered_map<int32_t, CpuSample> cpu_;
    ExclusiveUse inUse_;  // one pass at a time (asserted)
};

// Pairs Claude processes that the index did not map with the newest journals
// of their working directories, newest process first; sessions in `taken`
// (the index's) are never used. Returns pid -> session id.
std::unordered_map<int32_t, std::string> pairByRecency(const std::vector<const ProcessInfo*>& unpaired,
                                                       const std::vector<std::string>& taken,
                                                       const fs::path& claudeProjects);

}  // namespace lumora
