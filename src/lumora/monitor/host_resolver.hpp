#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "lumora/base/exclusive_use.hpp"
#include "lumora/monitor/agent_instance.hpp"
#include "lumora/platform/applications.hpp"
#include "lumora/platform/process_table.hpp"

namespace lumora {

// A terminal multiplexer that sits between an agent and the terminal showing it.
struct Multiplexer {
    enum class Kind { tmux, screen, zellij, herdr };

    Kind kind = Kind::tmux;
    int32_t serverPid = 0;               // the multiplexer process above the agent
    std::optional<std::string> session;  // tmux/zellij session name, screen's session
    std::optional<std::string> window;   // tmux window ("@0"), screen window number
    std::optional<std::string> pane;     // tmux pane ("%3"), zellij pane id
    std::optional<std::string> socket;   // the server's socket, when the agent's environment names it
    bool operator==(const Multiplexer&) const = default;
};

std::string_view kindName(Multiplexer::Kind kind);

// Where an agent process lives: the application hosting it and the
// multiplexer in between, each absent when unknown.
struct HostResolution {
    std::optional<AgentHost> host;
    std::optional<Multiplexer> multiplexer;
    bool operator==(const HostResolution&) const = default;
};

// Finds the terminal, editor or application hosting a process by walking its
// parent chain to the first process that belongs to a known application.
// A multiplexer server on the way is recorded, and since its server is
// detached from any terminal, the walk continues from its newest attached
// client. Results are cached per pid; `evict` trims the cache to the live
// pids. Safe to use from one thread at a time.
class HostResolver {
public:
    explicit HostResolver(ProcessTable& table);

    // The host of `pid` as of `snapshot`.
    HostResolution resolve(int32_t pid, const ProcessSnapshot& snapshot);
    // Forgets every cached pid that is not in `snapshot`.
    void evict(const ProcessSnapshot& snapshot);
    // The application a process is itself (not inherited from its parent), as a desktop id.
    std::optional<std::string> applicationOf(const ProcessInfo& process, const ProcessSnapshot& snapshot);
    // True when some process of `snapshot` is the application `appId`.
    bool isApplicationRunning(const std::string& appId, const ProcessSnapshot& snapshot);
    // The host an application id makes: terminal, ide or app, with its display name.
    static AgentHost hostFor(const std::string& appId);

    size_t cachedPids() const { return hosts_.size() + apps_.cachedPids(); }

private:
    struct HostEntry {
        uint64_t startTicks = 0;
        HostResolution resolution;
    };

    HostResolution walk(const ProcessInfo& agent, const ProcessSnapshot& snapshot, bool& cacheable);

    ProcessTable& table_;
    ApplicationIdentifier apps_;
    std::unordered_map<int32_t, HostEntry> hosts_;
    ExclusiveUse inUse_;  // one thread at a time (asserted)
};

}  // namespace lumora
