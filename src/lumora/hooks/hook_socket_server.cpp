#include "lumora/hooks/hook_socket_server.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <vector>

#include "lumora/platform/peer_credentials.hpp"
#include "lumora/platform/sockets.hpp"
#include "lumora/platform/threads.hpp"

namespace lumora {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;

namespace {

// Connections taken in one turn of the loop before it looks at the others again.
constexpr int kAcceptsPerRound = 256;

constexpr size_t kReadChunk = 8192;
// Reads per connection per round, so one chatty client cannot starve the rest.
constexpr int kReadsPerTurn = 16;

bool setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
    return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

// Only a directory of our own that nobody else may enter can hold the socket.
Status privateFolder(const fs::path& dir) {
    std::error_code ec;
    if (!fs::exists(dir, ec)) {
        if (dir.has_parent_path()) fs::create_directories(dir.parent_path(), ec);
        ::mkdir(dir.c_str(), 0700);
    }
    struct stat st{};
    std::string where = "the socket's folder " + dir.string();
    if (::stat(dir.c_str(), &st) != 0) return Status::fromErrno(errno, where);
    if (!S_ISDIR(st.st_mode)) return Status::failure(where + " is not a folder");
    if (st.st_uid != PeerCredentials::currentUserId()) return Status::failure(where + " belongs to another user");
    if ((st.st_mode & 077) != 0) return Status::failure(where + " is open to group or others");
    return Status::success();
}

}  // namespace

HookSocketServer::HookSocketServer(fs::path socketPath, Limits limits, Handler& handler)
    : socketPath_(std::move(socketPath)), limits_(limits), handler_(handler) {}

HookSocketServer::~HookSocketServer() { stop(); }

void HookSocketServer::assertLoopThread() const {
    assert(onLoopThread() || !running_.load());
    (void)this;
}

Status HookSocketServer::checkFolder(const fs::path& socketPath) {
    fs::path folder = socketPath.parent_path();
    return privateFolder(folder.empty() ? fs::path(".") : folder);
}

Status HookSocketServer::start() {
    if (running_.load()) return Status::success();
    if (auto s = checkFolder(socketPath_); !s) return s;

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string& path = socketPath_.native();
    if (path.size() >= sizeof(addr.sun_path)) {
        return Status::failure("the socket path is too long (" + std::to_string(path.size()) + " bytes, at most " +
                               std::to_string(sizeof(addr.sun_path) - 1) + ")");
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    // A crashed run leaves its socket behind; anything else at the path is not ours to remove.
    struct stat st{};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) return Status::failure(path + " is taken by something that is not a socket");
        ::unlink(path.c_str());
    }

    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return Status::fromErrno(errno, "cannot make a socket");
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        Status s = Status::fromErrno(errno, "cannot bind " + path);
        ::close(fd);
        return s;
    }
    ::chmod(path.c_str(), 0600);
    if (::listen(fd, Sockets::maxListenBacklog()) != 0 || !setNonBlocking(fd) || ::pipe(wakePipe_) != 0) {
        Status s = Status::fromErrno(errno, "cannot listen on " + path);
        ::close(fd);
        ::unlink(path.c_str());
        return s;
    }
    setNonBlocking(wakePipe_[0]);
    setNonBlocking(wakePipe_[1]);
    if (::stat(path.c_str(), &st) == 0) {
        socketDevice_ = static_cast<uint64_t>(st.st_dev);
        socketInode_ = static_cast<uint64_t>(st.st_ino);
    }
    listenFd_ = fd;
    stopRequested_ = false;
    running_ = true;
    thread_ = std::thread([this] {
        loopThread_ = std::this_thread::get_id();
        Threads::nameCurrent("lumora.hookbridge");
        loop();
    });
    return Status::success();
}

