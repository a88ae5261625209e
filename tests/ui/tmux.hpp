#pragma once

// A tmux server of the test's own, running one command in a fixed-size
// window: keys go in with send-keys and the screen comes back with
// capture-pane.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/test_support.hpp"

namespace lumora::test {

using namespace std::chrono_literals;

inline std::string shellQuoted(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// One tmux server of its own, running one command in a fixed-size window.
class Tmux {
public:
    Tmux(int width, int height, const std::string& command) {
        static int counter = 0;
        socket_ = "lumora-test-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
        // The command reports how it ended and lingers, so the test can read it.
        std::string shell = command + "; echo \"exit status $?\"; sleep 120";
        run("-f /dev/null new-session -d -s view -x " + std::to_string(width) + " -y " + std::to_string(height) + " " +
            shellQuoted(shell));
    }
    ~Tmux() { run("kill-server"); }

    CommandResult run(const std::string& args) const {
        return runCommand("LANG=C.UTF-8 tmux -u -L " + socket_ + " " + args + " 2>&1");
    }
    // The server's socket name (tmux -L NAME).
    const std::string& socketName() const { return socket_; }
    void keys(const std::string& keys) const { run("send-keys -t view " + keys); }
    std::string screen(bool escapes = false) const {
        return run(std::string("capture-pane -p ") + (escapes ? "-e " : "") + "-t view").output;
    }
    // Waits until the screen shows `text`; returns the screen either way.
    std::string waitFor(const std::string& text, std::chrono::milliseconds timeout = 20s) const {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        std::string s;
        while (std::chrono::steady_clock::now() < deadline) {
            s = screen();
            if (s.find(text) != std::string::npos) return s;
            std::this_thread::sleep_for(50ms);
        }
        ADD_FAILURE() << "the screen never showed \"" << text << "\":\n" << s;
        return s;
    }
    // Other programs' `claude` processes (other tests' among them) may share
    // the list, hold the selection and even sort first: walks the selection
    // from the top row down until the screen shows `text` (a selected row's
    // buttons); returns the screen.
    std::string selectRowShowing(const std::string& text, std::chrono::milliseconds timeout = 20s) const {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        std::string s;
        for (int step = 0; std::chrono::steady_clock::now() < deadline; step = (step + 1) % 6) {
            keys(step == 0 ? "g" : "Down");
            std::this_thread::sleep_for(100ms);
            s = screen();
            if (s.find(text) != std::string::npos) return s;
        }
        ADD_FAILURE() << "no row showed \"" << text << "\":\n" << s;
        return s;
    }
    // Waits until the screen no longer shows `text`.
    void waitForGone(const std::string& text, std::chrono::milliseconds timeout = 20s) const {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (screen().find(text) == std::string::npos) return;
            std::this_thread::sleep_for(50ms);
        }
        ADD_FAILURE() << "the screen kept showing \"" << text << "\":\n" << screen();
    }
    void resize(int width, int height) const {
        run("resize-window -t view -x " + std::to_string(width) + " -y " + std::to_string(height));
    }

private:
    std::string socket_;
};

}  // namespace lumora::test
