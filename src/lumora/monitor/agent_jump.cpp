#include "lumora/monitor/agent_jump.hpp"

namespace lumora {

JumpService::Target jumpTarget(const AgentInstance& a, bool demo) {
    JumpService::Target t;
    t.sessionId = a.id;
    t.provider = a.provider;
    t.pid = a.pid;
    t.cwd = a.cwd;
    t.title = a.projectName;
    t.activeTurn = a.status == AgentStatus::working || a.status == AgentStatus::waiting;
    t.cowork = a.surface == AgentSurface::cowork;
    if (a.host) {
        switch (a.host->kind) {
            case AgentHost::Kind::terminal: t.hostKind = JumpService::HostKind::terminal; break;
            case AgentHost::Kind::ide: t.hostKind = JumpService::HostKind::ide; break;
            case AgentHost::Kind::app: t.hostKind = JumpService::HostKind::app; break;
        }
        t.hostName = a.host->appName;
        t.hostAppId = a.host->bundleID;
    }
    t.demo = demo;
    return t;
}

}  // namespace lumora