void HookSocketServer::stop() {
    if (!running_.load()) return;
    stopRequested_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
    loopThread_ = std::thread::id{};
    running_ = false;
    handler_.afterBatch();  // a last round, for answers decided while the loop was ending

    // Replies already decided go out if the socket takes them at once; a held
    // client then sees its connection close and falls back to its agent's prompt.
    for (auto& [_, c] : connections_) {
        if (!c.out.empty()) (void)Sockets::sendNoSignal(c.fd, c.out.data(), c.out.size());
        ::close(c.fd);
    }
    std::vector<ConnectionId> ids;
    for (const auto& [id, _] : connections_) ids.push_back(id);
    connections_.clear();
    connectionCount_ = 0;
    for (ConnectionId id : ids) handler_.onClosed(id);
    ::close(listenFd_);
    listenFd_ = -1;
    {
        std::lock_guard lock(wakeMutex_);
        ::close(wakePipe_[0]);
        ::close(wakePipe_[1]);
        wakePipe_[0] = wakePipe_[1] = -1;
    }
    // Remove the socket only when it is still the one we bound.
    struct stat st{};
    if (::lstat(socketPath_.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_dev) == socketDevice_ &&
        static_cast<uint64_t>(st.st_ino) == socketInode_)
        ::unlink(socketPath_.c_str());
}

void HookSocketServer::wake() {
    std::lock_guard lock(wakeMutex_);
    if (wakePipe_[1] < 0) return;
    char c = 1;
    ssize_t n = ::write(wakePipe_[1], &c, 1);  // a full pipe already means "wake up"
    (void)n;
}

void HookSocketServer::loop() {
    std::vector<pollfd> fds;
    std::vector<ConnectionId> ids;
    while (!stopRequested_.load()) {
        fds.clear();
        ids.clear();
        fds.push_back({wakePipe_[0], POLLIN, 0});
        auto now = Steady::now();
        auto deadline = SteadyTime::max();
        // Out of descriptors: leave the queue alone for a moment rather than spin on it.
        bool acceptPaused = now < acceptPausedUntil_;
        fds.push_back({listenFd_, static_cast<short>(acceptPaused ? 0 : POLLIN), 0});
        if (acceptPaused) deadline = acceptPausedUntil_;
        for (const auto& [id, c] : connections_) {
            short events = c.answering ? 0 : POLLIN;
            if (!c.out.empty()) events |= POLLOUT;
            fds.push_back({c.fd, events, 0});
            ids.push_back(id);
            if (c.answering) deadline = std::min(deadline, c.writeDeadline);
            else if (!c.held) deadline = std::min(deadline, c.lineStart + limits_.lineTimeout);
        }
        if (auto d = handler_.nextDeadline()) deadline = std::min(deadline, *d);
        int timeout = -1;
        if (deadline != SteadyTime::max()) {
            auto ms = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
            timeout = static_cast<int>(std::clamp<long long>(ms, 0, 60000));
        }
        int ready = ::poll(fds.data(), fds.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            spdlog::error("hook bridge: poll failed: {}", std::strerror(errno));
            break;
        }
        if (ready > 0) {
            if (fds[0].revents) {
                char buf[256];
                while (::read(wakePipe_[0], buf, sizeof buf) > 0) {
                }
            }
            for (size_t i = 2; i < fds.size(); ++i) {
                short revents = fds[i].revents;
                if (!revents) continue;
                if (revents & POLLOUT) writeTo(ids[i - 2]);
                if (revents & (POLLIN | POLLHUP | POLLERR)) readFrom(ids[i - 2]);
            }
            if (fds[1].revents) acceptAll();
        }
        handler_.afterBatch();
        expire(Steady::now());
    }
}

void HookSocketServer::acceptAll() {
    // A bounded round: clients connecting faster than they are served must
    // not keep the loop from its other connections, its timers or a stop.
    for (int round = 0; round < kAcceptsPerRound && !stopRequested_.load(); ++round) {
        int fd = ::accept(listenFd_, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                if (acceptPausedUntil_ == SteadyTime{}) spdlog::warn("hook bridge: accept: {}", std::strerror(errno));
                acceptPausedUntil_ = Steady::now() + std::chrono::milliseconds(100);
            }
            return;  // none left (or out of descriptors: tried again shortly)
        }
        auto peer = PeerCredentials::of(fd);
        if (!peer || peer->uid != PeerCredentials::currentUserId()) {
            handler_.trace("REFUSE connection of another user");
            ::close(fd);
            continue;
        }
        if (connections_.size() >= limits_.maxConnections && !makeRoom()) {
            handler_.trace("REFUSE connection: every slot holds a gate");
            ::close(fd);
            continue;
        }
        if (!setNonBlocking(fd)) {
            ::close(fd);
            continue;
        }
        acceptPausedUntil_ = SteadyTime{};
        ConnectionId id = nextConnection_++;
        Connection c;
        c.fd = fd;
        c.lineStart = Steady::now();
        connections_.emplace(id, std::move(c));
        connectionCount_ = connections_.size();
        // Most hooks have written their line and closed by now: serve them at
        // once, so a burst of short clients never fills the slots.
        readFrom(id);
    }
}

