#include "lumora/ui/desktop/desktop_view.hpp"

#include <QApplication>
#include <QGuiApplication>
#include <QScreen>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include <spdlog/spdlog.h>
#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/desktop/desktop_parts.hpp"

namespace lumora::ui {

namespace {

int gSignalPipe[2] = {-1, -1};
std::atomic<bool> gRunning{false};
std::function<void()>* gOnDisplayLost = nullptr;

void onStopSignal(int sig) {
    unsigned char s = static_cast<unsigned char>(sig);
    [[maybe_unused]] auto n = ::write(gSignalPipe[1], &s, 1);
}

// The window system's library ends the process when the display goes away
// (the X server dies). What it leaves us is this: say so and hand held
// prompts back before the process is gone, so no agent waits on us.
void atProcessExit() {
    if (!gRunning.exchange(false)) return;
    std::cerr << "lumora: the display went away; held prompts go back to the agents\n";
    if (gOnDisplayLost && *gOnDisplayLost) (*gOnDisplayLost)();
}

}  // namespace

bool desktopBuilt() { return true; }

bool displayAvailable() {
    auto set = [](const char* name) {
        const char* v = std::getenv(name);
        return v && *v;
    };
    return set("DISPLAY") || set("WAYLAND_DISPLAY");
}

int runDesktopView(ViewBackend& backend, const DesktopViewOptions& options) {
    if (!displayAvailable()) {
        std::cerr << "lumora: no display to show the pill on (DISPLAY and WAYLAND_DISPLAY are not set)\n";
        return 1;
    }
    // Placing a window at the top of a screen is the X11 way; on a Wayland
    // session XWayland does it, on pure Wayland the compositor decides.
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    if (!platform || !*platform) {
        if (std::getenv("DISPLAY") && *std::getenv("DISPLAY")) {
            ::setenv("QT_QPA_PLATFORM", "xcb", 1);
        } else {
            spdlog::info("desktop: pure Wayland session; the compositor places the pill");
        }
    }
    RunLoop& loop = options.loop ? *options.loop : RunLoop::main();

    static int argc = 1;
    static char name[] = "lumora";
    static char* argv[] = {name, nullptr};
    QApplication::setDesktopSettingsAware(true);
    QApplication qapp(argc, argv);
    if (QGuiApplication::screens().isEmpty()) {
        std::cerr << "lumora: the display has no screens\n";
        return 1;
    }
    QApplication::setApplicationName("Lumora");
    QApplication::setQuitOnLastWindowClosed(false);
    desktop::Trace::install();

    // The main run loop beside Qt's: its wake-up descriptor and its next timer.
    QTimer due;
    due.setSingleShot(true);
    auto rearm = [&] {
        if (auto at = loop.nextDeadline()) {
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(*at - RunLoop::Clock::now()).count();
            due.start(static_cast<int>(std::clamp<long long>(ms + 1, 0, 24LL * 3600 * 1000)));
        } else {
            due.stop();
        }
    };
    auto pump = [&] {
        loop.runOnce();
        rearm();
    };
    QSocketNotifier wake(loop.wakeFd(), QSocketNotifier::Read);
    QObject::connect(&wake, &QSocketNotifier::activated, pump);
    QObject::connect(&due, &QTimer::timeout, pump);

    // Stop stopNotifier end the view cleanly through the same pipe trick.
    bool quitting = false;
    auto quit = [&] {
        if (quitting) return;
        quitting = true;
        gRunning = false;
        if (options.onQuit) options.onQuit();
        loop.runOnce();
        qapp.quit();
    };
    std::unique_ptr<QSocketNotifier> stopNotifier;
    struct sigaction old[3] {};
    const int stopSignals[3] = {SIGINT, SIGTERM, SIGHUP};
    if (::pipe2(gSignalPipe, O_CLOEXEC | O_NONBLOCK) == 0) {
        struct sigaction sa {};
        sigemptyset(&sa.sa_mask);
        sa.sa_handler = onStopSignal;
        for (int i = 0; i < 3; ++i) ::sigaction(stopSignals[i], &sa, &old[i]);
        stopNotifier = std::make_unique<QSocketNotifier>(gSignalPipe[0], QSocketNotifier::Read);
        QObject::connect(stopNotifier.get(), &QSocketNotifier::activated, quit);
    }

    std::function<void()> onLost = options.onQuit;
    gOnDisplayLost = &onLost;
    static bool registered = false;
    if (!registered) registered = std::atexit(atProcessExit) == 0;
    gRunning = true;

    int code = 0;
    {
        desktop::Front front(backend, options);
        pump();
        code = qapp.exec();
        backend.setOnChange(nullptr);
    }
    gRunning = false;
    gOnDisplayLost = nullptr;
    if (stopNotifier) {
        stopNotifier.reset();
        for (int i = 0; i < 3; ++i) ::sigaction(stopSignals[i], &old[i], nullptr);
        ::close(gSignalPipe[0]);
        ::close(gSignalPipe[1]);
        gSignalPipe[0] = gSignalPipe[1] = -1;
    }
    if (!quitting && options.onQuit) options.onQuit();
    return code;
}

int runDesktopDemo(const DesktopViewOptions& options) {
    DemoBackend backend;
    backend.start(options.loop ? *options.loop : RunLoop::main());
    return runDesktopView(backend, options);
}

}  // namespace lumora::ui
