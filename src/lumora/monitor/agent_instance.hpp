#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumora/approvals/approval_request.hpp"
#include "lumora/monitor/agent_status.hpp"
#include "scrivet/harness_provider.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora {

using scrivet::ActivityLine;
using scrivet::Date;
using scrivet::HarnessProvider;
using scrivet::PendingApproval;
using scrivet::PendingQuestion;
using scrivet::SubagentInfo;

// Where a session's process lives.
struct AgentHost {
    enum class Kind { terminal, ide, app };

    Kind kind = Kind::terminal;
    std::string appName;                  // shown to the user, e.g. the terminal's name
    std::optional<std::string> bundleID;  // the platform's application id (a desktop id on Linux)
    bool operator==(const AgentHost&) const = default;
};

std::string_view kindName(AgentHost::Kind kind);

// Which kind of work a session is.
enum class AgentSurface { coding, cowork };

// One watched session. The monitor rebuilds the whole list every scan.
struct AgentInstance {
    std::string id;
    HarnessProvider provider = HarnessProvider::claudeCode;
    std::optional<int32_t> pid;
    std::string projectName;
    std::string cwd;
    std::optional<std::string> gitBranch;
    std::optional<std::string> repoName;
    bool isWorktree = false;
    std::optional<std::string> worktreeName;
    AgentStatus status = AgentStatus::idle;
    std::optional<std::string> summary;
    Date lastActivity{};
    double cpu = 0;
    std::optional<std::string> model;
    std::optional<long long> contextTokens;
    std::optional<long long> contextMax;
    bool contextMaxEstimated = false;
    bool inProgress = false;
    std::optional<PendingApproval> pendingApproval;
    bool endsWithQuestion = false;
    std::optional<ApprovalRequest> approval;
    std::optional<PendingQuestion> question;
    std::vector<ActivityLine> recentActivity;
    int subagentCount = 0;
    std::vector<SubagentInfo> subagents;
    bool hasRealTurn = false;
    std::optional<AgentHost> host;
    bool hasHookGroundTruth = false;
    AgentSurface surface = AgentSurface::coding;
    std::optional<std::string> topic;
    std::vector<std::string> workspaceFolders;

    bool operator==(const AgentInstance&) const = default;

    // Idle for at least 900 s.
    bool isDormant(Date now = std::chrono::system_clock::now()) const;
    // Not working and untouched for at least a day.
    bool isStale(Date now = std::chrono::system_clock::now()) const;
    // contextTokens / contextMax, capped at 1; absent without both or with a window under 1.
    std::optional<double> contextFraction() const;
    // "512 ctx", "42k ctx", "1.2M ctx"; absent without contextTokens.
    std::optional<std::string> contextLabel() const;
};

inline constexpr auto kDormantAfter = std::chrono::seconds(900);
inline constexpr auto kStaleAfter = std::chrono::seconds(86400);

// A session's identity: the agent's own session id when known, else the
// working directory, "#" and the process id ("/Users/x/proj#4242").
std::string sessionIdentity(const std::optional<std::string>& sessionId, const std::string& cwd,
                            std::optional<int32_t> pid);
// True for an identity made by the fallback rule (it names a process, not a transcript).
bool isFallbackIdentity(const std::string& id);

// Orders sessions for the panel and the tab: attention, waiting, working,
// idle; a completion the user has not seen yet ranks with waiting. Stable:
// ties keep the list order.
std::vector<AgentInstance> rowOrder(std::vector<AgentInstance> instances,
                                    const std::vector<std::string>& unseenCompletions = {});

}  // namespace lumora
