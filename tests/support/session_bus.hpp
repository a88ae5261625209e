#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lumora/platform/child_process.hpp"
#include "support/test_support.hpp"

namespace lumora::test {

// A private session bus (dbus-daemon --session) for the scope, named by
// DBUS_SESSION_BUS_ADDRESS while it lives, with the stand-in notification
// service of tests/support/notification_server.py on it when asked.
class SessionBus {
public:
    // Whether dbus-daemon and python3 with its D-Bus bindings are installed.
    static std::optional<std::string> missing();

    SessionBus();
    ~SessionBus();
    bool running() const { return daemon_ != nullptr; }

    // Starts the stand-in service in `mode` ("normal", "noactions", "silent",
    // "garbage") and waits until it owns its name.
    bool startServer(const std::string& mode = "normal");
    void stopServer();

    // Every call the service received, oldest first (one JSON object each).
    std::vector<nlohmann::json> calls() const;
    std::vector<nlohmann::json> calls(const std::string& name) const;
    // Makes the service report a press of `key` on notification `id`, or its dismissal.
    bool invoke(uint32_t id, const std::string& key);
    bool dismiss(uint32_t id);
    // The same press, sent by a connection that does not own the service's name.
    bool spoof(uint32_t id, const std::string& key);

private:
    bool control(const std::vector<std::string>& arguments);

    TempDir dir_;
    std::unique_ptr<ScopedEnv> address_;
    std::unique_ptr<ChildProcess> daemon_;
    std::unique_ptr<ChildProcess> server_;
    int serverRuns_ = 0;
};

// Waits (checking every few milliseconds) until `condition` holds; false after `timeout`.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace lumora::test
