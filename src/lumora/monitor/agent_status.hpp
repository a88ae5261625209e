#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "scrivet/harness_provider.hpp"

namespace lumora {

using scrivet::Rgb;

// A session's status. Declaration order is not severity: see severityRank.
enum class AgentStatus { attention, working, waiting, idle };

inline constexpr std::array<AgentStatus, 4> kAllStatuses = {AgentStatus::attention, AgentStatus::working,
                                                            AgentStatus::waiting, AgentStatus::idle};
// Worst first: every list that is "worst first" uses this order.
inline constexpr std::array<AgentStatus, 4> kStatusesWorstFirst = {AgentStatus::attention, AgentStatus::waiting,
                                                                   AgentStatus::working, AgentStatus::idle};

std::string_view rawValue(AgentStatus s);
std::optional<AgentStatus> statusFromRaw(std::string_view raw);
// "Needs you", "Working", "Waiting for you", "Idle".
std::string_view label(AgentStatus s);
Rgb colour(AgentStatus s);
std::string_view explanation(AgentStatus s);
// 0 for attention, 1 waiting, 2 working, 3 idle.
int severityRank(AgentStatus s);

}  // namespace lumora
