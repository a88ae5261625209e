// Raising windows on an X server through XCB, loaded with dlopen. XCB
// returns a protocol error (such as BadWindow from a window that vanished
// between listing and asking) as a value, never by ending the process, and
// the whole attempt runs on a worker thread the caller waits for with a
// deadline, so a server that stops answering cannot hold the jump.
#include "lumora/platform/linux/x11_windows.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#ifdef LUMORA_HAVE_XCB
#include <xcb/xcb.h>
#endif

namespace lumora::X11Windows {

using Outcome = DesktopFocus::Outcome;
using Query = DesktopFocus::WindowQuery;

namespace {

std::string lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool holdsAny(const std::string& text, const std::vector<std::string>& words) {
    std::string t = lower(text);
    for (const auto& w : words) {
        if (!w.empty() && t.find(lower(w)) != std::string::npos) return true;
    }
    return false;
}

std::string hex(uint32_t id) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", id);
    return buf;
}

std::string_view pickName(Pick pick) {
    switch (pick) {
        case Pick::byPid: return "_NET_WM_PID";
        case Pick::byTitle: return "title";
        case Pick::byClass: return "class";
    }
    return "";
}

#ifdef LUMORA_HAVE_XCB

// The XCB functions we call, looked up once in libxcb.so.1.
struct Xcb {
    bool loaded = false;
#define LUMORA_XCB_FN(name) decltype(&::name) name = nullptr;
    LUMORA_XCB_FN(xcb_connect)
    LUMORA_XCB_FN(xcb_connection_has_error)
    LUMORA_XCB_FN(xcb_disconnect)
    LUMORA_XCB_FN(xcb_get_setup)
    LUMORA_XCB_FN(xcb_setup_roots_iterator)
    LUMORA_XCB_FN(xcb_screen_next)
    LUMORA_XCB_FN(xcb_intern_atom)
    LUMORA_XCB_FN(xcb_intern_atom_reply)
    LUMORA_XCB_FN(xcb_get_property)
    LUMORA_XCB_FN(xcb_get_property_reply)
    LUMORA_XCB_FN(xcb_get_property_value)
    LUMORA_XCB_FN(xcb_get_property_value_length)
    LUMORA_XCB_FN(xcb_query_tree)
    LUMORA_XCB_FN(xcb_query_tree_reply)
    LUMORA_XCB_FN(xcb_query_tree_children)
    LUMORA_XCB_FN(xcb_query_tree_children_length)
    LUMORA_XCB_FN(xcb_send_event_checked)
    LUMORA_XCB_FN(xcb_configure_window_checked)
    LUMORA_XCB_FN(xcb_map_window_checked)
    LUMORA_XCB_FN(xcb_set_input_focus_checked)
    LUMORA_XCB_FN(xcb_request_check)
    LUMORA_XCB_FN(xcb_flush)
#undef LUMORA_XCB_FN

    static const Xcb& get() {
        static const Xcb xcb = load();
        return xcb;
    }

private:
    static Xcb load() {
        Xcb x;
        void* lib = ::dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!lib) return x;
        bool all = true;
        auto bind = [&](auto& fn, const char* name) {
            fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(::dlsym(lib, name));
            all = all && fn != nullptr;
        };
#define LUMORA_XCB_BIND(name) bind(x.name, #name);
        LUMORA_XCB_BIND(xcb_connect)
        LUMORA_XCB_BIND(xcb_connection_has_error)
        LUMORA_XCB_BIND(xcb_disconnect)
        LUMORA_XCB_BIND(xcb_get_setup)
        LUMORA_XCB_BIND(xcb_setup_roots_iterator)
        LUMORA_XCB_BIND(xcb_screen_next)
        LUMORA_XCB_BIND(xcb_intern_atom)
        LUMORA_XCB_BIND(xcb_intern_atom_reply)
        LUMORA_XCB_BIND(xcb_get_property)
        LUMORA_XCB_BIND(xcb_get_property_reply)
        LUMORA_XCB_BIND(xcb_get_property_value)
        LUMORA_XCB_BIND(xcb_get_property_value_length)
        LUMORA_XCB_BIND(xcb_query_tree)
        LUMORA_XCB_BIND(xcb_query_tree_reply)
        LUMORA_XCB_BIND(xcb_query_tree_children)
        LUMORA_XCB_BIND(xcb_query_tree_children_length)
        LUMORA_XCB_BIND(xcb_send_event_checked)
        LUMORA_XCB_BIND(xcb_configure_window_checked)
        LUMORA_XCB_BIND(xcb_map_window_checked)
        LUMORA_XCB_BIND(xcb_set_input_focus_checked)
        LUMORA_XCB_BIND(xcb_request_check)
        LUMORA_XCB_BIND(xcb_flush)
#undef LUMORA_XCB_BIND
        x.loaded = all;
        return x;  // the library stays loaded for the life of the process
    }
};

