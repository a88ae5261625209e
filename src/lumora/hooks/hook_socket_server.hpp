#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "lumora/base/status.hpp"
#include "lumora/hooks/hook_protocol.hpp"

namespace lumora {

// A small server of newline-framed lines on a local stream socket, for the
// hook programs. It knows nothing of what the lines mean; it keeps the
// socket safe and its clients bounded:
//  - the socket lives in a private folder of the user's (created 0700 when
//    missing; a folder of another user, or open to group or others, is
//    refused), the file is 0600, and clients of other users are closed;
//  - the listen queue is the system's longest, and every wake-up accepts
//    until none are left;
//  - a connection must finish each line within `lineTimeout` of the end of
//    its previous line (or of connecting), whatever trickles in, unless it
//    is held (it waits for an answer); a line longer than `maxLineBytes`
//    closes it; a reply that cannot be written within `writeTimeout` closes it;
//  - at `maxConnections`, a new client pushes out the oldest one that is
//    neither held nor being answered.
//
// Threads: one thread of its own runs a poll loop and calls the handler.
// send(), hold() and close() belong to that thread (or to any thread while
// the server is stopped); wake() may be called from anywhere.
class HookSocketServer {
public:
    using ConnectionId = uint64_t;
    using SteadyTime = std::chrono::steady_clock::time_point;

    struct Limits {
        size_t maxConnections = 256;
        size_t maxLineBytes = HookProtocol::kMaxLineBytes;
        std::chrono::milliseconds lineTimeout{2000};
        std::chrono::milliseconds writeTimeout{2000};
    };

    // What the server calls, always on its own thread.
    class Handler {
    public:
        virtual ~Handler() = default;
        // One complete line (without its "\n").
        virtual void onLine(ConnectionId connection, std::string_view line) = 0;
        // The connection is closed, for whatever reason.
        virtual void onClosed(ConnectionId connection) = 0;
        // After each round of reads and accepts, and at the handler's deadline.
        virtual void afterBatch() = 0;
        // When afterBatch() must run next even if nothing arrives.
        virtual std::optional<SteadyTime> nextDeadline() = 0;
        // A line for the trace, when tracing is on.
        virtual void trace(std::string_view text) {}
    };

    HookSocketServer(std::filesystem::path socketPath, Limits limits, Handler& handler);
    ~HookSocketServer();
    HookSocketServer(const HookSocketServer&) = delete;
    HookSocketServer& operator=(const HookSocketServer&) = delete;

    // Whether the socket's folder may hold it: a folder of this user's that
    // group and others cannot enter (created 0700 when missing).
    static Status checkFolder(const std::filesystem::path& socketPath);

    // Binds the socket (replacing a socket file nobody serves: the caller
    // makes sure of that) and starts the thread. Says why when it cannot.
    Status start();
    // Stops the thread, writes what replies it can without waiting, closes
    // every connection and removes the socket file if it is still ours.
    void stop();
    bool running() const { return running_.load(); }

    // Makes the loop run a round soon (after state changed elsewhere).
    void wake();
    bool onLoopThread() const { return std::this_thread::get_id() == loopThread_.load(); }
    size_t connectionCount() const { return connectionCount_.load(); }
    const std::filesystem::path& socketPath() const { return socketPath_; }

    // Writes `bytes` to the connection and then closes it; it reads no more.
    void send(ConnectionId connection, std::string bytes);
    // A held connection waits for an answer: no line deadline applies.
    void hold(ConnectionId connection);
    void close(ConnectionId connection);

private:
    struct Connection {
        int fd = -1;
        std::string in;
        std::string out;
        SteadyTime lineStart{};  // connect, or the end of the last complete line
        SteadyTime writeDeadline{};
        bool held = false;
        bool answering = false;  // a reply is queued; close once it is written
    };

    void loop();
    void acceptAll();
    // Pushes out the oldest connection that is neither held nor answered; false when none is.
    bool makeRoom();
    void readFrom(ConnectionId id);
    void writeTo(ConnectionId id);
    void closeConnection(ConnectionId id, const char* why);
    void expire(SteadyTime now);
    void assertLoopThread() const;

    const std::filesystem::path socketPath_;
    const Limits limits_;
    Handler& handler_;

    std::atomic<bool> running_{false};
    std::atomic<bool> stopRequested_{false};
    // Set by the loop thread itself as it begins, so no other thread ever
    // reads the thread object while start() is still assigning it.
    std::atomic<std::thread::id> loopThread_{};
    std::thread thread_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::mutex wakeMutex_;  // keeps wake() off a pipe that stop() is closing
    std::unordered_map<ConnectionId, Connection> connections_;
    ConnectionId nextConnection_ = 1;
    std::atomic<size_t> connectionCount_{0};
    SteadyTime acceptPausedUntil_{};
    uint64_t socketDevice_ = 0;
    uint64_t socketInode_ = 0;
};

}  // namespace lumora
