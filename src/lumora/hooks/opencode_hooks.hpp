#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "lumora/base/status.hpp"

// OpenCode's plugin: ~/.config/opencode/plugins/lumora.js. OpenCode loads
// every plugin in that folder, so no configuration file is edited.
namespace lumora::OpenCodeHooks {

namespace fs = std::filesystem;

fs::path pluginPath();

// The plugin's text with `SOCKET` set to this socket path.
std::string pluginText(const fs::path& socket);

// Writes the plugin when OpenCode's config or data folder exists.
Status install();
// Removes the plugin file.
Status uninstall();
// The plugin is the current one (same text, same socket).
bool isInstalled();
bool agentPresent();
bool hasOurEntries();
std::vector<std::string> plannedChanges();

}  // namespace lumora::OpenCodeHooks
