#include "lumora/hooks/hook_config_edits.hpp"

#include <sys/stat.h>

#include <set>

#include <spdlog/spdlog.h>

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/hooks/hook_providers.hpp"
#include "lumora/hooks/json_text_edits.hpp"
#include "lumora/platform/python_locator.hpp"

namespace lumora::HookConfigEdits {

std::string hookCommand(const fs::path& interpreter, const fs::path& program, std::string_view action) {
    std::string command = "\"" + interpreter.string() + "\" \"" + program.string() + "\"";
    if (!action.empty()) {
        command += ' ';
        command += action;
    }
    return command;
}

std::optional<fs::path> python() { return PythonLocator::interpreter(); }

Status noPython() { return Status::failure("no usable python3 found to run the hook program"); }

std::string programText(std::string_view resourceName) {
    auto text = EmbeddedResources::text(resourceName);
    return text ? std::string(*text) : std::string();
}

bool holdsMarker(const fs::path& file, std::string_view marker) {
    auto text = FileUtil::readFile(file);
    if (!text) return false;
    size_t pos = 0;
    while ((pos = text->find(marker, pos)) != std::string::npos) {
        size_t end = pos + marker.size();
        if (end >= text->size() || !std::isalnum(static_cast<unsigned char>((*text)[end]))) return true;
        pos = end;
    }
    return false;
}

bool holdsText(const fs::path& file, std::string_view text) {
    auto current = FileUtil::readFile(file);
    return current && *current == text;
}

Status writeProgram(const fs::path& file, std::string_view text, unsigned mode) {
    if (text.empty()) return Status::failure("this build lacks the hook program " + file.filename().string());
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    if (ec) return Status::failure("can't create " + displayPath(file.parent_path()) + ": " + ec.message());
    auto current = FileUtil::read(file);
    if (!current.ok() && !current.missing()) {
        // A folder, a FIFO or a file we may not read where our program goes: not ours to replace.
        return Status::failure(displayPath(file) + " can't be read (" + current.why + ") — left alone");
    }
    if (!current.ok() || current.text != text) {
        Status written = FileUtil::writeAtomically(file, text, mode);
        if (!written) return Status::failure("can't write " + displayPath(file) + ": " + written.why);
    }
    fs::permissions(file, static_cast<fs::perms>(mode), ec);
    return Status::success();
}

ConfigText readConfigText(const fs::path& file) {
    auto read = FileUtil::read(file);
    if (read.missing()) return {};
    if (!read.ok()) return {true, {}, Status::failure("can't be read (" + read.why + ")")};
    return {true, std::move(read.text), Status::success()};
}

Status leftAlone(const fs::path& file, const std::string& problem, bool installing) {
    spdlog::warn("Lumora: {} {} — leaving it alone{}", displayPath(file), problem,
                 installing ? ", hooks not installed" : "");
    return Status::failure(displayPath(file) + " " + problem + " — left alone");
}

Json groupFor(const EventSpec& spec, const std::string& command) {
    Json group = Json::object();
    if (spec.matcher) group["matcher"] = *spec.matcher;
    Json hook = Json::object();
    hook["type"] = "command";
    hook["command"] = command;
    if (spec.timeout) hook["timeout"] = *spec.timeout;
    group["hooks"] = Json::array({hook});
    return group;
}

bool groupUses(const Json& group, std::string_view needle) {
    if (!group.is_object()) return false;
    auto hooks = group.find("hooks");
    if (hooks == group.end() || !hooks->is_array()) return false;
    for (const auto& hook : *hooks) {
        if (!hook.is_object()) continue;
        auto command = hook.find("command");
        if (command != hook.end() && command->is_string() &&
            command->get_ref<const std::string&>().find(needle) != std::string::npos)
            return true;
    }
    return false;
}

bool setOurGroups(Json& root, std::string_view needle, const std::vector<std::pair<std::string, Json>>& groups) {
    if (root.contains("hooks") && !root["hooks"].is_object()) return false;
    Json hooks = root.contains("hooks") ? root["hooks"] : Json::object();

    std::vector<std::string> events;
    auto addEvent = [&](const std::string& e) {
        if (std::find(events.begin(), events.end(), e) == events.end()) events.push_back(e);
    };
    for (auto it = hooks.begin(); it != hooks.end(); ++it) {
        if (!it.value().is_array()) continue;
        for (const auto& g : it.value()) {
            if (groupUses(g, needle)) {
                addEvent(it.key());
                break;
            }
        }
    }
    for (const auto& [event, group] : groups) addEvent(event);

    for (const auto& event : events) {
        std::vector<Json> wanted;
        for (const auto& [e, g] : groups) {
            if (e == event) wanted.push_back(g);
        }
        bool had = hooks.contains(event);
        if (had && !hooks[event].is_array()) return false;
        Json list = had ? hooks[event] : Json::array();
        std::vector<size_t> ours;
        for (size_t i = 0; i < list.size(); ++i) {
            if (groupUses(list[i], needle)) ours.push_back(i);
        }
        if (!wanted.empty() && ours.size() == wanted.size()) {
            for (size_t k = 0; k < ours.size(); ++k) list[ours[k]] = wanted[k];
        } else {
            Json kept = Json::array();
            for (size_t i = 0; i < list.size(); ++i) {
                if (!groupUses(list[i], needle)) kept.push_back(list[i]);
            }
            for (auto& g : wanted) kept.push_back(g);
            list = std::move(kept);
        }
        if (list.empty() && !ours.empty()) {
            hooks.erase(event);
        } else if (had || !list.empty()) {
            hooks[event] = std::move(list);
        }
    }
    if (!root.contains("hooks") && hooks.empty()) return true;
    root["hooks"] = std::move(hooks);
    return true;
}

bool removeOurGroups(Json& root, std::string_view needle) {
    auto hooksIt = root.find("hooks");
    if (hooksIt == root.end() || !hooksIt->is_object()) return false;
    Json& hooks = *hooksIt;
    bool removed = false;
    std::vector<std::string> emptied;
    for (auto it = hooks.begin(); it != hooks.end(); ++it) {
        if (!it.value().is_array()) continue;
        Json kept = Json::array();
        size_t before = it.value().size();
        for (auto& g : it.value()) {
            if (!groupUses(g, needle)) kept.push_back(g);
        }
        if (kept.size() != before) {
            removed = true;
            if (kept.empty()) emptied.push_back(it.key());
            it.value() = std::move(kept);
        }
    }
    for (const auto& e : emptied) hooks.erase(e);
    if (removed && hooks.empty()) root.erase("hooks");
    return removed;
}

bool holdsGroups(const Json& root, const std::vector<std::pair<std::string, Json>>& groups) {
    auto hooks = root.find("hooks");
    if (hooks == root.end() || !hooks->is_object()) return groups.empty();
    for (const auto& [event, group] : groups) {
        auto list = hooks->find(event);
        if (list == hooks->end() || !list->is_array()) return false;
        if (std::find(list->begin(), list->end(), group) == list->end()) return false;
    }
    return true;
}

namespace {

Json normalised(Json object, const std::vector<std::string>& ignoredKeys) {
    for (const auto& key : ignoredKeys) object.erase(key);
    auto hooks = object.find("hooks");
    if (hooks != object.end() && hooks->is_object()) {
        std::vector<std::string> empty;
        for (auto it = hooks->begin(); it != hooks->end(); ++it) {
            if (it.value().is_array() && it.value().empty()) empty.push_back(it.key());
        }
        for (const auto& e : empty) hooks->erase(e);
        if (hooks->empty()) object.erase("hooks");
    }
    return object;
}

}  // namespace

UninstallPlan planUninstall(const fs::path& file, const JSONConfigFile::Contents& current, const Json& edited,
                            const std::function<bool(const Json&)>& isOurEntry,
                            const std::function<bool(const Json&)>& holdsOurs,
                            const std::vector<std::string>& ignoredKeys) {
    UninstallPlan plan;
    if (current.kind != JSONConfigFile::Contents::Kind::object || edited == current.object) return plan;
    fs::path backupFile = JSONConfigFile::backupURL(file);
    auto backup = JSONConfigFile::load(backupFile);
    std::error_code ec;
    bool hasBackup = fs::exists(fs::symlink_status(backupFile, ec));
    if (backup.kind == JSONConfigFile::Contents::Kind::object && !holdsOurs(backup.object) &&
        normalised(backup.object, ignoredKeys) == normalised(edited, ignoredKeys)) {
        plan.kind = UninstallPlan::Kind::restoreBackup;
        plan.text = backup.text;
        return plan;
    }
    if (!hasBackup && !fs::is_symlink(file, ec) &&
        normalised(edited, ignoredKeys).empty()) {
        plan.kind = UninstallPlan::Kind::removeFile;
        return plan;
    }
    plan.kind = UninstallPlan::Kind::writeText;
    if (auto cut = JsonTextEdits::removingEntries(current.text, isOurEntry, edited, JSONConfigFile::kMaxDepth)) {
        plan.text = std::move(*cut);
    } else {
        plan.text = JSONConfigFile::serialise(edited, {current.text});
    }
    return plan;
}

Status applyUninstall(const fs::path& file, const UninstallPlan& plan) {
    switch (plan.kind) {
        case UninstallPlan::Kind::nothing: return Status::success();
        case UninstallPlan::Kind::writeText:
        case UninstallPlan::Kind::restoreBackup: return JSONConfigFile::writeText(plan.text, file);
        case UninstallPlan::Kind::removeFile: {
            std::error_code ec;
            fs::remove(file, ec);
            if (ec) return Status::failure("can't remove " + displayPath(file) + ": " + ec.message());
            return Status::success();
        }
    }
    return Status::success();
}

std::string displayPath(const fs::path& file) { return HookProviders::displayPath(file); }

std::vector<std::pair<std::string, Json>> groupsFor(const std::vector<EventSpec>& specs, const fs::path& interpreter,
                                                    const fs::path& program) {
    std::vector<std::pair<std::string, Json>> groups;
    for (const auto& spec : specs) groups.emplace_back(spec.event, groupFor(spec, hookCommand(interpreter, program, spec.action)));
    return groups;
}

bool holdsOurGroups(const Json& root, std::string_view needle) {
    Json copy = root;
    return removeOurGroups(copy, needle);
}

}  // namespace lumora::HookConfigEdits
