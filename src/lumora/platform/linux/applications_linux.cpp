// Desktop applications on Linux, named by their desktop ids.
#include <algorithm>
#include <array>
#include <cctype>

#include <unordered_map>

#include "lumora/platform/applications.hpp"
#include "lumora/platform/linux/applications_linux.hpp"

namespace lumora {

namespace Applications {

namespace {

struct Known {
    std::string_view id;
    std::string_view name;
    Role role;
};

// Applications by desktop id. Several ids name one program (distribution
// packages, Flatpak and Snap packages name them differently).
constexpr std::array kKnown = {
    Known{"org.gnome.Terminal", "GNOME Terminal", Role::terminal},
    Known{"org.gnome.Console", "Console", Role::terminal},
    Known{"org.gnome.Ptyxis", "Ptyxis", Role::terminal},
    Known{"org.kde.konsole", "Konsole", Role::terminal},
    Known{"kitty", "kitty", Role::terminal},
    Known{"Alacritty", "Alacritty", Role::terminal},
    Known{"org.alacritty.Alacritty", "Alacritty", Role::terminal},
    Known{"org.wezfurlong.wezterm", "WezTerm", Role::terminal},
    Known{"com.mitchellh.ghostty", "Ghostty", Role::terminal},
    Known{"foot", "foot", Role::terminal},
    Known{"footclient", "foot", Role::terminal},
    Known{"org.codeberg.dnkl.foot", "foot", Role::terminal},
    Known{"xterm", "xterm", Role::terminal},
    Known{"debian-xterm", "xterm", Role::terminal},
    Known{"debian-uxterm", "xterm", Role::terminal},
    Known{"com.gexperts.Tilix", "Tilix", Role::terminal},
    Known{"terminator", "Terminator", Role::terminal},
    Known{"dev.warp.Warp", "Warp", Role::terminal},
    Known{"xfce4-terminal", "Xfce Terminal", Role::terminal},
    Known{"org.xfce.terminal", "Xfce Terminal", Role::terminal},
    Known{"rxvt-unicode", "urxvt", Role::terminal},
    Known{"code", "Visual Studio Code", Role::editor},
    Known{"code-url-handler", "Visual Studio Code", Role::editor},
    Known{"com.visualstudio.code", "Visual Studio Code", Role::editor},
    Known{"code-insiders", "Visual Studio Code - Insiders", Role::editor},
    Known{"com.visualstudio.code.insiders", "Visual Studio Code - Insiders", Role::editor},
    Known{"codium", "VSCodium", Role::editor},
    Known{"com.vscodium.codium", "VSCodium", Role::editor},
    Known{"cursor", "Cursor", Role::editor},
    Known{"co.anysphere.cursor", "Cursor", Role::editor},
    Known{"windsurf", "Windsurf", Role::editor},
    Known{"com.exafunction.windsurf", "Windsurf", Role::editor},
    Known{"dev.zed.Zed", "Zed", Role::editor},
    Known{"dev.zed.Zed-Preview", "Zed Preview", Role::editor},
    Known{"com.conductor.app", "Conductor", Role::other},
};

// Executables by file name, and the desktop id each belongs to.
constexpr std::array<std::pair<std::string_view, std::string_view>, 42> kExecutables = {{
    {"gnome-terminal-server", "org.gnome.Terminal"},
    {"gnome-terminal", "org.gnome.Terminal"},
    {"kgx", "org.gnome.Console"},
    {"gnome-console", "org.gnome.Console"},
    {"ptyxis", "org.gnome.Ptyxis"},
    {"ptyxis-agent", "org.gnome.Ptyxis"},
    {"konsole", "org.kde.konsole"},
    {"kitty", "kitty"},
    {"alacritty", "Alacritty"},
    {"wezterm-gui", "org.wezfurlong.wezterm"},
    {"wezterm-mux-server", "org.wezfurlong.wezterm"},
    {"ghostty", "com.mitchellh.ghostty"},
    {"foot", "foot"},
    {"footclient", "foot"},
    {"xterm", "xterm"},
    {"uxterm", "xterm"},
    {"tilix", "com.gexperts.Tilix"},
    {"terminator", "terminator"},
    {"warp", "dev.warp.Warp"},
    {"warp-terminal", "dev.warp.Warp"},
    {"xfce4-terminal", "xfce4-terminal"},
    {"urxvt", "rxvt-unicode"},
    {"code", "code"},
    {"code-insiders", "code-insiders"},
    {"codium", "codium"},
    {"cursor", "cursor"},
    {"windsurf", "windsurf"},
    {"zed", "dev.zed.Zed"},
    {"zed-editor", "dev.zed.Zed"},
    {"zeditor", "dev.zed.Zed"},
    {"idea", "jetbrains-idea"},
    {"pycharm", "jetbrains-pycharm"},
    {"goland", "jetbrains-goland"},
    {"webstorm", "jetbrains-webstorm"},
    {"clion", "jetbrains-clion"},
    {"rider", "jetbrains-rider"},
    {"phpstorm", "jetbrains-phpstorm"},
    {"rubymine", "jetbrains-rubymine"},
    {"datagrip", "jetbrains-datagrip"},
    {"rustrover", "jetbrains-rustrover"},
    {"dataspell", "jetbrains-dataspell"},
    {"studio", "android-studio"},
}};

// Display names of the JetBrains IDEs, by the part after "jetbrains-".
constexpr std::array<std::pair<std::string_view, std::string_view>, 11> kJetBrains = {{
    {"idea", "IntelliJ IDEA"},
    {"pycharm", "PyCharm"},
    {"goland", "GoLand"},
    {"webstorm", "WebStorm"},
    {"clion", "CLion"},
    {"rider", "Rider"},
    {"phpstorm", "PhpStorm"},
    {"rubymine", "RubyMine"},
    {"datagrip", "DataGrip"},
    {"rustrover", "RustRover"},
    {"dataspell", "DataSpell"},
}};

// Undoes systemd's unit-name escaping ("\x2d" for "-").
std::string unescape(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x' && std::isxdigit(static_cast<unsigned char>(s[i + 2])) &&
            std::isxdigit(static_cast<unsigned char>(s[i + 3]))) {
            out += static_cast<char>(std::stoi(std::string(s.substr(i + 2, 2)), nullptr, 16));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::string nameFromId(std::string_view id) {
    // "com.conductor.app" -> "Conductor": the last part that is not a generic word.
    std::vector<std::string_view> parts;
    size_t pos = 0;
    while (pos <= id.size()) {
        size_t dot = id.find('.', pos);
        if (dot == std::string_view::npos) dot = id.size();
        if (dot > pos) parts.push_back(id.substr(pos, dot - pos));
        pos = dot + 1;
    }
    std::string_view pick = id;
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
        if (*it == "app" || *it == "desktop" || *it == "Application" || *it == "App") continue;
        pick = *it;
        break;
    }
    std::string out(pick);
    if (!out.empty()) out[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(out[0])));
    return out;
}

}  // namespace

std::optional<std::string> forExecutable(std::string_view fileName) {
    for (const auto& [exe, id] : kExecutables) {
        if (exe == fileName) return std::string(id);
    }
    return std::nullopt;
}

std::optional<std::string> forLaunchUnit(std::string_view unit) {
    // app[-<launcher>]-<id>-<random>.scope and app[-<launcher>]-<id>[@<random>].service;
    // a "-" inside the id itself is escaped, so the plain dashes separate the parts.
    if (!unit.starts_with("app-")) return std::nullopt;
    std::string_view rest = unit.substr(4);
    if (rest.ends_with(".scope")) {
        rest.remove_suffix(6);
        size_t dash = rest.rfind('-');
        if (dash == std::string_view::npos) return std::nullopt;
        rest = rest.substr(0, dash);
    } else if (rest.ends_with(".service")) {
        rest.remove_suffix(8);
        if (size_t at = rest.find('@'); at != std::string_view::npos) rest = rest.substr(0, at);
    } else {
        return std::nullopt;
    }
    // A launcher prefix ("gnome-", "kde-", "flatpak-", "dbus-") goes before the id.
    if (size_t dash = rest.find('-'); dash != std::string_view::npos) rest = rest.substr(dash + 1);
    if (rest.empty()) return std::nullopt;
    std::string id = unescape(rest);
    if (id.ends_with(".desktop")) id.resize(id.size() - 8);
    return id;
}

std::optional<std::string> forDesktopFile(std::string_view path) {
    size_t slash = path.rfind('/');
    std::string_view file = slash == std::string_view::npos ? path : path.substr(slash + 1);
    if (!file.ends_with(".desktop") || file.size() <= 8) return std::nullopt;
    return std::string(file.substr(0, file.size() - 8));
}

const std::vector<LaunchHint>& launchHints() {
    static const std::vector<LaunchHint> hints = {
        {"GIO_LAUNCHED_DESKTOP_FILE", "GIO_LAUNCHED_DESKTOP_FILE_PID"},
        {"BAMF_DESKTOP_FILE_HINT", ""},
    };
    return hints;
}

Description describe(std::string_view appId) {
    // Snap names its desktop files "<snap>_<app>".
    std::string_view id = appId;
    if (size_t under = id.find('_'); under != std::string_view::npos && id.find('.') == std::string_view::npos)
        id = id.substr(under + 1);
    for (const auto& k : kKnown) {
        if (k.id == id) return {std::string(k.name), k.role};
    }
    for (std::string_view prefix : {"jetbrains-", "com.jetbrains."}) {
        if (!id.starts_with(prefix)) continue;
        std::string_view product = id.substr(prefix.size());
        for (const auto& [key, name] : kJetBrains) {
            if (product.starts_with(key)) return {std::string(name), Role::editor};
        }
        return {nameFromId(product.substr(0, product.find('-'))), Role::editor};
    }
    if (id == "android-studio") return {"Android Studio", Role::editor};
    return {nameFromId(id), Role::other};
}

}  // namespace Applications

