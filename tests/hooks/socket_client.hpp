#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>

// A hook client for the tests: a real connection to the bridge's socket.
namespace lumora::test {

class SocketClient {
public:
    explicit SocketClient(const std::filesystem::path& socket) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~SocketClient() { close(); }
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    bool send(const std::string& bytes) {
        size_t off = 0;
        while (off < bytes.size()) {
            ssize_t n = ::send(fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
            if (n <= 0) return false;
            off += static_cast<size_t>(n);
        }
        return true;
    }

    // Everything the server sent until it closed the connection; nothing when
    // it neither answered nor closed within `timeout`.
    std::optional<std::string> readUntilClosed(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::string out;
        auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
            char buf[512];
            ssize_t n = ::read(fd_, buf, sizeof buf);
            if (n <= 0) return out;
            out.append(buf, static_cast<size_t>(n));
        }
    }

    // True when nothing arrives (and the connection stays open) for `wait`.
    bool staysSilent(std::chrono::milliseconds wait) {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, static_cast<int>(wait.count())) == 0;
    }

    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// Sends one line on a fresh connection and closes it, as the hooks do.
inline bool sendLine(const std::filesystem::path& socket, const std::string& line) {
    SocketClient c(socket);
    return c.connected() && c.send(line + "\n");
}

// Polls `condition` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return condition();
}

}  // namespace lumora::test
