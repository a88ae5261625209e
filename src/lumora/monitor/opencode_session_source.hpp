#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/directory_sessions.hpp"
#include "lumora/platform/file_stamp.hpp"
#include "scrivet/opencode_transcript_reader.hpp"

namespace lumora {

// OpenCode's sessions: the top-level sessions of OpenCode's database whose
// directory has a live `opencode` process (child sessions are their
// parents' subagents). The database is opened read-only for each look and
// closed after it; while its files have not changed the last look is reused.
// A locked database keeps the last look for that tick; any other failure
// shows no OpenCode rows, and each cause is logged once.
class OpenCodeSessionSource : public SessionSource {
public:
    struct Paths {
        std::filesystem::path database;   // opencode.db ($LUMORA_OPENCODE_DB)
        std::filesystem::path catalogue;  // models.json ($LUMORA_OPENCODE_MODELS)
    };

    // Sessions updated longer ago than this are not listed, unless they were
    // on screen on the previous tick.
    static constexpr std::chrono::seconds kMaxAge{24 * 3600};
    // An unchanged database is looked at again at least this often (ages move on).
    static constexpr std::chrono::seconds kReuseFor{30};

    explicit OpenCodeSessionSource(Paths paths);

    std::vector<SessionObservation> observe(const ScanContext& context) override;
    // While OpenCode runs: its database and the write-ahead log beside it
    // (where its writes land first).
    void addWatchTargets(std::vector<FileWatcher::Target>& out) const override;

private:
    struct Look {
        std::optional<FileStamp> database, wal, catalogue;
        std::set<std::string> directories;
        bool operator==(const Look&) const = default;
    };

    Paths paths_;
    bool running_ = false;  // a process was seen by the last observe()
    std::set<std::string> shown_;
    std::optional<Look> lastLook_;
    Date lastLookAt_{};
    std::vector<scrivet::OpenCodeTranscriptReader::OpenCodeSession> lastSessions_;
    ProblemLog problems_{"opencode"};
};

}  // namespace lumora
