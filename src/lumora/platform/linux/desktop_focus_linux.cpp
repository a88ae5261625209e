// The Linux desktop for jumps: X11 windows (also under XWayland), and the
// freedesktop link handlers and launchers (xdg-open, gio).
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "lumora/platform/child_process.hpp"
#include "lumora/platform/desktop_focus.hpp"
#include "lumora/platform/linux/x11_windows.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

std::vector<fs::path> splitDirs(const std::string& list, const std::vector<std::string>& fallback) {
    std::vector<fs::path> out;
    std::stringstream in(list);
    std::string part;
    while (std::getline(in, part, ':')) {
        if (!part.empty()) out.emplace_back(part);
    }
    if (out.empty()) out.assign(fallback.begin(), fallback.end());
    return out;
}

fs::path configHome() {
    std::string v = env("XDG_CONFIG_HOME");
    return v.empty() ? Paths::home() / ".config" : fs::path(v);
}

fs::path dataHome() {
    std::string v = env("XDG_DATA_HOME");
    return v.empty() ? Paths::home() / ".local/share" : fs::path(v);
}

// The folders that hold desktop entries, most important first.
std::vector<fs::path> applicationDirs() {
    std::vector<fs::path> out{dataHome() / "applications"};
    for (const auto& d : splitDirs(env("XDG_DATA_DIRS"), {"/usr/local/share", "/usr/share"}))
        out.push_back(d / "applications");
    return out;
}

// The mimeapps.list files, most important first.
std::vector<fs::path> mimeappsLists() {
    std::vector<fs::path> out{configHome() / "mimeapps.list"};
    for (const auto& d : splitDirs(env("XDG_CONFIG_DIRS"), {"/etc/xdg"})) out.push_back(d / "mimeapps.list");
    for (const auto& d : applicationDirs()) out.push_back(d / "mimeapps.list");
    return out;
}

// True when the key-file `file` names a handler for `mime` in one of `sections`.
bool keyFileNames(const fs::path& file, const std::string& mime, const std::vector<std::string>& sections) {
    std::ifstream in(file);
    if (!in) return false;
    std::string line, section;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.starts_with("[")) {
            section = line;
            continue;
        }
        if (std::find(sections.begin(), sections.end(), section) == sections.end()) continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        while (!key.empty() && key.back() == ' ') key.pop_back();
        std::string value = line.substr(eq + 1);
        if (key == mime && value.find_first_not_of(" ;") != std::string::npos) return true;
    }
    return false;
}

// True when a desktop entry declares `mime` in its MimeType list.
bool entryDeclares(const fs::path& file, const std::string& mime) {
    std::error_code ec;
    if (fs::file_size(file, ec) > (1 << 20) || ec) return false;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.starts_with("MimeType=")) continue;
        std::stringstream types(line.substr(9));
        std::string t;
        while (std::getline(types, t, ';')) {
            if (!t.empty() && t.back() == '\r') t.pop_back();
            if (t == mime) return true;
        }
    }
    return false;
}

// Runs a helper with a time-out; "" when it ran and exited 0, else why not.
std::string runHelper(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) {
    auto child = ChildProcess::spawn(argv, "");
    if (!child) return "could not start " + argv[0];
    if (!child->wait(timeout)) {
        child->kill();
        return argv[0] + " did not finish within " + std::to_string(timeout.count()) + " ms";
    }
    if (child->exitCode() == 127) return argv[0] + " is not installed";
    if (child->exitCode() != 0) return argv[0] + " exited with " + std::to_string(child->exitCode());
    return "";
}

class LinuxDesktopFocus : public DesktopFocus {
public:
    Session session() override {
        bool x = !env("DISPLAY").empty();
        bool wayland = !env("WAYLAND_DISPLAY").empty();
        if (wayland) return x ? Session::xwayland : Session::wayland;
        return x ? Session::x11 : Session::none;
    }

    Outcome raiseByPid(const WindowQuery& q) override { return X11Windows::raise(q, X11Windows::Pick::byPid); }
    Outcome raiseByTitle(const WindowQuery& q) override { return X11Windows::raise(q, X11Windows::Pick::byTitle); }
    Outcome activate(const WindowQuery& q) override { return X11Windows::raise(q, X11Windows::Pick::byClass); }

    Outcome launch(const std::string& appId) override {
        std::error_code ec;
        for (const auto& dir : applicationDirs()) {
            fs::path entry = dir / (appId + ".desktop");
            if (!fs::is_regular_file(entry, ec)) continue;
            std::string why = runHelper({"gio", "launch", entry.string()}, 3000ms);
            if (why.empty()) return {true, "activate → not running, launching " + appId + " (gio launch)"};
            std::string second = runHelper({"gtk-launch", appId}, 3000ms);
            if (second.empty()) return {true, "activate → not running, launching " + appId + " (gtk-launch)"};
            return {false, "activate → not running, launching " + appId + " → error/empty: " + why + "; " + second};
        }
        return {false, "activate → not running, and no desktop entry " + appId + ".desktop to launch"};
    }

    bool handlesScheme(const std::string& scheme) override {
        std::string mime = "x-scheme-handler/" + scheme;
        for (const auto& list : mimeappsLists()) {
            if (keyFileNames(list, mime, {"[Default Applications]", "[Added Associations]"})) return true;
        }
        std::error_code ec;
        for (const auto& dir : applicationDirs()) {
            if (keyFileNames(dir / "mimeinfo.cache", mime, {"[MIME Cache]"})) return true;
            for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
                if (it->path().extension() == ".desktop" && entryDeclares(it->path(), mime)) return true;
            }
        }
        return false;
    }

    Outcome openURL(const std::string& url) override {
        std::string why = runHelper({"xdg-open", url}, 3000ms);
        if (why.empty()) return {true, "deep link " + url + " opened with xdg-open"};
        return {false, "deep link " + url + " → error/empty: " + why};
    }
};

}  // namespace

DesktopFocus& DesktopFocus::system() {
    static LinuxDesktopFocus focus;
    return focus;
}

}  // namespace lumora
