#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "lumora/hooks/hook_config_edits.hpp"

// The Claude Code installer (named for the attention hooks it installs).
//
// Claude Code's hooks: the program ~/.claude/lumora/notch-hook.py and its
// groups in ~/.claude/settings.json. Only groups whose command runs our
// program are ever touched; ~/.claude.json is never written.
namespace lumora::AttentionHooks {

namespace fs = std::filesystem;

inline constexpr const char* kVersionMarker = "notch-cc-hook v9";
inline constexpr const char* kResource = "notch-hook.py";
// A group is ours when one of its commands contains this.
inline constexpr const char* kOurScript = "lumora/notch-hook";

// The hooks we wire, in the order they are written.
const std::vector<EventSpec>& eventSpecs();

fs::path programPath();   // ~/.claude/lumora/notch-hook.py
fs::path settingsPath();  // ~/.claude/settings.json

// Writes the program and our groups. Fails, logging why, when settings.json
// is not a JSON object (it is then left as it is) or no python3 is usable.
bool install();
// Removes our groups from settings.json (the program stays; the uninstaller removes it).
bool uninstall();
// True when the program holds the current version marker and every group is present.
bool isInstalled();
// True when ~/.claude exists.
bool agentPresent();
// True when settings.json holds at least one group of ours.
bool hasOurEntries();
// What `install` would change, one line each; empty when nothing.
std::vector<std::string> plannedChanges();

}  // namespace lumora::AttentionHooks
