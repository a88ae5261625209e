#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "lumora/hooks/hook_config_edits.hpp"

// Kimi's hooks: the program ~/.kimi-code/notch-kimi-hook.py and a managed
// section at the end of ~/.kimi-code/config.toml, between a begin and an end
// comment line, rebuilt on every install. Nothing outside it is touched.
namespace lumora::KimiHooks {

namespace fs = std::filesystem;

inline constexpr const char* kVersionMarker = "notch-kimi-hook v3";
inline constexpr const char* kResource = "notch-kimi-hook.py";
inline constexpr const char* kBeginLine = "# ── managed by Lumora — begin (do not edit) ──";
inline constexpr const char* kEndLine = "# ── managed by Lumora — end ──";

const std::vector<EventSpec>& eventSpecs();

fs::path programPath();  // ~/.kimi-code/notch-kimi-hook.py
fs::path configPath();   // ~/.kimi-code/config.toml

// The text without the managed section (and the blank line we put before it).
std::string removingManagedSection(const std::string& text);
// The managed section for this interpreter, begin and end lines included.
std::string managedSection(const fs::path& interpreter);

bool install();
bool uninstall();
bool isInstalled();
bool agentPresent();
bool hasOurEntries();
std::vector<std::string> plannedChanges();

}  // namespace lumora::KimiHooks
