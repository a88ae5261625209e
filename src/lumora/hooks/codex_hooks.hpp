#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lumora/base/status.hpp"
#include "lumora/hooks/codex_config_edits.hpp"
#include "lumora/hooks/hook_config_edits.hpp"

// Codex's hooks: the program ~/.codex/notch-codex-hook.py, its groups in
// ~/.codex/hooks.json, and in ~/.codex/config.toml the hooks feature flag and
// one trust entry per handler of ours (Codex runs a hook only when its entry
// holds the handler's hash). Every edit of config.toml is a line edit that
// keeps the rest of the file byte for byte, and the user's own handlers stay
// trusted whatever our edits do to their places in hooks.json.
namespace lumora::CodexHooks {

namespace fs = std::filesystem;
using Json = HookConfigEdits::Json;

const std::vector<EventSpec>& eventSpecs();

fs::path folder();        // $CODEX_HOME when set, else ~/.codex
fs::path programPath();   // <folder>/notch-codex-hook.py
fs::path hooksPath();     // <folder>/hooks.json
fs::path configPath();    // <folder>/config.toml

// Writes the program, our groups, their trust entries and the feature flag.
// Leaves both files as they were, saying why, when either cannot be read or
// parsed, or when config.toml cannot be edited into a state where Codex runs
// our hooks and still trusts the user's own.
Status install();
// Removes our groups, their trust entries and our feature-flag line.
Status uninstall();
// Program current, every group present, and every trust entry present and matching.
bool isInstalled();
bool agentPresent();
bool hasOurEntries();
std::vector<std::string> plannedChanges();
// A one-line explanation when hooks.json holds our handlers but config.toml
// lacks a matching trust entry for one of them (Codex then skips it).
std::optional<std::string> trustProblem();

// The hooks.json path as Codex writes it into trust keys: $CODEX_HOME/hooks.json
// with symbolic links resolved, else ~/.codex/hooks.json normalised lexically.
std::string trustKeyPath();

// The backups we keep: hooks.json's, and config.toml's dated ones.
std::vector<fs::path> backups();
// The dated backups of config.toml, oldest first.
std::vector<fs::path> configBackups();
// "config.toml.notch-backup-<UTC time, ':' as '-'>".
fs::path datedBackupPath(std::chrono::system_clock::time_point when);

}  // namespace lumora::CodexHooks
