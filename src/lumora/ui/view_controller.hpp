#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "lumora/ui/frame.hpp"
#include "lumora/ui/view_backend.hpp"
#include "lumora/ui/view_state.hpp"

namespace lumora::ui {

// A key of the terminal view, already told apart from the raw input.
enum class Key {
    up, down, pageUp, pageDown, home, end,
    expand,        // Enter
    jump,          // o: bring the session's terminal, pane or app to the front
    approve, deny, allowSession, allowAlways,
    help, quit,
    escape,        // closes the help
    other,
};

// Maps a curses key code (or a plain character) to a view key.
Key keyFromInput(int ch);

// The terminal view without the terminal: reads the backend, answers keys,
// decides sounds and timings, and renders frames. The ncurses front end only
// feeds it keys and sizes and paints what it returns; tests drive it directly.
class ViewController {
public:
    using SettingsSource = std::function<ViewSettings()>;
    using Clock = std::function<Date()>;

    ViewController(ViewBackend& backend, SettingsSource settings, Clock clock = {});
    ~ViewController();

    // Rereads the backend (call after its change callback). A new peek event
    // shows in the status line and, with sounds on, asks for the bell.
    void refresh();
    // Handles one key; returns false when the view should quit.
    bool handle(Key key);
    // The screen at this size, after dropping what has timed out.
    Frame frame(int width, int height);
    // True once after a sound became due (a completion or a needs-you).
    bool takeBell();
    // When the view must redraw next even if nothing happens (a timed line
    // ends, ages tick), so the front end can sleep until then.
    Date nextWake() const;

    const ViewState& state() const { return state_; }
    const ViewModel& model() const { return model_; }

private:
    void choose(ApprovalChoice::Kind kind);
    // Scrolls the opened row's long command by a line or a page; false when
    // it is not scrollable that way (the key then moves the selection).
    bool scrollCommand(int direction, bool page);
    void jump();
    void sawSelected();
    void note(std::string text, AgentStatus status, bool done = false);

    ViewBackend& backend_;
    SettingsSource settings_;
    Clock clock_;
    ViewModel model_;
    ViewState state_;
    long long lastPeekToken_ = -1;
    long long lastUsageToken_ = -1;
    long long lastNewsToken_ = 0;
    bool bell_ = false;
    int pageRows_ = 8;
    std::optional<ShownCommand> selectedCommand_;  // the selected row's command as the last frame drew it
    // Cleared when the controller goes, so a jump that ends later finds it gone.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// How often ages are brought up to date while nothing else changes.
inline constexpr auto kAgeTick = std::chrono::seconds(10);

}  // namespace lumora::ui
