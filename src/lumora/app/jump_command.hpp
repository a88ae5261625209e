#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "lumora/monitor/agent_instance.hpp"

// `lumora --jump SESSION_ID`: scans once, finds the session and jumps to it,
// printing one line per route taken.
namespace lumora::JumpCommand {

// The session with this id, or the only one whose id starts with it.
const AgentInstance* find(const std::vector<AgentInstance>& sessions, const std::string& id);

// Exit code: 0 when the jump landed, 1 when it did not, 2 for an unknown session.
int run(const std::string& sessionId, std::ostream& out, std::ostream& err);

}  // namespace lumora::JumpCommand
