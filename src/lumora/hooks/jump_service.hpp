#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/platform/applications.hpp"
#include "lumora/platform/desktop_focus.hpp"
#include "lumora/platform/process_table.hpp"
#include "scrivet/harness_provider.hpp"

// Bringing the user to the place where a session runs. The route is chosen
// from the session's host and falls down a ladder of ever coarser routes:
// a deep link first; then the exact pane (herdr, tmux, screen) or terminal
// window (kitty, WezTerm) the host allows; then the host's own top-level
// window, by the process that owns it, then by its title; and last plain
// activation of the hosting application. Every route taken adds one line to
// the result, so that a wrong landing can be diagnosed.
//
// The choice (`plan`) is a pure function of the session and the facts
// gathered about it; the routes themselves run through the desktop
// (DesktopFocus), the multiplexers' command lines and herdr's socket.
namespace lumora::JumpService {

enum class HostKind { terminal, ide, app };

// The session to jump to, as its row knows it.
struct Target {
    std::string sessionId;
    scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
    std::optional<int32_t> pid;
    std::string cwd;
    std::string title;        // the row's title (the project's name)
    bool activeTurn = false;  // working or waiting
    bool cowork = false;
    std::optional<HostKind> hostKind;
    std::string hostName;
    std::optional<std::string> hostAppId;
    bool demo = false;  // a demonstration row: never opens anything real
    bool operator==(const Target&) const = default;
};

// The link that opens the session in its host application, if it has one:
// "talvik://chat?session=<id>&cwd=<dir>" for a row hosted by the Talvik app
// (any provider, idle included; "talvik://chat?cwd=<dir>" with only a
// fallback id), "codex://threads/<id>" for a working or waiting row of the
// Codex desktop app whose id is a version-7 UUID. Demo rows get none.
std::optional<std::string> deeplinkURL(const Target& target);

// One process of the session's ancestry.
struct Ancestor {
    int32_t pid = 0;
    std::string program;  // argv[0]'s base name
    std::string name;     // the kernel's name ("tmux: server")
    std::optional<std::string> appId;  // the application it is, when it is one
    bool operator==(const Ancestor&) const = default;
};

// What the jump found out before choosing.
struct Facts {
    std::vector<Ancestor> lineage;                   // the session's process first; empty when it is gone
    std::map<std::string, std::string> environment;  // its variables among environmentNames()
    DesktopFocus::Session session = DesktopFocus::Session::none;
    std::vector<std::filesystem::path> herdrSockets;
    bool linkHandled = false;  // an application handles the deep link's scheme
    bool operator==(const Facts&) const = default;
};

// The variables of the session's process that tell where it runs.
const std::vector<std::string>& environmentNames();

// Routes inside the host: multiplexer panes.
enum class Inner { herdr, tmux, screen, zellij };
// Terminals whose own remote control focuses the session's window.
enum class Remote { none, kitty, wezterm };

// The host's top-level window.
struct Window {
    std::string appName;
    std::optional<std::string> appId;
    HostKind kind = HostKind::terminal;
    std::vector<int32_t> pids;  // the application's processes in the ancestry
    int32_t childPid = 0;       // the ancestor just below the application (a kitty window's process)
    std::vector<std::string> titleWords;
    std::vector<std::string> classWords;
    bool operator==(const Window&) const = default;
};

struct Plan {
    std::optional<std::string> deepLink;
    std::vector<Inner> inner;  // tried in order until one lands
    Remote remote = Remote::none;
    std::optional<Window> window;
    bool mayLaunch = false;  // the application has no process of the session: start it when no window is found
    bool noOp = false;       // nothing after the deep link
    std::vector<std::string> lines;  // what the choice itself logs
    bool operator==(const Plan&) const = default;
};

// Chooses the routes. Pure.
Plan plan(const Target& target, const Facts& facts);

// The host window of an ancestry: the nearest ancestor that is an
// application, with that application's further ancestors; nothing when none is.
std::optional<Window> windowOf(const std::vector<Ancestor>& lineage, const Target& target);

// Reads the facts: the process's ancestry and variables, the desktop
// session, herdr's sockets, and whether the deep link has a handler.
Facts gather(const Target& target, ProcessTable& table, ApplicationIdentifier& apps, DesktopFocus& desktop);

struct Result {
    bool landed = false;
    std::vector<std::string> lines;  // one per route taken
};

// Gathers, chooses and runs the routes. Every line is also written to the log.
Result jump(const Target& target, ProcessTable& table, DesktopFocus& desktop);
// The same on this machine.
Result jump(const Target& target);

}  // namespace lumora::JumpService
