#pragma once

#include <filesystem>
#include <string>
#include <vector>

// OpenCode's plugin: ~/.config/opencode/plugins/lumora.js. OpenCode loads
// every plugin in that folder, so no configuration file is edited.
namespace lumora::OpenCodeHooks {

namespace fs = std::filesystem;

inline constexpr const char* kVersion = "v3";
inline constexpr const char* kMarker = "// lumora-opencode v3";
inline constexpr const char* kResource = "lumora-opencode.js";

fs::path pluginPath();

// The plugin's text with `SOCKET` set to this socket path.
std::string pluginText(const fs::path& socket);

// Writes the plugin when OpenCode's config or data folder exists.
bool install();
// Removes the plugin file.
bool uninstall();
// The plugin exists and starts with the current marker.
bool isInstalled();
bool agentPresent();
bool hasOurEntries();
std::vector<std::string> plannedChanges();

}  // namespace lumora::OpenCodeHooks
