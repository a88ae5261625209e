#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "lumora/monitor/claude_monitor.hpp"

// What the sources of agents that keep their sessions apart from their
// processes share (Kimi, OpenCode): a session becomes a row only while a
// process of its agent runs in the session's directory, and each such
// process stands for one session, the newest of its directory first.
namespace lumora::DirectorySessions {

// The form a directory is compared in: lexically normal, no trailing "/".
std::string normalized(const std::string& directory);

// The live processes of one agent by (normalized) working directory, the
// most recently started first.
std::map<std::string, std::vector<const DiscoveredAgent*>> processesByDirectory(const ScanContext& context,
                                                                              HarnessProvider provider);

// The observation of a session paired with its process: identity, process,
// project, repository, branch and host. Without a session id the process
// stands for itself (a row keyed by its folder and pid).
SessionObservation observation(const DiscoveredAgent& agent, HarnessProvider provider,
                               const std::optional<std::string>& sessionId);

// Pairs sessions (newest first, each with its directory) with the processes
// of their directories: the i-th newest session of a directory goes with its
// i-th newest process, and sessions beyond the processes are left out.
// Returns (session index, process) pairs in the sessions' order.
std::vector<std::pair<size_t, const DiscoveredAgent*>> pair(
    const std::vector<std::string>& sessionDirectories,
    const std::map<std::string, std::vector<const DiscoveredAgent*>>& processes);

}  // namespace lumora::DirectorySessions

namespace lumora {

// Logs each distinct problem of one source once, however many ticks it
// lasts ("opencode: database disk image is malformed").
class ProblemLog {
public:
    explicit ProblemLog(std::string source) : source_(std::move(source)) {}
    // Logs the cause the first time it is seen; returns true then.
    bool note(const std::string& cause);

private:
    std::mutex lock_;
    std::string source_;
    std::set<std::string> logged_;
};

}  // namespace lumora
