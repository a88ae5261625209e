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

#include "lumora/base/log.hpp"
#include "lumora/ui/curses_painter.hpp"
#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/view_controller.hpp"

namespace lumora::ui {

namespace {

volatile std::sig_atomic_t gQuitSignal = 0;
volatile std::sig_atomic_t gSuspendSignal = 0;

void onQuitSignal(int) { gQuitSignal = 1; }
void onSuspendSignal(int) { gSuspendSignal = 1; }

// Catches the signals that should end the view cleanly (held gates answered,
// the terminal restored), and puts the old handlers back when it goes.
class QuitSignals {
public:
    QuitSignals() {
        gQuitSignal = 0;
        gSuspendSignal = 0;
        struct sigaction sa {};
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;  // no SA_RESTART: poll() must wake up
        for (size_t i = 0; i < kSignals.size(); ++i) {
            // Installed before the screen opens, so ncurses leaves Ctrl-Z to us.
            sa.sa_handler = kSignals[i] == SIGTSTP ? onSuspendSignal : onQuitSignal;
            ::sigaction(kSignals[i], &sa, &old_[i]);
        }
    }
    ~QuitSignals() {
        for (size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &old_[i], nullptr);
    }

private:
    static constexpr std::array<int, 4> kSignals = {SIGINT, SIGTERM, SIGHUP, SIGTSTP};
    std::array<struct sigaction, 4> old_{};
};

// ncurses draws UTF-8 only under a UTF-8 locale.
void useUtf8Locale() {
    std::setlocale(LC_ALL, "");
    const char* codeset = nl_langinfo(CODESET);
    if (!codeset || std::strcmp(codeset, "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

int millisUntil(Date when) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when - std::chrono::system_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(ms + 1, 0, 60 * 60 * 1000));
}

}  // namespace

bool quitBySignal() { return gQuitSignal != 0; }

bool terminalAvailable() { return ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO); }

int runTerminalView(ViewBackend& backend, const TerminalViewOptions& options) {
    if (!terminalAvailable()) {
        std::cerr << "lumora: the terminal view needs a terminal\n";
        return 1;
    }
    RunLoop& loop = options.loop ? *options.loop : RunLoop::main();
    auto settings = options.settings ? options.settings : [] { return ViewSettings{}; };

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
    CursesPainter painter;
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
        if (gSuspendSignal) {
            gSuspendSignal = 0;
            if (options.onSuspend) options.onSuspend();
            endwin();
            // SIGSTOP stops us even where a terminal stop would be ignored (an orphaned process group).
            ::raise(SIGSTOP);
            // Continued (SIGCONT).
            if (options.onResume) options.onResume();
            loop.runOnce();  // what the suspension released lands before the first frame
            shown = Frame{};
            clearok(curscr, TRUE);
            changed = dirty = true;
            continue;
        }
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
        // Posted work may change what is shown (a jump's outcome in the status line).
        if (loop.runOnce() > 0) dirty = true;
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

int runDemo(const std::function<ViewSettings()>& settings) {
    Log::silence();
    DemoBackend backend;
    if (!terminalAvailable()) {
        std::cout << plainSnapshot(backend, settings());
        return 0;
    }
    backend.start(RunLoop::main());
    TerminalViewOptions options;
    options.settings = settings;
    return runTerminalView(backend, options);
}

}  // namespace lumora::ui
