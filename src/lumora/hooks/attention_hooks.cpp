#include "lumora/hooks/attention_hooks.hpp"

#include "lumora/hooks/hook_providers.hpp"

namespace lumora::AttentionHooks {

using namespace HookConfigEdits;
using Kind = JSONConfigFile::Contents::Kind;

namespace {

const HookProviders::Provider& provider() { return HookProviders::of(HookProviders::Agent::claudeCode); }
std::string_view ourScript() { return provider().ourScript; }

std::vector<std::pair<std::string, Json>> ourGroups(const fs::path& interpreter) {
    return groupsFor(eventSpecs(), interpreter, programPath());
}

bool isOurGroup(const Json& group) { return groupUses(group, ourScript()); }
bool holdsOurs(const Json& object) { return holdsOurGroups(object, ourScript()); }

}  // namespace

const std::vector<EventSpec>& eventSpecs() {
    static const std::vector<EventSpec> specs = {
        {"PreToolUse", "AskUserQuestion|ExitPlanMode", "ask", std::nullopt},
        {"PostToolUse", "AskUserQuestion|ExitPlanMode", "clear", std::nullopt},
        // A question dismissed in the agent fails the tool instead of completing it.
        {"PostToolUseFailure", "AskUserQuestion|ExitPlanMode", "clear", std::nullopt},
        {"UserPromptSubmit", std::nullopt, "start", std::nullopt},
        {"PreToolUse", "*", "busy", std::nullopt},
        {"PostToolUse", "*", "busydone", std::nullopt},
        {"PostToolUseFailure", "*", "busydone", std::nullopt},
        {"PermissionRequest", "*", "gate", 1800},
        {"Notification", "idle_prompt", "idle", std::nullopt},
        {"Stop", std::nullopt, "done", std::nullopt},
    };
    return specs;
}

fs::path programPath() { return HookProviders::programPath(HookProviders::Agent::claudeCode); }
fs::path settingsPath() { return HookProviders::configFiles(HookProviders::Agent::claudeCode).front(); }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(HookProviders::folder(HookProviders::Agent::claudeCode), ec);
}

Status install() {
    auto contents = JSONConfigFile::load(settingsPath());
    auto object = contents.mergeable();
    if (!object) return leftAlone(settingsPath(), contents.why);
    auto interpreter = python();
    if (!interpreter) return noPython();
    Json edited = *object;
    if (!setOurGroups(edited, ourScript(), ourGroups(*interpreter))) {
        return leftAlone(settingsPath(), "has an unexpected \"hooks\" entry");
    }
    if (Status s = writeProgram(programPath(), programText(provider().resource)); !s) return s;
    if (contents.kind == Kind::object && edited == contents.object) return Status::success();
    return JSONConfigFile::write(edited, settingsPath(), {contents.text});
}

Status uninstall() {
    auto contents = JSONConfigFile::load(settingsPath());
    if (contents.kind == Kind::missing) return Status::success();
    if (contents.kind == Kind::unreadable) return leftAlone(settingsPath(), contents.why, false);
    Json edited = contents.object;
    if (!removeOurGroups(edited, ourScript())) return Status::success();
    return applyUninstall(settingsPath(), planUninstall(settingsPath(), contents, edited, isOurGroup, holdsOurs));
}

bool hasOurEntries() {
    auto contents = JSONConfigFile::load(settingsPath());
    return contents.kind == Kind::object && holdsOurs(contents.object);
}

bool isInstalled() {
    if (!holdsText(programPath(), programText(provider().resource))) return false;
    auto interpreter = python();
    if (!interpreter) return false;
    auto contents = JSONConfigFile::load(settingsPath());
    return contents.kind == Kind::object && holdsGroups(contents.object, ourGroups(*interpreter));
}

std::vector<std::string> plannedChanges() {
    std::vector<std::string> changes;
    auto contents = JSONConfigFile::load(settingsPath());
    auto object = contents.mergeable();
    if (!object) return {"none: " + displayPath(settingsPath()) + " " + contents.why + " and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    if (!holdsText(programPath(), programText(provider().resource))) changes.push_back("write " + displayPath(programPath()));
    Json edited = *object;
    if (!setOurGroups(edited, ourScript(), ourGroups(*interpreter))) {
        return {"none: " + displayPath(settingsPath()) + " has an unexpected \"hooks\" entry"};
    }
    if (contents.kind != Kind::object || edited != contents.object) {
        changes.push_back("rewrite our " + std::to_string(eventSpecs().size()) + " hook groups in " +
                          displayPath(settingsPath()));
    }
    return changes;
}

std::vector<fs::path> backups() { return {JSONConfigFile::backupURL(settingsPath())}; }

}  // namespace lumora::AttentionHooks
