// Jumps that raise real windows: an Xvfb display, windows made here with
// XCB whose _NET_WM_PID names a stand-in terminal's process, with and
// without a window manager.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "hooks/jump_support.hpp"
#include "lumora/hooks/jump_service.hpp"

#ifdef LUMORA_TEST_XCB
#include <xcb/xcb.h>

namespace lumora {
namespace {

using namespace test;
using JumpService::Target;

bool has(const std::vector<std::string>& lines, const std::string& part) {
    for (const auto& l : lines) {
        if (l.find(part) != std::string::npos) return true;
    }
    return false;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& l : lines) out += l + "\n";
    return out;
}

bool onPath(const std::string& program) { return runCommand("command -v " + program + " >/dev/null").status == 0; }

// A virtual X server on a free display, with an optional window manager.
class VirtualDisplay {
public:
    explicit VirtualDisplay(bool windowManager) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        xvfb_ = ::fork();
        if (xvfb_ == 0) {
            ::close(fds[0]);
            std::string fd = std::to_string(fds[1]);
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, 1);
            ::dup2(null, 2);
            ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-nolisten", "tcp", "-screen", "0", "800x600x24",
                     static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(fds[1]);
        std::string number;
        char c;
        pollfd p{fds[0], POLLIN, 0};
        while (::poll(&p, 1, 10000) > 0 && ::read(fds[0], &c, 1) == 1 && c != '\n') number += c;
        ::close(fds[0]);
        if (number.empty()) return;
        display_ = ":" + number;
        env_ = std::make_unique<ScopedEnv>("DISPLAY", display_);
        noWayland_ = std::make_unique<ScopedEnv>("WAYLAND_DISPLAY", std::nullopt);
        conn_ = xcb_connect(display_.c_str(), nullptr);
        root_ = xcb_setup_roots_iterator(xcb_get_setup(conn_)).data->root;
        if (windowManager) {
            wm_ = ::fork();
            if (wm_ == 0) {
                int null = ::open("/dev/null", O_WRONLY);
                ::dup2(null, 1);
                ::dup2(null, 2);
                ::execlp("openbox", "openbox", "--sm-disable", static_cast<char*>(nullptr));
                ::_exit(127);
            }
            auto deadline = std::chrono::steady_clock::now() + 10s;
            while (cardinals(root_, "_NET_SUPPORTING_WM_CHECK").empty() && std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(20ms);
        }
    }
    ~VirtualDisplay() {
        if (conn_) xcb_disconnect(conn_);
        for (pid_t p : {wm_, xvfb_}) {
            if (p > 0) {
                ::kill(p, SIGTERM);
                ::waitpid(p, nullptr, 0);
            }
        }
    }
    bool ok() const { return conn_ && !xcb_connection_has_error(conn_); }
    bool managed() const { return !cardinals(root_, "_NET_SUPPORTING_WM_CHECK").empty(); }

    xcb_atom_t atom(const char* name) const {
        auto* r = xcb_intern_atom_reply(conn_, xcb_intern_atom(conn_, 0, std::strlen(name), name), nullptr);
        xcb_atom_t a = r ? r->atom : XCB_ATOM_NONE;
        std::free(r);
        return a;
    }

    std::vector<uint32_t> cardinals(xcb_window_t w, const char* property) const {
        std::vector<uint32_t> out;
        auto* r = xcb_get_property_reply(conn_, xcb_get_property(conn_, 0, w, atom(property), XCB_GET_PROPERTY_TYPE_ANY, 0, 64),
                                         nullptr);
        if (!r) return out;
        auto* v = static_cast<uint32_t*>(xcb_get_property_value(r));
        out.assign(v, v + xcb_get_property_value_length(r) / 4);
        std::free(r);
        return out;
    }

    // A mapped top-level window with a title, a class and, when given, a _NET_WM_PID.
    xcb_window_t window(const std::string& title, const std::string& wmClass, std::optional<uint32_t> pid) {
        xcb_window_t w = xcb_generate_id(conn_);
        auto screen = xcb_setup_roots_iterator(xcb_get_setup(conn_)).data;
        xcb_create_window(conn_, XCB_COPY_FROM_PARENT, w, root_, 10, 10, 200, 100, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                          screen->root_visual, 0, nullptr);
        xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, title.size(),
                            title.data());
        std::string cls = wmClass + '\0' + wmClass + '\0';
        xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8, cls.size(), cls.data());
        if (pid)
            xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, w, atom("_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &*pid);
        xcb_map_window(conn_, w);
        xcb_flush(conn_);
        return w;
    }

    void destroy(xcb_window_t w) {
        xcb_destroy_window(conn_, w);
        xcb_flush(conn_);
    }

    void setClientList(const std::vector<xcb_window_t>& ids) {
        xcb_change_property(conn_, XCB_PROP_MODE_REPLACE, root_, atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW, 32,
                            ids.size(), ids.data());
        xcb_flush(conn_);
    }

    std::optional<xcb_window_t> activeWindow() const {
        auto v = cardinals(root_, "_NET_ACTIVE_WINDOW");
        if (v.empty() || v[0] == 0) return std::nullopt;
        return v[0];
    }

    xcb_window_t inputFocus() const {
        auto* r = xcb_get_input_focus_reply(conn_, xcb_get_input_focus(conn_), nullptr);
        xcb_window_t w = r ? r->focus : 0;
        std::free(r);
        return w;
    }

