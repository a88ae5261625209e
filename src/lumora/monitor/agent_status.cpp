#include "lumora/monitor/agent_status.hpp"

namespace lumora {

namespace {
struct StatusFacts {
    std::string_view raw, label, explanation;
    Rgb colour;
    int rank;
};

constexpr StatusFacts kFacts[] = {
    {"attention", "Needs you", "Blocked on you — a question, a plan, or a command to approve.", {0.98, 0.36, 0.45}, 0},
    {"working", "Working", "Generating a reply or running a tool right now.", {0.18, 0.80, 0.45}, 2},
    {"waiting", "Waiting for you", "It finished its turn. The next move is yours.", {1.00, 0.62, 0.04}, 1},
    {"idle", "Idle", "Alive, but nothing has happened for a while.", {0.56, 0.56, 0.58}, 3},
};

const StatusFacts& facts(AgentStatus s) { return kFacts[static_cast<int>(s)]; }
}  // namespace

std::string_view rawValue(AgentStatus s) { return facts(s).raw; }
std::string_view label(AgentStatus s) { return facts(s).label; }
Rgb colour(AgentStatus s) { return facts(s).colour; }
std::string_view explanation(AgentStatus s) { return facts(s).explanation; }
int severityRank(AgentStatus s) { return facts(s).rank; }

std::optional<AgentStatus> statusFromRaw(std::string_view raw) {
    for (auto s : kAllStatuses) {
        if (facts(s).raw == raw) return s;
    }
    return std::nullopt;
}

}  // namespace lumora
