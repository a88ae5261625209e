#include "lumora/hooks/front_socket_server.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstring>

#include "lumora/hooks/hook_socket_server.hpp"
#include "lumora/platform/peer_credentials.hpp"
#include "lumora/platform/sockets.hpp"
#include "lumora/platform/threads.hpp"

namespace lumora {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;

namespace {

// Connections taken in one turn of the loop before it looks at the others again.
constexpr int kAcceptsPerRound = 64;

constexpr size_t kReadChunk = 8192;
// Lines handed to the handler in one batch; the rest wait for its `done`.
constexpr size_t kLinesPerBatch = 64;

bool setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
    return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace

fs::path FrontSocketServer::pathBeside(const fs::path& hookSocket) {
    fs::path name = hookSocket.filename();
    std::string faces = name.stem().string() + ".faces" + name.extension().string();
    return hookSocket.parent_path() / faces;
}

FrontSocketServer::FrontSocketServer(fs::path socketPath, Handler& handler, Limits limits)
    : socketPath_(std::move(socketPath)), handler_(handler), limits_(limits) {}

FrontSocketServer::FrontSocketServer(fs::path socketPath, Handler& handler)
    : FrontSocketServer(std::move(socketPath), handler, Limits{}) {}

FrontSocketServer::~FrontSocketServer() { stop(); }

Status FrontSocketServer::start() {
    if (running_.load()) return Status::success();
    if (auto s = HookSocketServer::checkFolder(socketPath_); !s) return s;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string& path = socketPath_.native();
    if (path.size() >= sizeof(addr.sun_path)) return Status::failure("the face socket path is too long");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
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
    if (::listen(fd, 64) != 0 || !setNonBlocking(fd) || ::pipe(wakePipe_) != 0) {
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
        Threads::nameCurrent("lumora.faces");
        loop();
    });
    return Status::success();
}

void FrontSocketServer::stop() {
    if (!running_.load()) return;
    stopRequested_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
    running_ = false;
    std::vector<ClientId> ids;
    for (auto& [id, c] : clients_) {
        ::close(c.fd);
        ids.push_back(id);
    }
    clients_.clear();
    clientCount_ = 0;
    for (ClientId id : ids) handler_.onClosed(id);
    ::close(listenFd_);
    listenFd_ = -1;
    {
        std::lock_guard lock(wakeMutex_);
        ::close(wakePipe_[0]);
        ::close(wakePipe_[1]);
        wakePipe_[0] = wakePipe_[1] = -1;
    }
    struct stat st{};
    if (::lstat(socketPath_.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_dev) == socketDevice_ &&
        static_cast<uint64_t>(st.st_ino) == socketInode_)
        ::unlink(socketPath_.c_str());
}

void FrontSocketServer::wake() {
    std::lock_guard lock(wakeMutex_);
    if (wakePipe_[1] < 0) return;
    char c = 1;
    ssize_t n = ::write(wakePipe_[1], &c, 1);  // a full pipe already means "wake up"
    (void)n;
}

void FrontSocketServer::broadcast(std::string line) {
    {
        std::lock_guard lock(inboxMutex_);
        latest_ = std::make_shared<const std::string>(std::move(line));
        ++generation_;
    }
    wake();
}

void FrontSocketServer::sendTo(ClientId client, std::string line) {
    {
        std::lock_guard lock(inboxMutex_);
        toSend_.emplace_back(client, std::move(line));
    }
    wake();
}

void FrontSocketServer::drop(ClientId client) {
    {
        std::lock_guard lock(inboxMutex_);
        toDrop_.push_back(client);
    }
    wake();
}

bool FrontSocketServer::hasOutput(const Client& c) const {
    return c.writing || c.pendingState || !c.direct.empty();
}

void FrontSocketServer::loop() {
    std::vector<pollfd> fds;
    std::vector<ClientId> ids;
    while (!stopRequested_.load()) {
        auto now = Steady::now();
        // What other threads handed over.
        Line latest;
        uint64_t generation;
        std::vector<std::pair<ClientId, std::string>> toSend;
        std::vector<ClientId> toDrop;
        {
            std::lock_guard lock(inboxMutex_);
            latest = latest_;
            generation = generation_;
            toSend.swap(toSend_);
            toDrop.swap(toDrop_);
        }
        for (ClientId id : toDrop) closeClient(id);
        std::vector<ClientId> overfull;
        for (auto& [id, line] : toSend) {
            auto it = clients_.find(id);
            if (it == clients_.end()) continue;
            Client& c = it->second;
            c.directBytes += line.size();
            c.direct.push_back(std::move(line));
            if (c.directBytes > limits_.maxQueuedBytes) overfull.push_back(id);
        }
        for (ClientId id : overfull) closeClient(id);
        // Lines that waited while the handler had the client's last batch.
        std::vector<ClientId> waiting;
        for (auto& [id, c] : clients_)
            if (!c.busy->load() && c.in.find('\n') != std::string::npos) waiting.push_back(id);
        for (ClientId id : waiting) deliver(id);
        for (auto& [id, c] : clients_) {
            // Coalesced: only the newest line waits, however many came.
            if (latest && c.stateGeneration != generation) {
                c.pendingState = latest;
                c.stateGeneration = generation;
            }
        }

        fds.clear();
        ids.clear();
        fds.push_back({wakePipe_[0], POLLIN, 0});
        fds.push_back({listenFd_, POLLIN, 0});
        auto deadline = Steady::time_point::max();
        std::vector<ClientId> stalled;
        for (auto& [id, c] : clients_) {
            short events = c.busy->load() ? 0 : POLLIN;
            if (hasOutput(c)) {
                events |= POLLOUT;
                if (c.stalledSince == Steady::time_point{}) c.stalledSince = now;
                auto due = c.stalledSince + limits_.stallTimeout;
                if (now >= due) stalled.push_back(id);
                deadline = std::min(deadline, due);
            }
            fds.push_back({c.fd, events, 0});
            ids.push_back(id);
        }
        if (!stalled.empty()) {
            for (ClientId id : stalled) {
                spdlog::info("faces: dropped a client that took nothing for {} s",
                             std::chrono::duration_cast<std::chrono::seconds>(limits_.stallTimeout).count());
                closeClient(id);
            }
            continue;
        }
        int timeout = -1;
        if (deadline != Steady::time_point::max())
            timeout = static_cast<int>(std::clamp<long long>(
                std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count(), 0, 60000));
        int ready = ::poll(fds.data(), fds.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            spdlog::error("faces: poll failed: {}", std::strerror(errno));
            break;
        }
        if (ready <= 0) continue;
        if (fds[0].revents) {
            char buf[256];
            while (::read(wakePipe_[0], buf, sizeof buf) > 0) {
            }
        }
        now = Steady::now();
        for (size_t i = 2; i < fds.size(); ++i) {
            short revents = fds[i].revents;
            if (!revents) continue;
            if (revents & POLLOUT) writeTo(ids[i - 2], now);
            if (revents & (POLLIN | POLLHUP | POLLERR)) readFrom(ids[i - 2]);
        }
        if (fds[1].revents) acceptAll();
    }
}

void FrontSocketServer::acceptAll() {
    // A bounded batch, so a flood of connections never keeps the loop from a stop.
    for (int round = 0; round < kAcceptsPerRound && !stopRequested_.load(); ++round) {
        int fd = ::accept(listenFd_, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;
        }
        auto peer = PeerCredentials::of(fd);
        if (!peer || peer->uid != PeerCredentials::currentUserId() || clients_.size() >= limits_.maxClients ||
            !setNonBlocking(fd)) {
            ::close(fd);
            continue;
        }
        ClientId id = nextClient_++;
        Client c;
        c.fd = fd;
        c.busy = std::make_shared<std::atomic<bool>>(false);
        {
            // The newest state at once: a face starts from a whole picture.
            std::lock_guard lock(inboxMutex_);
            c.pendingState = latest_;
            c.stateGeneration = generation_;
        }
        clients_.emplace(id, std::move(c));
        clientCount_ = clients_.size();
        writeTo(id, Steady::now());
    }
}

void FrontSocketServer::readFrom(ClientId id) {
    auto it = clients_.find(id);
    if (it == clients_.end()) return;
    Client& c = it->second;
    if (c.busy->load()) {
        // Its last lines are still with the handler: only notice a hang-up.
        char probe;
        ssize_t n = ::recv(c.fd, &probe, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n == 0) closeClient(id);
        return;
    }
    char chunk[kReadChunk];
    ssize_t n;
    do {
        n = ::read(c.fd, chunk, sizeof chunk);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
        closeClient(id);
        return;
    }
    c.in.append(chunk, static_cast<size_t>(n));
    deliver(id);
}

void FrontSocketServer::deliver(ClientId id) {
    auto it = clients_.find(id);
    if (it == clients_.end()) return;
    Client& c = it->second;
    if (c.busy->load()) return;
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; lines.size() < kLinesPerBatch && (nl = c.in.find('\n', start)) != std::string::npos; start = nl + 1) {
        if (nl - start > limits_.maxLineBytes) {
            closeClient(id);
            return;
        }
        lines.emplace_back(c.in, start, nl - start);
    }
    c.in.erase(0, start);
    // What is left must still be able to become a line (or be more whole lines).
    if (c.in.find('\n') == std::string::npos && c.in.size() > limits_.maxLineBytes) {
        closeClient(id);
        return;
    }
    if (lines.empty()) return;
    c.busy->store(true);
    std::weak_ptr<std::atomic<bool>> busy = c.busy;
    handler_.onLines(id, std::move(lines), [this, busy] {
        if (auto b = busy.lock()) {
            b->store(false);
            wake();
        }
    });
}