struct ApplicationIdentifier::State {
    struct Entry {
        uint64_t startTicks = 0;
        std::optional<std::string> unit;
        bool unitRead = false;
        std::optional<std::string> hint;
        bool hintRead = false;
    };

    explicit State(ProcessTable& t) : table(t) {}

    Entry& entry(const ProcessInfo& process) {
        auto& e = entries[process.pid];
        if (e.startTicks != process.startTicks) {
            e = Entry();
            e.startTicks = process.startTicks;
        }
        return e;
    }

    std::optional<std::string> unitOf(const ProcessInfo& process) {
        auto& e = entry(process);
        if (!e.unitRead) {
            e.unit = table.launchUnit(process.pid);
            e.unitRead = true;
        }
        return e.unit;
    }

    std::optional<std::string> readHint(const ProcessInfo& process, const ProcessSnapshot& snapshot) {
        // A launcher's hint is inherited by every descendant, so it names the
        // process it was set for: the one its pid variable names, or else the
        // topmost process that carries it (its parent does not).
        std::vector<std::string> names;
        for (const auto& h : Applications::launchHints()) {
            names.push_back(h.fileVariable);
            if (!h.pidVariable.empty()) names.push_back(h.pidVariable);
        }
        auto env = table.environment(process.pid, names);
        if (env.empty()) return std::nullopt;
        std::optional<std::map<std::string, std::string>> parentEnv;
        for (const auto& h : Applications::launchHints()) {
            auto file = env.find(h.fileVariable);
            if (file == env.end()) continue;
            if (!h.pidVariable.empty()) {
                auto pid = env.find(h.pidVariable);
                if (pid != env.end()) {
                    if (pid->second == std::to_string(process.pid)) return Applications::forDesktopFile(file->second);
                    continue;
                }
            }
            if (!parentEnv) parentEnv = table.environment(process.ppid, names);
            auto inherited = parentEnv->find(h.fileVariable);
            if (inherited == parentEnv->end() || inherited->second != file->second || !snapshot.find(process.ppid))
                return Applications::forDesktopFile(file->second);
        }
        return std::nullopt;
    }

