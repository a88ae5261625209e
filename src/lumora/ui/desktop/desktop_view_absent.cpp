// The build without Qt 6 Widgets: the desktop front end is left out and says so.
#include <cstdlib>
#include <iostream>

#include "lumora/ui/desktop/desktop_view.hpp"

namespace lumora::ui {

bool desktopBuilt() { return false; }

bool displayAvailable() {
    auto set = [](const char* name) {
        const char* v = std::getenv(name);
        return v && *v;
    };
    return set("DISPLAY") || set("WAYLAND_DISPLAY");
}

int runDesktopView(ViewBackend&, const DesktopViewOptions&) {
    std::cerr << "lumora: this build has no desktop front end (Qt 6 Widgets was not found when it was built)\n";
    return 1;
}

int runDesktopDemo(const DesktopViewOptions& options) {
    std::cerr << "lumora: this build has no desktop front end (Qt 6 Widgets was not found when it was built)\n";
    return 1;
}

}  // namespace lumora::ui
