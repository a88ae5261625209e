#include "lumora/monitor/agent_instance.hpp"

#include <algorithm>
#include <unordered_set>

namespace lumora {

std::string_view kindName(AgentHost::Kind kind) {
    switch (kind) {
        case AgentHost::Kind::terminal: return "terminal";
        case AgentHost::Kind::ide: return "ide";
        case AgentHost::Kind::app: return "app";
    }
    return "terminal";
}

bool AgentInstance::isDormant(Date now) const {
    return status == AgentStatus::idle && now - lastActivity >= kDormantAfter;
}

bool AgentInstance::isStale(Date now) const {
    if (status == AgentStatus::working) return false;
    return now - lastActivity >= kStaleAfter;
}

std::optional<double> AgentInstance::contextFraction() const {
    if (!contextTokens || !contextMax || *contextMax < 1) return std::nullopt;
    return std::min(1.0, static_cast<double>(*contextTokens) / static_cast<double>(*contextMax));
}

std::optional<std::string> AgentInstance::contextLabel() const {
    if (!contextTokens) return std::nullopt;
    long long t = *contextTokens;
    if (t < 1000) return std::to_string(t) + " ctx";
    if (t < 1000000) return std::to_string(t / 1000) + "k ctx";
    // One decimal above a million, without a trailing ".0".
    long long tenths = t / 100000;
    std::string out = std::to_string(tenths / 10);
    if (tenths % 10) out += "." + std::to_string(tenths % 10);
    return out + "M ctx";
}

std::string sessionIdentity(const std::optional<std::string>& sessionId, const std::string& cwd,
                            std::optional<int32_t> pid) {
    if (sessionId && !sessionId->empty()) return *sessionId;
    return cwd + "#" + (pid ? std::to_string(*pid) : std::string("0"));
}

bool isFallbackIdentity(const std::string& id) { return id.find('#') != std::string::npos; }

std::vector<AgentInstance> rowOrder(std::vector<AgentInstance> instances,
                                    const std::vector<std::string>& unseenCompletions) {
    std::unordered_set<std::string> unseen(unseenCompletions.begin(), unseenCompletions.end());
    auto rank = [&](const AgentInstance& a) {
        int r = severityRank(a.status);
        // An unseen completion floats up to the waiting rank.
        if (unseen.count(a.id) && r > severityRank(AgentStatus::waiting)) r = severityRank(AgentStatus::waiting);
        return r;
    };
    std::stable_sort(instances.begin(), instances.end(),
                     [&](const AgentInstance& a, const AgentInstance& b) { return rank(a) < rank(b); });
    return instances;
}

}  // namespace lumora
