#include "lumora/hooks/opencode_hooks.hpp"

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/hooks/hook_config_edits.hpp"
#include "lumora/hooks/hook_providers.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::OpenCodeHooks {

namespace {

const HookProviders::Provider& provider() { return HookProviders::of(HookProviders::Agent::openCode); }

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

fs::path pluginPath() { return HookProviders::programPath(HookProviders::Agent::openCode); }

std::string pluginText(const fs::path& socket) {
    auto body = EmbeddedResources::text(provider().resource);
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

Status install() {
    if (!agentPresent()) return Status::failure("OpenCode isn't on this machine");
    return HookConfigEdits::writeProgram(pluginPath(), pluginText(Paths::socketPath()), 0644);
}

Status uninstall() {
    std::error_code ec;
    fs::remove(pluginPath(), ec);
    if (ec) return Status::failure("can't remove " + HookConfigEdits::displayPath(pluginPath()) + ": " + ec.message());
    return Status::success();
}

bool isInstalled() { return HookConfigEdits::holdsText(pluginPath(), pluginText(Paths::socketPath())); }

bool hasOurEntries() {
    std::error_code ec;
    return fs::exists(fs::symlink_status(pluginPath(), ec));
}

std::vector<std::string> plannedChanges() {
    if (!agentPresent() || isInstalled()) return {};
    return {"write " + HookConfigEdits::displayPath(pluginPath())};
}

}  // namespace lumora::OpenCodeHooks
