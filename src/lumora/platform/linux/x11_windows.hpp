#pragma once

#include <chrono>

#include "lumora/platform/desktop_focus.hpp"

// Raising top-level windows on an X server through XCB. libxcb is loaded
// when first needed, so the program runs where it is missing or where there
// is no display at all; a missing library, a display that cannot be opened
// and a server that does not answer in time each end the attempt with a line.
namespace lumora::X11Windows {

enum class Pick { byPid, byTitle, byClass };

DesktopFocus::Outcome raise(const DesktopFocus::WindowQuery& query, Pick pick,
                            std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));

}  // namespace lumora::X11Windows
