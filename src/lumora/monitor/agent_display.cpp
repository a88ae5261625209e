#include "lumora/monitor/agent_display.hpp"

#include <algorithm>

namespace lumora {

std::string_view rawValue(IdleAgentPolicy p) {
    switch (p) {
        case IdleAgentPolicy::keepFull: return "keepFull";
        case IdleAgentPolicy::shrink: return "shrink";
        case IdleAgentPolicy::hide: return "hide";
    }
    return "shrink";
}

std::optional<IdleAgentPolicy> idlePolicyFromRaw(std::string_view raw) {
    for (auto p : {IdleAgentPolicy::keepFull, IdleAgentPolicy::shrink, IdleAgentPolicy::hide}) {
        if (rawValue(p) == raw) return p;
    }
    return std::nullopt;
}

namespace AgentDisplay {

std::vector<AgentInstance> ordered(const std::vector<AgentInstance>& instances, const IdSet& unseen) {
    return rowOrder(instances, std::vector<std::string>(unseen.begin(), unseen.end()));
}

bool isHiddenIdle(const AgentInstance& a, IdleAgentPolicy policy, const IdSet& unseen, Date now) {
    if (policy != IdleAgentPolicy::hide) return false;
    return a.isDormant(now) && !unseen.count(a.id);
}

std::vector<AgentInstance> active(const std::vector<AgentInstance>& instances, IdleAgentPolicy policy,
                                  const IdSet& unseen, Date now) {
    std::vector<AgentInstance> out;
    for (auto& a : ordered(instances, unseen)) {
        if (!isHiddenIdle(a, policy, unseen, now)) out.push_back(std::move(a));
    }
    return out;
}

FrozenList freeze(const std::vector<AgentInstance>& instances, IdleAgentPolicy policy, const IdSet& unseen, Date now) {
    FrozenList f;
    for (const auto& a : active(instances, policy, unseen, now)) f.order.push_back(a.id);
    for (const auto& a : instances) f.knownAtOpen.insert(a.id);
    return f;
}

std::vector<std::string> frozenIds(const FrozenList& frozen) { return frozen.order; }

std::vector<AgentInstance> visible(const std::vector<AgentInstance>& instances, IdleAgentPolicy policy,
                                   const IdSet& unseen, Date now, const std::optional<FrozenList>& frozen) {
    if (!frozen) return active(instances, policy, unseen, now);
    std::vector<AgentInstance> out;
    for (const auto& id : frozen->order) {
        auto it = std::find_if(instances.begin(), instances.end(), [&](const AgentInstance& a) { return a.id == id; });
        if (it != instances.end()) out.push_back(*it);  // a session that ended leaves its row
    }
    for (const auto& a : active(instances, policy, unseen, now)) {
        if (!frozen->knownAtOpen.count(a.id)) out.push_back(a);
    }
    return out;
}

int dormantCount(const std::vector<AgentInstance>& rows, IdleAgentPolicy policy, Date now) {
    if (policy == IdleAgentPolicy::keepFull) return 0;
    return static_cast<int>(std::count_if(rows.begin(), rows.end(), [&](const AgentInstance& a) { return a.isDormant(now); }));
}

std::optional<EmptyCopy> emptyCopy(const std::vector<AgentInstance>& instances, const std::vector<AgentInstance>& rows) {
    if (!rows.empty()) return std::nullopt;
    if (instances.empty())
        return EmptyCopy{"No agents running", "Start Claude Code or Cursor in a terminal and it'll appear here"};
    return EmptyCopy{"No active agents", "Idle sessions reappear when they're active again"};
}

std::string sessionsLabel(const std::vector<AgentInstance>& instances, const std::vector<AgentInstance>& rows) {
    if (rows.empty() && !instances.empty()) return std::to_string(instances.size()) + " idle";
    size_t n = rows.size();
    return std::to_string(n) + (n == 1 ? " agent" : " agents");
}

int approvalRowCount(const std::vector<AgentInstance>& rows) {
    return static_cast<int>(std::count_if(rows.begin(), rows.end(), [](const AgentInstance& a) { return a.approval.has_value(); }));
}

int questionRowCount(const std::vector<AgentInstance>& rows) {
    return static_cast<int>(std::count_if(rows.begin(), rows.end(), [](const AgentInstance& a) { return a.question.has_value(); }));
}

int visibleRowLimit(std::optional<long long> stored) {
    if (stored && (*stored == 4 || *stored == 6 || *stored == 8 || *stored == 10)) return static_cast<int>(*stored);
    return kDefaultVisibleRowLimit;
}

int extraLines(const AgentInstance& a, const RowMetrics& m) {
    int lines = 0;
    if (a.approval) {
        lines += 1;  // the command or file
        if (a.approval->hasContext()) lines += 1;
    }
    if (a.question && !a.question->options.empty()) {
        int per = std::max(1, m.optionsPerLine);
        lines += (static_cast<int>(a.question->options.size()) + per - 1) / per;
    }
    return lines;
}

double listHeight(const std::vector<AgentInstance>& rows, int limit, IdleAgentPolicy policy, Date now,
                  const RowMetrics& m) {
    if (rows.empty()) return m.emptyCardHeight;
    limit = std::max(1, limit);
    double height = 0;
    int shown = 0;
    for (const auto& a : rows) {
        if (shown == limit) break;  // rows past the viewport scroll and add nothing
        bool compact = policy != IdleAgentPolicy::keepFull && a.isDormant(now);
        height += compact ? m.dormantHeight : m.rowHeight + extraLines(a, m) * m.lineHeight;
        ++shown;
    }
    double viewport = limit * m.rowHeight;
    if (static_cast<int>(rows.size()) > limit) return std::max(height, viewport);
    return std::max(0.0, height);
}

}  // namespace AgentDisplay

}  // namespace lumora
