#include "lumora/monitor/host_resolver.hpp"

#include <unordered_set>

#include "lumora/platform/applications.hpp"

namespace lumora {

namespace {

std::string_view baseName(std::string_view path) {
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::optional<Multiplexer::Kind> multiplexerKind(const ProcessInfo& p) {
    std::string_view program = baseName(p.command);
    // tmux renames its processes "tmux: server" and "tmux: client".
    if (program == "tmux" || p.name.starts_with("tmux")) return Multiplexer::Kind::tmux;
    if (program == "screen" || program == "SCREEN" || p.name == "screen" || p.name == "SCREEN")
        return Multiplexer::Kind::screen;
    if (program == "zellij" || p.name == "zellij") return Multiplexer::Kind::zellij;
    if (program == "herdr" || p.name == "herdr") return Multiplexer::Kind::herdr;
    return std::nullopt;
}

// Fills in what the agent's own environment says about its multiplexer.
void readMultiplexerEnvironment(Multiplexer& m, const std::map<std::string, std::string>& env) {
    auto get = [&](const char* key) -> std::optional<std::string> {
        auto it = env.find(key);
        if (it == env.end() || it->second.empty()) return std::nullopt;
        return it->second;
    };
    switch (m.kind) {
        case Multiplexer::Kind::tmux:
            // TMUX is "<socket>,<server pid>,<session index>".
            if (auto tmux = get("TMUX")) m.socket = tmux->substr(0, tmux->find(','));
            m.pane = get("TMUX_PANE");
            break;
        case Multiplexer::Kind::screen:
            m.session = get("STY");
            m.window = get("WINDOW");
            break;
        case Multiplexer::Kind::zellij:
            m.session = get("ZELLIJ_SESSION_NAME");
            m.pane = get("ZELLIJ_PANE_ID");
            break;
        case Multiplexer::Kind::herdr:
            m.socket = get("HERDR_SOCKET_PATH");
            break;
    }
}

const std::vector<std::string>& multiplexerVariables() {
    static const std::vector<std::string> names = {"TMUX",   "TMUX_PANE",           "STY",
                                                   "WINDOW", "ZELLIJ_SESSION_NAME", "ZELLIJ_PANE_ID",
                                                   "HERDR_SOCKET_PATH"};
    return names;
}

}  // namespace

std::string_view kindName(Multiplexer::Kind kind) {
    switch (kind) {
        case Multiplexer::Kind::tmux: return "tmux";
        case Multiplexer::Kind::screen: return "screen";
        case Multiplexer::Kind::zellij: return "zellij";
        case Multiplexer::Kind::herdr: return "herdr";
    }
    return "tmux";
}

HostResolver::HostResolver(ProcessTable& table) : table_(table), apps_(table) {}

AgentHost HostResolver::hostFor(const std::string& appId) {
    auto d = Applications::describe(appId);
    AgentHost h;
    h.kind = d.role == Applications::Role::terminal ? AgentHost::Kind::terminal
             : d.role == Applications::Role::editor ? AgentHost::Kind::ide
                                                    : AgentHost::Kind::app;
    h.appName = d.name;
    h.bundleID = appId;
    return h;
}

std::optional<std::string> HostResolver::applicationOf(const ProcessInfo& process, const ProcessSnapshot& snapshot) {
    return apps_.applicationOf(process, snapshot);
}

bool HostResolver::isApplicationRunning(const std::string& appId, const ProcessSnapshot& snapshot) {
    ExclusiveUse::Scope one(inUse_);
    for (const auto& p : snapshot.processes()) {
        if (applicationOf(p, snapshot) == appId) return true;
    }
    return false;
}

HostResolution HostResolver::walk(const ProcessInfo& agent, const ProcessSnapshot& snapshot, bool& cacheable) {
    HostResolution out;
    std::unordered_set<int32_t> seen{agent.pid};
    const ProcessInfo* cur = &agent;
    bool hopped = false;
    for (int steps = 0; steps < 256; ++steps) {
        const ProcessInfo* parent = snapshot.find(cur->ppid);
        if (parent && parent->pid > 1 && seen.insert(parent->pid).second) {
            if (!out.multiplexer) {
                if (auto kind = multiplexerKind(*parent)) {
                    out.multiplexer = Multiplexer();
                    out.multiplexer->kind = *kind;
                    out.multiplexer->serverPid = parent->pid;
                }
            }
            if (auto id = apps_.launchedAs(*parent, snapshot)) {
                out.host = hostFor(*id);
                break;
            }
            cur = parent;
            continue;
        }
        // The top of the chain. A multiplexer's server is detached from every
        // terminal; the terminal is the one its newest attached client runs in.
        if (!out.multiplexer || hopped) break;
        hopped = true;
        cacheable = false;
        const ProcessInfo* client = nullptr;
        for (const auto& p : snapshot.processes()) {
            if (!p.tty || seen.count(p.pid) || multiplexerKind(p) != out.multiplexer->kind) continue;
            if (!client || p.startTicks > client->startTicks) client = &p;
        }
        if (!client) break;
        seen.insert(client->pid);
        cur = client;
    }
    if (out.multiplexer) readMultiplexerEnvironment(*out.multiplexer, table_.environment(agent.pid, multiplexerVariables()));
    return out;
}

HostResolution HostResolver::resolve(int32_t pid, const ProcessSnapshot& snapshot) {
    ExclusiveUse::Scope one(inUse_);
    const ProcessInfo* agent = snapshot.find(pid);
    if (!agent) return {};
    if (auto it = hosts_.find(pid); it != hosts_.end() && it->second.startTicks == agent->startTicks)
        return it->second.resolution;
    bool cacheable = true;
    HostResolution r = walk(*agent, snapshot, cacheable);
    if (cacheable) hosts_[pid] = HostEntry{agent->startTicks, r};
    return r;
}

void HostResolver::evict(const ProcessSnapshot& snapshot) {
    ExclusiveUse::Scope one(inUse_);
    auto stale = [&](int32_t pid, uint64_t startTicks) {
        const ProcessInfo* p = snapshot.find(pid);
        return !p || p->startTicks != startTicks;
    };
    std::erase_if(hosts_, [&](const auto& kv) { return stale(kv.first, kv.second.startTicks); });
    apps_.evict(snapshot);
}

}  // namespace lumora
