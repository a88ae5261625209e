#include "lumora/platform/process_table.hpp"

namespace lumora {

ProcessSnapshot::ProcessSnapshot(std::vector<ProcessInfo> processes, std::chrono::steady_clock::time_point takenAt)
    : processes_(std::move(processes)), takenAt_(takenAt) {
    byPid_.reserve(processes_.size());
    for (size_t i = 0; i < processes_.size(); ++i) byPid_.emplace(processes_[i].pid, i);
}

const ProcessInfo* ProcessSnapshot::find(int32_t pid) const {
    auto it = byPid_.find(pid);
    return it == byPid_.end() ? nullptr : &processes_[it->second];
}

std::optional<ProcessInfo> ProcessTable::process(int32_t pid) {
    auto all = snapshot();
    if (const ProcessInfo* p = all.find(pid)) return *p;
    return std::nullopt;
}

ProcessSnapshot FixedProcessTable::snapshot(const SnapshotOptions& options) {
    auto at = takenAt_.value_or(std::chrono::steady_clock::now());
    std::vector<ProcessInfo> out = processes_;
    if (options.wantsDetails) {
        for (auto& p : out) {
            if (!options.wantsDetails(p)) p.cwd.reset(), p.executable.reset();
        }
    }
    return ProcessSnapshot(std::move(out), at);
}

std::map<std::string, std::string> FixedProcessTable::environment(int32_t pid, const std::vector<std::string>& names) {
    std::map<std::string, std::string> out;
    auto it = env_.find(pid);
    if (it == env_.end()) return out;
    for (const auto& n : names) {
        if (auto v = it->second.find(n); v != it->second.end()) out.emplace(n, v->second);
    }
    return out;
}

std::optional<std::string> FixedProcessTable::launchUnit(int32_t pid) {
    auto it = units_.find(pid);
    if (it == units_.end()) return std::nullopt;
    return it->second;
}

}  // namespace lumora
