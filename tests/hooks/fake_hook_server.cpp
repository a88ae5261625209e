#include "hooks/fake_hook_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace lumora::test {

FakeHookServer::FakeHookServer(std::filesystem::path socket) : socket_(std::move(socket)) {}

FakeHookServer::~FakeHookServer() { stop(); }

bool FakeHookServer::start() {
    if (running_) return true;
    std::error_code ec;
    std::filesystem::remove(socket_, ec);
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket_.c_str(), sizeof addr.sun_path - 1);
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listenFd_, 16) != 0) {
        ::close(listenFd_);
        listenFd_ = -1;
        return false;
    }
    if (::pipe2(wake_, O_CLOEXEC) != 0) return false;
    running_ = true;
    thread_ = std::thread([this] { loop(); });
    return true;
}

void FakeHookServer::stop() {
    if (!running_) return;
    running_ = false;
    char c = 1;
    (void)::write(wake_[1], &c, 1);
    thread_.join();
    ::close(listenFd_);
    ::close(wake_[0]);
    ::close(wake_[1]);
    std::lock_guard lock(mutex_);
    for (auto& [sid, fd] : gates_) ::close(fd);
    gates_.clear();
    std::error_code ec;
    std::filesystem::remove(socket_, ec);
}

void FakeHookServer::loop() {
    std::map<int, std::string> buffers;
    while (running_) {
        std::vector<pollfd> fds = {{listenFd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        for (auto& [fd, b] : buffers) fds.push_back({fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), 200) <= 0) continue;
        if (fds[0].revents & POLLIN) {
            int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                buffers[client];
                ++accepted_;
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            int fd = fds[i].fd;
            char buf[8192];
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n <= 0) {
                buffers.erase(fd);
                std::lock_guard lock(mutex_);
                for (auto it = gates_.begin(); it != gates_.end(); ++it) {
                    if (it->second == fd) {
                        gates_.erase(it);
                        break;
                    }
                }
                ::close(fd);
                continue;
            }
            std::string& b = buffers[fd];
            b.append(buf, static_cast<size_t>(n));
            size_t eol;
            while ((eol = b.find('\n')) != std::string::npos) {
                std::string line = b.substr(0, eol);
                b.erase(0, eol + 1);
                handle(fd, line);
            }
        }
    }
    for (auto& [fd, b] : buffers) {
        std::lock_guard lock(mutex_);
        bool held = false;
        for (auto& [sid, g] : gates_) held = held || g == fd;
        if (!held) ::close(fd);
    }
}

void FakeHookServer::handle(int fd, const std::string& line) {
    Json j = Json::parse(line, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return;
    std::lock_guard lock(mutex_);
    lines_.push_back(j);
    std::string source = j.value("source", "claude");
    std::string sid = j.value("session_id", "");
    std::string action = j.value("action", "marker");
    if (action == "marker" || action == "gate") markers_.insert({source, sid});
    if (action == "clear") markers_.erase({source, sid});
    if (action == "pending") cursorPending_.insert(sid);
    if (action == "pending-clear") cursorPending_.erase(sid);
    if (action == "gate") {
        if (autoAnswer_) {
            std::string reply = "{\"v\":1,\"behavior\":\"" + *autoAnswer_ + "\"}\n";
            (void)::write(fd, reply.data(), reply.size());
            ::shutdown(fd, SHUT_RDWR);
        } else {
            gates_[sid] = fd;
        }
    }
}

void FakeHookServer::resolve(const std::string& sessionId, bool allow) {
    std::lock_guard lock(mutex_);
    auto it = gates_.find(sessionId);
    if (it == gates_.end()) return;
    std::string reply = std::string("{\"v\":1,\"behavior\":\"") + (allow ? "allow" : "deny") + "\"}\n";
    (void)::write(it->second, reply.data(), reply.size());
    ::shutdown(it->second, SHUT_RDWR);
    gates_.erase(it);
    markers_.erase({"claude", sessionId});
    markers_.erase({"codex", sessionId});
}

bool FakeHookServer::hasMarker(const std::string& source, const std::string& sessionId) {
    std::lock_guard lock(mutex_);
    return markers_.count({source, sessionId}) > 0;
}

bool FakeHookServer::hasHeldGate(const std::string& sessionId) {
    std::lock_guard lock(mutex_);
    return gates_.count(sessionId) > 0;
}

bool FakeHookServer::hasCursorPending(const std::string& conversationId) {
    std::lock_guard lock(mutex_);
    return cursorPending_.count(conversationId) > 0;
}

void FakeHookServer::autoAnswer(std::optional<std::string> behavior) {
    std::lock_guard lock(mutex_);
    autoAnswer_ = std::move(behavior);
}

std::vector<FakeHookServer::Json> FakeHookServer::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool FakeHookServer::waitForLines(size_t count, std::chrono::milliseconds timeout) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        {
            std::lock_guard lock(mutex_);
            if (lines_.size() >= count) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::lock_guard lock(mutex_);
    return lines_.size() >= count;
}

}  // namespace lumora::test
