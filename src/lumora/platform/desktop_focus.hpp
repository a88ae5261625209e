#pragma once

#include <string>
#include <vector>

// What a jump to a session asks of the desktop: raising a window or an
// application to the front, and opening links with their registered
// handlers. Every call is bounded in time and never throws; what it did is
// told in one line for the log. Linux implements it over X11 (also under
// XWayland) and the freedesktop link handlers, in platform/linux/.
namespace lumora {

class DesktopFocus {
public:
    // The kind of graphical session this process runs in.
    enum class Session {
        x11,       // an X server (DISPLAY only)
        xwayland,  // a Wayland compositor with an X server beside it
        wayland,   // a Wayland compositor and no X server: windows cannot be raised from outside
        none,      // no display at all
    };

    // What one attempt did.
    struct Outcome {
        bool landed = false;
        std::string line;  // one line for the log, whatever happened
        bool operator==(const Outcome&) const = default;
    };

    // Which top-level windows an attempt may pick.
    struct WindowQuery {
        std::string appName;                  // for the log lines
        std::vector<int32_t> pids;            // by _NET_WM_PID
        std::vector<std::string> titleWords;  // by title (any of them, ignoring case)
        std::vector<std::string> classWords;  // by WM_CLASS (any of them, ignoring case)
        bool operator==(const WindowQuery&) const = default;
    };

    virtual ~DesktopFocus() = default;

    virtual Session session() = 0;
    // Raises, un-minimises and activates a window whose _NET_WM_PID is one of
    // `query.pids`; among several, one whose title holds a title word.
    virtual Outcome raiseByPid(const WindowQuery& query) = 0;
    // The same for a window whose title holds a title word and, when class
    // words are given, whose class holds one of them.
    virtual Outcome raiseByTitle(const WindowQuery& query) = 0;
    // The same for any window whose class holds a class word.
    virtual Outcome activate(const WindowQuery& query) = 0;
    // Starts the application with this id (a desktop id on Linux).
    virtual Outcome launch(const std::string& appId) = 0;
    // True when an installed application handles links of `scheme` ("codex").
    virtual bool handlesScheme(const std::string& scheme) = 0;
    // Opens `url` with its handler.
    virtual Outcome openURL(const std::string& url) = 0;

    // This desktop.
    static DesktopFocus& system();
};

}  // namespace lumora
