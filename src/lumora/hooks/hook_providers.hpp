#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

// The agents we install hooks into, in one table: each agent's name, its
// folder, the program we put there (with the version marker it carries) and
// the configuration files we edit. Adding an agent adds a row here, its
// installer file, and a row in `HookInstallation::installers()`.
namespace lumora::HookProviders {

namespace fs = std::filesystem;

enum class Agent { claudeCode, cursor, codex, kimi, openCode };

struct Provider {
    Agent agent;
    std::string_view name;           // "Claude Code"
    std::string_view resource;       // the embedded program or plugin, "notch-hook.py"
    std::string_view versionMarker;  // carried in the program, "notch-cc-hook v8"
    std::string_view ourScript;      // a hook command is ours when it contains this
    std::string_view configLabel;    // the files we edit, for the uninstaller; empty when none
    std::string_view programKind;    // what the program is called: "bridge script", "plugin"
};

// Every agent, in the order installs, checks and the uninstaller run.
const std::vector<Provider>& all();
const Provider& of(Agent agent);

// The agent's own folder: ~/.claude, $CODEX_HOME or ~/.codex, ~/.cursor,
// ~/.kimi-code, ~/.config/opencode.
fs::path folder(Agent agent);
// Where our program (OpenCode: the plugin) is written.
fs::path programPath(Agent agent);
// The configuration files we edit, in the order we edit them.
std::vector<fs::path> configFiles(Agent agent);

// "~/…" for a path under the home folder, for messages.
std::string displayPath(const fs::path& file);

}  // namespace lumora::HookProviders
