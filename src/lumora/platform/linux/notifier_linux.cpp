// Desktop notifications over the freedesktop Notifications interface on the
// session bus, through sd-bus. One worker thread owns the bus connection:
// every call to the service is asynchronous with a deadline, so a service
// that hangs, answers nonsense or vanishes never blocks anyone.
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "lumora/platform/notifier.hpp"
#include "lumora/platform/threads.hpp"

namespace lumora {

namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";
// How long the service may take to answer one call.
constexpr uint64_t kCallTimeoutUsec = 5'000'000;

// D-Bus strings must be UTF-8: invalid bytes (a file name, a command with
// stray bytes) become U+FFFD instead of failing the whole message.
std::string validUtf8(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        bool ok = len > 0 && c != 0 && i + len <= text.size();
        for (size_t k = 1; ok && k < len; ++k) ok = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
        if (ok && len > 1) {
            // Overlong forms, surrogates and values past U+10FFFF are invalid too.
            uint32_t cp = c & (0x7F >> len);
            for (size_t k = 1; k < len; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
            ok = !(len == 2 && cp < 0x80) && !(len == 3 && cp < 0x800) && !(len == 4 && cp < 0x10000) &&
                 !(cp >= 0xD800 && cp <= 0xDFFF) && cp <= 0x10FFFF;
        }
        if (ok) {
            out.append(text, i, len);
            i += len;
        } else {
            out += "\xEF\xBF\xBD";
            ++i;
        }
    }
    return out;
}

// Services that read markup in the body would take "<" in a command for a tag.
std::string escapeMarkup(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '&') out += "&amp;";
        else if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else out += c;
    }
    return out;
}

std::string errorText(const sd_bus_message* reply, int r) {
    if (reply) {
        if (const sd_bus_error* e = sd_bus_message_get_error(const_cast<sd_bus_message*>(reply)); e && e->name)
            return std::string(e->name) + (e->message ? std::string(": ") + e->message : "");
    }
    return std::strerror(r < 0 ? -r : r);
}

class DesktopNotifier final : public Notifier {
public:
    DesktopNotifier(std::string appName, std::string icon) : appName_(std::move(appName)), icon_(std::move(icon)) {}
    ~DesktopNotifier() override { stop(); }

    void start(Events events) override {
        std::lock_guard lock(mutex_);
        if (thread_.joinable() || stopping_) return;
        events_ = std::move(events);
        wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wakeFd_ < 0) return;
        accepting_ = true;
        thread_ = std::thread([this] { run(); });
    }

    void show(const std::string& slot, const Notification& notification) override {
        enqueue({slot, notification});
    }
    void close(const std::string& slot) override { enqueue({slot, std::nullopt}); }

    void stop() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            accepting_ = false;
            wake();
        }
        if (thread_.joinable()) thread_.join();
        std::lock_guard lock(mutex_);
        if (wakeFd_ >= 0) ::close(wakeFd_);
        wakeFd_ = -1;
    }