    std::optional<std::string> hintOf(const ProcessInfo& process, const ProcessSnapshot& snapshot) {
        if (auto& e = entry(process); e.hintRead) return e.hint;
        auto hint = readHint(process, snapshot);
        auto& e = entry(process);
        e.hint = hint;
        e.hintRead = true;
        return hint;
    }

    ProcessTable& table;
    std::unordered_map<int32_t, Entry> entries;
};

namespace {
std::string_view baseName(std::string_view path) {
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}
}  // namespace

ApplicationIdentifier::ApplicationIdentifier(ProcessTable& table) : state_(std::make_unique<State>(table)) {}
ApplicationIdentifier::~ApplicationIdentifier() = default;

std::optional<std::string> ApplicationIdentifier::applicationOf(const ProcessInfo& process,
                                                                const ProcessSnapshot& snapshot) {
    for (std::string_view name : {process.executable ? baseName(*process.executable) : std::string_view(),
                                  baseName(process.command), std::string_view(process.name)}) {
        if (name.empty()) continue;
        if (auto id = Applications::forExecutable(name)) return id;
    }
    if (process.pid <= 1) return std::nullopt;
    // The unit a launcher started the application in; its children share it,
    // so only the topmost process of the unit is the application itself.
    if (auto unit = state_->unitOf(process)) {
        if (auto id = Applications::forLaunchUnit(*unit)) {
            const ProcessInfo* parent = snapshot.find(process.ppid);
            if (!parent || parent->pid <= 1 || state_->unitOf(*parent) != *unit) return id;
        }
    }
    return std::nullopt;
}

std::optional<std::string> ApplicationIdentifier::launchedAs(const ProcessInfo& process,
                                                             const ProcessSnapshot& snapshot) {
    if (auto id = applicationOf(process, snapshot)) return id;
    return state_->hintOf(process, snapshot);
}

void ApplicationIdentifier::evict(const ProcessSnapshot& snapshot) {
    std::erase_if(state_->entries, [&](const auto& kv) {
        const ProcessInfo* p = snapshot.find(kv.first);
        return !p || p->startTicks != kv.second.startTicks;
    });
}

size_t ApplicationIdentifier::cachedPids() const { return state_->entries.size(); }

}  // namespace lumora