    // Waits until the window manager reports `w` as the active window.
    bool waitActive(xcb_window_t w, std::chrono::milliseconds timeout = 5s) const {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (activeWindow() == w) return true;
            std::this_thread::sleep_for(20ms);
        }
        return false;
    }

    void iconify(xcb_window_t w) {
        xcb_client_message_event_t ev{};
        ev.response_type = XCB_CLIENT_MESSAGE;
        ev.format = 32;
        ev.window = w;
        ev.type = atom("WM_CHANGE_STATE");
        ev.data.data32[0] = 3;  // IconicState
        xcb_send_event(conn_, 0, root_, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                       reinterpret_cast<const char*>(&ev));
        xcb_flush(conn_);
    }

    // Focuses `w` as a pager would, asking again until the window manager,
    // which may not manage a new window yet, has done it.
    bool focus(xcb_window_t w) {
        for (int i = 0; i < 25; ++i) {
            activate(w);
            if (waitActive(w, 200ms)) return true;
        }
        return false;
    }

    void activate(xcb_window_t w) {
        xcb_client_message_event_t ev{};
        ev.response_type = XCB_CLIENT_MESSAGE;
        ev.format = 32;
        ev.window = w;
        ev.type = atom("_NET_ACTIVE_WINDOW");
        ev.data.data32[0] = 2;  // from a pager: always honoured
        xcb_send_event(conn_, 0, root_, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                       reinterpret_cast<const char*>(&ev));
        xcb_flush(conn_);
    }

    bool iconic(xcb_window_t w) const {
        auto state = cardinals(w, "WM_STATE");
        return !state.empty() && state[0] == 3;
    }

private:
    pid_t xvfb_ = 0, wm_ = 0;
    std::string display_;
    std::unique_ptr<ScopedEnv> env_, noWayland_;
    xcb_connection_t* conn_ = nullptr;
    xcb_window_t root_ = 0;
};

template <typename F>
bool eventually(F f, std::chrono::milliseconds timeout = 5s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (f()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return f();
}

TEST(JumpX11, RaisesTheTerminalWindowUnderAWindowManager) {
    if (!onPath("Xvfb") || !onPath("openbox")) GTEST_SKIP() << "Xvfb and openbox are not installed (scripts/bootstrap installs them)";
    TempHome home;
    VirtualDisplay x(true);
    ASSERT_TRUE(x.ok() && x.managed());
    HostedAgent agent(home / "bin", "xterm");
    auto mine = x.window("zsh", "xterm", static_cast<uint32_t>(agent.host()));
    auto other = x.window("notes", "gedit", static_cast<uint32_t>(::getpid()));
    ASSERT_TRUE(x.focus(other));

    Target t{.sessionId = "s1", .pid = agent.agent(), .cwd = "/home/u/proj", .title = "proj"};
    auto r = JumpService::jump(t);
    EXPECT_TRUE(r.landed) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "by _NET_WM_PID")) << joined(r.lines);
    EXPECT_TRUE(x.waitActive(mine));

    // Minimised, it comes back.
    x.iconify(mine);
    ASSERT_TRUE(eventually([&] { return x.iconic(mine); }));
    // Where focus goes next is the window manager's choice: put it elsewhere.
    ASSERT_TRUE(x.focus(other));
    r = JumpService::jump(t);
    EXPECT_TRUE(r.landed) << joined(r.lines);
    EXPECT_TRUE(x.waitActive(mine));
    EXPECT_TRUE(eventually([&] { return !x.iconic(mine); }));

    // No window carries the host's pid: the title (within the terminal's class) finds it.
    HostedAgent second(home / "bin2", "xterm");
    auto titled = x.window("elsewhere: ~/proj", "xterm", std::nullopt);
    auto scratch = x.window("scratch", "xterm", static_cast<uint32_t>(::getpid()));
    ASSERT_TRUE(x.focus(scratch));
    r = JumpService::jump(Target{.sessionId = "s2", .pid = second.agent(), .cwd = "/home/u/proj", .title = "proj"});
    EXPECT_TRUE(r.landed) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "no window of xterm by _NET_WM_PID")) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "by title")) << joined(r.lines);
    EXPECT_TRUE(x.waitActive(titled));
}

TEST(JumpX11, WithoutAWindowManagerAndWithVanishedWindows) {
    if (!onPath("Xvfb")) GTEST_SKIP() << "Xvfb is not installed (scripts/bootstrap installs it)";
    TempHome home;
    VirtualDisplay x(false);
    ASSERT_TRUE(x.ok());
    HostedAgent agent(home / "bin", "xterm");
    auto gone = x.window("gone", "xterm", static_cast<uint32_t>(agent.host()));
    auto mine = x.window("proj", "xterm", static_cast<uint32_t>(agent.host()));
    auto other = x.window("other", "gedit", std::nullopt);
    x.destroy(gone);
    // A stale client list still names the window that vanished: asking about it is a BadWindow.
    x.setClientList({gone, mine, other});
    Target t{.sessionId = "s1", .pid = agent.agent(), .cwd = "/home/u/proj", .title = "proj"};
    auto r = JumpService::jump(t);
    EXPECT_TRUE(r.landed) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "1 vanished window(s) skipped")) << joined(r.lines);
    EXPECT_TRUE(has(r.lines, "no window manager")) << joined(r.lines);
    EXPECT_EQ(x.inputFocus(), mine);

    // Only the vanished window carries the pid: nothing is raised by pid, the
    // ladder goes on, and nothing crashes.
    x.destroy(mine);
    x.setClientList({gone, mine, other});
    r = JumpService::jump(t);
    EXPECT_TRUE(has(r.lines, "2 vanished window(s) skipped")) << joined(r.lines);
    EXPECT_FALSE(r.landed) << joined(r.lines);
}

}  // namespace
}  // namespace lumora

#endif  // LUMORA_TEST_XCB
