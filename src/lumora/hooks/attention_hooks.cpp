#include "lumora/hooks/attention_hooks.hpp"

#include <spdlog/spdlog.h>

#include "lumora/platform/paths.hpp"

namespace lumora::AttentionHooks {

using namespace HookConfigEdits;

namespace {

std::vector<std::pair<std::string, Json>> ourGroups(const fs::path& interpreter) {
    return groupsFor(eventSpecs(), interpreter, programPath());
}

bool holdsOurs(const Json& object) { return holdsOurGroups(object, kOurScript); }

}  // namespace

const std::vector<EventSpec>& eventSpecs() {
    static const std::vector<EventSpec> specs = {
        {"PreToolUse", "AskUserQuestion|ExitPlanMode", "ask", std::nullopt},
        {"PostToolUse", "AskUserQuestion|ExitPlanMode", "clear", std::nullopt},
        {"UserPromptSubmit", std::nullopt, "start", std::nullopt},
        {"PreToolUse", "*", "busy", std::nullopt},
        {"PostToolUse", "*", "busydone", std::nullopt},
        {"PermissionRequest", "*", "gate", 1800},
        {"Notification", "idle_prompt", "idle", std::nullopt},
        {"Stop", std::nullopt, "done", std::nullopt},
    };
    return specs;
}

fs::path programPath() { return Paths::claudeHome() / "lumora" / "notch-hook.py"; }
fs::path settingsPath() { return Paths::claudeHome() / "settings.json"; }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(Paths::claudeHome(), ec);
}

bool install() {
    auto contents = JSONConfigFile::load(settingsPath());
    auto object = contents.mergeable();
    if (!object) {
        spdlog::warn("Lumora: ~/.claude/settings.json isn't valid JSON — leaving it alone, hooks not installed");
        return false;
    }
    auto interpreter = python();
    if (!interpreter) return false;
    if (!writeProgram(programPath(), programText(kResource))) return false;
    Json edited = *object;
    if (!setOurGroups(edited, kOurScript, ourGroups(*interpreter))) {
        spdlog::warn("Lumora: ~/.claude/settings.json has an unexpected \"hooks\" entry — leaving it alone, hooks not installed");
        return false;
    }
    if (contents.kind == JSONConfigFile::Contents::Kind::object && edited == contents.object) return true;
    return JSONConfigFile::write(edited, settingsPath(), {contents.text});
}

bool uninstall() {
    auto contents = JSONConfigFile::load(settingsPath());
    if (contents.kind == JSONConfigFile::Contents::Kind::missing) return true;
    if (contents.kind == JSONConfigFile::Contents::Kind::unreadable) {
        spdlog::warn("Lumora: ~/.claude/settings.json isn't valid JSON — leaving it alone");
        return false;
    }
    Json edited = contents.object;
    if (!removeOurGroups(edited, kOurScript)) return true;
    return applyUninstall(settingsPath(), planUninstall(settingsPath(), contents, edited, holdsOurs));
}

bool hasOurEntries() {
    auto contents = JSONConfigFile::load(settingsPath());
    return contents.kind == JSONConfigFile::Contents::Kind::object && holdsOurs(contents.object);
}

bool isInstalled() {
    if (!holdsMarker(programPath(), kVersionMarker)) return false;
    auto interpreter = python();
    if (!interpreter) return false;
    auto contents = JSONConfigFile::load(settingsPath());
    return contents.kind == JSONConfigFile::Contents::Kind::object &&
           holdsGroups(contents.object, ourGroups(*interpreter));
}

std::vector<std::string> plannedChanges() {
    std::vector<std::string> changes;
    auto contents = JSONConfigFile::load(settingsPath());
    auto object = contents.mergeable();
    if (!object) return {"none: ~/.claude/settings.json isn't valid JSON and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    if (!holdsMarker(programPath(), kVersionMarker)) changes.push_back("write " + displayPath(programPath()));
    Json edited = *object;
    if (!setOurGroups(edited, kOurScript, ourGroups(*interpreter))) {
        return {"none: ~/.claude/settings.json has an unexpected \"hooks\" entry"};
    }
    if (contents.kind != JSONConfigFile::Contents::Kind::object || edited != contents.object) {
        changes.push_back("rewrite our " + std::to_string(eventSpecs().size()) + " hook groups in " +
                          displayPath(settingsPath()));
    }
    return changes;
}

}  // namespace lumora::AttentionHooks
