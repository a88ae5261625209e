#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "lumora/base/status.hpp"

namespace lumora {

// The private socket the service's faces attach to (a terminal view, a
// `--watch`, a status bar): it lives beside the hook socket, in the same
// private folder, 0600, and closes clients of other users at once.
//
// Unlike the hook socket its connections are long-lived: the service
// broadcasts one line per published change to every client, and clients
// write command lines back. It keeps the service safe from its clients:
//  - broadcasts coalesce: a client that is behind gets only the newest line
//    once it has taken the one it is reading, so what a client costs stays
//    bounded however slowly it reads; one that takes nothing for
//    `stallTimeout` while lines wait is dropped;
//  - a command line longer than `maxLineBytes` drops its client; a client
//    whose commands have not been handled yet is not read from, so a flood
//    waits in its own socket rather than in the service;
//  - at `maxClients` a new client is closed at once.
//
// Threads: one thread of its own runs a poll loop and calls the handler;
// broadcast(), sendTo() and the commands' `done` may be called from anywhere.
class FrontSocketServer {
public:
    using ClientId = uint64_t;

    struct Limits {
        size_t maxClients = 64;
        size_t maxLineBytes = 64 * 1024;
        // Lines queued to one client by sendTo(), beyond the coalesced broadcast.
        size_t maxQueuedBytes = 4 * 1024 * 1024;
        std::chrono::milliseconds stallTimeout{10000};
    };

    // What the server calls, on its own thread.
    class Handler {
    public:
        virtual ~Handler() = default;
        // Complete lines of one client (without their "\n"). The client is not
        // read from again until `done` has been called (from any thread).
        virtual void onLines(ClientId client, std::vector<std::string> lines, std::function<void()> done) = 0;
        // The client is gone, for whatever reason.
        virtual void onClosed(ClientId client) = 0;
    };

    // The face socket beside `hookSocket`: "notch.sock" -> "notch.faces.sock".
    static std::filesystem::path pathBeside(const std::filesystem::path& hookSocket);

    FrontSocketServer(std::filesystem::path socketPath, Handler& handler);
    FrontSocketServer(std::filesystem::path socketPath, Handler& handler, Limits limits);
    ~FrontSocketServer();
    FrontSocketServer(const FrontSocketServer&) = delete;
    FrontSocketServer& operator=(const FrontSocketServer&) = delete;

    // Binds the socket (replacing a socket file left there: the caller owns
    // the hook socket, so nobody else serves this one) and starts the thread.
    Status start();
    // Closes every client and removes the socket file if it is still ours.
    void stop();
    bool running() const { return running_.load(); }

    // The newest state line, for every client now and for each that connects later.
    void broadcast(std::string line);
    // One line for one client, after what it has been sent.
    void sendTo(ClientId client, std::string line);
    // Drops a client (a protocol error).
    void drop(ClientId client);

    size_t clientCount() const { return clientCount_.load(); }
    const std::filesystem::path& socketPath() const { return socketPath_; }

private:
    using Line = std::shared_ptr<const std::string>;
    struct Client {
        int fd = -1;
        std::string in;
        Line writing;  // the line on its way, from `written` on
        size_t written = 0;
        Line pendingState;              // the newest broadcast not yet begun
        std::deque<std::string> direct;  // sendTo() lines not yet begun
        size_t directBytes = 0;
        uint64_t stateGeneration = 0;  // the broadcast it has been given
        std::chrono::steady_clock::time_point stalledSince{};  // while output waits and none was taken
        std::shared_ptr<std::atomic<bool>> busy;  // its lines are with the handler
    };

    void loop();
    void acceptAll();
    void readFrom(ClientId id);
    // Hands the client's complete lines to the handler, unless it still has some.
    void deliver(ClientId id);
    void writeTo(ClientId id, std::chrono::steady_clock::time_point now);
    bool hasOutput(const Client& c) const;
    void closeClient(ClientId id);
    void wake();

    const std::filesystem::path socketPath_;
    Handler& handler_;
    const Limits limits_;

    std::atomic<bool> running_{false};
    std::atomic<bool> stopRequested_{false};
    std::thread thread_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::mutex wakeMutex_;

    // Handed over from other threads.
    std::mutex inboxMutex_;
    Line latest_;
    uint64_t generation_ = 0;
    std::vector<std::pair<ClientId, std::string>> toSend_;
    std::vector<ClientId> toDrop_;

    // The loop thread's own.
    std::unordered_map<ClientId, Client> clients_;
    ClientId nextClient_ = 1;
    std::atomic<size_t> clientCount_{0};
    uint64_t socketDevice_ = 0;
    uint64_t socketInode_ = 0;
};

}  // namespace lumora
