#pragma once

// Stand-ins for a jump's real surroundings: processes under a host's name
// (a shell script named like the program, so the kernel names the process
// after it), tmux servers on private sockets, and a herdr socket server.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.hpp"

namespace lumora::test {

using namespace std::chrono_literals;

inline std::string quoted(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The direct children of a process.
inline std::vector<int32_t> childrenOf(int32_t pid) {
    std::vector<int32_t> out;
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    int32_t c;
    while (in >> c) out.push_back(c);
    return out;
}

// Waits until `pid` has a child and returns the first.
inline int32_t waitForChild(int32_t pid, std::chrono::milliseconds timeout = 5s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (auto kids = childrenOf(pid); !kids.empty()) return kids.front();
        std::this_thread::sleep_for(5ms);
    }
    return 0;
}

// A host program and the stand-in agent it runs: `name` is a shell script
// that starts `sleep` and waits, so the agent's parent carries that name.
class HostedAgent {
public:
    HostedAgent(const fs::path& folder, const std::string& name) {
        fs::create_directories(folder);
        script_ = folder / name;
        writeFile(script_, "#!/bin/sh\nsleep 600 &\nwait\n");
        fs::permissions(script_, fs::perms::owner_all);
        host_ = ::fork();
        if (host_ == 0) {
            ::setpgid(0, 0);
            ::execl(script_.c_str(), script_.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        agent_ = waitForChild(host_);
    }
    ~HostedAgent() {
        ::kill(-host_, SIGKILL);
        ::waitpid(host_, nullptr, 0);
    }
    int32_t host() const { return host_; }
    int32_t agent() const { return agent_; }

private:
    fs::path script_;
    pid_t host_ = 0;
    int32_t agent_ = 0;
};

// A tmux server on a private socket (-L), killed when the handle goes.
class TmuxServer {
public:
    explicit TmuxServer(const std::string& tag) {
        name_ = "lumora-jump-" + tag + "-" + std::to_string(::getpid());
    }
    ~TmuxServer() {
        if (auto pid = serverPid(); pid > 0) ::kill(pid, SIGCONT);
        run("kill-server");
    }
    CommandResult run(const std::string& args) const {
        return runCommand("tmux -L " + name_ + " -f /dev/null " + args + " 2>&1");
    }
    const std::string& name() const { return name_; }
    int32_t serverPid() const {
        auto r = run("display-message -p '#{pid}'");
        return r.status == 0 ? std::atoi(r.output.c_str()) : 0;
    }
    // The first process of a pane.
    int32_t panePid(const std::string& target) const {
        return std::atoi(run("display-message -p -t " + target + " '#{pane_pid}'").output.c_str());
    }
    std::string paneId(const std::string& target) const {
        auto out = run("display-message -p -t " + target + " '#{pane_id}'").output;
        return out.substr(0, out.find('\n'));
    }
    // "<pane id>" of the active pane of the active window of a session.
    std::string activePane(const std::string& session) const {
        auto out = run("display-message -p -t " + session + " '#{pane_id}'").output;
        return out.substr(0, out.find('\n'));
    }

private:
    std::string name_;
};

// A stand-in herdr server: answers each request line with what `answer`
// returns for it (nothing: no reply, the connection stays open until the
// client gives up) and records the requests.
class HerdrServer {
public:
    using Answer = std::function<std::optional<std::string>(const std::string& request)>;

    HerdrServer(const fs::path& socket, Answer answer) : path_(socket), answer_(std::move(answer)) {
        fs::create_directories(socket.parent_path());
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
        ::unlink(socket.c_str());
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(::listen(fd_, 8), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~HerdrServer() {
        stop_ = true;
        thread_.join();
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    void serve() {
        std::vector<int> open;
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            int c = ::accept(fd_, nullptr, nullptr);
            if (c < 0) continue;
            std::string line;
            char ch;
            auto deadline = std::chrono::steady_clock::now() + 2s;
            while (std::chrono::steady_clock::now() < deadline) {
                pollfd q{c, POLLIN, 0};
                if (::poll(&q, 1, 20) <= 0) continue;
                if (::read(c, &ch, 1) != 1 || ch == '\n') break;
                line += ch;
            }
            {
                std::lock_guard lock(mutex_);
                requests_.push_back(line);
            }
            if (auto reply = answer_(line)) {
                (void)!::write(c, reply->data(), reply->size());
                ::close(c);
            } else {
                open.push_back(c);  // silent: held open, never answered
            }
        }
        for (int c : open) ::close(c);
    }

    fs::path path_;
    Answer answer_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
};

}  // namespace lumora::test
