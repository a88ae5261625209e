#include "lumora/hooks/kimi_hooks.hpp"

#include <spdlog/spdlog.h>

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::KimiHooks {

using namespace HookConfigEdits;
namespace Toml = TomlTextEdits;

namespace {

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

// A single-quoted TOML literal when the value allows one, else a basic string.
std::string literalString(const std::string& value) {
    if (value.find('\'') == std::string::npos && value.find('\n') == std::string::npos) return "'" + value + "'";
    return Toml::basicString(value);
}

std::optional<std::string> readConfig() {
    std::error_code ec;
    if (!fs::exists(configPath(), ec)) return std::string();
    return FileUtil::readFile(configPath());
}

std::string rtrimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.pop_back();
    return s;
}

bool writeConfig(const std::string& current, const std::string& text) {
    if (text == current) return true;
    std::error_code ec;
    if (fs::exists(configPath(), ec)) {
        if (!FileUtil::writeAtomically(JSONConfigFile::backupURL(configPath()), current, 0600)) return false;
    }
    fs::create_directories(configPath().parent_path(), ec);
    return FileUtil::writeAtomically(configPath(), text, 0644).ok;
}

}  // namespace

const std::vector<EventSpec>& eventSpecs() {
    static const std::vector<EventSpec> specs = {
        {"Notification", std::nullopt, "notify", 5},
        {"UserPromptSubmit", std::nullopt, "clear", 5},
        {"Stop", std::nullopt, "clear", 5},
        {"StopFailure", std::nullopt, "clear", 5},
    };
    return specs;
}

fs::path programPath() { return Paths::kimiHome() / "notch-kimi-hook.py"; }
fs::path configPath() { return Paths::kimiHome() / "config.toml"; }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(Paths::kimiHome(), ec);
}

std::string removingManagedSection(const std::string& text) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        size_t end = eol == std::string::npos ? text.size() : eol + 1;
        lines.push_back(text.substr(pos, end - pos));
        pos = end;
    }
    size_t begin = lines.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (trimmed(lines[i]) == kBeginLine) {
            begin = i;
            break;
        }
    }
    if (begin == lines.size()) return text;
    size_t end = lines.size() - 1;
    for (size_t i = begin + 1; i < lines.size(); ++i) {
        if (trimmed(lines[i]) == kEndLine) {
            end = i;
            break;
        }
    }
    size_t from = begin;
    if (from > 0 && trimmed(lines[from - 1]).empty()) --from;
    std::string out;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i < from || i > end) out += lines[i];
    }
    return out;
}

std::string managedSection(const fs::path& interpreter) {
    std::string section = std::string(kBeginLine) + "\n";
    section += std::string("# Live Prompts bridge (") + kVersionMarker + ") — reinstalled by Lumora on launch.\n";
    bool first = true;
    for (const auto& spec : eventSpecs()) {
        if (!first) section += "\n";
        first = false;
        section += "[[hooks]]\n";
        section += "event = " + Toml::basicString(spec.event) + "\n";
        section += "command = " + literalString(hookCommand(interpreter, programPath(), spec.action)) + "\n";
        section += "timeout = " + std::to_string(spec.timeout.value_or(5)) + "\n";
    }
    section += std::string(kEndLine) + "\n";
    return section;
}

bool install() {
    auto config = readConfig();
    if (!config) {
        spdlog::warn("Lumora: ~/.kimi-code/config.toml can't be read — leaving it alone, hooks not installed");
        return false;
    }
    bool wasValid = Toml::isValid(*config);
    if (!wasValid) {
        spdlog::warn("Lumora: ~/.kimi-code/config.toml isn't valid TOML — leaving it alone, hooks not installed");
        return false;
    }
    auto interpreter = python();
    if (!interpreter) return false;
    std::string text = Toml::appendBlock(removingManagedSection(*config), managedSection(*interpreter));
    if (!Toml::isValid(text)) {
        spdlog::warn("Lumora: ~/.kimi-code/config.toml can't take our hooks as it is — leaving it alone, hooks not installed");
        return false;
    }
    if (!writeProgram(programPath(), programText(kResource))) return false;
    return writeConfig(*config, text);
}

bool uninstall() {
    auto config = readConfig();
    if (!config) return false;
    std::string text = removingManagedSection(*config);
    if (text == *config) return true;
    fs::path backup = JSONConfigFile::backupURL(configPath());
    auto old = FileUtil::readFile(backup);
    if (old && *old != text && rtrimmed(*old) == rtrimmed(text) && old->find(kBeginLine) == std::string::npos) {
        text = *old;
    }
    std::error_code ec;
    if (!old && rtrimmed(text).empty()) {
        fs::remove(configPath(), ec);
        return !ec;
    }
    return writeConfig(*config, text);
}

bool hasOurEntries() {
    auto config = readConfig();
    return config && removingManagedSection(*config) != *config;
}

bool isInstalled() {
    if (!holdsMarker(programPath(), kVersionMarker)) return false;
    auto interpreter = python();
    auto config = readConfig();
    return interpreter && config && config->find(managedSection(*interpreter)) != std::string::npos;
}

std::vector<std::string> plannedChanges() {
    auto config = readConfig();
    if (!config || !Toml::isValid(*config)) return {"none: ~/.kimi-code/config.toml isn't valid TOML and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    std::vector<std::string> changes;
    if (!holdsMarker(programPath(), kVersionMarker)) changes.push_back("write " + displayPath(programPath()));
    std::string text = Toml::appendBlock(removingManagedSection(*config), managedSection(*interpreter));
    if (text != *config) changes.push_back("rewrite the managed section of " + displayPath(configPath()));
    return changes;
}

}  // namespace lumora::KimiHooks
