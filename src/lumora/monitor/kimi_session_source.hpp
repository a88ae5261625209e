#pragma once

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/directory_sessions.hpp"

namespace lumora {

// Kimi's sessions: the session folders under ~/.kimi-code/sessions whose
// working directory has a live `kimi` process, each read with the Kimi
// transcript reader. A session without such a process never becomes a row.
class KimiSessionSource : public SessionSource {
public:
    struct Paths {
        std::filesystem::path sessionsRoot;  // ~/.kimi-code/sessions
        std::filesystem::path configFile;    // ~/.kimi-code/config.toml
    };

    // Sessions whose main journal is older than this are not looked at,
    // unless they were on screen on the previous tick.
    static constexpr std::chrono::seconds kMaxAge{24 * 3600};

    explicit KimiSessionSource(Paths paths);

    std::vector<SessionObservation> observe(const ScanContext& context) override;
    // Each shown session's state file, main wire journal and agents folder;
    // while a process has no session shown, the folders where one appears.
    void addWatchTargets(std::vector<FileWatcher::Target>& out) const override;
    // How many working-directory folders are watched for new sessions at most.
    static constexpr size_t kMaxWatchedDirectories = 64;

private:
    Paths paths_;
    std::vector<FileWatcher::Target> watch_;
    std::set<std::string> shown_;
    ProblemLog problems_{"kimi"};
};

}  // namespace lumora
