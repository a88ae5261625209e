#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/base/status.hpp"

// The edits of Codex's config.toml that go with our groups in hooks.json: the
// hooks feature flag, and the trust entries Codex needs before it runs a
// handler (a table per handler, keyed by the handler's place in hooks.json,
// holding a hash of its content). Every edit works on the text line by line
// and keeps every other byte; the result is parsed and checked before it is
// used.
namespace lumora::CodexConfigEdits {

using Json = nlohmann::ordered_json;

// Our flag line under [features], and its forms for the other ways a
// `features` table can be written (dotted keys; an inline table, where our
// addition is marked by a comment after the closing brace).
inline constexpr const char* kFeatureLine = "hooks = true  # managed by Lumora";
inline constexpr const char* kDottedFeatureLine = "features.hooks = true  # managed by Lumora";
inline constexpr const char* kInlineMarker = "# Lumora added hooks = true";

// `PermissionRequest` → `permission_request`.
std::string eventLabel(const std::string& event);
// "sha256:<hex>" over the handler as Codex identifies it.
std::string trustHash(const std::string& event, const Json& group, const Json& handler);
// The header line of a trust entry's table.
std::string trustHeader(const std::string& key);

// One handler in hooks.json: where it is, its trust key and the hash it needs.
struct Handler {
    std::string event;
    size_t group = 0, index = 0;
    size_t ordinal = 0;  // the group's place among the same owner's groups of its event
    bool ours = false;
    std::string key, hash;
    bool operator==(const Handler&) const = default;
};
// Every handler of every group in a hooks.json object. Ours are the handlers
// whose command contains `ourScript`; a group holding one is ours.
std::vector<Handler> handlers(const Json& hooksFile, const std::string& keyPath, std::string_view ourScript);

// The hash a config text holds for a trust key, if any.
std::optional<std::string> storedHash(const std::string& config, const std::string& key);
// How many of `wanted` lack a trust entry holding their hash in the config
// (all of them when it does not parse).
size_t untrusted(const std::string& config, const std::vector<Handler>& wanted);
// True when the config parses with `features.hooks` true.
bool featureOn(const std::string& config);
// True when the text holds our feature flag in one of its forms.
bool holdsOurFlag(const std::string& config);

// The text with the hooks feature on: unchanged when `features.hooks` is
// already true; otherwise our line in the `features` table however it is
// written (a [features] header, dotted keys, an inline table), or a new
// [features] table. Fails, saying why, when the user turned the feature off,
// when `features` is not a table, or when the result does not parse with the
// feature on.
struct Edit {
    std::string text;
    Status status;
};
Edit enablingFeatureFlag(const std::string& text);
// The text without our flag in any of its forms. With `dropEmptyTable`, a
// [features] table left empty by that removal goes too.
std::string disablingFeatureFlag(const std::string& text, bool dropEmptyTable);

enum class FeatureFlag { on, off, offDroppingEmptyTable };

// The config text that goes with hooks.json changing from `before` to
// `after` (only our groups added, removed or replaced): our stale trust
// entries gone, ours for `after` set, the feature flag as asked, and every
// user handler that was trusted before still trusted at its new place (its
// entry moves with it). Fails, leaving the text as it was, when the config
// does not parse before or after, or when the result would leave one of ours
// or one of the user's trusted handlers untrusted.
Edit retrusted(const std::string& config, const Json& before, const Json& after, const std::string& keyPath,
               std::string_view ourScript, FeatureFlag flag);

}  // namespace lumora::CodexConfigEdits
