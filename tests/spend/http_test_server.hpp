#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace lumora::test {

// A real HTTP server on the loopback address for the price-list tests: one
// connection at a time, each answered by the handler and closed.
class HttpTestServer {
public:
    struct Request {
        std::string path;
        std::map<std::string, std::string> headers;  // names in lower case
    };
    struct Response {
        int status = 200;
        std::string body;
        std::vector<std::pair<std::string, std::string>> headers;
    };
    using Handler = std::function<Response(const Request&)>;

    explicit HttpTestServer(Handler handler) : handler_(std::move(handler)) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        socklen_t len = sizeof addr;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        ::listen(fd_, 8);
        thread_ = std::thread([this] { serve(); });
    }
    ~HttpTestServer() {
        stop_ = true;
        thread_.join();
        ::close(fd_);
    }

    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::vector<Request> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    void serve() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) continue;
            std::string raw;
            char buf[4096];
            while (raw.find("\r\n\r\n") == std::string::npos) {
                ssize_t n = ::recv(c, buf, sizeof buf, 0);
                if (n <= 0) break;
                raw.append(buf, static_cast<size_t>(n));
            }
            Request req;
            auto lineEnd = raw.find("\r\n");
            auto firstSpace = raw.find(' ');
            auto secondSpace = raw.find(' ', firstSpace + 1);
            if (firstSpace < lineEnd && secondSpace < lineEnd) req.path = raw.substr(firstSpace + 1, secondSpace - firstSpace - 1);
            for (size_t at = lineEnd + 2; at < raw.size();) {
                auto end = raw.find("\r\n", at);
                if (end == std::string::npos || end == at) break;
                auto line = raw.substr(at, end - at);
                auto colon = line.find(':');
                if (colon != std::string::npos) {
                    std::string name = line.substr(0, colon);
                    for (auto& ch : name) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
                    req.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
                }
                at = end + 2;
            }
            {
                std::lock_guard lock(mutex_);
                requests_.push_back(req);
            }
            Response res = handler_(req);
            std::string out = "HTTP/1.1 " + std::to_string(res.status) + " X\r\nContent-Length: " +
                              std::to_string(res.body.size()) + "\r\nConnection: close\r\n";
            for (const auto& [k, v] : res.headers) out += k + ": " + v + "\r\n";
            out += "\r\n" + res.body;
            for (size_t sent = 0; sent < out.size();) {
                ssize_t n = ::send(c, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
                if (n <= 0) break;
                sent += static_cast<size_t>(n);
            }
            ::close(c);
        }
    }

    Handler handler_;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    std::thread thread_;
};

}  // namespace lumora::test
