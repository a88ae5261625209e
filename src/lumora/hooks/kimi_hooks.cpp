#include "lumora/hooks/kimi_hooks.hpp"

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/hook_providers.hpp"
#include "lumora/hooks/toml_text_edits.hpp"

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

const HookProviders::Provider& provider() { return HookProviders::of(HookProviders::Agent::kimi); }

std::string rtrimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.pop_back();
    return s;
}

Status writeConfig(const ConfigText& current, const std::string& text) {
    if (current.exists && text == current.text) return Status::success();
    if (current.exists) {
        Status saved = FileUtil::writeAtomically(JSONConfigFile::backupURL(configPath()), current.text, 0600);
        if (!saved) return Status::failure("can't back up " + displayPath(configPath()) + ": " + saved.why);
    }
    std::error_code ec;
    fs::create_directories(configPath().parent_path(), ec);
    Status written = FileUtil::writeAtomically(configPath(), text, 0644);
    if (!written) return Status::failure("can't write " + displayPath(configPath()) + ": " + written.why);
    return written;
}

std::string installed(const std::string& config, const fs::path& interpreter) {
    return Toml::appendBlock(removingManagedSection(config), managedSection(interpreter));
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

fs::path programPath() { return HookProviders::programPath(HookProviders::Agent::kimi); }
fs::path configPath() { return HookProviders::configFiles(HookProviders::Agent::kimi).front(); }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(HookProviders::folder(HookProviders::Agent::kimi), ec);
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
    section += "# Live Prompts bridge (" + std::string(provider().versionMarker) + ") — reinstalled by Lumora on launch.\n";
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

Status install() {
    auto config = readConfigText(configPath());
    if (!config.status) return leftAlone(configPath(), config.status.why);
    if (!Toml::isValid(config.text)) return leftAlone(configPath(), "isn't valid TOML");
    auto interpreter = python();
    if (!interpreter) return noPython();
    std::string text = installed(config.text, *interpreter);
    if (!Toml::isValid(text)) return leftAlone(configPath(), "can't take our hooks as it is written");
    if (Status s = writeProgram(programPath(), programText(provider().resource)); !s) return s;
    return writeConfig(config, text);
}

Status uninstall() {
    auto config = readConfigText(configPath());
    if (!config.status) return leftAlone(configPath(), config.status.why, false);
    std::string text = removingManagedSection(config.text);
    if (text == config.text) return Status::success();
    fs::path backup = JSONConfigFile::backupURL(configPath());
    auto old = FileUtil::readFile(backup);
    if (old && *old != text && rtrimmed(*old) == rtrimmed(text) && old->find(kBeginLine) == std::string::npos) {
        text = *old;
    }
    if (!old && rtrimmed(text).empty()) {
        std::error_code ec;
        fs::remove(configPath(), ec);
        if (ec) return Status::failure("can't remove " + displayPath(configPath()) + ": " + ec.message());
        return Status::success();
    }
    return writeConfig(config, text);
}

bool hasOurEntries() {
    auto config = readConfigText(configPath());
    return config.status && removingManagedSection(config.text) != config.text;
}

bool isInstalled() {
    if (!holdsText(programPath(), programText(provider().resource))) return false;
    auto interpreter = python();
    auto config = readConfigText(configPath());
    return interpreter && config.status && installed(config.text, *interpreter) == config.text;
}

std::vector<std::string> plannedChanges() {
    auto config = readConfigText(configPath());
    if (!config.status) return {"none: " + displayPath(configPath()) + " " + config.status.why + " and would be left alone"};
    if (!Toml::isValid(config.text)) return {"none: " + displayPath(configPath()) + " isn't valid TOML and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    std::vector<std::string> changes;
    if (!holdsText(programPath(), programText(provider().resource))) changes.push_back("write " + displayPath(programPath()));
    if (installed(config.text, *interpreter) != config.text)
        changes.push_back("rewrite the managed section of " + displayPath(configPath()));
    return changes;
}

std::vector<fs::path> backups() { return {JSONConfigFile::backupURL(configPath())}; }

}  // namespace lumora::KimiHooks
