#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the platform knows about desktop applications: which application a
// process is, and what kind of application an identifier names. On Linux an
// application is named by its desktop id ("org.gnome.Terminal"); the facts
// come from the executable's name, the unit the session manager launched it
// in, and the launch hints in its environment.
namespace lumora::Applications {

enum class Role { terminal, editor, other };

struct Description {
    std::string name;  // shown to the user ("GNOME Terminal")
    Role role = Role::other;
    bool operator==(const Description&) const = default;
};

// The application whose own executable has this file name
// ("gnome-terminal-server" -> "org.gnome.Terminal"); nothing when unknown.
std::optional<std::string> forExecutable(std::string_view fileName);

// The application a launch unit was made for: "app-gnome-org.gnome.Terminal-1234.scope"
// and "app-org.kde.konsole@ab12.service" name theirs; other units name none.
std::optional<std::string> forLaunchUnit(std::string_view unit);

// The desktop id of a desktop file path ("/usr/share/applications/kitty.desktop" -> "kitty").
std::optional<std::string> forDesktopFile(std::string_view path);

// The environment variables a launcher leaves in the processes it starts.
// Each hint is a pair: the variable naming the desktop file, and the variable
// naming the pid it was set for (empty when the launcher sets none).
struct LaunchHint {
    std::string fileVariable;
    std::string pidVariable;
};
const std::vector<LaunchHint>& launchHints();

// The name and role of an application; an unknown id gets a name made from it.
Description describe(std::string_view appId);

}  // namespace lumora::Applications
