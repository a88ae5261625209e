#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "lumora/base/status.hpp"
#include "lumora/hooks/hook_config_edits.hpp"

// Cursor's agent hooks: the program ~/.cursor/notch-cursor-hook.py and one
// entry per event in ~/.cursor/hooks.json. The program reads the event name
// from its input, so every event runs the same command.
namespace lumora::CursorHooks {

namespace fs = std::filesystem;

// The events that note what the agent is about to do, then those that clear the note.
const std::vector<std::string>& writeEvents();
const std::vector<std::string>& clearEvents();

fs::path programPath();  // ~/.cursor/notch-cursor-hook.py
fs::path hooksPath();    // ~/.cursor/hooks.json

// Writes the program and our entry in every event's list; fails, saying why,
// leaving hooks.json as it was when it cannot be read or is not an object.
Status install();
// Cuts our entries out of hooks.json.
Status uninstall();
bool isInstalled();
bool agentPresent();
bool hasOurEntries();
std::vector<std::string> plannedChanges();
std::vector<fs::path> backups();

}  // namespace lumora::CursorHooks
