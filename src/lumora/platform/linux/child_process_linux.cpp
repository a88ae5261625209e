#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

#include "lumora/platform/child_process.hpp"
#include "lumora/platform/linux/descriptor_limit.hpp"

extern char** environ;

namespace lumora {

namespace {

class LinuxChild : public ChildProcess {
public:
    LinuxChild(pid_t pid, int in, int out, std::string input) : pid_(pid) {
        // Once the child is gone, its pipes may still be held open by someone
        // else: a daemon it started, or a server it handed its descriptors to
        // that never takes them. The stop pipe tells the threads to finish
        // with what is there rather than wait for an end that never comes.
        if (::pipe2(stop_, O_CLOEXEC | O_NONBLOCK) != 0) stop_[0] = stop_[1] = -1;
        int stop = stop_[0];
        writer_ = std::thread([in, stop, input = std::move(input)] {
            const char* p = input.data();
            size_t left = input.size();
            while (left > 0) {
                pollfd fds[2] = {{in, POLLOUT, 0}, {stop, POLLIN, 0}};
                if (::poll(fds, stop >= 0 ? 2 : 1, -1) < 0) {
                    if (errno == EINTR) continue;
                    break;
                }
                if (fds[1].revents) break;
                ssize_t n = ::write(in, p, left);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                p += n;
                left -= static_cast<size_t>(n);
            }
            ::close(in);
        });
        reader_ = std::thread([this, out, stop] {
            char buf[4096];
            bool stopping = false;
            for (;;) {
                if (!stopping) {
                    pollfd fds[2] = {{out, POLLIN, 0}, {stop, POLLIN, 0}};
                    if (::poll(fds, stop >= 0 ? 2 : 1, -1) < 0) {
                        if (errno == EINTR) continue;
                        break;
                    }
                    if (fds[1].revents) {
                        // Take what is already written, then stop.
                        stopping = true;
                        ::fcntl(out, F_SETFL, ::fcntl(out, F_GETFL) | O_NONBLOCK);
                    }
                }
                ssize_t n = ::read(out, buf, sizeof buf);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                std::lock_guard lock(mutex_);
                output_.append(buf, static_cast<size_t>(n));
            }
            ::close(out);
        });
    }

    ~LinuxChild() override {
        if (!reaped_) kill();
        join();
    }

    bool wait(std::chrono::milliseconds timeout) override {
        if (reaped_) return true;
        auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            int status = 0;
            pid_t r = ::waitpid(pid_, &status, WNOHANG);
            if (r == pid_) {
                reaped_ = true;
                exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                join();
                return true;
            }
            if (r < 0 && errno != EINTR) return false;
            if (std::chrono::steady_clock::now() >= deadline) return false;
            ::usleep(1000);
        }
    }

    int exitCode() const override { return exitCode_; }

    std::string output() const override {
        std::lock_guard lock(mutex_);
        return output_;
    }

    void kill() override {
        if (reaped_) return;
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        reaped_ = true;
        exitCode_ = -1;
        join();
    }

private:
    // Called once the child is reaped: its own output has all been written.
    void join() {
        if (stop_[1] >= 0) {
            char c = 1;
            (void)!::write(stop_[1], &c, 1);
        }
        if (writer_.joinable()) writer_.join();
        if (reader_.joinable()) reader_.join();
        for (int& fd : stop_) {
            if (fd >= 0) ::close(fd);
            fd = -1;
        }
    }

    pid_t pid_;
    bool reaped_ = false;
    int exitCode_ = -1;
    mutable std::mutex mutex_;
    std::string output_;
    std::thread writer_, reader_;
    int stop_[2] = {-1, -1};
};

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::spawn(const std::vector<std::string>& argv, std::string input,
                                                  const Environment& overrides) {
    if (argv.empty()) return nullptr;
    // Everything the child needs is prepared before fork, so the child only calls exec.
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e) {
        std::string entry(*e);
        std::string name = entry.substr(0, entry.find('='));
        bool overridden = false;
        for (const auto& [k, v] : overrides) overridden = overridden || k == name;
        if (!overridden) env.push_back(entry);
    }
    for (const auto& [k, v] : overrides) env.push_back(k + "=" + v);
    std::vector<char*> envp, args;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> argvCopy = argv;
    for (auto& a : argvCopy) args.push_back(a.data());
    args.push_back(nullptr);

    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return nullptr;
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        return nullptr;
    }
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    pid_t pid = ::fork();
    if (pid < 0) {
        for (int fd : {in[0], in[1], out[0], out[1], null}) ::close(fd);
        return nullptr;
    }
    if (pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        if (null >= 0) ::dup2(null, STDERR_FILENO);
        DescriptorLimit::restoreInChild();
        sigset_t none;  // the signals a headless run waits for are blocked in our threads, not in programs we start
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execvpe(args[0], args.data(), envp.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (null >= 0) ::close(null);
    ::signal(SIGPIPE, SIG_IGN);  // a child that does not read its input must not kill us
    return std::make_unique<LinuxChild>(pid, in[1], out[0], std::move(input));
}

}  // namespace lumora
