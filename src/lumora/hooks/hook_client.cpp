#include "lumora/hooks/hook_client.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "lumora/hooks/hook_protocol.hpp"
#include "lumora/platform/sockets.hpp"

namespace lumora::HookClient {

namespace {

using Steady = std::chrono::steady_clock;
constexpr size_t kMaxReply = 16u << 20;

enum class Connect { connected, nobody, busy };

// Connects without blocking; a full listen queue is tried again until `deadline`.
Connect connectTo(const std::filesystem::path& socket, Steady::time_point deadline, int& fd) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket.native().size() >= sizeof(addr.sun_path)) return Connect::nobody;
    std::memcpy(addr.sun_path, socket.c_str(), socket.native().size() + 1);
    for (;;) {
        fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0) return Connect::nobody;
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return Connect::connected;
        int error = errno;
        ::close(fd);
        fd = -1;
        if (error != EAGAIN && error != EINTR) return Connect::nobody;
        if (Steady::now() >= deadline) return Connect::busy;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool sendAll(int fd, std::string_view bytes, Steady::time_point deadline) {
    while (!bytes.empty()) {
        ssize_t n = Sockets::sendNoSignal(fd, bytes.data(), bytes.size());
        if (n > 0) {
            bytes.remove_prefix(static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Steady::now()).count();
            pollfd p{fd, POLLOUT, 0};
            if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return false;
            continue;
        }
        return false;
    }
    return true;
}

std::optional<std::string> readLine(int fd, Steady::time_point deadline) {
    std::string in;
    char buf[65536];
    for (;;) {
        if (auto nl = in.find('\n'); nl != std::string::npos) return in.substr(0, nl);
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Steady::now()).count();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return std::nullopt;
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (n <= 0) return std::nullopt;
        in.append(buf, static_cast<size_t>(n));
        if (in.size() > kMaxReply) return std::nullopt;
    }
}

}  // namespace

std::optional<std::string> ask(const std::filesystem::path& socket, std::string_view requestLine,
                               std::chrono::milliseconds timeout) {
    auto deadline = Steady::now() + timeout;
    int fd = -1;
    if (connectTo(socket, deadline, fd) != Connect::connected) return std::nullopt;
    std::optional<std::string> reply;
    if (sendAll(fd, requestLine, deadline)) reply = readLine(fd, deadline);
    ::close(fd);
    return reply;
}

Who who(const std::filesystem::path& socket, std::chrono::milliseconds timeout) {
    auto deadline = Steady::now() + timeout;
    int fd = -1;
    switch (connectTo(socket, deadline, fd)) {
        case Connect::nobody: return {};
        case Connect::busy: return {Who::Kind::other, 0};
        case Connect::connected: break;
    }
    std::optional<std::string> reply;
    if (sendAll(fd, HookProtocol::whoRequest(), deadline)) reply = readLine(fd, deadline);
    ::close(fd);
    if (reply) {
        if (auto pid = HookProtocol::parseWhoReply(*reply)) return {Who::Kind::lumora, *pid};
    }
    return {Who::Kind::other, 0};
}

}  // namespace lumora::HookClient
