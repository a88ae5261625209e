#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/monitor/claude_monitor.hpp"
#include "scrivet/cursor_transcript_reader.hpp"

namespace lumora {

// Cursor's sessions: one row per conversation. A live `cursor-agent` process
// is paired with the newest conversation of its working directory's project
// written since it started; the conversations Cursor's editor runs have no
// process of their own and show while Cursor runs and they are fresh (or
// while a hook note names them). The hook's notes are merged in here: the
// model, a pending tool call that has waited past its threshold (needs you),
// and the activity note (working). A dangling Shell call whose command is
// visibly running is working, not waiting.
class CursorSessionSource : public SessionSource {
public:
    struct Options {
        std::filesystem::path projectsRoot;  // ~/.cursor/projects
        // How fresh a conversation without a process of its own must be.
        std::chrono::seconds maxAge{30 * 60};
    };

    explicit CursorSessionSource(Options options);

    std::vector<SessionObservation> observe(const ScanContext& context) override;
    // Each shown conversation's transcript and subagent folder; while a
    // process has no conversation yet, its project's transcript folder.
    void addWatchTargets(std::vector<FileWatcher::Target>& out) const override;

    // True when some process of the snapshot runs the command `command`
    // (its command line holds it), other than an agent itself.
    static bool commandAppearsRunning(const std::string& command, const ProcessSnapshot& snapshot);
    // True when Cursor (its editor or its agent) runs.
    static bool cursorRunning(const ProcessSnapshot& snapshot);

private:
    // The project's directory, found once per folder (a failure is retried a
    // minute later).
    std::optional<std::string> projectCwd(const std::filesystem::path& folder,
                                          const std::vector<std::filesystem::path>& files, Date now);
    std::optional<scrivet::CursorSession> readSession(const scrivet::CursorTranscriptReader::Transcript& t,
                                                      const std::string& cwd, Date now);

    struct CachedCwd {
        std::optional<std::string> cwd;
        Date at{};
    };
    struct CachedSession {
        scrivet::FileStamp stamp;
        std::string cwd;
        scrivet::CursorSession session;
    };

    Options options_;
    std::vector<FileWatcher::Target> watch_;
    std::map<std::string, CachedCwd> cwds_;
    std::map<std::filesystem::path, CachedSession> sessions_;
};

}  // namespace lumora
