#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

// The operating system's process table, as the monitor sees it. One snapshot
// per tick lists every process with the facts discovery needs; the few facts
// that are costly to read for every process (environment, control group) are
// asked for one process at a time. Linux implements it in platform/linux/.
namespace lumora {

using ProcessClock = std::chrono::system_clock;

// One process at the moment of the snapshot.
struct ProcessInfo {
    int32_t pid = 0;
    int32_t ppid = 0;
    std::string command;                     // argv[0] exactly as the process gave it
    std::vector<std::string> arguments;      // argv[1...]
    std::string name;                        // the kernel's short name (15 characters at most)
    std::optional<std::string> executable;   // the executable's path, when we may read it
    std::optional<std::string> cwd;          // the working directory, when we may read it
    std::optional<ProcessClock::time_point> start;  // wall-clock start
    uint64_t startTicks = 0;                 // start in clock ticks since boot (0 when unknown)
    double cpuSeconds = 0;                   // processor time used so far (user + system)
    std::optional<std::string> tty;          // controlling terminal, e.g. "pts/3"

    bool operator==(const ProcessInfo&) const = default;
};

// Every process at one moment, with a lookup by pid.
class ProcessSnapshot {
public:
    ProcessSnapshot() = default;
    explicit ProcessSnapshot(std::vector<ProcessInfo> processes,
                             std::chrono::steady_clock::time_point takenAt = std::chrono::steady_clock::now());

    const std::vector<ProcessInfo>& processes() const { return processes_; }
    // The process with this pid, or nullptr when it is not in the snapshot.
    const ProcessInfo* find(int32_t pid) const;
    std::chrono::steady_clock::time_point takenAt() const { return takenAt_; }
    size_t size() const { return processes_.size(); }

private:
    std::vector<ProcessInfo> processes_;
    std::unordered_map<int32_t, size_t> byPid_;
    std::chrono::steady_clock::time_point takenAt_{};
};

// Which processes a snapshot follows closely. Reading every process afresh
// each tick costs far more than the few the caller cares about: a process it
// does not follow keeps the parent, times and terminal of when it was last
// read in full (on first sight, after an exec, or after its parent ended),
// and has no working directory or executable.
struct SnapshotOptions {
    // Decides from the facts read so far (pid, parents, command line) whether
    // to follow a process: read its processor time, terminal and parent
    // afresh, and its `cwd` and `executable`. Unset follows every process.
    std::function<bool(const ProcessInfo&)> wantsDetails;
};

class ProcessTable {
public:
    virtual ~ProcessTable() = default;

    // Lists every process we can see. A process that exits while it is being
    // read, or whose basic facts we may not read, is left out.
    virtual ProcessSnapshot snapshot(const SnapshotOptions& options) = 0;
    ProcessSnapshot snapshot() { return snapshot(SnapshotOptions{}); }
    // The values of the named environment variables of one process; a
    // variable that is unset, or a process we may not inspect, is left out.
    virtual std::map<std::string, std::string> environment(int32_t pid, const std::vector<std::string>& names) = 0;
    // The name of the unit the session manager started the process in (on
    // Linux the last part of its control-group path, such as
    // "app-gnome-org.gnome.Terminal-1234.scope"); nothing when unknown.
    virtual std::optional<std::string> launchUnit(int32_t pid) = 0;
    // One process read afresh, with its working directory and executable;
    // nothing when it is gone or not ours to read. Cheaper than a snapshot
    // for a caller that follows one process and its parents.
    virtual std::optional<ProcessInfo> process(int32_t pid);
    // Our own process id.
    virtual int32_t selfPid() const = 0;

    // The machine's real process table.
    static ProcessTable& system();
};

// A process table made of given facts: tests and benchmarks build a machine
// of their own with it.
class FixedProcessTable : public ProcessTable {
public:
    FixedProcessTable() = default;
    explicit FixedProcessTable(std::vector<ProcessInfo> processes) : processes_(std::move(processes)) {}

    void setProcesses(std::vector<ProcessInfo> processes) { processes_ = std::move(processes); }
    std::vector<ProcessInfo>& processes() { return processes_; }
    void setEnvironment(int32_t pid, std::map<std::string, std::string> env) { env_[pid] = std::move(env); }
    void setLaunchUnit(int32_t pid, std::string unit) { units_[pid] = std::move(unit); }
    // Snapshots report this time as when they were taken (the clock otherwise).
    void setTakenAt(std::chrono::steady_clock::time_point at) { takenAt_ = at; }

    using ProcessTable::snapshot;
    ProcessSnapshot snapshot(const SnapshotOptions& options) override;
    std::map<std::string, std::string> environment(int32_t pid, const std::vector<std::string>& names) override;
    std::optional<std::string> launchUnit(int32_t pid) override;
    int32_t selfPid() const override { return 0; }

private:
    std::vector<ProcessInfo> processes_;
    std::unordered_map<int32_t, std::map<std::string, std::string>> env_;
    std::unordered_map<int32_t, std::string> units_;
    std::optional<std::chrono::steady_clock::time_point> takenAt_;
};

}  // namespace lumora
