#include "lumora/hooks/codex_hooks.hpp"

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/hook_providers.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::CodexHooks {

using namespace HookConfigEdits;
namespace Edits = CodexConfigEdits;
using Kind = JSONConfigFile::Contents::Kind;

namespace {

const HookProviders::Provider& provider() { return HookProviders::of(HookProviders::Agent::codex); }
std::string_view ourScript() { return provider().ourScript; }

std::vector<std::pair<std::string, Json>> ourGroups(const fs::path& interpreter) {
    return groupsFor(eventSpecs(), interpreter, programPath());
}

bool isOurGroup(const Json& group) { return groupUses(group, ourScript()); }
bool holdsOurs(const Json& object) { return holdsOurGroups(object, ourScript()); }

std::vector<Edits::Handler> ourHandlers(const Json& hooksFile) {
    auto all = Edits::handlers(hooksFile, trustKeyPath(), ourScript());
    all.erase(std::remove_if(all.begin(), all.end(), [](const Edits::Handler& h) { return !h.ours; }), all.end());
    return all;
}

std::string rtrimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.pop_back();
    return s;
}

// Writes config.toml, keeping a dated backup of what it held.
Status writeConfig(const ConfigText& current, const std::string& text) {
    if (current.exists && text == current.text) return Status::success();
    std::error_code ec;
    if (current.exists) {
        // Two changes within a second keep both backups: the later one gets a counter.
        fs::path backup = datedBackupPath(std::chrono::system_clock::now());
        for (int n = 1; fs::exists(fs::symlink_status(backup, ec)); ++n) {
            backup = datedBackupPath(std::chrono::system_clock::now());
            backup += "." + std::to_string(n);
        }
        Status saved = FileUtil::writeAtomically(backup, current.text, 0600);
        if (!saved) return Status::failure("can't back up " + displayPath(configPath()) + ": " + saved.why);
    }
    fs::create_directories(configPath().parent_path(), ec);
    Status written = FileUtil::writeAtomically(configPath(), text, 0600);
    if (!written) return Status::failure("can't write " + displayPath(configPath()) + ": " + written.why);
    return written;
}

// Puts hooks.json back as it was before a change whose config.toml half failed.
void restoreHooks(const JSONConfigFile::Contents& before) {
    std::error_code ec;
    if (before.kind == Kind::missing && before.text.empty()) fs::remove(hooksPath(), ec);
    else (void)FileUtil::writeAtomically(hooksPath(), before.text, 0600);
}

}  // namespace

const std::vector<EventSpec>& eventSpecs() {
    static const std::vector<EventSpec> specs = {
        {"PermissionRequest", "*", "gate", 1800},
        {"Stop", std::nullopt, "clear", std::nullopt},
        {"UserPromptSubmit", std::nullopt, "clear", std::nullopt},
        // Esc in Codex ends the turn with neither a tool result nor Stop.
        {"Interrupt", std::nullopt, "clear", 3},
    };
    return specs;
}

fs::path folder() { return HookProviders::folder(HookProviders::Agent::codex); }
fs::path programPath() { return HookProviders::programPath(HookProviders::Agent::codex); }
fs::path hooksPath() { return HookProviders::configFiles(HookProviders::Agent::codex)[0]; }
fs::path configPath() { return HookProviders::configFiles(HookProviders::Agent::codex)[1]; }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(folder(), ec);
}

std::string trustKeyPath() {
    const char* home = std::getenv("CODEX_HOME");
    if (home && *home) {
        std::error_code ec;
        fs::path resolved = fs::weakly_canonical(fs::path(home), ec);
        if (ec) resolved = fs::path(home).lexically_normal();
        return (resolved / "hooks.json").string();
    }
    std::string p = (Paths::home() / ".codex" / "hooks.json").lexically_normal().string();
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return p;
}

std::vector<fs::path> configBackups() {
    std::vector<fs::path> backups;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(configPath().parent_path(), ec)) {
        if (entry.path().filename().string().rfind("config.toml.notch-backup-", 0) == 0) backups.push_back(entry.path());
    }
    // By time, then by counter ("…Z" before "…Z.1" before "…Z.2").
    std::sort(backups.begin(), backups.end(), [](const fs::path& a, const fs::path& b) {
        auto key = [](const fs::path& p) {
            std::string name = p.filename().string();
            size_t z = name.rfind('Z');
            std::string stamp = z == std::string::npos ? name : name.substr(0, z + 1);
            long counter = 0;
            if (z != std::string::npos && z + 2 < name.size()) counter = std::strtol(name.c_str() + z + 2, nullptr, 10);
            return std::make_pair(stamp, counter);
        };
        return key(a) < key(b);
    });
    return backups;
}

std::vector<fs::path> backups() {
    std::vector<fs::path> all = {JSONConfigFile::backupURL(hooksPath())};
    for (auto& b : configBackups()) all.push_back(std::move(b));
    return all;
}

fs::path datedBackupPath(std::chrono::system_clock::time_point when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    ::gmtime_r(&t, &utc);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H-%M-%SZ", &utc);
    return configPath().parent_path() / (std::string("config.toml.notch-backup-") + buf);
}

