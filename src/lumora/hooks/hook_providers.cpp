#include "lumora/hooks/hook_providers.hpp"

#include <cstdlib>

#include "lumora/platform/paths.hpp"

namespace lumora::HookProviders {

const std::vector<Provider>& all() {
    static const std::vector<Provider> providers = {
        {Agent::claudeCode, "Claude Code", "notch-hook.py", "notch-cc-hook v9", "lumora/notch-hook",
         "~/.claude/settings.json", "bridge script"},
        {Agent::cursor, "Cursor", "notch-cursor-hook.py", "notch-cursor-hook v8", "notch-cursor-hook",
         "~/.cursor/hooks.json", "bridge script"},
        {Agent::codex, "Codex", "notch-codex-hook.py", "notch-codex-hook v5", "notch-codex-hook",
         "~/.codex/hooks.json + config.toml", "bridge script"},
        {Agent::kimi, "Kimi", "notch-kimi-hook.py", "notch-kimi-hook v3", "notch-kimi-hook",
         "~/.kimi-code/config.toml", "bridge script"},
        {Agent::openCode, "OpenCode", "lumora-opencode.js", "lumora-opencode v3", "lumora-opencode", "", "plugin"},
    };
    return providers;
}

const Provider& of(Agent agent) {
    for (const auto& p : all()) {
        if (p.agent == agent) return p;
    }
    return all().front();
}

fs::path folder(Agent agent) {
    switch (agent) {
        case Agent::claudeCode: return Paths::claudeHome();
        case Agent::cursor: return Paths::cursorHome();
        case Agent::codex: {
            const char* home = std::getenv("CODEX_HOME");
            return home && *home ? fs::path(home) : Paths::codexHome();
        }
        case Agent::kimi: return Paths::kimiHome();
        case Agent::openCode: return Paths::openCodeConfig();
    }
    return {};
}

fs::path programPath(Agent agent) {
    switch (agent) {
        case Agent::claudeCode: return folder(agent) / "lumora" / "notch-hook.py";
        case Agent::openCode: return folder(agent) / "plugins" / "lumora.js";
        default: return folder(agent) / std::string(of(agent).resource);
    }
}

std::vector<fs::path> configFiles(Agent agent) {
    switch (agent) {
        case Agent::claudeCode: return {folder(agent) / "settings.json"};
        case Agent::cursor: return {folder(agent) / "hooks.json"};
        case Agent::codex: return {folder(agent) / "hooks.json", folder(agent) / "config.toml"};
        case Agent::kimi: return {folder(agent) / "config.toml"};
        case Agent::openCode: return {};
    }
    return {};
}

std::string displayPath(const fs::path& file) {
    std::string home = Paths::home().string();
    std::string p = file.string();
    if (!home.empty() && home != "/" && p.rfind(home + "/", 0) == 0) return "~" + p.substr(home.size());
    return p;
}

}  // namespace lumora::HookProviders