void FrontSocketServer::writeTo(ClientId id, Steady::time_point now) {
    auto it = clients_.find(id);
    if (it == clients_.end()) return;
    Client& c = it->second;
    bool progress = false;
    for (;;) {
        if (!c.writing) {
            if (!c.direct.empty()) {
                c.directBytes -= c.direct.front().size();
                c.writing = std::make_shared<const std::string>(std::move(c.direct.front()));
                c.direct.pop_front();
            } else if (c.pendingState) {
                c.writing = std::move(c.pendingState);
                c.pendingState.reset();
            } else {
                break;
            }
            c.written = 0;
        }
        const std::string& line = *c.writing;
        ssize_t n = Sockets::sendNoSignal(c.fd, line.data() + c.written, line.size() - c.written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (n <= 0) {
            closeClient(id);
            return;
        }
        progress = true;
        c.written += static_cast<size_t>(n);
        if (c.written == line.size()) c.writing.reset();
    }
    if (progress || !hasOutput(c)) c.stalledSince = hasOutput(c) ? now : Steady::time_point{};
}

void FrontSocketServer::closeClient(ClientId id) {
    auto it = clients_.find(id);
    if (it == clients_.end()) return;
    ::close(it->second.fd);
    clients_.erase(it);
    clientCount_ = clients_.size();
    handler_.onClosed(id);
}

}  // namespace lumora
