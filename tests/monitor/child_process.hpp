#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "lumora/platform/process_table.hpp"

// Real child processes under chosen names, for the discovery tests. Every
// child is killed and reaped when its handle goes.
namespace lumora::test {

class ChildProcess {
public:
    // Runs `executable` with exactly `argv` (argv[0] included) in `cwd`, with
    // `env` added to this process's environment. Waits until the process
    // table shows the new command line.
    ChildProcess(const std::filesystem::path& executable, std::vector<std::string> argv,
                 const std::filesystem::path& cwd, std::map<std::string, std::string> env = {}) {
        pid_ = ::fork();
        if (pid_ > 0) ::setpgid(pid_, pid_);
        if (pid_ == 0) {
            ::setpgid(0, 0);  // its own group, so stopping it also stops what it started
            if (::chdir(cwd.c_str()) != 0) ::_exit(127);
            for (const auto& [k, v] : env) ::setenv(k.c_str(), v.c_str(), 1);
            std::vector<char*> args;
            for (auto& a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            ::execv(executable.c_str(), args.data());
            ::_exit(127);
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < deadline) {
            std::ifstream in("/proc/" + std::to_string(pid_) + "/cmdline");
            std::string first;
            std::getline(in, first, '\0');
            if (first == argv[0]) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int32_t pid() const { return pid_; }
    void stop() {
        if (pid_ <= 0) return;
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// A copy of /bin/sleep under `name` in `dir` (made executable); run it with
// argv {name, "30"} to get a process whose program is `name`.
inline std::filesystem::path sleeperNamed(const std::filesystem::path& dir, const std::string& name) {
    std::filesystem::create_directories(dir);
    auto target = dir / name;
    std::filesystem::copy_file("/bin/sleep", target, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::permissions(target, std::filesystem::perms::owner_all);
    return target;
}

// A shell script that sleeps; run "/bin/sh" with argv {anyName, script, ...}
// to get a process whose argv[0] is anyName and whose first argument is the script.
inline std::filesystem::path sleepScript(const std::filesystem::path& file, const std::string& extra = "") {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << extra << "sleep 30\nexit 0\n";
    return file;
}

// A process of a made-up machine, for FixedProcessTable.
inline ProcessInfo fakeProcess(int32_t pid, int32_t ppid, std::string command, std::vector<std::string> arguments = {},
                               std::optional<std::string> cwd = std::nullopt) {
    ProcessInfo p;
    p.pid = pid;
    p.ppid = ppid;
    p.command = std::move(command);
    p.arguments = std::move(arguments);
    p.name = p.command.substr(p.command.rfind('/') == std::string::npos ? 0 : p.command.rfind('/') + 1).substr(0, 15);
    p.cwd = std::move(cwd);
    p.startTicks = static_cast<uint64_t>(pid) * 10;
    return p;
}

}  // namespace lumora::test
