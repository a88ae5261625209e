#include "lumora/ui/terminal_app.hpp"

#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "lumora/app/log.hpp"
#include "lumora/app/settings_store.hpp"
#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/view_controller.hpp"

namespace lumora::ui {

namespace {

volatile std::sig_atomic_t gQuitSignal = 0;

void onQuitSignal(int) { gQuitSignal = 1; }

// Catches the signals that should end the view cleanly (held gates answered,
// the terminal restored), and puts the old handlers back when it goes.
class QuitSignals {
public:
    QuitSignals() {
        gQuitSignal = 0;
        struct sigaction sa {};
        sa.sa_handler = onQuitSignal;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;  // no SA_RESTART: poll() must wake up
        for (size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &sa, &old_[i]);
    }
    ~QuitSignals() {
        for (size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &old_[i], nullptr);
    }

private:
    static constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};
    std::array<struct sigaction, 3> old_{};
};

// ncurses draws UTF-8 only under a UTF-8 locale.
void useUtf8Locale() {
    std::setlocale(LC_ALL, "");
    const char* codeset = nl_langinfo(CODESET);
    if (!codeset || std::strcmp(codeset, "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

bool noColourRequested() {
    const char* v = std::getenv("NO_COLOR");
    return v && *v;
}

// The nearest of the terminal's colours to an sRGB colour: the 6×6×6 cube or
// the grey ramp with 256 colours, the eight basic ones otherwise.
short nearestColour(Rgb c, int colours) {
    auto sq = [](double x) { return x * x; };
    if (colours >= 256) {
        auto level = [](double v) {
            int x = static_cast<int>(v * 255 + 0.5);
            return x < 48 ? 0 : x < 115 ? 1 : std::min(5, (x - 35) / 40);
        };
        static constexpr int kSteps[] = {0, 95, 135, 175, 215, 255};
        int r = level(c.r), g = level(c.g), b = level(c.b);
        double cubeDist = sq(kSteps[r] / 255.0 - c.r) + sq(kSteps[g] / 255.0 - c.g) + sq(kSteps[b] / 255.0 - c.b);
        double mean = (c.r + c.g + c.b) / 3;
        int grey = std::clamp(static_cast<int>((mean * 255 - 8) / 10 + 0.5), 0, 23);
        double gv = (8 + grey * 10) / 255.0;
        double greyDist = sq(gv - c.r) + sq(gv - c.g) + sq(gv - c.b);
        return static_cast<short>(greyDist < cubeDist ? 232 + grey : 16 + 36 * r + 6 * g + b);
    }
    struct Basic { short index; Rgb rgb; };
    static const Basic basics[] = {{COLOR_RED, {1, 0, 0}},    {COLOR_GREEN, {0, 1, 0}}, {COLOR_YELLOW, {1, 1, 0}},
                                   {COLOR_BLUE, {0, 0, 1}},   {COLOR_MAGENTA, {1, 0, 1}}, {COLOR_CYAN, {0, 1, 1}},
                                   {COLOR_WHITE, {1, 1, 1}}};
    short best = COLOR_WHITE;
    double bestDist = 1e9;
    for (const auto& b : basics) {
        double d = sq(b.rgb.r - c.r) + sq(b.rgb.g - c.g) + sq(b.rgb.b - c.b);
        if (d < bestDist) bestDist = d, best = b.index;
    }
    return best;
}

// The colour a role draws in; nothing for the terminal's own colour.
std::optional<Rgb> roleColour(Role r) {
    switch (r) {
        case Role::normal: case Role::keyName: return std::nullopt;
        case Role::muted: return colour(AgentStatus::idle);
        case Role::title: return Rgb{0.35, 0.78, 0.98};
        case Role::attention: case Role::badge: return colour(AgentStatus::attention);
        case Role::working: case Role::header: return colour(AgentStatus::working);
        case Role::waiting: return colour(AgentStatus::waiting);
        case Role::idle: return colour(AgentStatus::idle);
        case Role::alert: return Rgb{0.93, 0.16, 0.16};
        case Role::keyLabel: return Rgb{0.35, 0.78, 0.98};
        case Role::claudeCode: return scrivet::accent(HarnessProvider::claudeCode);
        case Role::cursor: return scrivet::accent(HarnessProvider::cursor);
        case Role::codex: return scrivet::accent(HarnessProvider::codex);
        case Role::kimi: return scrivet::accent(HarnessProvider::kimi);
        case Role::opencode: return scrivet::accent(HarnessProvider::opencode);
    }
    return std::nullopt;
}

// Paints frames with ncurses: colour pairs per role (and per selected row
// when the terminal has 256 colours), attributes alone without colours.
class Painter {
public:
    void setUp() {
        colours_ = has_colors() && !noColourRequested();
        if (!colours_) return;
        start_color();
        use_default_colors();
        int n = COLORS;
        selectionBg_ = n >= 256 ? 237 : -1;
        for (int r = 0; r < kRoleCount; ++r) {
            auto rgb = roleColour(static_cast<Role>(r));
            short fg = rgb ? nearestColour(*rgb, n) : -1;
            init_pair(static_cast<short>(pairFor(static_cast<Role>(r), false)), fg, -1);
            if (selectionBg_ >= 0) init_pair(static_cast<short>(pairFor(static_cast<Role>(r), true)), fg, selectionBg_);
        }
    }

    void paint(const Frame& f) {
        erase();
        for (int y = 0; y < static_cast<int>(f.lines.size()) && y < f.height; ++y) {
            const Line& line = f.lines[static_cast<size_t>(y)];
            move(y, 0);
            for (const auto& span : line.spans) {
                attrset(attributes(span.style, line.selected));
                addstr(span.text.c_str());
            }
        }
        attrset(A_NORMAL);
        refresh();
    }

private:
    static int pairFor(Role r, bool selected) { return 1 + static_cast<int>(r) * 2 + (selected ? 1 : 0); }

    attr_t attributes(const Style& s, bool selectedLine) const {
        attr_t a = A_NORMAL;
        if (s.bold) a |= A_BOLD;
        if (s.reverse) a |= A_REVERSE;
        if (colours_) {
            bool sel = selectedLine && selectionBg_ >= 0;
            a |= COLOR_PAIR(pairFor(s.role, sel));
            if (selectedLine && selectionBg_ < 0) a |= A_REVERSE;
            if (s.dim) a |= A_DIM;
        } else {
            // No colours: the labels carry the meaning; attributes keep the emphasis.
            if (s.role == Role::muted || s.role == Role::idle || s.dim) a |= A_DIM;
            if (s.role == Role::attention || s.role == Role::alert || s.role == Role::title) a |= A_BOLD;
            if (s.role == Role::header) a |= A_REVERSE;
            if (selectedLine) a |= A_REVERSE;
        }
        return a;
    }

    bool colours_ = false;
    short selectionBg_ = -1;
};

int millisUntil(Date when) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when - std::chrono::system_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(ms + 1, 0, 60 * 60 * 1000));
}

}  // namespace

bool terminalAvailable() { return ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO); }

