#include "lumora/monitor/directory_sessions.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <filesystem>

#include "lumora/monitor/claude_session_source.hpp"

namespace lumora::DirectorySessions {

std::string normalized(const std::string& directory) {
    std::string out = std::filesystem::path(directory).lexically_normal().string();
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

std::map<std::string, std::vector<const DiscoveredAgent*>> processesByDirectory(const ScanContext& context,
                                                                              HarnessProvider provider) {
    std::map<std::string, std::vector<const DiscoveredAgent*>> out;
    if (!context.processes) return out;
    for (const auto& agent : context.processes->agents) {
        if (agent.provider == provider && !agent.cwd.empty()) out[normalized(agent.cwd)].push_back(&agent);
    }
    for (auto& [dir, agents] : out) {
        std::stable_sort(agents.begin(), agents.end(), [](const DiscoveredAgent* a, const DiscoveredAgent* b) {
            return a->start.value_or(Date{}) > b->start.value_or(Date{});
        });
    }
    return out;
}

SessionObservation observation(const DiscoveredAgent& agent, HarnessProvider provider,
                               const std::optional<std::string>& sessionId) {
    SessionObservation o;
    o.id = sessionIdentity(sessionId, agent.cwd, agent.pid);
    o.provider = provider;
    o.pid = agent.pid;
    o.cwd = agent.cwd;
    o.repoName = agent.worktree.repoName;
    o.isWorktree = agent.worktree.isWorktree;
    o.worktreeName = agent.worktree.worktreeName;
    o.projectName = ClaudeSessionSource::projectName(agent.cwd, o.repoName);
    o.gitBranch = agent.gitBranch;
    o.host = agent.host;
    o.cpu = agent.cpu;
    return o;
}

std::vector<std::pair<size_t, const DiscoveredAgent*>> pair(
    const std::vector<std::string>& sessionDirectories,
    const std::map<std::string, std::vector<const DiscoveredAgent*>>& processes) {
    std::vector<std::pair<size_t, const DiscoveredAgent*>> out;
    std::map<std::string, size_t> used;
    for (size_t i = 0; i < sessionDirectories.size(); ++i) {
        auto dir = normalized(sessionDirectories[i]);
        auto it = processes.find(dir);
        if (it == processes.end()) continue;
        size_t& n = used[dir];
        if (n >= it->second.size()) continue;
        out.emplace_back(i, it->second[n++]);
    }
    return out;
}

}  // namespace lumora::DirectorySessions

namespace lumora {

bool ProblemLog::note(const std::string& cause) {
    std::lock_guard guard(lock_);
    // A bound for a long run whose causes keep changing (each names its file).
    if (logged_.size() >= 512) return false;
    if (!logged_.insert(cause).second) return false;
    spdlog::warn("{}: {}", source_, cause);
    return true;
}

}  // namespace lumora