bool HookSocketServer::makeRoom() {
    auto oldest = connections_.end();
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if (it->second.held || it->second.answering) continue;
        if (oldest == connections_.end() || it->second.lineStart < oldest->second.lineStart) oldest = it;
    }
    if (oldest == connections_.end()) return false;
    closeConnection(oldest->first, "to make room for a new one");
    return true;
}

void HookSocketServer::readFrom(ConnectionId id) {
    char chunk[kReadChunk];
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        auto it = connections_.find(id);
        if (it == connections_.end() || it->second.answering) return;
        ssize_t n = ::read(it->second.fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n <= 0) {
            // End of file or an error; an unfinished last line is dropped.
            closeConnection(id, nullptr);
            return;
        }
        Connection& c = it->second;
        size_t scanFrom = c.in.size();
        c.in.append(chunk, static_cast<size_t>(n));
        size_t start = 0;
        std::vector<std::string> lines;
        for (size_t nl; (nl = c.in.find('\n', scanFrom)) != std::string::npos; scanFrom = start = nl + 1) {
            if (nl - start > limits_.maxLineBytes) {
                closeConnection(id, "its line is longer than the limit");
                return;
            }
            lines.emplace_back(c.in, start, nl - start);
        }
        c.in.erase(0, start);
        if (!lines.empty()) c.lineStart = Steady::now();
        if (c.in.size() > limits_.maxLineBytes) {
            closeConnection(id, "its line is longer than the limit");
            return;
        }
        // The handler may answer (and so close) the connection: `c` is not used after this.
        for (const auto& line : lines) {
            if (!connections_.count(id) || connections_.at(id).answering) break;
            handler_.onLine(id, line);
        }
    }
}

void HookSocketServer::writeTo(ConnectionId id) {
    auto it = connections_.find(id);
    if (it == connections_.end()) return;
    Connection& c = it->second;
    while (!c.out.empty()) {
        ssize_t n = Sockets::sendNoSignal(c.fd, c.out.data(), c.out.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;  // the rest when it can take it
        if (n <= 0) break;  // the client has gone
        c.out.erase(0, static_cast<size_t>(n));
    }
    if (c.answering) closeConnection(id, nullptr);
}

void HookSocketServer::send(ConnectionId id, std::string bytes) {
    assertLoopThread();
    auto it = connections_.find(id);
    if (it == connections_.end()) return;  // the client has gone
    Connection& c = it->second;
    c.out += bytes;
    if (!c.answering) c.writeDeadline = Steady::now() + limits_.writeTimeout;
    c.answering = true;
    writeTo(id);
}

void HookSocketServer::hold(ConnectionId id) {
    assertLoopThread();
    if (auto it = connections_.find(id); it != connections_.end()) it->second.held = true;
}

void HookSocketServer::close(ConnectionId id) {
    assertLoopThread();
    closeConnection(id, nullptr);
}

void HookSocketServer::closeConnection(ConnectionId id, const char* why) {
    auto it = connections_.find(id);
    if (it == connections_.end()) return;
    if (why) handler_.trace(std::string("CLOSE connection: ") + why);
    ::close(it->second.fd);
    connections_.erase(it);
    connectionCount_ = connections_.size();
    handler_.onClosed(id);
}

void HookSocketServer::expire(SteadyTime now) {
    std::vector<std::pair<ConnectionId, const char*>> due;
    for (const auto& [id, c] : connections_) {
        if (c.answering) {
            if (now >= c.writeDeadline) due.push_back({id, "its reply could not be written in time"});
        } else if (!c.held && now - c.lineStart >= limits_.lineTimeout) {
            due.push_back({id, c.in.empty() ? "idle" : "its line did not end in time"});
        }
    }
    for (const auto& [id, why] : due) closeConnection(id, why);
}

}  // namespace lumora
