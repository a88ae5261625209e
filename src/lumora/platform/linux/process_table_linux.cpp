// The process table read from /proc. One snapshot lists /proc once; each
// process is read in full (stat line and command line) when first seen and
// then watched cheaply, and the processes the caller follows are read afresh
// with the two links for the working directory and the executable.
#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <string_view>

#include "lumora/platform/linux/descriptor_limit.hpp"
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

// The text of a small /proc file read again through a descriptor kept open;
// false once the process is gone (the descriptor is bound to the process,
// not to its number, so a reused pid reads as gone too).
bool reread(int fd, char* buf, size_t size, size_t& length) {
    ssize_t n;
    do n = ::pread(fd, buf, size, 0);
    while (n < 0 && errno == EINTR);
    if (n <= 0) return false;
    length = static_cast<size_t>(n);
    return true;
}

class LinuxProcessTable : public ProcessTable {
public:
    LinuxProcessTable() {
        long hz = ::sysconf(_SC_CLK_TCK);
        ticksPerSecond_ = hz > 0 ? static_cast<double>(hz) : 100.0;
        // Half of what is left after a reserve for everything else we open.
        size_t limit = DescriptorLimit::raise();
        watchBudget_ = limit > 512 ? std::min<size_t>((limit - 512) / 2, 16384) : 0;
    }

    ~LinuxProcessTable() override {
        for (auto& [pid, k] : known_) unwatch(k);
    }

