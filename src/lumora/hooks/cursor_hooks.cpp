#include "lumora/hooks/cursor_hooks.hpp"

#include <spdlog/spdlog.h>

#include "lumora/platform/paths.hpp"

namespace lumora::CursorHooks {

using namespace HookConfigEdits;

namespace {

std::vector<std::string> allEvents() {
    std::vector<std::string> events = writeEvents();
    for (const auto& e : clearEvents()) events.push_back(e);
    return events;
}

bool entryIsOurs(const Json& entry) {
    if (!entry.is_object()) return false;
    auto command = entry.find("command");
    return command != entry.end() && command->is_string() &&
           command->get_ref<const std::string&>().find(kOurScript) != std::string::npos;
}

// Our entry in every event's list: replaced in place when there is exactly one, else appended.
bool setOurEntries(Json& root, const std::string& command) {
    if (!root.contains("version")) root["version"] = 1;
    if (root.contains("hooks") && !root["hooks"].is_object()) return false;
    Json hooks = root.contains("hooks") ? root["hooks"] : Json::object();
    Json ours = Json::object();
    ours["command"] = command;
    for (const auto& event : allEvents()) {
        if (hooks.contains(event) && !hooks[event].is_array()) return false;
        Json list = hooks.contains(event) ? hooks[event] : Json::array();
        size_t count = 0, at = 0;
        for (size_t i = 0; i < list.size(); ++i) {
            if (entryIsOurs(list[i])) {
                ++count;
                at = i;
            }
        }
        if (count == 1) {
            list[at] = ours;
        } else {
            Json kept = Json::array();
            for (auto& e : list) {
                if (!entryIsOurs(e)) kept.push_back(e);
            }
            kept.push_back(ours);
            list = std::move(kept);
        }
        hooks[event] = std::move(list);
    }
    root["hooks"] = std::move(hooks);
    return true;
}

bool removeOurEntries(Json& root) {
    auto hooksIt = root.find("hooks");
    if (hooksIt == root.end() || !hooksIt->is_object()) return false;
    bool removed = false;
    std::vector<std::string> emptied;
    for (auto it = hooksIt->begin(); it != hooksIt->end(); ++it) {
        if (!it.value().is_array()) continue;
        Json kept = Json::array();
        for (auto& e : it.value()) {
            if (!entryIsOurs(e)) kept.push_back(e);
        }
        if (kept.size() != it.value().size()) {
            removed = true;
            if (kept.empty()) emptied.push_back(it.key());
            it.value() = std::move(kept);
        }
    }
    for (const auto& e : emptied) hooksIt->erase(e);
    if (removed && hooksIt->empty()) root.erase("hooks");
    return removed;
}

bool holdsOurs(const Json& object) {
    Json copy = object;
    return removeOurEntries(copy);
}

}  // namespace

const std::vector<std::string>& writeEvents() {
    static const std::vector<std::string> events = {"beforeShellExecution", "beforeMCPExecution", "preToolUse"};
    return events;
}

const std::vector<std::string>& clearEvents() {
    static const std::vector<std::string> events = {"afterShellExecution", "afterMCPExecution", "afterFileEdit",
                                                    "beforeSubmitPrompt",  "stop",              "postToolUse",
                                                    "postToolUseFailure"};
    return events;
}

fs::path programPath() { return Paths::cursorHome() / "notch-cursor-hook.py"; }
fs::path hooksPath() { return Paths::cursorHome() / "hooks.json"; }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(Paths::cursorHome(), ec);
}

bool install() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) {
        spdlog::warn("Lumora: ~/.cursor/hooks.json isn't valid JSON — leaving it alone, hooks not installed");
        return false;
    }
    auto interpreter = python();
    if (!interpreter) return false;
    Json edited = *object;
    if (!setOurEntries(edited, hookCommand(*interpreter, programPath()))) {
        spdlog::warn("Lumora: ~/.cursor/hooks.json has an unexpected \"hooks\" entry — leaving it alone, hooks not installed");
        return false;
    }
    if (!writeProgram(programPath(), programText(kResource))) return false;
    if (contents.kind == JSONConfigFile::Contents::Kind::object && edited == contents.object) return true;
    return JSONConfigFile::write(edited, hooksPath(), {contents.text});
}

bool uninstall() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind == JSONConfigFile::Contents::Kind::missing) return true;
    if (contents.kind == JSONConfigFile::Contents::Kind::unreadable) {
        spdlog::warn("Lumora: ~/.cursor/hooks.json isn't valid JSON — leaving it alone");
        return false;
    }
    Json edited = contents.object;
    if (!removeOurEntries(edited)) return true;
    return applyUninstall(hooksPath(), planUninstall(hooksPath(), contents, edited, holdsOurs, {"version"}));
}

bool hasOurEntries() {
    auto contents = JSONConfigFile::load(hooksPath());
    return contents.kind == JSONConfigFile::Contents::Kind::object && holdsOurs(contents.object);
}

bool isInstalled() {
    if (!holdsMarker(programPath(), kVersionMarker)) return false;
    auto interpreter = python();
    if (!interpreter) return false;
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind != JSONConfigFile::Contents::Kind::object) return false;
    Json edited = contents.object;
    return setOurEntries(edited, hookCommand(*interpreter, programPath())) && edited == contents.object;
}

std::vector<std::string> plannedChanges() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) return {"none: ~/.cursor/hooks.json isn't valid JSON and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    std::vector<std::string> changes;
    if (!holdsMarker(programPath(), kVersionMarker)) changes.push_back("write " + displayPath(programPath()));
    Json edited = *object;
    if (!setOurEntries(edited, hookCommand(*interpreter, programPath())))
        return {"none: ~/.cursor/hooks.json has an unexpected \"hooks\" entry"};
    if (contents.kind != JSONConfigFile::Contents::Kind::object || edited != contents.object)
        changes.push_back("rewrite our entries for " + std::to_string(allEvents().size()) + " events in " +
                          displayPath(hooksPath()));
    return changes;
}

}  // namespace lumora::CursorHooks
