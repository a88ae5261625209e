#pragma once

#include "lumora/hooks/jump_service.hpp"
#include "lumora/monitor/agent_instance.hpp"

namespace lumora {

// What a jump needs to know of a session row.
JumpService::Target jumpTarget(const AgentInstance& session, bool demo = false);

}  // namespace lumora
