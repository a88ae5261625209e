#include "lumora/hooks/cursor_hooks.hpp"

#include "lumora/hooks/hook_providers.hpp"

namespace lumora::CursorHooks {

using namespace HookConfigEdits;
using Kind = JSONConfigFile::Contents::Kind;

namespace {

const HookProviders::Provider& provider() { return HookProviders::of(HookProviders::Agent::cursor); }

std::vector<std::string> allEvents() {
    std::vector<std::string> events = writeEvents();
    for (const auto& e : clearEvents()) events.push_back(e);
    return events;
}

bool entryIsOurs(const Json& entry) {
    if (!entry.is_object()) return false;
    auto command = entry.find("command");
    return command != entry.end() && command->is_string() &&
           command->get_ref<const std::string&>().find(provider().ourScript) != std::string::npos;
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

fs::path programPath() { return HookProviders::programPath(HookProviders::Agent::cursor); }
fs::path hooksPath() { return HookProviders::configFiles(HookProviders::Agent::cursor).front(); }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(HookProviders::folder(HookProviders::Agent::cursor), ec);
}

Status install() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) return leftAlone(hooksPath(), contents.why);
    auto interpreter = python();
    if (!interpreter) return noPython();
    Json edited = *object;
    if (!setOurEntries(edited, hookCommand(*interpreter, programPath()))) {
        return leftAlone(hooksPath(), "has an unexpected \"hooks\" entry");
    }
    if (Status s = writeProgram(programPath(), programText(provider().resource)); !s) return s;
    if (contents.kind == Kind::object && edited == contents.object) return Status::success();
    return JSONConfigFile::write(edited, hooksPath(), {contents.text});
}

Status uninstall() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind == Kind::missing) return Status::success();
    if (contents.kind == Kind::unreadable) return leftAlone(hooksPath(), contents.why, false);
    Json edited = contents.object;
    if (!removeOurEntries(edited)) return Status::success();
    return applyUninstall(hooksPath(),
                          planUninstall(hooksPath(), contents, edited, entryIsOurs, holdsOurs, {"version"}));
}

bool hasOurEntries() {
    auto contents = JSONConfigFile::load(hooksPath());
    return contents.kind == Kind::object && holdsOurs(contents.object);
}

bool isInstalled() {
    if (!holdsText(programPath(), programText(provider().resource))) return false;
    auto interpreter = python();
    if (!interpreter) return false;
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind != Kind::object) return false;
    Json edited = contents.object;
    return setOurEntries(edited, hookCommand(*interpreter, programPath())) && edited == contents.object;
}

std::vector<std::string> plannedChanges() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) return {"none: " + displayPath(hooksPath()) + " " + contents.why + " and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    std::vector<std::string> changes;
    if (!holdsText(programPath(), programText(provider().resource))) changes.push_back("write " + displayPath(programPath()));
    Json edited = *object;
    if (!setOurEntries(edited, hookCommand(*interpreter, programPath())))
        return {"none: " + displayPath(hooksPath()) + " has an unexpected \"hooks\" entry"};
    if (contents.kind != Kind::object || edited != contents.object)
        changes.push_back("rewrite our entries for " + std::to_string(allEvents().size()) + " events in " +
                          displayPath(hooksPath()));
    return changes;
}

std::vector<fs::path> backups() { return {JSONConfigFile::backupURL(hooksPath())}; }

}  // namespace lumora::CursorHooks
