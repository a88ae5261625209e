#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lumora/hooks/hook_config_edits.hpp"

// Codex's hooks: the program ~/.codex/notch-codex-hook.py, its groups in
// ~/.codex/hooks.json, and in ~/.codex/config.toml the hooks feature flag and
// one trust entry per handler of ours (Codex runs a hook only when its entry
// holds the handler's hash). Every edit of config.toml is a line edit that
// keeps the rest of the file byte for byte.
namespace lumora::CodexHooks {

namespace fs = std::filesystem;
using Json = HookConfigEdits::Json;

inline constexpr const char* kVersionMarker = "notch-codex-hook v5";
inline constexpr const char* kResource = "notch-codex-hook.py";
inline constexpr const char* kOurScript = "notch-codex-hook";
inline constexpr const char* kFeatureLine = "hooks = true  # managed by Lumora";

const std::vector<EventSpec>& eventSpecs();

fs::path folder();        // $CODEX_HOME when set, else ~/.codex
fs::path programPath();   // <folder>/notch-codex-hook.py
fs::path hooksPath();     // <folder>/hooks.json
fs::path configPath();    // <folder>/config.toml

bool install();
// Removes our groups, their trust entries and our feature-flag line.
bool uninstall();
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
// `PermissionRequest` → `permission_request`.
std::string eventLabel(const std::string& event);
// "sha256:<hex>" over the handler as Codex identifies it.
std::string trustHash(const std::string& event, const Json& group, const Json& handler);

struct TrustEntry {
    std::string key;   // "<hooks.json>:<event label>:<group index>:<handler index>"
    std::string hash;  // "sha256:…"
    bool operator==(const TrustEntry&) const = default;
};
// The trust entries for every handler of ours in a hooks.json object.
std::vector<TrustEntry> ourTrustEntries(const Json& hooksFile);
// The header line of a trust entry's table.
std::string trustHeader(const std::string& key);

// The config.toml text with the hooks feature flag on: unchanged when a
// `hooks = true` line exists, else our line under [features] (appending the
// table when there is none).
std::string enablingFeatureFlag(const std::string& text);
// The text without our feature-flag line. With `dropEmptyTable`, a [features]
// table left empty by that removal goes too.
std::string disablingFeatureFlag(const std::string& text, bool dropEmptyTable);

// The dated backups of config.toml, oldest first.
std::vector<fs::path> configBackups();
// "config.toml.notch-backup-<UTC time, ':' as '-'>".
fs::path datedBackupPath(std::chrono::system_clock::time_point when);

}  // namespace lumora::CodexHooks
