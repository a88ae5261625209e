#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

namespace lumora {

class DefaultsStore;
namespace fs = std::filesystem;

// A Claude session driven through the agent SDK by a host application, found
// on disk by its journal.
struct SDKSession {
    std::string sessionId;
    std::string cwd;
    std::string projectName;  // the working directory's last component
    std::string entrypoint;   // the journal's own value, e.g. "sdk-ts"
    std::optional<std::string> model;
    std::optional<long long> contextTokens;
    std::optional<scrivet::TranscriptInfo> info;
    fs::path transcript;
    Date lastActivity{};  // the last turn, else the journal's modification time
    bool operator==(const SDKSession&) const = default;
};

// Finds the SDK-driven sessions among the Claude journals.
namespace SDKSessionReader {

inline constexpr std::chrono::minutes kMaxAge{30};

// The entrypoint and working directory a journal's first entries name, or
// nothing when its first entries carry none.
struct Head {
    std::string entrypoint;
    std::optional<std::string> cwd;
    bool operator==(const Head&) const = default;
};
std::optional<Head> readHead(const fs::path& transcript);

// The SDK sessions touched within `maxAge` before `now`: journals under
// `projectsRoot` whose entrypoint begins with "sdk-", whose modification
// time and last turn are both recent. Terminal ("cli") and editor-extension
// journals are never returned. Of two in one working directory only the
// newer survives. `claudeConfig` is passed to the transcript reader.
// Sessions in `excluding` (those already shown through their processes) are
// passed over, and so is a survivor `shown` rejects, before its journal is read.
std::vector<SDKSession> runningSessions(const fs::path& projectsRoot, const fs::path& claudeConfig, Date now,
                                        std::chrono::seconds maxAge = kMaxAge,
                                        const std::set<std::string>& excluding = {},
                                        const std::function<bool(const SDKSession&)>& shown = {});

}  // namespace SDKSessionReader

// The hosts learned for SDK sessions from their live processes, kept in the
// user defaults so a session keeps its host across restarts. Only
// application hosts with an id are learned: a terminal or an editor runs the
// agent's own terminal sessions, not an SDK host.
class SDKHostMemory {
public:
    struct Entry {
        AgentHost host;
        Date lastSeen{};
        bool operator==(const Entry&) const = default;
    };

    static constexpr size_t kCapacity = 500;
    static constexpr std::chrono::hours kMaxAge{24 * 7};
    static constexpr const char* kDefaultsKey = "sdkHostMemory.v1";

    static SDKHostMemory& shared();
    explicit SDKHostMemory(DefaultsStore& store);

    // Remembers `host` for the session; returns false when the host is not
    // one to learn (a terminal, an editor, or an application without an id).
    // A write prunes: entries older than kMaxAge go, then the oldest until
    // kCapacity remain.
    bool learn(const std::string& sessionId, const AgentHost& host, Date now = std::chrono::system_clock::now());
    std::optional<AgentHost> host(const std::string& sessionId) const;
    std::map<std::string, Entry> entries() const;
    size_t size() const;

private:
    void load();
    void save(Date now);  // requires mutex_

    DefaultsStore& store_;
    mutable std::mutex mutex_;
    std::map<std::string, Entry> entries_;
};

inline constexpr const char* kConductorAppId = "com.conductor.app";

// The folder under which Conductor keeps its workspaces (~/conductor/workspaces).
fs::path conductorWorkspaces();

// The host under which an SDK session is shown, or nothing when it must not
// be shown (its host is not known to be running): a learned application host
// that is running; else, for a directory under Conductor's workspaces while
// Conductor runs, Conductor. `isRunning` tells whether an application id runs.
std::optional<AgentHost> sdkSessionHost(const SDKSession& session, const SDKHostMemory& memory,
                                        const std::function<bool(const std::string& appId)>& isRunning,
                                        const fs::path& workspaces = conductorWorkspaces());

}  // namespace lumora