struct Candidate {
    xcb_window_t id = 0;
    std::optional<uint32_t> pid;
    std::string title;
    std::string wmClass;  // instance and class, joined by a blank
    bool hidden = false;
};

// One connection, for one attempt.
class Session {
public:
    explicit Session(const Xcb& x) : x_(x) {}
    ~Session() {
        if (c_) x_.xcb_disconnect(c_);
    }

    Outcome run(const Query& q, Pick pick) {
        int screenNumber = 0;
        c_ = x_.xcb_connect(nullptr, &screenNumber);
        if (!c_ || x_.xcb_connection_has_error(c_)) {
            const char* display = std::getenv("DISPLAY");
            return {false, std::string("X11: cannot open display ") + (display ? display : "(unset)")};
        }
        auto it = x_.xcb_setup_roots_iterator(x_.xcb_get_setup(c_));
        for (int i = 0; i < screenNumber && it.rem; ++i) x_.xcb_screen_next(&it);
        if (!it.rem) return {false, "X11: the display has no screen"};
        root_ = it.data->root;

        auto candidates = listWindows();
        const Candidate* chosen = choose(candidates, q, pick);
        std::string vanished = vanished_ ? " (" + std::to_string(vanished_) + " vanished window(s) skipped)" : "";
        if (!chosen) {
            return {false, "X11: no window of " + q.appName + " by " + std::string(pickName(pick)) + " among " +
                               std::to_string(candidates.size()) + " window(s)" + vanished};
        }
        std::string how;
        if (!activateWindow(*chosen, how))
            return {false, "X11: window " + hex(chosen->id) + " of " + q.appName + " could not be raised: " + how};
        std::string title = chosen->title.empty() ? "" : " \"" + chosen->title + "\"";
        return {true, "X11: raised window " + hex(chosen->id) + title + " of " + q.appName + " by " +
                          std::string(pickName(pick)) + " (" + how + ")" + vanished};
    }

private:
    xcb_atom_t atom(const char* name) {
        auto cookie = x_.xcb_intern_atom(c_, 0, static_cast<uint16_t>(std::strlen(name)), name);
        xcb_generic_error_t* err = nullptr;
        auto* reply = x_.xcb_intern_atom_reply(c_, cookie, &err);
        std::free(err);
        if (!reply) return XCB_ATOM_NONE;
        xcb_atom_t a = reply->atom;
        std::free(reply);
        return a;
    }

    // The property's bytes, or nothing (an error such as BadWindow counts as nothing).
    std::optional<std::string> property(xcb_window_t w, xcb_atom_t prop, xcb_atom_t type, bool* failed = nullptr) {
        if (prop == XCB_ATOM_NONE) return std::nullopt;
        auto cookie = x_.xcb_get_property(c_, 0, w, prop, type, 0, 4096);
        xcb_generic_error_t* err = nullptr;
        auto* reply = x_.xcb_get_property_reply(c_, cookie, &err);
        if (err) {
            if (failed) *failed = true;
            std::free(err);
        }
        if (!reply) return std::nullopt;
        std::optional<std::string> out;
        int length = x_.xcb_get_property_value_length(reply);
        if (reply->type != XCB_ATOM_NONE && length >= 0)
            out = std::string(static_cast<const char*>(x_.xcb_get_property_value(reply)), static_cast<size_t>(length));
        std::free(reply);
        return out;
    }

