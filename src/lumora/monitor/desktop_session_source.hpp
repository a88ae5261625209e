#pragma once

#include <atomic>
#include <filesystem>

#include "lumora/monitor/claude_monitor.hpp"

namespace lumora {

// The Claude desktop app's sessions: the Claude Code sessions it started
// (named by its session index, archived ones hidden) and its Cowork
// sessions (folded from their event logs, shown while `coworkEnabled`). A
// desktop session whose `claude` process runs takes that process's facts;
// one without a process is shown while its journal is fresh. Listed before
// the plain Claude Code source, so its titled row is the one that stays.
class DesktopSessionSource : public SessionSource {
public:
    struct Paths {
        std::filesystem::path desktopData;   // the desktop app's data folder
        std::filesystem::path projects;      // ~/.claude/projects
        std::filesystem::path claudeConfig;  // ~/.claude.json
    };

    explicit DesktopSessionSource(Paths paths);

    std::vector<SessionObservation> observe(const ScanContext& context) override;

    // Safe from any thread; the next scan honours it.
    void setCoworkEnabled(bool enabled) { cowork_ = enabled; }

    // The host every desktop row names.
    static AgentHost desktopHost();

private:
    std::vector<SessionObservation> desktopSessions(const ScanContext& context);
    std::vector<SessionObservation> coworkSessions(const ScanContext& context);

    Paths paths_;
    std::atomic<bool> cowork_{true};
};

}  // namespace lumora
