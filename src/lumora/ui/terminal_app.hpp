#pragma once

#include <functional>
#include <string>

#include "lumora/base/run_loop.hpp"
#include "lumora/ui/view_backend.hpp"
#include "lumora/ui/view_state.hpp"

// The full-screen terminal view (ncurses) over any ViewBackend.
namespace lumora::ui {

struct TerminalViewOptions {
    // The settings to draw with; read again on every change. Defaults to
    // ViewSettings' own defaults.
    std::function<ViewSettings()> settings;
    // Runs when the user quits, while the screen is still up and before the
    // loop stops: the place to answer held gates and save state.
    std::function<void()> onQuit;
    // Run when the user puts the view in the background (Ctrl-Z), before the
    // process stops: the place to hand held prompts back and stop listening,
    // so nothing waits on a stopped process. onResume runs when it continues.
    std::function<void()> onSuspend;
    std::function<void()> onResume;
    // The loop whose posted tasks and timers run while the view waits for
    // keys. Defaults to RunLoop::main().
    RunLoop* loop = nullptr;
};

// True when standard input and output are both terminals, so the view can run.
bool terminalAvailable();

// Runs the view until the user quits (q, Ctrl-C, a closed terminal) and
// returns the exit code: 0 after a clean quit, 1 when there is no terminal.
// Sleeps in poll() on the terminal and the loop's wake-up descriptor until a
// key, a posted task, a timer or the next timed redraw, so an unchanging
// screen costs no processor time. Logging must already go somewhere other
// than the terminal (Log::toFile).
int runTerminalView(ViewBackend& backend, const TerminalViewOptions& options = {});

// True when the running (or last) view is ending because of a stop signal
// (SIGINT, SIGTERM, SIGHUP) rather than a key or a closed terminal; onQuit
// may ask it, to keep a signal's stop short.
bool quitBySignal();

// The view drawn once as plain text, `width` columns wide, for when there is
// no terminal to draw on.
std::string plainSnapshot(ViewBackend& backend, const ViewSettings& settings, int width = 100);

// `lumora --demo`: the view over DemoBackend's scripted sessions, drawn
// with `settings`; a plain snapshot when there is no terminal.
int runDemo(const std::function<ViewSettings()>& settings);

}  // namespace lumora::ui