private:
    // A show (with its notification) or a close (without).
    struct Command {
        std::string slot;
        std::optional<Notification> notification;
    };
    struct Slot {
        uint32_t serverId = 0;        // the service's number for what the slot shows; 0: nothing yet
        bool pending = false;         // a Notify call is in flight
        std::optional<Command> next;  // what to do once it is answered
    };
    // One call in flight; `epoch` tells a reply from a service that has since gone.
    struct Call {
        DesktopNotifier* self = nullptr;
        std::string slot;
        uint64_t tag = 0;
        uint64_t epoch = 0;
    };

    void enqueue(Command command) {
        std::lock_guard lock(mutex_);
        if (!accepting_) return;
        commands_.push_back(std::move(command));
        wake();
    }

    // Under mutex_: the descriptor lives as long as the worker.
    void wake() {
        if (wakeFd_ < 0) return;
        uint64_t one = 1;
        [[maybe_unused]] auto n = ::write(wakeFd_, &one, sizeof one);
    }

    void run() {
        Threads::nameCurrent("lumora.notify");
        if (!connect()) {
            std::lock_guard lock(mutex_);
            accepting_ = false;
            commands_.clear();
            return;
        }
        for (;;) {
            std::deque<Command> batch;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) break;
                batch.swap(commands_);
            }
            for (const auto& c : batch) apply(c);
            int r;
            while ((r = sd_bus_process(bus_, nullptr)) > 0) {
            }
            if (r < 0) {
                spdlog::info("[notify] notifications off: the session bus went away ({})", std::strerror(-r));
                dropAllSlots();
                setCapabilities({});
                std::lock_guard lock(mutex_);
                accepting_ = false;
                break;
            }
            waitForWork();
        }
        // Nothing is left to answer a press: take our notifications off the
        // screen, after a short wait for those the service is still putting up.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        while (std::any_of(slots_.begin(), slots_.end(), [](const auto& s) { return s.second.pending; }) &&
               std::chrono::steady_clock::now() < deadline) {
            for (auto& [name, slot] : slots_) slot.next.reset();
            if (sd_bus_process(bus_, nullptr) < 0) break;
            sd_bus_wait(bus_, 50'000);
        }
        for (const auto& [name, slot] : slots_) {
            if (slot.serverId != 0) sendClose(slot.serverId);
        }
        sd_bus_flush(bus_);
        bus_ = sd_bus_flush_close_unref(bus_);
        calls_.clear();
    }

    void waitForWork() {
        pollfd fds[2] = {{sd_bus_get_fd(bus_), static_cast<short>(sd_bus_get_events(bus_)), 0},
                         {wakeFd_, POLLIN, 0}};
        int timeoutMs = -1;
        uint64_t until = 0;
        if (sd_bus_get_timeout(bus_, &until) > 0 && until != UINT64_MAX) {
            timespec ts{};
            ::clock_gettime(CLOCK_MONOTONIC, &ts);
            uint64_t now = static_cast<uint64_t>(ts.tv_sec) * 1'000'000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
            timeoutMs = until <= now ? 0 : static_cast<int>((until - now + 999) / 1000);
        }
        if (::poll(fds, 2, timeoutMs) > 0 && (fds[1].revents & POLLIN)) {
            uint64_t count;
            [[maybe_unused]] auto n = ::read(wakeFd_, &count, sizeof count);
        }
    }

    bool connect() {
        int r = sd_bus_open_user(&bus_);
        if (r < 0) {
            bus_ = nullptr;
            spdlog::info("[notify] notifications off: no session bus ({})", std::strerror(-r));
            return false;
        }
        // Signals are checked against the service's current owner by hand
        // (another program on the bus may send look-alikes).
        sd_bus_match_signal_async(bus_, nullptr, nullptr, kPath, kInterface, "ActionInvoked", onActionInvoked,
                                  nullptr, this);
        sd_bus_match_signal_async(bus_, nullptr, nullptr, kPath, kInterface, "NotificationClosed", onClosed,
                                  nullptr, this);
        std::string ownerRule = std::string("type='signal',sender='") + kDriver + "',path='" + kDriverPath +
                                "',interface='" + kDriver + "',member='NameOwnerChanged',arg0='" + kService + "'";
        sd_bus_add_match_async(bus_, nullptr, ownerRule.c_str(), onOwnerChanged, nullptr, this);
        callAsync(kDriver, kDriverPath, kDriver, "GetNameOwner", onOwner, {}, [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "s", kService);
        });
        return true;
    }

    // Sends one method call; `fill` appends its arguments.
    template <typename Fill>
    void callAsync(const char* destination, const char* path, const char* interface, const char* member,
                   sd_bus_message_handler_t handler, Call call, Fill fill) {
        sd_bus_message* m = nullptr;
        int r = sd_bus_message_new_method_call(bus_, &m, destination, path, interface, member);
        if (r >= 0) r = fill(m);
        auto owned = std::make_unique<Call>(call);
        owned->self = this;
        owned->epoch = epoch_;
        if (r >= 0) r = sd_bus_call_async(bus_, nullptr, m, handler, owned.get(), kCallTimeoutUsec);
        sd_bus_message_unref(m);
        if (r < 0) {
            // Answered at once as a failure, on the same path as a failed reply.
            spdlog::info("[notify] could not call {}: {}", member, std::strerror(-r));
            handler(nullptr, owned.get(), nullptr);
            return;
        }
        Call* raw = owned.get();
        calls_[raw] = std::move(owned);
    }

    // Takes a finished call's record; nothing when the bus was closed under it.
    std::unique_ptr<Call> finish(Call* call) {
        auto it = calls_.find(call);
        if (it == calls_.end()) return nullptr;
        auto owned = std::move(it->second);
        calls_.erase(it);
        return owned;
    }

    static bool failed(sd_bus_message* reply) { return !reply || sd_bus_message_is_method_error(reply, nullptr); }

    static int onOwner(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* call = static_cast<Call*>(userdata);
        DesktopNotifier* self = call->self;
        auto owned = self->finish(call);
        const char* owner = nullptr;
        if (failed(reply) || sd_bus_message_read(reply, "s", &owner) < 0 || !owner) {
            spdlog::info("[notify] notifications off: no notification service on the session bus");
            self->setCapabilities({});
            return 0;
        }
        self->owner_ = owner;
        self->askCapabilities();
        return 0;
    }

    void askCapabilities() {
        callAsync(owner_.c_str(), kPath, kInterface, "GetCapabilities", onCapabilities, {},
                  [](sd_bus_message*) { return 0; });
    }

    static int onCapabilities(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* call = static_cast<Call*>(userdata);
        DesktopNotifier* self = call->self;
        auto owned = self->finish(call);
        if (call->epoch != self->epoch_) return 0;
        char** caps = nullptr;
        int r = failed(reply) ? -EIO : sd_bus_message_read_strv(reply, &caps);
        if (r < 0) {
            spdlog::info("[notify] notifications off: the notification service did not answer ({})",
                         errorText(reply, r));
            self->setCapabilities({});
            return 0;
        }
        Capabilities found{true, false};
        self->markup_ = false;
        for (char** c = caps; c && *c; ++c) {
            if (std::strcmp(*c, "actions") == 0) found.actions = true;
            if (std::strcmp(*c, "body-markup") == 0) self->markup_ = true;
            free(*c);
        }
        free(caps);
        spdlog::info("[notify] notifications on ({})", found.actions ? "with actions" : "without actions");
        self->setCapabilities(found);
        return 0;
    }

    void setCapabilities(Capabilities caps) {
        caps_ = caps;
        if (events_.availability) events_.availability(caps);
    }

    // The service changed hands (or left): what it showed is gone with it.
    static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<DesktopNotifier*>(userdata);
        const char *name = nullptr, *before = nullptr, *after = nullptr;
        if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 || !name || std::strcmp(name, kService) != 0)
            return 0;
        ++self->epoch_;
        self->dropAllSlots();
        self->owner_ = after ? after : "";
        if (self->owner_.empty()) {
            spdlog::info("[notify] notifications off: the notification service went away");
            self->setCapabilities({});
        } else {
            self->askCapabilities();
        }
        return 0;
    }

    void dropAllSlots() {
        auto gone = std::move(slots_);
        slots_.clear();
        for (const auto& [name, slot] : gone) {
            if (events_.closed) events_.closed(name);
        }
    }

    void apply(const Command& command) {
        if (!caps_.available) {
            if (command.notification && events_.closed) events_.closed(command.slot);
            return;
        }
        auto& slot = slots_[command.slot];
        if (slot.pending) {
            slot.next = command;
            return;
        }
        if (command.notification) {
            slot.pending = true;
            sendNotify(command.slot, *command.notification, slot.serverId);
        } else {
            if (slot.serverId != 0) sendClose(slot.serverId);
            slots_.erase(command.slot);
        }
    }

    void sendNotify(const std::string& slot, const Notification& n, uint32_t replaces) {
        std::string summary = validUtf8(n.summary);
        std::string body = validUtf8(n.body);
        if (markup_) body = escapeMarkup(body);
        std::vector<std::string> actions;
        if (caps_.actions) {
            for (const auto& a : n.actions) {
                actions.push_back(validUtf8(a.key));
                actions.push_back(validUtf8(a.label));
            }
        }
        std::vector<char*> strv;
        for (auto& a : actions) strv.push_back(a.data());
        strv.push_back(nullptr);
        Call call{this, slot, n.tag, epoch_};
        callAsync(owner_.c_str(), kPath, kInterface, "Notify", onNotified, call, [&](sd_bus_message* m) {
            int r = sd_bus_message_append(m, "susss", appName_.c_str(), replaces, icon_.c_str(), summary.c_str(),
                                          body.c_str());
            if (r >= 0) r = sd_bus_message_append_strv(m, strv.data());
            if (r >= 0)
                r = sd_bus_message_append(m, "a{sv}", 2, "urgency", "y", static_cast<uint8_t>(n.urgent ? 2 : 1),
                                          "desktop-entry", "s", "lumora");
            if (r >= 0) r = sd_bus_message_append(m, "i", -1);
            return r;
        });
    }

    static int onNotified(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto* call = static_cast<Call*>(userdata);
        DesktopNotifier* self = call->self;
        auto owned = self->finish(call);
        if (call->epoch != self->epoch_) return 0;
        auto it = self->slots_.find(call->slot);
        if (it == self->slots_.end()) return 0;
        Slot& slot = it->second;
        slot.pending = false;
        auto next = std::move(slot.next);
        slot.next.reset();
        uint32_t id = 0;
        if (failed(reply) || sd_bus_message_read(reply, "u", &id) < 0 || id == 0) {
            spdlog::info("[notify] the notification service refused a notification ({})", errorText(reply, 0));
            if (slot.serverId != 0) self->sendClose(slot.serverId);
            self->slots_.erase(it);
            if (next) self->apply(*next);
            else if (self->events_.closed) self->events_.closed(call->slot);
            return 0;
        }
        slot.serverId = id;
        if (next) self->apply(*next);
        else if (self->events_.shown) self->events_.shown(call->slot, call->tag);
        return 0;
    }

    void sendClose(uint32_t id) {
        callAsync(owner_.c_str(), kPath, kInterface, "CloseNotification", onCloseAnswered, {},
                  [id](sd_bus_message* m) { return sd_bus_message_append(m, "u", id); });
    }

    static int onCloseAnswered(sd_bus_message*, void* userdata, sd_bus_error*) {
        auto* call = static_cast<Call*>(userdata);
        call->self->finish(call);
        return 0;
    }

    // Our slot showing the service's notification `id`, if any.
    std::map<std::string, Slot>::iterator slotShowing(uint32_t id) {
        for (auto it = slots_.begin(); it != slots_.end(); ++it) {
            if (id != 0 && it->second.serverId == id) return it;
        }
        return slots_.end();
    }

    bool fromService(sd_bus_message* m) const {
        const char* sender = sd_bus_message_get_sender(m);
        return sender && !owner_.empty() && owner_ == sender;
    }

    static int onActionInvoked(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<DesktopNotifier*>(userdata);
        uint32_t id = 0;
        const char* key = nullptr;
        if (!self->fromService(m) || sd_bus_message_read(m, "us", &id, &key) < 0 || !key) return 0;
        auto it = self->slotShowing(id);
        if (it == self->slots_.end()) {
            spdlog::info("[notify] ignored a press on notification {}, which is no longer ours", id);
            return 0;
        }
        if (self->events_.actionInvoked) self->events_.actionInvoked(it->first, key);
        return 0;
    }

    static int onClosed(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<DesktopNotifier*>(userdata);
        uint32_t id = 0, reason = 0;
        if (!self->fromService(m) || sd_bus_message_read(m, "uu", &id, &reason) < 0) return 0;
        auto it = self->slotShowing(id);
        if (it == self->slots_.end()) return 0;
        if (it->second.pending) {
            // A replacement is on its way: it makes a new notification.
            it->second.serverId = 0;
            return 0;
        }
        std::string name = it->first;
        self->slots_.erase(it);
        if (self->events_.closed) self->events_.closed(name);
        return 0;
    }

    const std::string appName_;
    const std::string icon_;
    Events events_;

    std::mutex mutex_;
    std::deque<Command> commands_;
    bool accepting_ = false;
    bool stopping_ = false;
    int wakeFd_ = -1;
    std::thread thread_;

    // The worker thread's own.
    sd_bus* bus_ = nullptr;
    std::string owner_;  // the service's unique name on the bus
    Capabilities caps_;
    bool markup_ = false;
    uint64_t epoch_ = 0;  // grows whenever the service changes hands
    std::map<std::string, Slot> slots_;
    std::map<Call*, std::unique_ptr<Call>> calls_;
};

}  // namespace

std::unique_ptr<Notifier> Notifier::desktop(std::string appName, std::string icon) {
    return std::make_unique<DesktopNotifier>(std::move(appName), std::move(icon));
}

}  // namespace lumora