    // Reading a process's stat line and command line costs a few microseconds
    // each, mostly in opening the files; at a thousand processes per tick that
    // is most of the pass. So a process is read in full when it is first seen
    // and kept: later ticks only re-read its kernel name through a descriptor
    // kept open, which shows an exec (it renames the process) and the
    // process's end. It is read in full again after an exec, when its parent
    // has gone (it has been handed to another), while it is younger than a
    // second (a fresh fork may not have exec'd yet, and the new program may
    // keep the old name), and every tick for the processes the caller follows.
    ProcessSnapshot snapshot(const SnapshotOptions& options) override {
        std::lock_guard lock(mutex_);
        if (procFd_ < 0) procFd_ = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (procFd_ < 0) return ProcessSnapshot();
        auto takenAt = std::chrono::steady_clock::now();
        std::vector<int32_t> pids = listPids();
        // Wall-clock time of the boot: start ticks count from it.
        double bootEpoch = seconds(CLOCK_REALTIME) - seconds(CLOCK_BOOTTIME);
        auto listed = [&](int32_t pid) { return std::binary_search(pids.begin(), pids.end(), pid); };
        ++pass_;

        std::vector<ProcessInfo> out;
        out.reserve(pids.size());
        for (int32_t pid : pids) {
            auto it = known_.find(pid);
            Known* k = it == known_.end() ? nullptr : &it->second;
            bool fresh = false;  // whether the stat line was read this tick
            if (k && !current(*k, listed)) {
                unwatch(*k);
                known_.erase(it);
                k = nullptr;
            }
            if (!k) {
                Known entry;
                if (!readFully(pid, entry)) continue;  // gone, or not ours to read
                k = &known_.insert_or_assign(pid, std::move(entry)).first->second;
                fresh = true;
            }
            k->pass = pass_;
            ProcessInfo p = k->facts;
            bool followed = !p.command.empty() && (!options.wantsDetails || options.wantsDetails(p));
            if (followed) {
                if (!fresh) {
                    bool kernelThread = false;
                    if (!readAt(procFd_, path(pid, "stat"), buf_) || !parseStat(buf_, p, ticksPerSecond_, kernelThread))
                        continue;
                    if (p.startTicks != k->facts.startTicks) continue;  // the pid was reused just now
                    k->facts.ppid = p.ppid, k->facts.tty = p.tty, k->facts.cpuSeconds = p.cpuSeconds;
                }
                p.cwd = readLinkAt(procFd_, path(pid, "cwd"));
                p.executable = readLinkAt(procFd_, path(pid, "exe"));
                if (p.executable) {
                    // A replaced executable reads as "<path> (deleted)".
                    static constexpr std::string_view deleted = " (deleted)";
                    if (p.executable->ends_with(deleted)) p.executable->resize(p.executable->size() - deleted.size());
                }
            }
            double startEpoch = bootEpoch + static_cast<double>(p.startTicks) / ticksPerSecond_;
            p.start = ProcessClock::time_point(std::chrono::duration_cast<ProcessClock::duration>(
                std::chrono::duration<double>(startEpoch)));
            out.push_back(std::move(p));
        }
        // Forget the processes that have ended.
        for (auto it = known_.begin(); it != known_.end();) {
            if (it->second.pass != pass_) {
                unwatch(it->second);
                it = known_.erase(it);
            } else {
                ++it;
            }
        }
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

    std::optional<ProcessInfo> process(int32_t pid) override {
        if (pid <= 0) return std::nullopt;
        std::string dir = "/proc/" + std::to_string(pid);
        int pidFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (pidFd < 0) return std::nullopt;
        ProcessInfo p;
        p.pid = pid;
        std::string text;
        bool kernelThread = false;
        bool ok = readAt(pidFd, "stat", text) && parseStat(text, p, ticksPerSecond_, kernelThread);
        // A zombie has ended; only its parent has yet to collect it.
        if (size_t close = text.rfind(')'); ok && close + 2 < text.size() && text[close + 2] == 'Z') ok = false;
        if (ok && !kernelThread && readAt(pidFd, "cmdline", text)) parseCmdline(text, p);
        if (ok) {
            p.cwd = readLinkAt(pidFd, "cwd");
            p.executable = readLinkAt(pidFd, "exe");
            static constexpr std::string_view deleted = " (deleted)";
            if (p.executable && p.executable->ends_with(deleted)) p.executable->resize(p.executable->size() - deleted.size());
            double bootEpoch = seconds(CLOCK_REALTIME) - seconds(CLOCK_BOOTTIME);
            double startEpoch = bootEpoch + static_cast<double>(p.startTicks) / ticksPerSecond_;
            p.start = ProcessClock::time_point(std::chrono::duration_cast<ProcessClock::duration>(
                std::chrono::duration<double>(startEpoch)));
        }
        ::close(pidFd);
        if (!ok) return std::nullopt;
        return p;
    }

    int32_t selfPid() const override { return static_cast<int32_t>(::getpid()); }

private:
    // A process as last read in full, and the descriptor that watches its name.
    struct Known {
        ProcessInfo facts;  // without the working directory and the executable
        uint64_t readAtTicks = 0;  // when it was read, in ticks since boot
        int nameFd = -1;
        uint64_t pass = 0;  // the last snapshot that listed it
    };

    void unwatch(Known& k) {
        if (k.nameFd < 0) return;
        ::close(k.nameFd);
        k.nameFd = -1;
        --watched_;
    }

    std::vector<int32_t> listPids() {
        std::vector<int32_t> pids;
        pids.reserve(known_.size() + 64);
        int fd = ::openat(procFd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return pids;
        DIR* dir = ::fdopendir(fd);
        if (!dir) {
            ::close(fd);
            return pids;
        }
        while (dirent* e = ::readdir(dir)) {
            const char* n = e->d_name;
            if (*n < '1' || *n > '9') continue;
            char* end = nullptr;
            long pid = std::strtol(n, &end, 10);
            if (*end == '\0') pids.push_back(static_cast<int32_t>(pid));
        }
        ::closedir(dir);
        std::sort(pids.begin(), pids.end());
        return pids;
    }

    // "123/stat": a name relative to /proc.
    const char* path(int32_t pid, const char* file) {
        std::snprintf(path_, sizeof path_, "%d/%s", pid, file);
        return path_;
    }

    // Whether what we know of a process still holds; false when it must be
    // read in full again.
    template <typename Listed>
    bool current(const Known& k, const Listed& listed) {
        if (k.nameFd < 0) return false;  // nothing watches it: read it every tick
        if (k.readAtTicks < k.facts.startTicks + static_cast<uint64_t>(ticksPerSecond_)) return false;
        if (k.facts.ppid > 0 && !listed(k.facts.ppid)) return false;
        char name[64];
        size_t length = 0;
        if (!reread(k.nameFd, name, sizeof name, length)) return false;
        if (length > 0 && name[length - 1] == '\n') --length;
        return std::string_view(name, length) == k.facts.name;
    }

    bool readFully(int32_t pid, Known& k) {
        ProcessInfo& p = k.facts;
        p.pid = pid;
        bool kernelThread = false;
        if (!readAt(procFd_, path(pid, "stat"), buf_) || !parseStat(buf_, p, ticksPerSecond_, kernelThread))
            return false;
        k.readAtTicks = static_cast<uint64_t>(seconds(CLOCK_BOOTTIME) * ticksPerSecond_);
        // Kernel threads have no command line, folder or executable.
        if (!kernelThread && readAt(procFd_, path(pid, "cmdline"), buf_)) parseCmdline(buf_, p);
        if (watched_ < watchBudget_) {
            k.nameFd = ::openat(procFd_, path(pid, "comm"), O_RDONLY | O_CLOEXEC);
            if (k.nameFd >= 0) ++watched_;
        }
        return true;
    }

    double ticksPerSecond_ = 100.0;
    size_t watchBudget_ = 0;
    size_t watched_ = 0;
    std::mutex mutex_;
    int procFd_ = -1;
    uint64_t pass_ = 0;
    std::unordered_map<int32_t, Known> known_;
    std::string buf_;
    char path_[64];
};

}  // namespace

ProcessTable& ProcessTable::system() {
    static LinuxProcessTable table;
    return table;
}

}  // namespace lumora
