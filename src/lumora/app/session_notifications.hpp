#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lumora/base/run_loop.hpp"
#include "lumora/monitor/agent_instance.hpp"
#include "lumora/monitor/peek_event.hpp"
#include "lumora/platform/notifier.hpp"

namespace lumora {

// The action keys of a notification. Each names the prompt it was shown
// for, so a press on an outdated notification never answers a newer prompt
// of the same session: "approve:<prompt id>", "deny:<prompt id>",
// "answer:<prompt id>:<option>".
namespace NotificationKeys {

struct Press {
    enum class Kind { open, approve, deny, answer };
    Kind kind = Kind::open;
    uint64_t promptId = 0;
    int option = 0;  // for answer: the option's number, from 1
    bool operator==(const Press&) const = default;
};

std::string approve(uint64_t promptId);
std::string deny(uint64_t promptId);
std::string answer(uint64_t promptId, int option);
// What a key asks for; nothing for a key we never make.
std::optional<Press> parse(const std::string& key);

}  // namespace NotificationKeys

// Decides when a session's desktop notification appears, changes and goes,
// and carries out the presses on it.
//
// A session that newly needs the user (the monitor's needs-you alert, or a
// new permission prompt held for it) gets one notification, replaced in
// place as its prompt changes and closed when the session stops needing the
// user or its prompt is answered anywhere or handed back. A held prompt
// shows Approve and Deny when the service shows actions; while that
// notification is up, the prompt counts as shown (holds()). A finished turn
// notifies only with notifyOnDone.
//
// Everything but holds() runs on the main loop; the notifier's events are
// posted there.
class SessionNotifications {
public:
    struct Settings {
        bool enabled = true;
        bool onDone = false;
        bool operator==(const Settings&) const = default;
    };
    struct Actions {
        // Answers a held prompt, as a click on its row would.
        std::function<void(const ApprovalRequest& request, bool allow)> decide;
        // Brings the session forward (a click on the notification).
        std::function<void(const std::string& sessionId)> open;
        // Whether a view shows this session's panel now (then it gets no notification).
        std::function<bool(const std::string& sessionId)> panelShows;
        // holds() changed: the hook bridge asks again which prompts are shown.
        std::function<void()> holdsChanged;
        // The notification of held prompt `gateId` went without an answer (dismissed, expired).
        std::function<void(const std::string& sessionId, uint64_t gateId)> dismissed;
    };

    SessionNotifications(std::unique_ptr<Notifier> notifier, Actions actions, RunLoop& loop = RunLoop::main());
    ~SessionNotifications();
    SessionNotifications(const SessionNotifications&) = delete;
    SessionNotifications& operator=(const SessionNotifications&) = delete;

    void start();
    // Closes every notification; no event arrives afterwards.
    void stop();
    void setSettings(Settings settings);

    // After every publish of the monitor.
    void published(const std::vector<AgentInstance>& instances);
    // For every alert of the monitor (after the publish that raised it).
    void alerted(const PeekEvent& peek);

    // True while a notification with Approve and Deny for prompt `gateId`
    // of `sessionId` is on screen. Any thread.
    bool holds(const std::string& sessionId, uint64_t gateId) const;
    // True while notifications are on and the service is there and shows
    // actions, so a held prompt can be answered from one. Main loop.
    bool canAnswer() const;

private:
    struct Shown {
        Notifier::Notification content;
        uint64_t gateId = 0;  // the prompt whose Approve and Deny it carries; 0: none
        bool done = false;
    };

    void reconcile();
    std::optional<Shown> wanted(const AgentInstance& a);
    void onShown(const std::string& sessionId, uint64_t tag);
    void onClosed(const std::string& sessionId);
    void onPress(const std::string& sessionId, const std::string& key);
    void onAvailability(Notifier::Capabilities caps);
    void setHeld(const std::string& sessionId, uint64_t gateId);
    const AgentInstance* instance(const std::string& sessionId) const;

    std::unique_ptr<Notifier> notifier_;
    Actions actions_;
    RunLoop& loop_;
    Settings settings_;
    bool running_ = false;

    // Main loop's own.
    std::vector<AgentInstance> instances_;
    std::map<std::string, Shown> shown_;      // what each session's slot shows (or is about to)
    std::set<std::string> risen_;             // sessions whose needs-you alert asked for a notification
    std::set<std::string> finished_;          // sessions whose finished turn asked for one
    std::map<std::string, uint64_t> notifiedGate_;  // the last prompt each session was notified for
    // Sessions whose notified prompt went away while they still need the user, and since when.
    std::map<std::string, std::chrono::steady_clock::time_point> handedBackAt_;
    static constexpr std::chrono::milliseconds kHandBackGrace{1500};

    mutable std::mutex mutex_;  // over the two below, read by the hook bridge's thread
    std::set<std::pair<std::string, uint64_t>> held_;
    Notifier::Capabilities caps_;

    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace lumora
