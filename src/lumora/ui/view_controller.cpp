#include "lumora/ui/view_controller.hpp"

#include <curses.h>

#include <algorithm>

#include "lumora/ui/view_renderer.hpp"

namespace lumora::ui {

Key keyFromInput(int ch) {
    switch (ch) {
        case KEY_UP: case 'k': return Key::up;
        case KEY_DOWN: case 'j': return Key::down;
        case KEY_PPAGE: return Key::pageUp;
        case KEY_NPAGE: case ' ': return Key::pageDown;
        case KEY_HOME: case 'g': return Key::home;
        case KEY_END: case 'G': return Key::end;
        case KEY_ENTER: case '\n': case '\r': return Key::expand;
        case 'o': return Key::jump;
        case 'a': return Key::approve;
        case 'd': return Key::deny;
        case 's': return Key::allowSession;
        case 'A': return Key::allowAlways;
        case '?': case KEY_F(1): case 'h': return Key::help;
        case 'q': case 'Q': case KEY_F(10): return Key::quit;
        case 27: return Key::escape;
        default: return Key::other;
    }
}

ViewController::ViewController(ViewBackend& backend, SettingsSource settings, Clock clock)
    : backend_(backend), settings_(std::move(settings)), clock_(std::move(clock)) {
    if (!clock_) clock_ = [] { return std::chrono::system_clock::now(); };
    refresh();
}

ViewController::~ViewController() { *alive_ = false; }

void ViewController::refresh() {
    model_ = ViewModel::read(backend_, settings_ ? settings_() : ViewSettings{}, clock_());
    pageRows_ = std::max(1, model_.settings.visibleRowLimit);
    if (model_.peek) {
        // A peek that was there before the view opened is old news.
        if (lastPeekToken_ >= 0 && model_.peek->token != lastPeekToken_) {
            const auto& p = *model_.peek;
            std::string who = p.projectName.empty() ? std::string(scrivet::displayName(p.provider)) : p.projectName;
            note(who + ": " + p.ask, p.done ? AgentStatus::waiting : AgentStatus::attention, p.done);
            if (model_.settings.soundEnabled && p.chimes) bell_ = true;
        }
        lastPeekToken_ = model_.peek->token;
    } else if (lastPeekToken_ < 0) {
        lastPeekToken_ = 0;
    }
    // A quota alert shows the same way; one raised before the view opened is old news too.
    long long usageToken = model_.usageAlert ? model_.usageAlert->token : 0;
    if (lastUsageToken_ >= 0 && model_.usageAlert && usageToken != lastUsageToken_) {
        const auto& u = *model_.usageAlert;
        note(std::string(scrivet::displayName(u.provider)) + ": " + u.text, AgentStatus::waiting);
        state_.note->quota = true;
        if (model_.settings.soundEnabled) bell_ = true;
    }
    lastUsageToken_ = usageToken;
    if (auto news = backend_.news(); news && news->token != lastNewsToken_) {
        lastNewsToken_ = news->token;
        note(news->text, AgentStatus::waiting);
    }
    ViewNav::reconcile(state_, ViewNav::rows(model_, state_));
}

void ViewController::note(std::string text, AgentStatus status, bool done) {
    state_.note = StatusNote{std::move(text), status, done, model_.now + kPeekShown};
}

void ViewController::sawSelected() {
    auto rows = ViewNav::rows(model_, state_);
    if (const auto* a = ViewNav::selected(state_, rows)) {
        bool worthTelling = (a->status == AgentStatus::attention && !model_.acknowledged.count(a->id)) ||
                            model_.unseen.count(a->id);
        if (worthTelling) backend_.sawRow(a->id);
    }
}

bool ViewController::scrollCommand(int direction, bool page) {
    if (!state_.expanded || !selectedCommand_ || selectedCommand_->sessionId != state_.selectedId) return false;
    auto& c = *selectedCommand_;
    int last = c.lines - c.window;  // the top that shows the end
    if (last <= 0 || (direction > 0 && c.top >= last) || (direction < 0 && c.top <= 0)) return false;
    // A page moves by exactly the lines drawn, so none is skipped.
    c.top = std::clamp(c.top + direction * (page ? c.window : 1), 0, last);
    state_.commandTop = c.top;
    ViewNav::freeze(state_, model_);
    return true;
}

bool ViewController::handle(Key key) {
    model_.now = clock_();
    if (state_.helpShown && key != Key::quit) {
        // Any key closes the help.
        state_.helpShown = false;
        return true;
    }
    auto selectedBefore = state_.selectedId;
    switch (key) {
        case Key::quit: return false;
        case Key::help: state_.helpShown = true; return true;
        case Key::up:
            if (!scrollCommand(-1, false)) ViewNav::move(state_, model_, -1);
            break;
        case Key::down:
            if (!scrollCommand(1, false)) ViewNav::move(state_, model_, 1);
            break;
        case Key::pageUp:
            if (!scrollCommand(-1, true)) ViewNav::move(state_, model_, -pageRows_);
            break;
        case Key::pageDown:
            if (!scrollCommand(1, true)) ViewNav::move(state_, model_, pageRows_);
            break;
        case Key::home: ViewNav::moveToEnd(state_, model_, false); break;
        case Key::end: ViewNav::moveToEnd(state_, model_, true); break;
        case Key::expand:
            ViewNav::freeze(state_, model_);
            state_.expanded = !state_.expanded;
            state_.commandTop = 0;
            break;
        case Key::jump: jump(); break;
        case Key::approve: choose(ApprovalChoice::Kind::approve); break;
        case Key::deny: choose(ApprovalChoice::Kind::deny); break;
        case Key::allowSession: choose(ApprovalChoice::Kind::allowSession); break;
        case Key::allowAlways: choose(ApprovalChoice::Kind::allowAlways); break;
        case Key::escape: state_.expanded = false; return true;
        case Key::other: return true;
    }
    if (state_.selectedId != selectedBefore) {
        state_.commandTop = 0;
        selectedCommand_.reset();
    }
    sawSelected();
    return true;
}

void ViewController::choose(ApprovalChoice::Kind kind) {
    auto rows = ViewNav::rows(model_, state_);
    const auto* a = ViewNav::selected(state_, rows);
    if (!a || !a->approval) {
        note("Nothing to approve on this row", AgentStatus::idle);
        return;
    }
    auto request = *a->approval;
    std::string project = a->projectName;
    auto it = model_.choices.find(a->id);
    bool offered = it != model_.choices.end() &&
                   std::any_of(it->second.begin(), it->second.end(), [&](const ApprovalChoice& c) { return c.kind == kind; });
    if (!offered) {
        if (!request.approvable || it == model_.choices.end() || it->second.empty())
            note("Answer this one in " + project + "'s own prompt", AgentStatus::idle);
        else
            note("That choice is not offered for this request", AgentStatus::idle);
        return;
    }
    if (kind != ApprovalChoice::Kind::deny && !ViewNav::wholeCommandSeen(state_, a->id, request)) {
        note("See the whole command before approving it: ⏎ shows it", AgentStatus::idle);
        return;
    }
    ViewNav::freeze(state_, model_);
    auto confirmation = backend_.choose(request, kind);
    if (confirmation) {
        state_.confirmations[a->id] = Confirmation{*confirmation, model_.now + kConfirmationShown};
    } else {
        bool deny = kind == ApprovalChoice::Kind::deny;
        note(std::string(deny ? "Denied" : "Approved") + " · " + project, deny ? AgentStatus::attention : AgentStatus::working,
             !deny);
    }
    refresh();
}

void ViewController::jump() {
    auto rows = ViewNav::rows(model_, state_);
    const auto* a = ViewNav::selected(state_, rows);
    if (!a) {
        note("No session to jump to", AgentStatus::idle);
        return;
    }
    std::string project = a->projectName;
    note("Jumping to " + project + "…", AgentStatus::working);
    std::weak_ptr<bool> alive = alive_;
    backend_.jump(*a, [this, alive, project](std::vector<std::string> lines) {
        auto still = alive.lock();
        if (!still || !*still) return;
        model_.now = clock_();
        note(lines.empty() ? "Jumped to " + project : project + ": " + lines.back(), AgentStatus::idle);
    });
}

Frame ViewController::frame(int width, int height) {
    model_.now = clock_();
    ViewNav::expire(state_, model_.now);
    auto rows = ViewNav::rows(model_, state_);
    ViewNav::reconcile(state_, rows);
    // Another prompt on the opened row starts at its first line.
    if (selectedCommand_) {
        const auto* a = ViewNav::selected(state_, rows);
        if (!a || !a->approval || a->id != selectedCommand_->sessionId || a->approval->gateId != selectedCommand_->gateId ||
            a->approval->detail.value_or("") != selectedCommand_->detail)
            state_.commandTop = 0;
    }
    Frame f = ViewRenderer::render(model_, state_, width, height);
    state_.scrollTop = f.scrollTop;
    // What this frame shows has been seen; when that completes a command, its
    // buttons are drawn on this same frame.
    if (ViewNav::noteShown(state_, f, model_.instances)) {
        f = ViewRenderer::render(model_, state_, width, height);
        state_.scrollTop = f.scrollTop;
        ViewNav::noteShown(state_, f, model_.instances);
    }
    selectedCommand_.reset();
    for (const auto& c : f.commands) {
        if (state_.selectedId && c.sessionId == *state_.selectedId) selectedCommand_ = c;
    }
    return f;
}

bool ViewController::takeBell() { return std::exchange(bell_, false); }

Date ViewController::nextWake() const {
    Date wake = clock_() + kAgeTick;
    if (auto d = ViewNav::nextDeadline(state_)) wake = std::min(wake, *d);
    return wake;
}

}  // namespace lumora::ui
