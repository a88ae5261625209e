#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "lumora/hooks/hook_config_edits.hpp"

// Cursor's agent hooks: the program ~/.cursor/notch-cursor-hook.py and one
// entry per event in ~/.cursor/hooks.json. The program reads the event name
// from its input, so every event runs the same command.
namespace lumora::CursorHooks {

namespace fs = std::filesystem;

inline constexpr const char* kVersionMarker = "notch-cursor-hook v8";
inline constexpr const char* kResource = "notch-cursor-hook.py";
inline constexpr const char* kOurScript = "notch-cursor-hook";

// The events that note what the agent is about to do, then those that clear the note.
const std::vector<std::string>& writeEvents();
const std::vector<std::string>& clearEvents();

fs::path programPath();  // ~/.cursor/notch-cursor-hook.py
fs::path hooksPath();    // ~/.cursor/hooks.json

bool install();
bool uninstall();
bool isInstalled();
bool agentPresent();
bool hasOurEntries();
std::vector<std::string> plannedChanges();

}  // namespace lumora::CursorHooks