int runTerminalView(ViewBackend& backend, const TerminalViewOptions& options) {
    if (!terminalAvailable()) {
        std::cerr << "lumora: the terminal view needs a terminal\n";
        return 1;
    }
    RunLoop& loop = options.loop ? *options.loop : RunLoop::main();
    auto settings = options.settings ? options.settings : [] { return ViewSettings::from(SettingsStore::shared()); };

    useUtf8Locale();
    QuitSignals signals;
    SCREEN* screen = newterm(nullptr, stdout, stdin);
    if (!screen) {
        std::cerr << "lumora: cannot open the terminal (TERM=" << (std::getenv("TERM") ? std::getenv("TERM") : "")
                  << ")\n";
        return 1;
    }
    set_term(screen);
    set_escdelay(25);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    Painter painter;
    painter.setUp();

    ViewController view(backend, settings);
    bool changed = false;
    backend.setOnChange([&] { changed = true; });

    Frame shown;
    bool dirty = true, quit = false;
    while (!quit) {
        if (changed) {
            changed = false;
            view.refresh();
            dirty = true;
        }
        if (dirty) {
            dirty = false;
            Frame f = view.frame(COLS, LINES);
            if (f != shown) {
                painter.paint(f);
                shown = std::move(f);
            }
            if (view.takeBell()) beep();
        }

        int timeout = millisUntil(view.nextWake());
        if (auto due = loop.nextDeadline()) {
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(*due - RunLoop::Clock::now()).count();
            timeout = std::min<int>(timeout, static_cast<int>(std::max<long long>(0, ms + 1)));
        }
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {loop.wakeFd(), POLLIN, 0}};
        int ready = ::poll(fds, loop.wakeFd() >= 0 ? 2 : 1, timeout);
        if (gQuitSignal) break;
        if (ready == 0) dirty = true;  // a timed redraw: ages, notes and the frozen order move on
        if (ready > 0 && (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL))) break;  // the terminal went away
        // Keys (and KEY_RESIZE after SIGWINCH interrupted the poll).
        for (int ch; !quit && (ch = getch()) != ERR;) {
            dirty = true;
            if (ch == KEY_RESIZE) {
                shown = Frame{};
                clearok(curscr, TRUE);
                continue;
            }
            if (!view.handle(keyFromInput(ch))) quit = true;
        }
        loop.runOnce();
    }

    if (options.onQuit) options.onQuit();
    loop.runOnce();  // let what quitting posted run while the backend still listens
    backend.setOnChange(nullptr);
    endwin();
    delscreen(screen);
    return 0;
}

std::string plainSnapshot(ViewBackend& backend, const ViewSettings& settings, int width) {
    ViewSettings all = settings;
    auto count = static_cast<int>(backend.instances().size());
    all.visibleRowLimit = std::max(all.visibleRowLimit, count);
    ViewController view(backend, [all] { return all; });
    Frame f = view.frame(width, 4 + count * 6 + 8);
    f.lines.resize(f.lines.size() - 2);  // no status line or key bar on paper
    std::string text = f.text();
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text + "\n";
}

int runDemo() {
    Log::silence();
    DemoBackend backend;
    if (!terminalAvailable()) {
        useUtf8Locale();
        std::cout << plainSnapshot(backend, ViewSettings::from(SettingsStore::shared()));
        return 0;
    }
    backend.start(RunLoop::main());
    return runTerminalView(backend);
}

}  // namespace lumora::ui
