// The process table read from /proc. One snapshot walks /proc once and reads,
// per process, its stat line and its command line, and for the processes the
// caller asks about the two links for the working directory and the executable.
#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <string_view>

#include "lumora/platform/process_table.hpp"

namespace lumora {

namespace {

// Reads a whole small /proc file relative to a directory descriptor.
bool readAt(int dirFd, const char* name, std::string& out, size_t limit = 1 << 20) {
    out.clear();
    int fd = ::openat(dirFd, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        // /proc hands out all it has per read; a short read is the end.
        if (static_cast<size_t>(n) < sizeof buf || out.size() >= limit) break;
    }
    ::close(fd);
    return true;
}

std::optional<std::string> readLinkAt(int dirFd, const char* name) {
    char buf[4096];
    ssize_t n = ::readlinkat(dirFd, name, buf, sizeof buf);
    if (n <= 0) return std::nullopt;
    return std::string(buf, static_cast<size_t>(n));
}

// Device number of a terminal as its /dev name: the pseudo-terminals
// (majors 136-143) as "pts/N", the consoles as "ttyN" and serial lines as "ttySN".
std::optional<std::string> ttyName(long long ttyNr) {
    if (ttyNr <= 0) return std::nullopt;
    unsigned major = (static_cast<unsigned long long>(ttyNr) >> 8) & 0xfff;
    unsigned minor = (ttyNr & 0xff) | ((static_cast<unsigned long long>(ttyNr) >> 12) & 0xfff00);
    if (major >= 136 && major <= 143) return "pts/" + std::to_string((major - 136) * 256 + minor);
    if (major == 4) return minor < 64 ? "tty" + std::to_string(minor) : "ttyS" + std::to_string(minor - 64);
    return "tty:" + std::to_string(major) + ":" + std::to_string(minor);
}

// Parses /proc/<pid>/stat. The name sits in parentheses and may itself hold
// blanks and parentheses, so the fields are counted from the last ')'.
bool parseStat(const std::string& text, ProcessInfo& p, double ticksPerSecond, bool& kernelThread) {
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return false;
    p.name = text.substr(open + 1, close - open - 1);
    // Fields from 3 on (state) follow ") ".
    const char* s = text.c_str() + close + 1;
    const char* end = text.c_str() + text.size();
    unsigned long long field[52] = {};
    int index = 3;  // the state field, skipped
    while (s < end && *s == ' ') ++s;
    while (s < end && *s != ' ') ++s;
    for (index = 4; index <= 22 && s < end; ++index) {
        while (s < end && *s == ' ') ++s;
        char* next = nullptr;
        long long v = std::strtoll(s, &next, 10);
        if (next == s) return false;
        field[index] = static_cast<unsigned long long>(v);
        s = next;
    }
    if (index <= 22) return false;
    p.ppid = static_cast<int32_t>(field[4]);
    constexpr unsigned long long kThreadFlag = 0x00200000;  // PF_KTHREAD
    kernelThread = (field[9] & kThreadFlag) != 0;
    p.tty = ttyName(static_cast<long long>(field[7]));
    p.cpuSeconds = static_cast<double>(field[14] + field[15]) / ticksPerSecond;
    p.startTicks = field[22];
    return true;
}

void parseCmdline(const std::string& raw, ProcessInfo& p) {
    size_t pos = 0;
    bool first = true;
    while (pos < raw.size()) {
        size_t nul = raw.find('\0', pos);
        if (nul == std::string::npos) nul = raw.size();
        std::string part = raw.substr(pos, nul - pos);
        if (first) p.command = std::move(part);
        else p.arguments.push_back(std::move(part));
        first = false;
        pos = nul + 1;
    }
}

double seconds(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

class LinuxProcessTable : public ProcessTable {
public:
    LinuxProcessTable() {
        long hz = ::sysconf(_SC_CLK_TCK);
        ticksPerSecond_ = hz > 0 ? static_cast<double>(hz) : 100.0;
    }

    ProcessSnapshot snapshot(const SnapshotOptions& options) override {
        std::vector<ProcessInfo> out;
        int procFd = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (procFd < 0) return ProcessSnapshot();
        DIR* dir = ::fdopendir(procFd);
        if (!dir) {
            ::close(procFd);
            return ProcessSnapshot();
        }
        auto takenAt = std::chrono::steady_clock::now();
        // Wall-clock time of the boot: start ticks count from it.
        double bootEpoch = seconds(CLOCK_REALTIME) - seconds(CLOCK_BOOTTIME);
        out.reserve(512);
        std::string buf;
        std::lock_guard lock(mutex_);
        auto& commands = commands_;
        std::unordered_map<int32_t, CommandLine> fresh;
        fresh.reserve(commands.size() + 64);
        while (dirent* e = ::readdir(dir)) {
            const char* n = e->d_name;
            if (*n < '1' || *n > '9') continue;
            char* endp = nullptr;
            long pid = std::strtol(n, &endp, 10);
            if (*endp != '\0') continue;
            // Relative names under /proc ("123/stat"): a pid is not reused
            // within the microseconds between two reads of one process.
            std::string base = std::string(n) + "/";
            auto name = [&](const char* file) { return base + file; };
            ProcessInfo p;
            p.pid = static_cast<int32_t>(pid);
            bool kernelThread = false;
            if (!readAt(procFd, name("stat").c_str(), buf) || !parseStat(buf, p, ticksPerSecond_, kernelThread))
                continue;  // gone
            // Kernel threads have no command line, folder or executable to read.
            if (!kernelThread) {
                // A command line seldom changes, so it is read once per process
                // (again after an exec, which renames the process: a wrapper
                // script that execs the agent keeps its pid and start).
                auto known = commands.find(p.pid);
                if (known != commands.end() && known->second.startTicks == p.startTicks && known->second.name == p.name) {
                    p.command = known->second.command;
                    p.arguments = known->second.arguments;
                } else if (readAt(procFd, name("cmdline").c_str(), buf)) {
                    parseCmdline(buf, p);
                }
                fresh[p.pid] = CommandLine{p.startTicks, p.name, p.command, p.arguments};
                if (!options.wantsDetails || options.wantsDetails(p)) {
                    p.cwd = readLinkAt(procFd, name("cwd").c_str());
                    p.executable = readLinkAt(procFd, name("exe").c_str());
                }
            }
            if (p.executable) {
                // A replaced executable reads as "<path> (deleted)".
                static constexpr std::string_view deleted = " (deleted)";
                if (p.executable->ends_with(deleted)) p.executable->resize(p.executable->size() - deleted.size());
            }
            double startEpoch = bootEpoch + static_cast<double>(p.startTicks) / ticksPerSecond_;
            p.start = ProcessClock::time_point(std::chrono::duration_cast<ProcessClock::duration>(
                std::chrono::duration<double>(startEpoch)));
            out.push_back(std::move(p));
        }
        ::closedir(dir);
        commands_ = std::move(fresh);
        return ProcessSnapshot(std::move(out), takenAt);
    }

    std::map<std::string, std::string> environment(int32_t pid, const std::vector<std::string>& names) override {
        std::map<std::string, std::string> out;
        std::string raw;
        std::string path = "/proc/" + std::to_string(pid);
        int pidFd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (pidFd < 0) return out;
        bool ok = readAt(pidFd, "environ", raw, 4 << 20);
        ::close(pidFd);
        if (!ok) return out;
        size_t pos = 0;
        while (pos < raw.size()) {
            size_t nul = raw.find('\0', pos);
            if (nul == std::string::npos) nul = raw.size();
            std::string_view entry(raw.data() + pos, nul - pos);
            size_t eq = entry.find('=');
            if (eq != std::string_view::npos) {
                std::string_view key = entry.substr(0, eq);
                for (const auto& name : names) {
                    if (key == name) {
                        out.emplace(name, std::string(entry.substr(eq + 1)));
                        break;
                    }
                }
            }
            pos = nul + 1;
        }
        return out;
    }

    std::optional<std::string> launchUnit(int32_t pid) override {
        std::string raw;
        std::string path = "/proc/" + std::to_string(pid);
        int pidFd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (pidFd < 0) return std::nullopt;
        bool ok = readAt(pidFd, "cgroup", raw);
        ::close(pidFd);
        if (!ok) return std::nullopt;
        // Prefer the unified hierarchy ("0::/..."), else systemd's own ("name=systemd:/...").
        std::string_view chosen;
        size_t pos = 0;
        while (pos < raw.size()) {
            size_t nl = raw.find('\n', pos);
            if (nl == std::string::npos) nl = raw.size();
            std::string_view line(raw.data() + pos, nl - pos);
            if (line.starts_with("0::")) chosen = line.substr(3);
            else if (chosen.empty() && line.find(":name=systemd:") != std::string_view::npos)
                chosen = line.substr(line.find(":name=systemd:") + 14);
            pos = nl + 1;
        }
        while (!chosen.empty() && chosen.back() == '/') chosen.remove_suffix(1);
        size_t slash = chosen.rfind('/');
        std::string_view last = slash == std::string_view::npos ? chosen : chosen.substr(slash + 1);
        if (last.empty()) return std::nullopt;
        return std::string(last);
    }

    int32_t selfPid() const override { return static_cast<int32_t>(::getpid()); }

private:
    struct CommandLine {
        uint64_t startTicks = 0;
        std::string name;  // the kernel's short name when it was read: an exec changes it
        std::string command;
        std::vector<std::string> arguments;
    };

    double ticksPerSecond_ = 100.0;
    std::mutex mutex_;
    std::unordered_map<int32_t, CommandLine> commands_;  // by pid, as of the last snapshot
};

}  // namespace

ProcessTable& ProcessTable::system() {
    static LinuxProcessTable table;
    return table;
}

}  // namespace lumora
