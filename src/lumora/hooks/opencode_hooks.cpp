#include "lumora/hooks/opencode_hooks.hpp"

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/hooks/hook_config_edits.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::OpenCodeHooks {

namespace {

std::string jsString(const std::string& value) {
    std::string out = "\"";
    for (char c : value) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out + "\"";
}

}  // namespace

fs::path pluginPath() { return Paths::openCodeConfig() / "plugins" / "lumora.js"; }

std::string pluginText(const fs::path& socket) {
    auto body = EmbeddedResources::text(kResource);
    if (!body) return {};
    std::string text(*body);
    const std::string placeholder = "const SOCKET = \"\";";
    size_t at = text.find(placeholder);
    if (at != std::string::npos) text.replace(at, placeholder.size(), "const SOCKET = " + jsString(socket.string()) + ";");
    return text;
}

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(Paths::openCodeConfig(), ec) || fs::is_directory(Paths::openCodeData(), ec);
}

bool install() {
    if (!agentPresent()) return false;
    std::string text = pluginText(Paths::socketPath());
    if (text.empty()) return false;
    std::error_code ec;
    fs::create_directories(pluginPath().parent_path(), ec);
    auto current = FileUtil::readFile(pluginPath());
    if (current && *current == text) return true;
    return FileUtil::writeAtomically(pluginPath(), text, 0644).ok;
}

bool uninstall() {
    std::error_code ec;
    if (!fs::exists(pluginPath(), ec)) return true;
    fs::remove(pluginPath(), ec);
    return !ec;
}

bool isInstalled() {
    auto text = FileUtil::readFile(pluginPath());
    return text && text->rfind(std::string(kMarker) + " ", 0) == 0;
}

bool hasOurEntries() {
    std::error_code ec;
    return fs::exists(pluginPath(), ec);
}

std::vector<std::string> plannedChanges() {
    if (!agentPresent()) return {};
    auto current = FileUtil::readFile(pluginPath());
    if (current && *current == pluginText(Paths::socketPath())) return {};
    return {"write " + HookConfigEdits::displayPath(pluginPath())};
}

}  // namespace lumora::OpenCodeHooks
