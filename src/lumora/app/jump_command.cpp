#include "lumora/app/jump_command.hpp"

#include <ostream>

#include "lumora/app/lumora_app.hpp"
#include "lumora/hooks/jump_service.hpp"
#include "lumora/monitor/agent_jump.hpp"

namespace lumora::JumpCommand {

const AgentInstance* find(const std::vector<AgentInstance>& sessions, const std::string& id) {
    if (id.empty()) return nullptr;
    const AgentInstance* prefixed = nullptr;
    int prefixes = 0;
    for (const auto& a : sessions) {
        if (a.id == id) return &a;
        if (a.id.starts_with(id)) {
            prefixed = &a;
            ++prefixes;
        }
    }
    return prefixes == 1 ? prefixed : nullptr;
}

int run(const std::string& sessionId, std::ostream& out, std::ostream& err) {
    LumoraApp app;
    auto sessions = app.monitor().scanOnce();
    const AgentInstance* session = find(sessions, sessionId);
    if (!session) {
        err << "lumora: no session " << sessionId << " (lumora --scan --json lists their ids)\n";
        return 2;
    }
    auto result = JumpService::jump(jumpTarget(*session));
    for (const auto& line : result.lines) out << line << "\n";
    out << (result.landed ? "landed" : "did not land") << " on " << session->projectName << "\n";
    return result.landed ? 0 : 1;
}

}  // namespace lumora::JumpCommand
