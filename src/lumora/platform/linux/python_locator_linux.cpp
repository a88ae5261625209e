#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "lumora/platform/linux/descriptor_limit.hpp"
#include "lumora/platform/python_locator.hpp"

namespace lumora::PythonLocator {

namespace {

bool isExecutableFile(const fs::path& p) {
    std::error_code ec;
    return fs::is_regular_file(p, ec) && ::access(p.c_str(), X_OK) == 0;
}

// python3 as the shell would find it on PATH, as an absolute path.
std::optional<fs::path> onPath() {
    const char* path = std::getenv("PATH");
    if (!path) return std::nullopt;
    std::string list(path);
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(':', start);
        if (end == std::string::npos) end = list.size();
        std::string dir = list.substr(start, end - start);
        if (!dir.empty() && dir.front() == '/') {
            fs::path candidate = fs::path(dir) / "python3";
            if (isExecutableFile(candidate)) return candidate.lexically_normal();
        }
        start = end + 1;
    }
    return std::nullopt;
}

}  // namespace

std::vector<fs::path> candidates() {
    std::vector<fs::path> out;
    auto add = [&](const fs::path& p) {
        if (!isExecutableFile(p)) return;
        std::error_code ec;
        for (const auto& existing : out) {
            if (existing == p || fs::equivalent(existing, p, ec)) return;
        }
        out.push_back(p);
    };
    add("/usr/bin/python3");
    add("/usr/local/bin/python3");
    if (auto p = onPath()) add(*p);
    return out;
}

bool passesProbe(const fs::path& interpreter) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    if (pid == 0) {
        ::dup2(fds[1], STDOUT_FILENO);
        int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, STDIN_FILENO);
            ::dup2(null, STDERR_FILENO);
        }
        const char* argv[] = {interpreter.c_str(), "-c", "import json,socket,sys; sys.stdout.write('ok')", nullptr};
        DescriptorLimit::restoreInChild();
        sigset_t none;  // the signals a headless run waits for are blocked in our threads, not in programs we start
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execv(interpreter.c_str(), const_cast<char* const*>(argv));
        ::_exit(127);
    }
    ::close(fds[1]);
    std::string output;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fds[0], POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        char buf[64];
        ssize_t n = ::read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        output.append(buf, static_cast<size_t>(n));
        if (output.size() > 16) break;
    }
    ::close(fds[0]);
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == 0) {
        // Give it a moment to finish writing; a hung interpreter is killed.
        for (int i = 0; i < 100 && ::waitpid(pid, &status, WNOHANG) == 0; ++i) ::usleep(20000);
        if (::kill(pid, 0) == 0 && ::waitpid(pid, &status, WNOHANG) == 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
        }
    }
    return output == "ok" && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace lumora::PythonLocator
