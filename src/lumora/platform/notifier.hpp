#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace lumora {

// Desktop notifications through the desktop's notification service.
//
// Each notification lives in a slot the caller names (one per session):
// showing into a slot that holds one replaces it in place, it never stacks.
// No call blocks; what the service answers and what the user presses come
// back through the Events, on the notifier's own thread. A service that is
// missing, slow or answers nonsense only turns notifications off.
class Notifier {
public:
    // The key a click on the notification itself reports.
    static constexpr const char* defaultAction = "default";

    struct Action {
        std::string key;    // what a press reports
        std::string label;  // the button's text
        bool operator==(const Action&) const = default;
    };

    struct Notification {
        std::string summary;
        std::string body;  // plain text; the notifier escapes it for services that read markup
        std::vector<Action> actions;
        bool urgent = false;
        // Echoed by Events::shown, so the caller knows which content made it to the screen.
        uint64_t tag = 0;
        bool operator==(const Notification&) const = default;
    };

    struct Capabilities {
        bool available = false;  // a service answers on the bus
        bool actions = false;    // it shows buttons
        bool operator==(const Capabilities&) const = default;
    };

    struct Events {
        // The service came, went or came back (a new service: every slot is empty again).
        std::function<void(Capabilities)> availability;
        // The service put slot's notification (the one tagged `tag`) on screen.
        std::function<void(const std::string& slot, uint64_t tag)> shown;
        // The user pressed an action (or the notification itself: defaultAction).
        std::function<void(const std::string& slot, const std::string& key)> actionInvoked;
        // The notification is gone without close() having been asked: dismissed,
        // expired, refused by the service, or the service went away.
        std::function<void(const std::string& slot)> closed;
    };

    virtual ~Notifier() = default;
    // Connects and asks the service what it can do; events start flowing.
    virtual void start(Events events) = 0;
    // Shows `notification` in `slot`, replacing what the slot shows.
    virtual void show(const std::string& slot, const Notification& notification) = 0;
    // Takes slot's notification off the screen (nothing when it shows none).
    virtual void close(const std::string& slot) = 0;
    // Closes every notification shown and disconnects; no event follows.
    virtual void stop() = 0;

    // The desktop's notification service on the session bus, showing under
    // `appName` with the icon named `icon`.
    static std::unique_ptr<Notifier> desktop(std::string appName, std::string icon);
};

}  // namespace lumora