    std::vector<uint32_t> words(const std::optional<std::string>& bytes) {
        std::vector<uint32_t> out;
        if (!bytes) return out;
        for (size_t i = 0; i + 4 <= bytes->size(); i += 4) {
            uint32_t v;
            std::memcpy(&v, bytes->data() + i, 4);
            out.push_back(v);
        }
        return out;
    }

    std::vector<xcb_window_t> children(xcb_window_t w) {
        std::vector<xcb_window_t> out;
        xcb_generic_error_t* err = nullptr;
        auto* reply = x_.xcb_query_tree_reply(c_, x_.xcb_query_tree(c_, w), &err);
        std::free(err);
        if (!reply) return out;
        auto* kids = x_.xcb_query_tree_children(reply);
        out.assign(kids, kids + x_.xcb_query_tree_children_length(reply));
        std::free(reply);
        return out;
    }

    // The top-level windows: the window manager's client list when it keeps
    // one, else the root's children and theirs (a reparenting manager puts
    // each client inside a frame).
    std::vector<Candidate> listWindows() {
        wmPid_ = atom("_NET_WM_PID");
        netName_ = atom("_NET_WM_NAME");
        utf8_ = atom("UTF8_STRING");
        wmState_ = atom("WM_STATE");
        netState_ = atom("_NET_WM_STATE");
        hiddenState_ = atom("_NET_WM_STATE_HIDDEN");
        std::vector<xcb_window_t> ids;
        for (uint32_t w : words(property(root_, atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW))) ids.push_back(w);
        if (ids.empty()) {
            for (xcb_window_t top : children(root_)) {
                ids.push_back(top);
                for (xcb_window_t inner : children(top)) ids.push_back(inner);
            }
        }
        std::vector<Candidate> out;
        for (xcb_window_t id : ids) {
            Candidate c;
            c.id = id;
            bool failed = false;
            auto cls = property(id, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, &failed);
            if (failed) {
                ++vanished_;  // listed, but gone by now
                continue;
            }
            auto pid = words(property(id, wmPid_, XCB_ATOM_CARDINAL));
            if (!pid.empty()) c.pid = pid[0];
            c.title = property(id, netName_, utf8_).value_or(property(id, XCB_ATOM_WM_NAME, XCB_ATOM_STRING).value_or(""));
            if (cls) {
                std::string joined = *cls;
                std::replace(joined.begin(), joined.end(), '\0', ' ');
                c.wmClass = joined;
            }
            if (!cls && !c.pid && c.title.empty()) continue;  // a frame or a helper window
            for (uint32_t s : words(property(id, netState_, XCB_ATOM_ATOM))) c.hidden = c.hidden || s == hiddenState_;
            auto state = words(property(id, wmState_, wmState_));
            if (!state.empty() && state[0] == 3) c.hidden = true;  // IconicState
            out.push_back(std::move(c));
        }
        return out;
    }

    const Candidate* choose(const std::vector<Candidate>& all, const Query& q, Pick pick) {
        const Candidate* best = nullptr;
        for (const auto& c : all) {
            bool fits = false;
            switch (pick) {
                case Pick::byPid:
                    fits = c.pid && std::find(q.pids.begin(), q.pids.end(), static_cast<int32_t>(*c.pid)) != q.pids.end();
                    break;
                case Pick::byTitle:
                    fits = holdsAny(c.title, q.titleWords) && (q.classWords.empty() || holdsAny(c.wmClass, q.classWords));
                    break;
                case Pick::byClass: fits = holdsAny(c.wmClass, q.classWords); break;
            }
            if (!fits) continue;
            // Among several, a title naming the session wins; else the newest.
            if (!best || holdsAny(c.title, q.titleWords) || !holdsAny(best->title, q.titleWords)) best = &c;
        }
        return best;
    }

    bool supportsActiveWindow() {
        auto check = words(property(root_, atom("_NET_SUPPORTING_WM_CHECK"), XCB_ATOM_WINDOW));
        if (check.empty()) return false;
        xcb_atom_t active = atom("_NET_ACTIVE_WINDOW");
        for (uint32_t a : words(property(root_, atom("_NET_SUPPORTED"), XCB_ATOM_ATOM))) {
            if (a == active) return true;
        }
        return false;
    }

