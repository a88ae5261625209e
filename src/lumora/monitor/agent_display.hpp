#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

// The panel list's decisions: which sessions get rows, in which order, what
// the panel says when there are none, and how tall the list is.
namespace lumora {

enum class IdleAgentPolicy { keepFull, shrink, hide };

std::string_view rawValue(IdleAgentPolicy p);
std::optional<IdleAgentPolicy> idlePolicyFromRaw(std::string_view raw);

namespace AgentDisplay {

using IdSet = std::set<std::string>;

// Worst first: attention, waiting (with unseen completions), working, idle.
std::vector<AgentInstance> ordered(const std::vector<AgentInstance>& instances, const IdSet& unseen);

// `hide` hides a dormant session that is not an unseen completion; the other
// policies never hide.
bool isHiddenIdle(const AgentInstance& a, IdleAgentPolicy policy, const IdSet& unseen, Date now);

// The rows while the panel is closed: ordered, hidden idle rows dropped.
std::vector<AgentInstance> active(const std::vector<AgentInstance>& instances, IdleAgentPolicy policy,
                                  const IdSet& unseen, Date now);

// The row order frozen when the panel opens.
struct FrozenList {
    std::vector<std::string> order;     // the rows visible at opening
    IdSet knownAtOpen;                  // every session present at opening, hidden or not
    bool operator==(const FrozenList&) const = default;
};
FrozenList freeze(const std::vector<AgentInstance>& instances, IdleAgentPolicy policy, const IdSet& unseen, Date now);
std::vector<std::string> frozenIds(const FrozenList& frozen);

// The rows drawn: the active list when closed; while open, the frozen rows
// in their frozen order (even after going idle), then newcomers that became
// active. A session hidden at opening stays hidden.
std::vector<AgentInstance> visible(const std::vector<AgentInstance>& instances, IdleAgentPolicy policy,
                                   const IdSet& unseen, Date now, const std::optional<FrozenList>& frozen);

// Rows drawn as compact one-liners: dormant rows under `shrink` or kept by
// the frozen list; `keepFull` budgets none.
int dormantCount(const std::vector<AgentInstance>& visible, IdleAgentPolicy policy, Date now);

struct EmptyCopy {
    std::string title, subtitle;
    bool operator==(const EmptyCopy&) const = default;
};
// What the panel says when it draws no rows; nothing when it has rows.
std::optional<EmptyCopy> emptyCopy(const std::vector<AgentInstance>& instances,
                                   const std::vector<AgentInstance>& visible);

// "3 agents", "1 agent"; "2 idle" when every session is idle-hidden.
std::string sessionsLabel(const std::vector<AgentInstance>& instances, const std::vector<AgentInstance>& visible);

int approvalRowCount(const std::vector<AgentInstance>& visible);
int questionRowCount(const std::vector<AgentInstance>& visible);

// The visible-row limit offered as 4, 6, 8 or 10; anything else (nothing
// stored, 7, -2) gives 8.
int visibleRowLimit(std::optional<long long> stored);
inline constexpr int kDefaultVisibleRowLimit = 8;

struct RowMetrics {
    double rowHeight = 46;      // a plain row
    double dormantHeight = 24;  // the compact one-liner
    double lineHeight = 16;     // an approval's command line, its reason, a line of options
    double emptyCardHeight = 72;
    int optionsPerLine = 3;     // two options share a line; four wrap to a second
};

// Extra lines a row adds below its plain height.
int extraLines(const AgentInstance& a, const RowMetrics& m = {});
// The list viewport's height: fixed at `limit` rows when more rows are
// visible (the rest scroll), else the rows' own heights; the empty card when
// there are none. Never negative or NaN.
double listHeight(const std::vector<AgentInstance>& visible, int limit, IdleAgentPolicy policy, Date now,
                  const RowMetrics& m = {});

}  // namespace AgentDisplay

}  // namespace lumora
