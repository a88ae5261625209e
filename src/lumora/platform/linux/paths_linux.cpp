#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "lumora/platform/paths.hpp"

namespace lumora::Paths {

namespace {

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

// An XDG base folder: the variable when it holds an absolute path, else the default under home.
fs::path xdg(const char* variable, const char* fallback) {
    std::string v = env(variable);
    if (!v.empty() && v.front() == '/') return fs::path(v);
    return home() / fallback;
}

}  // namespace

fs::path home() {
    std::string h = env("HOME");
    if (!h.empty()) return fs::path(h);
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return fs::path(pw->pw_dir);
    return fs::path("/");
}

fs::path supportFolder() { return xdg("XDG_DATA_HOME", ".local/share") / "lumora"; }

fs::path ensureSupportFolder() {
    fs::path dir = supportFolder();
    std::error_code ec;
    if (!fs::exists(dir, ec)) {
        fs::create_directories(dir.parent_path(), ec);
        ::mkdir(dir.c_str(), 0700);
    }
    return dir;
}

fs::path defaultsFile() { return xdg("XDG_CONFIG_HOME", ".config") / "lumora" / "defaults.json"; }

fs::path socketPath() {
    std::string s = env("LUMORA_SOCKET");
    if (!s.empty()) return fs::path(s);
    return supportFolder() / "notch.sock";
}

fs::path hookStateFile() { return supportFolder() / "hook-state.json"; }
fs::path approvalsLog() { return supportFolder() / "approvals.log"; }
fs::path logFile() { return supportFolder() / "lumora.log"; }
fs::path spendCacheFile() { return supportFolder() / "spend-cache.json"; }
fs::path sessionNamesFile() { return supportFolder() / "session-names.json"; }
fs::path pricingFolder() { return supportFolder() / "pricing"; }
fs::path loginItemFile() { return xdg("XDG_CONFIG_HOME", ".config") / "autostart" / "lumora.desktop"; }

fs::path claudeHome() { return home() / ".claude"; }
fs::path claudeConfigFile() { return home() / ".claude.json"; }
fs::path claudeProjects() { return claudeHome() / "projects"; }
fs::path claudeSessions() { return claudeHome() / "sessions"; }
fs::path claudeTasks() { return claudeHome() / "tasks"; }
fs::path codexHome() { return home() / ".codex"; }
fs::path codexGoals() { return codexHome() / "goals_1.sqlite"; }
fs::path cursorHome() { return home() / ".cursor"; }
fs::path kimiHome() { return home() / ".kimi-code"; }
fs::path openCodeData() { return home() / ".local/share/opencode"; }
fs::path openCodeConfig() { return home() / ".config/opencode"; }
fs::path openCodeCache() { return home() / ".cache/opencode"; }

fs::path tempFolder() {
    std::string t = env("TMPDIR");
    return t.empty() ? fs::path("/tmp") : fs::path(t);
}

fs::path claudeDesktopData() {
    std::string override = env("LUMORA_CLAUDE_DESKTOP_DIR");
    return override.empty() ? xdg("XDG_CONFIG_HOME", ".config") / "Claude" : fs::path(override);
}

fs::path claudeTempFolder() { return tempFolder() / ("claude-" + std::to_string(::getuid())); }

std::vector<Entry> all() {
    return {
        {"support folder", supportFolder()},
        {"defaults", defaultsFile()},
        {"hook socket", socketPath()},
        {"hook state", hookStateFile()},
        {"approvals log", approvalsLog()},
        {"log", logFile()},
        {"spend cache", spendCacheFile()},
        {"session names", sessionNamesFile()},
        {"price lists", pricingFolder()},
        {"login item", loginItemFile()},
        {"claude home", claudeHome()},
        {"claude config", claudeConfigFile()},
        {"claude projects", claudeProjects()},
        {"claude sessions", claudeSessions()},
        {"claude tasks", claudeTempFolder()},
        {"claude task plans", claudeTasks()},
        {"claude desktop", claudeDesktopData()},
        {"codex home", codexHome()},
        {"codex goals", codexGoals()},
        {"cursor home", cursorHome()},
        {"kimi home", kimiHome()},
        {"opencode data", openCodeData()},
        {"opencode config", openCodeConfig()},
        {"opencode cache", openCodeCache()},
    };
}

}  // namespace lumora::Paths
