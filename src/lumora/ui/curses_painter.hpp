#pragma once

#include "lumora/ui/frame.hpp"

namespace lumora::ui {

// Paints frames on the current ncurses screen: a colour pair per role (and
// per role on the selected row's background when the terminal has 256
// colours), attributes alone when it has no colours or NO_COLOR is set.
class CursesPainter {
public:
    // Sets up the colour pairs; call once after the screen is opened.
    void setUp();
    // Draws `frame` and refreshes; ncurses sends only the cells that changed.
    void paint(const Frame& frame);
    bool colours() const { return colours_; }

private:
    int attributes(const Style& s, bool selectedLine) const;

    bool colours_ = false;
    short selectionBg_ = -1;
};

// True when the NO_COLOR environment variable asks for no colours.
bool noColourRequested();

}  // namespace lumora::ui
