#include "lumora/hooks/front_connection.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "lumora/platform/sockets.hpp"
#include "lumora/platform/threads.hpp"

namespace lumora {

namespace {

using Steady = std::chrono::steady_clock;
// A state line larger than this ends the connection (the service never writes one).
constexpr size_t kMaxLine = 64u << 20;

int millisLeft(Steady::time_point deadline) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Steady::now()).count();
    return static_cast<int>(std::max<long long>(0, std::min<long long>(left, 60000)));
}

}  // namespace

std::unique_ptr<FrontConnection> FrontConnection::connect(const std::filesystem::path& path,
                                                          std::chrono::milliseconds timeout) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof(addr.sun_path)) return nullptr;
    std::memcpy(addr.sun_path, path.c_str(), path.native().size() + 1);
    auto deadline = Steady::now() + timeout;
    for (;;) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) return nullptr;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return std::unique_ptr<FrontConnection>(new FrontConnection(fd));
        int error = errno;
        ::close(fd);
        if (error != EAGAIN && error != EINTR) return nullptr;
        if (Steady::now() >= deadline) return nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

FrontConnection::FrontConnection(int fd) : fd_(fd) {
    if (::pipe(wakePipe_) == 0) {
        ::fcntl(wakePipe_[0], F_SETFL, O_NONBLOCK);
        ::fcntl(wakePipe_[1], F_SETFL, O_NONBLOCK);
        ::fcntl(wakePipe_[0], F_SETFD, FD_CLOEXEC);
        ::fcntl(wakePipe_[1], F_SETFD, FD_CLOEXEC);
    }
}

FrontConnection::~FrontConnection() {
    close();
    if (fd_ >= 0) ::close(fd_);
    if (wakePipe_[0] >= 0) ::close(wakePipe_[0]);
    if (wakePipe_[1] >= 0) ::close(wakePipe_[1]);
}

std::optional<std::string> FrontConnection::readLine(std::chrono::milliseconds timeout) {
    auto deadline = Steady::now() + timeout;
    char buf[65536];
    for (;;) {
        if (auto nl = in_.find('\n'); nl != std::string::npos) {
            std::string line = in_.substr(0, nl);
            in_.erase(0, nl + 1);
            return line;
        }
        pollfd p{fd_, POLLIN, 0};
        int wait = millisLeft(deadline);
        if (wait <= 0 && ::poll(&p, 1, 0) <= 0) return std::nullopt;
        if (wait > 0 && ::poll(&p, 1, wait) <= 0) return std::nullopt;
        ssize_t n = ::read(fd_, buf, sizeof buf);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (n <= 0 || in_.size() + static_cast<size_t>(n) > kMaxLine) {
            eof_ = true;
            return std::nullopt;
        }
        in_.append(buf, static_cast<size_t>(n));
    }
}

void FrontConnection::start(std::function<void(std::string)> onLine, std::function<void()> onClosed) {
    reader_ = std::thread([this, onLine = std::move(onLine), onClosed = std::move(onClosed)] {
        Threads::nameCurrent("lumora.face");
        readLoop(onLine, onClosed);
    });
}

void FrontConnection::readLoop(std::function<void(std::string)> onLine, std::function<void()> onClosed) {
    char buf[65536];
    for (;;) {
        for (size_t nl; (nl = in_.find('\n')) != std::string::npos;) {
            std::string line = in_.substr(0, nl);
            in_.erase(0, nl + 1);
            onLine(std::move(line));
        }
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        int ready = ::poll(fds, 2, -1);
        if (closing_.load()) return;  // closed by us: not the service's going
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) break;
        ssize_t n = ::read(fd_, buf, sizeof buf);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (n <= 0) break;
        in_.append(buf, static_cast<size_t>(n));
        if (in_.size() > kMaxLine) break;
    }
    if (!closing_.load()) onClosed();
}

bool FrontConnection::send(std::string_view bytes) {
    std::lock_guard lock(sendMutex_);
    auto deadline = Steady::now() + std::chrono::seconds(1);
    while (!bytes.empty()) {
        ssize_t n = Sockets::sendNoSignal(fd_, bytes.data(), bytes.size());
        if (n > 0) {
            bytes.remove_prefix(static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd p{fd_, POLLOUT, 0};
            int wait = millisLeft(deadline);
            if (wait <= 0 || ::poll(&p, 1, wait) <= 0) return false;
            continue;
        }
        return false;
    }
    return true;
}

void FrontConnection::close() {
    if (closing_.exchange(true)) return;
    if (wakePipe_[1] >= 0) {
        char c = 1;
        ssize_t n = ::write(wakePipe_[1], &c, 1);
        (void)n;
    }
    if (reader_.joinable()) reader_.join();
    ::shutdown(fd_, SHUT_RDWR);
}

}  // namespace lumora