Status install() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) return leftAlone(hooksPath(), contents.why);
    auto config = readConfigText(configPath());
    if (!config.status) return leftAlone(configPath(), config.status.why);
    auto interpreter = python();
    if (!interpreter) return noPython();
    Json edited = *object;
    if (!setOurGroups(edited, ourScript(), ourGroups(*interpreter))) {
        return leftAlone(hooksPath(), "has an unexpected \"hooks\" entry");
    }
    auto planned = Edits::retrusted(config.text, *object, edited, trustKeyPath(), ourScript(), Edits::FeatureFlag::on);
    if (!planned.status) return leftAlone(configPath(), planned.status.why);
    if (Status s = writeProgram(programPath(), programText(provider().resource)); !s) return s;
    bool hooksChanged = contents.kind != Kind::object || edited != contents.object;
    if (hooksChanged) {
        if (Status s = JSONConfigFile::write(edited, hooksPath(), {contents.text}); !s) return s;
    }
    Status written = writeConfig(config, planned.text);
    // Handlers without their trust entries would be skipped, and the user's moved ones with them.
    if (!written && hooksChanged) restoreHooks(contents);
    return written;
}

Status uninstall() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind == Kind::unreadable) return leftAlone(hooksPath(), contents.why, false);
    auto config = readConfigText(configPath());
    if (!config.status) return leftAlone(configPath(), config.status.why, false);
    Json edited = contents.object;
    bool removed = contents.kind == Kind::object && removeOurGroups(edited, ourScript());

    std::string text = config.text;
    auto backups = configBackups();
    if (config.exists) {
        // We add [features] ourselves only when the file had none, and then the
        // oldest backup (taken before our first change) has none either.
        bool weAddedTable = backups.empty();
        if (!backups.empty()) {
            auto oldest = FileUtil::readFile(backups.front());
            weAddedTable = oldest && !TomlTextEdits::hasTable(*oldest, "[features]");
        }
        auto planned = Edits::retrusted(config.text, contents.object, edited, trustKeyPath(), ourScript(),
                                        weAddedTable ? Edits::FeatureFlag::offDroppingEmptyTable
                                                     : Edits::FeatureFlag::off);
        if (!planned.status) return leftAlone(configPath(), planned.status.why, false);
        text = planned.text;
    }
    if (removed) {
        auto plan = planUninstall(hooksPath(), contents, edited, isOurGroup, holdsOurs);
        if (Status s = applyUninstall(hooksPath(), plan); !s) return s;
    }
    if (!config.exists || text == config.text) return Status::success();
    // A file that lacked a final newline gets its own bytes back.
    for (auto it = backups.rbegin(); it != backups.rend(); ++it) {
        auto old = FileUtil::readFile(*it);
        if (old && *old != text && rtrimmed(*old) == rtrimmed(text)) {
            text = *old;
            break;
        }
    }
    if (backups.empty() && rtrimmed(text).empty()) {
        std::error_code ec;
        fs::remove(configPath(), ec);
        if (ec) return Status::failure("can't remove " + displayPath(configPath()) + ": " + ec.message());
        return Status::success();
    }
    return writeConfig(config, text);
}

bool hasOurEntries() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind == Kind::object && holdsOurs(contents.object)) return true;
    auto config = readConfigText(configPath());
    return config.status && Edits::holdsOurFlag(config.text);
}

bool isInstalled() {
    if (!holdsText(programPath(), programText(provider().resource))) return false;
    auto interpreter = python();
    if (!interpreter) return false;
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind != Kind::object || !holdsGroups(contents.object, ourGroups(*interpreter))) return false;
    auto config = readConfigText(configPath());
    return config.status && Edits::featureOn(config.text) &&
           Edits::untrusted(config.text, ourHandlers(contents.object)) == 0;
}

std::optional<std::string> trustProblem() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind != Kind::object) return std::nullopt;
    auto ours = ourHandlers(contents.object);
    if (ours.empty()) return std::nullopt;
    auto config = readConfigText(configPath());
    size_t bad = config.status ? Edits::untrusted(config.text, ours) : ours.size();
    if (bad == 0) return std::nullopt;
    return std::to_string(bad) + " of our " + std::to_string(ours.size()) + " handlers have no matching trust entry in " +
           displayPath(configPath()) + ", so Codex skips them";
}

std::vector<std::string> plannedChanges() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) return {"none: " + displayPath(hooksPath()) + " " + contents.why + " and would be left alone"};
    auto config = readConfigText(configPath());
    if (!config.status) return {"none: " + displayPath(configPath()) + " " + config.status.why + " and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    std::vector<std::string> changes;
    if (!holdsText(programPath(), programText(provider().resource))) changes.push_back("write " + displayPath(programPath()));
    Json edited = *object;
    if (!setOurGroups(edited, ourScript(), ourGroups(*interpreter)))
        return {"none: " + displayPath(hooksPath()) + " has an unexpected \"hooks\" entry"};
    if (contents.kind != Kind::object || edited != contents.object)
        changes.push_back("rewrite our " + std::to_string(eventSpecs().size()) + " hook groups in " +
                          displayPath(hooksPath()));
    auto planned = Edits::retrusted(config.text, *object, edited, trustKeyPath(), ourScript(), Edits::FeatureFlag::on);
    if (!planned.status) return {"none: " + displayPath(configPath()) + " " + planned.status.why};
    if (planned.text != config.text) {
        if (!Edits::featureOn(config.text)) changes.push_back("turn on the hooks feature in " + displayPath(configPath()));
        if (Edits::enablingFeatureFlag(config.text).text != planned.text)
            changes.push_back("write the trust entries of our handlers in " + displayPath(configPath()));
    }
    return changes;
}

}  // namespace lumora::CodexHooks
