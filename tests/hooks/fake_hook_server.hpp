#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lumora/hooks/hook_self_test.hpp"

namespace lumora::test {

// A small stand-in for the app's socket server: it records every line the
// hook programs send, holds each gate until `resolve` (or answers at once
// with `autoAnswer`), and keeps markers per source the simple way.
class FakeHookServer : public HookSelfTest::Bridge {
public:
    using Json = nlohmann::ordered_json;

    explicit FakeHookServer(std::filesystem::path socket);
    ~FakeHookServer() override;

    bool start() override;
    void stop() override;
    void setGating(bool) override {}
    void resolve(const std::string& sessionId, bool allow) override;
    bool hasMarker(const std::string& source, const std::string& sessionId) override;
    bool hasHeldGate(const std::string& sessionId) override;
    bool hasCursorPending(const std::string& conversationId) override;

    // Answer every gate at once with this behavior ("allow", "deny", "passthrough").
    void autoAnswer(std::optional<std::string> behavior);
    // Every line received so far, parsed.
    std::vector<Json> lines() const;
    // Waits until at least `count` lines have arrived.
    bool waitForLines(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    // How many connections were accepted.
    size_t connections() const { return accepted_.load(); }

private:
    void loop();
    void handle(int fd, const std::string& line);

    std::filesystem::path socket_;
    int listenFd_ = -1;
    int wake_[2] = {-1, -1};
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<size_t> accepted_{0};
    mutable std::mutex mutex_;
    std::vector<Json> lines_;
    std::map<std::string, int> gates_;
    std::set<std::pair<std::string, std::string>> markers_;
    std::set<std::string> cursorPending_;
    std::optional<std::string> autoAnswer_;
};

}  // namespace lumora::test