    // Un-minimises and activates the window: through the window manager's
    // _NET_ACTIVE_WINDOW when it has one, else by raising it and giving it
    // the input focus ourselves.
    bool activateWindow(const Candidate& c, std::string& how) {
        auto failed = [&](xcb_void_cookie_t cookie, const char* what) {
            xcb_generic_error_t* err = x_.xcb_request_check(c_, cookie);
            if (!err) return false;
            how = std::string(what) + " failed with X error " + std::to_string(err->error_code) +
                  (err->error_code == 3 ? " (BadWindow: it has gone)" : "");
            std::free(err);
            return true;
        };
        if (c.hidden && failed(x_.xcb_map_window_checked(c_, c.id), "un-minimise")) return false;
        if (supportsActiveWindow()) {
            xcb_client_message_event_t ev{};
            ev.response_type = XCB_CLIENT_MESSAGE;
            ev.format = 32;
            ev.window = c.id;
            ev.type = atom("_NET_ACTIVE_WINDOW");
            ev.data.data32[0] = 2;  // the request comes from a pager-like tool, not the application
            ev.data.data32[1] = XCB_CURRENT_TIME;
            uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
            if (failed(x_.xcb_send_event_checked(c_, 0, root_, mask, reinterpret_cast<const char*>(&ev)),
                       "_NET_ACTIVE_WINDOW"))
                return false;
            how = c.hidden ? "un-minimised, _NET_ACTIVE_WINDOW" : "_NET_ACTIVE_WINDOW";
        } else {
            if (failed(x_.xcb_map_window_checked(c_, c.id), "map")) return false;
            uint32_t above = XCB_STACK_MODE_ABOVE;
            if (failed(x_.xcb_configure_window_checked(c_, c.id, XCB_CONFIG_WINDOW_STACK_MODE, &above), "raise"))
                return false;
            if (failed(x_.xcb_set_input_focus_checked(c_, XCB_INPUT_FOCUS_PARENT, c.id, XCB_CURRENT_TIME), "focus"))
                return false;
            how = "raised and focused, no window manager";
        }
        x_.xcb_flush(c_);
        return true;
    }

    const Xcb& x_;
    xcb_connection_t* c_ = nullptr;
    xcb_window_t root_ = 0;
    xcb_atom_t wmPid_ = 0, netName_ = 0, utf8_ = 0, wmState_ = 0, netState_ = 0, hiddenState_ = 0;
    int vanished_ = 0;
};

#endif  // LUMORA_HAVE_XCB

}  // namespace

Outcome raise(const Query& query, Pick pick, std::chrono::milliseconds timeout) {
#ifndef LUMORA_HAVE_XCB
    return {false, "X11: this build has no X11 support"};
#else
    if (pick == Pick::byPid && query.pids.empty()) return {false, "X11: no process of " + query.appName + " to look for"};
    if (pick == Pick::byTitle && query.titleWords.empty()) return {false, "X11: no title to look for"};
    if (pick == Pick::byClass && query.classWords.empty()) return {false, "X11: no window class known for " + query.appName};
    const Xcb& x = Xcb::get();
    if (!x.loaded) return {false, "X11: libxcb.so.1 is not installed"};
    // The attempt runs on its own thread; a server that never answers leaves
    // that thread waiting, not us.
    struct Shared {
        std::mutex mutex;
        std::condition_variable cv;
        std::optional<Outcome> outcome;
    };
    auto shared = std::make_shared<Shared>();
    std::thread([shared, query, pick, &x] {
        Session session(x);
        Outcome o = session.run(query, pick);
        std::lock_guard lock(shared->mutex);
        shared->outcome = std::move(o);
        shared->cv.notify_all();
    }).detach();
    std::unique_lock lock(shared->mutex);
    if (!shared->cv.wait_for(lock, timeout, [&] { return shared->outcome.has_value(); }))
        return {false, "X11: the display did not answer within " + std::to_string(timeout.count()) + " ms"};
    return *shared->outcome;
#endif
}

}  // namespace lumora::X11Windows
