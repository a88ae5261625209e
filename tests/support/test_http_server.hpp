#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace lumora::test {

// A real HTTP/1.1 server on 127.0.0.1 (a free port), answering one
// connection at a time on its own thread with whatever the handler says.
// It counts the requests it receives, so tests can prove that a client did
// or did not ask.
class TestHttpServer {
public:
    struct Request {
        std::string method;
        std::string path;
        std::map<std::string, std::string> headers;  // names lower-cased
        std::string body;  // as long as its Content-Length says (at most 1 MiB)
    };
    struct Reply {
        int status = 200;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        size_t paddingBytes = 0;                // that many more bytes of body ("x")
        std::chrono::milliseconds delay{0};     // waits this long before answering
    };
    using Handler = std::function<Reply(const Request&)>;

    explicit TestHttpServer(Handler handler);
    ~TestHttpServer();

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int requestCount() const { return count_.load(); }
    std::vector<Request> requests() const;
    void setHandler(Handler handler);

private:
    void serve();
    void answer(int fd);
    bool waitStop(std::chrono::milliseconds delay);

    int listenFd_ = -1;
    int stopPipe_[2] = {-1, -1};
    int port_ = 0;
    std::atomic<int> count_{0};
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<Request> requests_;
    std::thread thread_;
};

}  // namespace lumora::test
