#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/hooks/json_config_file.hpp"

// The pieces every installer shares: the hook command, the hook programs on
// disk with their version markers, and the surgical edits of the event maps
// in the agents' JSON configuration files.
namespace lumora {

// One hook that an installer wires into an agent's configuration.
struct EventSpec {
    std::string event;                   // the agent's hook event name
    std::optional<std::string> matcher;  // tool pattern, when the event takes one
    std::string action;                  // the word passed to the hook program
    std::optional<int> timeout;          // seconds
    bool operator==(const EventSpec&) const = default;
};

namespace HookConfigEdits {

using Json = JSONConfigFile::Json;
namespace fs = std::filesystem;

// `"<interpreter>" "<program>"`, followed by a space and the action when there is one.
std::string hookCommand(const fs::path& interpreter, const fs::path& program, std::string_view action = {});

// The Python interpreter for hook commands; nothing when none is usable.
std::optional<fs::path> python();

// The embedded text of a hook program (empty when it is missing from the build).
std::string programText(std::string_view resourceName);

// True when the file holds `marker` as a whole word ("v8" is not "v80").
bool holdsMarker(const fs::path& file, std::string_view marker);

// Writes a hook program (mode 0755) when its bytes differ, creating its folder.
bool writeProgram(const fs::path& file, std::string_view text);

// A group as the Claude Code and Codex configurations hold it:
// {"matcher": …, "hooks": [{"type": "command", "command": …, "timeout": …}]}.
Json groupFor(const EventSpec& spec, const std::string& command);

// True when one of the group's hooks has a command containing `needle`.
bool groupUses(const Json& group, std::string_view needle);

// Rewrites `root["hooks"]` so that it holds exactly the groups of `specs` as
// ours (groups using `needle`), leaving every other group where it is. Our
// groups are replaced in place when an event already holds as many of them as
// it needs, and otherwise removed and appended. Event lists that end up empty
// because of the removal are dropped.
// Returns false (and changes nothing) when `hooks` or one of its event
// entries is not of the expected shape.
bool setOurGroups(Json& root, std::string_view needle, const std::vector<std::pair<std::string, Json>>& groups);

// Removes every group that uses `needle`; drops event lists and the `hooks`
// map that become empty. Returns true when anything was removed.
bool removeOurGroups(Json& root, std::string_view needle);

// True when every (event, group) is present in `root["hooks"]`.
bool holdsGroups(const Json& root, const std::vector<std::pair<std::string, Json>>& groups);

// One group per event we hook, each running `program` with `interpreter` and that event's action.
std::vector<std::pair<std::string, Json>> groupsFor(const std::vector<EventSpec>& specs, const fs::path& interpreter,
                                                    const fs::path& program);
// True when any event list of `root` holds a group using `needle`.
bool holdsOurGroups(const Json& root, std::string_view needle);

// The result of removing our entries from a file, with the file's own bytes
// when nothing else changed: when the backup taken before our last change
// holds none of our entries and equals `edited` up to empty containers and
// the keys in `ignoredKeys`, the backup's bytes are what the user had.
struct UninstallPlan {
    enum class Kind { nothing, writeJson, restoreBackup, removeFile } kind = Kind::nothing;
    std::string text;  // the bytes to write (writeJson, restoreBackup)
};
UninstallPlan planUninstall(const fs::path& file, const JSONConfigFile::Contents& current, const Json& edited,
                            const std::function<bool(const Json&)>& holdsOurs,
                            const std::vector<std::string>& ignoredKeys = {});
bool applyUninstall(const fs::path& file, const UninstallPlan& plan);

// "~/…" for a path under the home folder, for messages.
std::string displayPath(const fs::path& file);

}  // namespace HookConfigEdits
}  // namespace lumora
