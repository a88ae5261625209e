#include "lumora/monitor/agent_process_finder.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <unordered_map>

namespace lumora::AgentProcessFinder {

namespace {

std::string_view baseName(std::string_view path) {
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isNodeLike(std::string_view name) { return name == "node" || name == "nodejs" || name == "bun"; }

bool isPython(std::string_view name) {
    if (!name.starts_with("python")) return false;
    return std::all_of(name.begin() + 6, name.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

// Interpreter options that take the next argument as their value.
bool takesValue(std::string_view option) {
    static constexpr std::array<std::string_view, 10> options = {
        "-r", "--require", "--import", "--loader", "--experimental-loader", "-X", "-W", "--conditions", "-C",
        "--preload"};
    return std::find(options.begin(), options.end(), option) != options.end();
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

bool isClaudeProgram(const Program& p) {
    if (p.viaInterpreter) {
        return p.path.ends_with("@anthropic-ai/claude-code/cli.js") ||
               p.path.ends_with("@anthropic-ai/claude-agent-sdk/cli.js") || p.name == "claude";
    }
    // The native installer keeps each version as an executable named after
    // its version number (~/.local/share/claude/versions/2.1.330).
    return p.name == "claude" || contains(p.path, "/claude/versions/");
}

bool isClaudeHelperMode(const std::vector<std::string>& args) {
    if (!args.empty() && (args[0] == "bg-pty-host" || args[0] == "bg-spare")) return true;
    if (args.size() >= 2 && args[0] == "daemon" && args[1] == "run") return true;
    return std::find(args.begin(), args.end(), "--chrome-native-host") != args.end();
}

// Subcommands of the other agents' executables that are not sessions (Codex's
// "app-server" is the long-lived daemon an editor or the desktop app talks to).
bool isToolCommand(const std::vector<std::string>& args) {
    if (args.empty()) return false;
    static constexpr std::array<std::string_view, 10> commands = {
        "login", "logout", "completion", "mcp-server", "app-server", "--version", "-V", "--help", "-h", "upgrade"};
    return std::find(commands.begin(), commands.end(), args[0]) != commands.end();
}

// Codex's subcommands that are not a session of their own. The shared
// `codex app-server` daemon outlives the terminal UI that started it; the
// UI's process is the session.
bool isCodexToolCommand(const std::vector<std::string>& args) {
    if (args.empty()) return false;
    static constexpr std::array<std::string_view, 12> commands = {
        "app-server", "mcp", "apply", "a", "sandbox", "debug", "features", "cloud", "responses-api-proxy",
        "stdio-to-uds", "generate-ts", "help"};
    return std::find(commands.begin(), commands.end(), args[0]) != commands.end();
}

std::optional<HarnessProvider> otherProvider(const Program& p) {
    std::string_view n = p.name;
    if (n == "codex" || n == "codex.js" || contains(p.path, "@openai/codex/bin/")) return HarnessProvider::codex;
    // The npm package's launcher runs a native binary it vendors
    // (…/@openai/codex…/vendor/<target>/codex/codex-<target>).
    if (n.starts_with("codex-") && contains(p.path, "@openai/codex")) return HarnessProvider::codex;
    if (n == "cursor-agent" || (p.viaInterpreter && contains(p.path, "/cursor-agent/")))
        return HarnessProvider::cursor;
    if (n == "kimi" || n == "kimi-cli" || n == "kimi_cli") return HarnessProvider::kimi;
    if (n == "opencode" || contains(p.path, "opencode-ai/bin/opencode")) return HarnessProvider::opencode;
    return std::nullopt;
}

}  // namespace

Program program(const ProcessInfo& process) {
    Program p;
    std::string_view interpreter = baseName(process.command);
    bool python = isPython(interpreter);
    if (isNodeLike(interpreter) || python) {
        // Skip the interpreter's own options to find the script.
        size_t i = 0;
        const auto& args = process.arguments;
        while (i < args.size()) {
            const std::string& a = args[i];
            if (python && a == "-m" && i + 1 < args.size()) {
                // `python -m kimi_cli`: the module is the program.
                p.path = args[i + 1];
                p.name = args[i + 1];
                p.arguments.assign(args.begin() + static_cast<long>(i) + 2, args.end());
                p.viaInterpreter = true;
                return p;
            }
            if (a == "run" && interpreter == "bun" && i == 0) {
                ++i;
                continue;
            }
            if (!a.starts_with("-")) break;
            i += takesValue(a) ? 2 : 1;
        }
        if (i < args.size()) {
            p.path = args[i];
            p.name = std::string(baseName(p.path));
            p.arguments.assign(args.begin() + static_cast<long>(i) + 1, args.end());
            p.viaInterpreter = true;
            return p;
        }
    }
    p.path = process.command;
    p.name = std::string(baseName(process.command));
    p.arguments = process.arguments;
    return p;
}

std::optional<HarnessProvider> provider(const ProcessInfo& process) {
    Program p = program(process);
    if (p.name.empty()) return std::nullopt;
    if (isClaudeProgram(p)) {
        if (isClaudeHelperMode(p.arguments)) return std::nullopt;
        return HarnessProvider::claudeCode;
    }
    auto other = otherProvider(p);
    if (!other || isToolCommand(p.arguments)) return std::nullopt;
    if (*other == HarnessProvider::codex && isCodexToolCommand(p.arguments)) return std::nullopt;
    return other;
}

bool isClaudeProcess(const ProcessInfo& process) { return provider(process) == HarnessProvider::claudeCode; }

std::vector<AgentProcess> find(const ProcessSnapshot& snapshot, int32_t selfPid) {
    std::vector<AgentProcess> found;
    std::vector<bool> viaInterpreter;
    for (const auto& process : snapshot.processes()) {
        if (process.pid == selfPid || process.command.empty()) continue;
        auto kind = provider(process);
        if (!kind) continue;
        found.push_back({*kind, process.pid});
        viaInterpreter.push_back(program(process).viaInterpreter);
    }
    if (found.size() < 2) return found;
    // Drop an interpreter wrapper whose direct child is a native process of the same agent.
    std::unordered_map<int32_t, size_t> index;
    for (size_t i = 0; i < found.size(); ++i) index.emplace(found[i].pid, i);
    std::vector<bool> drop(found.size(), false);
    for (size_t i = 0; i < found.size(); ++i) {
        if (viaInterpreter[i]) continue;
        const ProcessInfo* child = snapshot.find(found[i].pid);
        auto parent = index.find(child->ppid);
        if (parent == index.end()) continue;
        size_t j = parent->second;
        if (viaInterpreter[j] && found[j].provider == found[i].provider) drop[j] = true;
    }
    std::vector<AgentProcess> out;
    for (size_t i = 0; i < found.size(); ++i) {
        if (!drop[i]) out.push_back(found[i]);
    }
    return out;
}

}  // namespace lumora::AgentProcessFinder
