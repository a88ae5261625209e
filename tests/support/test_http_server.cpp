#include "support/test_http_server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace lumora::test {

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool sendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

TestHttpServer::TestHttpServer(Handler handler) : handler_(std::move(handler)) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listenFd_, 16) != 0 || ::pipe(stopPipe_) != 0)
        throw std::runtime_error("cannot start the test HTTP server");
    socklen_t len = sizeof addr;
    ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
}

TestHttpServer::~TestHttpServer() {
    (void)!::write(stopPipe_[1], "x", 1);
    thread_.join();
    ::close(listenFd_);
    ::close(stopPipe_[0]);
    ::close(stopPipe_[1]);
}

std::vector<TestHttpServer::Request> TestHttpServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void TestHttpServer::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

bool TestHttpServer::waitStop(std::chrono::milliseconds delay) {
    pollfd p{stopPipe_[0], POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(delay.count())) > 0;
}

void TestHttpServer::serve() {
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents) return;
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        answer(fd);
        ::close(fd);
    }
}

void TestHttpServer::answer(int fd) {
    std::string in;
    char buf[4096];
    while (in.find("\r\n\r\n") == std::string::npos && in.size() < 65536) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0) return;
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return;
        in.append(buf, static_cast<size_t>(n));
    }
    Request req;
    size_t lineEnd = in.find("\r\n");
    std::string first = in.substr(0, lineEnd);
    req.method = first.substr(0, first.find(' '));
    size_t pathStart = first.find(' ') + 1;
    req.path = first.substr(pathStart, first.find(' ', pathStart) - pathStart);
    size_t at = lineEnd + 2;
    while (at < in.size()) {
        size_t end = in.find("\r\n", at);
        if (end == std::string::npos || end == at) break;
        std::string line = in.substr(at, end - at);
        auto colon = line.find(':');
        if (colon != std::string::npos) {
            std::string value = line.substr(colon + 1);
            while (!value.empty() && value.front() == ' ') value.erase(0, 1);
            req.headers[lower(line.substr(0, colon))] = value;
        }
        at = end + 2;
    }
    // The body, as long as the header says.
    size_t bodyStart = in.find("\r\n\r\n") + 4;
    size_t want = 0;
    if (auto it = req.headers.find("content-length"); it != req.headers.end())
        want = std::min<size_t>(std::strtoull(it->second.c_str(), nullptr, 10), 1 << 20);
    req.body = in.substr(std::min(bodyStart, in.size()));
    while (req.body.size() < want) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0) break;
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        req.body.append(buf, static_cast<size_t>(n));
    }
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(req);
        handler = handler_;
    }
    ++count_;
    Reply reply = handler(req);
    if (reply.delay.count() > 0 && waitStop(reply.delay)) return;
    std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Whatever\r\n";
    for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
    head += "Content-Length: " + std::to_string(reply.body.size() + reply.paddingBytes) + "\r\nConnection: close\r\n\r\n";
    if (!sendAll(fd, head.data(), head.size()) || !sendAll(fd, reply.body.data(), reply.body.size())) return;
    std::string chunk(64 * 1024, 'x');
    for (size_t left = reply.paddingBytes; left > 0;) {
        size_t n = std::min(left, chunk.size());
        if (!sendAll(fd, chunk.data(), n)) return;  // the client hung up: fine
        left -= n;
    }
}

}  // namespace lumora::test
