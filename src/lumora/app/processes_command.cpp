#include "lumora/app/processes_command.hpp"

#include <iostream>

#include "lumora/platform/paths.hpp"
#include "lumora/platform/process_table.hpp"

namespace lumora::ProcessesCommand {

namespace {

std::string quoted(const std::string& value) {
    if (value.empty()) return "-";
    if (value.find_first_of(" \t\"") == std::string::npos) return value;
    std::string out = "\"";
    for (char c : value) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string field(const char* key, const std::optional<std::string>& value) {
    return std::string(key) + "=" + (value ? quoted(*value) : "-");
}

std::string multiplexerText(const Multiplexer& m) {
    std::string out(kindName(m.kind));
    if (m.session || m.window || m.pane) {
        out += ":";
        if (m.session) out += *m.session;
        if (m.window) {
            if (m.session) out += ':';
            out += *m.window;
        }
        if (m.pane) {
            if (m.window) out += '.';
            else if (m.session) out += ':';
            out += *m.pane;
        }
    }
    return out;
}

}  // namespace

std::string formatLine(const DiscoveredAgent& a) {
    std::string line = "pid=" + std::to_string(a.pid);
    auto add = [&](const char* key, const std::optional<std::string>& value) {
        line += ' ';
        line += field(key, value);
    };
    line += " provider=";
    line += rawValue(a.provider);
    add("cwd", a.cwd);
    add("session", a.sessionId);
    if (a.sessionId) {
        line += " paired=";
        line += pairingName(a.pairing);
    }
    if (a.host) {
        line += " host=";
        line += kindName(a.host->kind);
        add("app", a.host->appName);
        add("id", a.host->bundleID);
    } else {
        line += " host=-";
    }
    add("mux", a.multiplexer ? std::optional(multiplexerText(*a.multiplexer)) : std::nullopt);
    add("repo", a.worktree.repoName);
    add("branch", a.gitBranch);
    add("worktree", a.worktree.isWorktree ? a.worktree.worktreeName : std::nullopt);
    char cpu[32];
    std::snprintf(cpu, sizeof cpu, " cpu=%.1f", a.cpu);
    line += cpu;
    return line;
}

int run() {
    ProcessDiscovery discovery(ProcessTable::system(), Paths::claudeSessions(), Paths::claudeProjects());
    auto pass = discovery.run();
    for (const auto& a : pass.agents) std::cout << formatLine(a) << "\n";
    if (pass.agents.empty()) std::cout << "no agent processes\n";
    return 0;
}

}  // namespace lumora::ProcessesCommand
