#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/platform/file_stamp.hpp"
#include "lumora/monitor/sdk_sessions.hpp"

namespace lumora {

// Claude Code's sessions: the `claude` processes of the scan's process pass,
// each paired with its journal, and the SDK-driven sessions whose host
// application runs. Journals are read with the Claude transcript reader.
class ClaudeSessionSource : public SessionSource {
public:
    struct Paths {
        std::filesystem::path projects;      // ~/.claude/projects
        std::filesystem::path claudeConfig;  // ~/.claude.json
        std::filesystem::path tempFolder;    // Claude Code's background-task output (<temp>/claude-<uid>)
        // ~/.claude/sessions, where a new session announces itself and a
        // running one its state ("busy", "waiting"); watched, not read here.
        std::filesystem::path sessionIndex = {};
    };

    // Tells whether an application (by desktop id) runs, as of a process pass.
    using IsRunning = std::function<bool(const std::string& appId, const ProcessSnapshot& snapshot)>;

    // `hostMemory` learns the hosts of live SDK-driven processes.
    ClaudeSessionSource(Paths paths, SDKHostMemory& hostMemory, IsRunning isRunning);

    std::vector<SessionObservation> observe(const ScanContext& context) override;
    // The session index folder; each shown session's journal and subagent
    // folder; a process whose journal is not known yet, its project folder.
    void addWatchTargets(std::vector<FileWatcher::Target>& out) const override;

    // The row's title: the repository's name, else the folder's.
    static std::string projectName(const std::string& cwd, const std::optional<std::string>& repoName);

private:
    // The facts of a journal, read again only when it changed. Reused only
    // for a settled session with no subagent or background work (whose facts
    // move with the clock, not with the file).
    std::optional<scrivet::TranscriptInfo> readInfo(const std::filesystem::path& file, const std::string& cwd,
                                                    Date now);

    struct CachedInfo {
        FileStamp stamp;
        int64_t configMtimeNs = -1;
        scrivet::TranscriptInfo info;
    };

    // Notes a shown session's journal (and its subagent folder) for watching.
    void watchJournal(const std::filesystem::path& journal);

    Paths paths_;
    std::vector<FileWatcher::Target> watch_;
    std::map<std::filesystem::path, CachedInfo> infoCache_;
    std::set<std::filesystem::path> usedThisScan_;
    int64_t configMtimeNs_ = -1;
    SDKHostMemory& hostMemory_;
    IsRunning isRunning_;
};

}  // namespace lumora
