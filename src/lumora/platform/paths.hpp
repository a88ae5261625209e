#pragma once

#include <filesystem>
#include <string>
#include <vector>

// Every location the program uses, decided in one place. Each platform
// answers the same questions its own way (platform/linux/ on Linux).
namespace lumora::Paths {

namespace fs = std::filesystem;

// The user's home folder: $HOME, else the password database's entry.
fs::path home();

// The program's own folder for its state (socket, hook state, logs, caches).
// Linux: $XDG_DATA_HOME/lumora, by default ~/.local/share/lumora.
fs::path supportFolder();
// Creates the support folder (mode 0700) when missing; returns it.
fs::path ensureSupportFolder();
// The user-defaults store. Linux: $XDG_CONFIG_HOME/lumora/defaults.json.
fs::path defaultsFile();
// The hook socket: $LUMORA_SOCKET when set and non-empty, else notch.sock in
// the support folder. The hook programs compute it the same way.
fs::path socketPath();
fs::path hookStateFile();
fs::path approvalsLog();
fs::path logFile();
fs::path spendCacheFile();
// The names the local model server gave sessions (support folder/session-names.json).
fs::path sessionNamesFile();
// The cached public price lists and their validators (support folder/pricing).
fs::path pricingFolder();
// The entry that starts Lumora at login. Linux: $XDG_CONFIG_HOME/autostart/lumora.desktop.
fs::path loginItemFile();

// The agents' own folders.
fs::path claudeHome();        // ~/.claude
fs::path claudeConfigFile();  // ~/.claude.json
fs::path claudeProjects();    // ~/.claude/projects
fs::path claudeSessions();    // ~/.claude/sessions
fs::path claudeTasks();       // ~/.claude/tasks (task plans, one folder per session)
fs::path codexHome();         // ~/.codex
fs::path codexGoals();        // ~/.codex/goals_1.sqlite (each thread's goal)
fs::path cursorHome();        // ~/.cursor
fs::path kimiHome();          // ~/.kimi-code
fs::path openCodeData();      // ~/.local/share/opencode
fs::path openCodeConfig();    // ~/.config/opencode
fs::path openCodeCache();     // ~/.cache/opencode (its model catalogue)
// The Claude desktop app's data folder (its session index and Cowork
// sessions): $LUMORA_CLAUDE_DESKTOP_DIR when set, else $XDG_CONFIG_HOME/Claude.
fs::path claudeDesktopData();
// Where Claude Code keeps background-task output: <temp>/claude-<uid>.
fs::path claudeTempFolder();
// The system's temporary folder ($TMPDIR, else /tmp).
fs::path tempFolder();

struct Entry {
    std::string name;
    fs::path path;
};
// Every location above, named, in a stable order (for `lumora --paths`).
std::vector<Entry> all();

}  // namespace lumora::Paths
