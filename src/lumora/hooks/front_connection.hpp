#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace lumora {

// A face's end of the face socket (FrontSocketServer): one connection to the
// service, read line by line, written one command line at a time.
class FrontConnection {
public:
    // Connects to the face socket at `path`; nothing when nobody serves it
    // (no file, a stale file, a full queue until `timeout`).
    static std::unique_ptr<FrontConnection> connect(const std::filesystem::path& path,
                                                    std::chrono::milliseconds timeout = std::chrono::milliseconds(500));
    ~FrontConnection();
    FrontConnection(const FrontConnection&) = delete;
    FrontConnection& operator=(const FrontConnection&) = delete;

    // The next whole line (without its "\n"), waiting up to `timeout`;
    // nothing on a time-out or once the service has gone. Not with start().
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    // True once readLine() found the connection closed by the service.
    bool closed() const { return eof_; }

    // Reads on a thread of its own from now on: `onLine` gets every line and
    // `onClosed` runs once when the service goes, both on that thread.
    void start(std::function<void(std::string line)> onLine, std::function<void()> onClosed);

    // Writes one line (ending in "\n"); false when it cannot within a second
    // (the service has gone or stopped reading us).
    bool send(std::string_view line);
    // Stops the reader and closes the connection.
    void close();

private:
    explicit FrontConnection(int fd);
    void readLoop(std::function<void(std::string)> onLine, std::function<void()> onClosed);

    int fd_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::string in_;
    std::mutex sendMutex_;
    std::thread reader_;
    std::atomic<bool> closing_{false};
    bool eof_ = false;
};

}  // namespace lumora
