#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// How Linux names the application of a process, for ApplicationIdentifier.
namespace lumora::Applications {

// The application whose own executable has this file name
// ("gnome-terminal-server" -> "org.gnome.Terminal"); nothing when unknown.
std::optional<std::string> forExecutable(std::string_view fileName);

// The application a launch unit was made for: "app-gnome-org.gnome.Terminal-1234.scope"
// and "app-org.kde.konsole@ab12.service" name theirs; other units name none.
std::optional<std::string> forLaunchUnit(std::string_view unit);

// The desktop id of a desktop file path ("/usr/share/applications/kitty.desktop" -> "kitty").
std::optional<std::string> forDesktopFile(std::string_view path);

// The environment variables a launcher leaves in the processes it starts:
// the variable naming the desktop file, and the one naming the pid it was
// set for (empty when the launcher sets none).
struct LaunchHint {
    std::string fileVariable;
    std::string pidVariable;
};
const std::vector<LaunchHint>& launchHints();

}  // namespace lumora::Applications
