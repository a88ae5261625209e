#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "lumora/base/status.hpp"
#include "lumora/hooks/hook_config_edits.hpp"

// The Claude Code installer (named for the attention hooks it installs).
//
// Claude Code's hooks: the program ~/.claude/lumora/notch-hook.py and its
// groups in ~/.claude/settings.json. Only groups whose command runs our
// program are ever touched; ~/.claude.json is never written.
namespace lumora::AttentionHooks {

namespace fs = std::filesystem;

// The hooks we wire, in the order they are written.
const std::vector<EventSpec>& eventSpecs();

fs::path programPath();   // ~/.claude/lumora/notch-hook.py
fs::path settingsPath();  // ~/.claude/settings.json

// Writes the program and our groups. Fails, saying why, when settings.json
// cannot be read or is not a JSON object (it is then left as it is), when no
// python3 is usable, or when a write fails.
Status install();
// Removes our groups from settings.json, cutting them out of its text (the
// program stays; the uninstaller removes it).
Status uninstall();
// True when the program is the current one and every group is present.
bool isInstalled();
// True when ~/.claude exists.
bool agentPresent();
// True when settings.json holds at least one group of ours.
bool hasOurEntries();
// What `install` would change, one line each; empty when nothing.
std::vector<std::string> plannedChanges();
// The backup we keep of settings.json.
std::vector<fs::path> backups();

}  // namespace lumora::AttentionHooks
