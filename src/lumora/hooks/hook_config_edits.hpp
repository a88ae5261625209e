#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/base/status.hpp"
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
// Why there is no interpreter, for a failed install.
Status noPython();

// The embedded text of a hook program (empty when it is missing from the build).
std::string programText(std::string_view resourceName);

// True when the file holds `marker` as a whole word ("v8" is not "v80").
bool holdsMarker(const fs::path& file, std::string_view marker);

// True when the file holds exactly `text` (an installed program that is current).
bool holdsText(const fs::path& file, std::string_view text);

// Writes a hook program (by default executable, mode 0755) when its bytes
// differ, creating its folder.
Status writeProgram(const fs::path& file, std::string_view text, unsigned mode = 0755);

// A configuration file read as text: `exists` false for no file; a failed
// status (with why) when it exists but cannot be read.
struct ConfigText {
    bool exists = false;
    std::string text;
    Status status;
};
ConfigText readConfigText(const fs::path& file);

// Logs "Lumora: <file> <problem> — leaving it alone, hooks not installed"
// (or, when `installing` is false, "— leaving it alone") and returns the
// failure "<file> <problem> — left alone".
Status leftAlone(const fs::path& file, const std::string& problem, bool installing = true);

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

// The result of removing our entries from a file, keeping the user's bytes:
// when the backup taken before our last change holds none of our entries and
// equals `edited` up to empty containers and the keys in `ignoredKeys`, the
// backup's bytes are what the user had (`restoreBackup`); otherwise our
// entries are cut out of the current text and nothing else changes
// (`writeText`), or, when the text cannot be cut that way, the object is
// written in the file's layout. A file we created and left empty goes.
struct UninstallPlan {
    enum class Kind { nothing, writeText, restoreBackup, removeFile } kind = Kind::nothing;
    std::string text;  // the bytes to write (writeText, restoreBackup)
};
// `isOurEntry` tells our entries in the event lists apart; `holdsOurs` whether a whole file holds any.
UninstallPlan planUninstall(const fs::path& file, const JSONConfigFile::Contents& current, const Json& edited,
                            const std::function<bool(const Json&)>& isOurEntry,
                            const std::function<bool(const Json&)>& holdsOurs,
                            const std::vector<std::string>& ignoredKeys = {});
Status applyUninstall(const fs::path& file, const UninstallPlan& plan);

// "~/…" for a path under the home folder, for messages.
std::string displayPath(const fs::path& file);

}  // namespace HookConfigEdits
}  // namespace lumora
