#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/monitor/claude_monitor.hpp"
#include "scrivet/codex_transcript_reader.hpp"

namespace lumora {

// Codex's sessions: one row per running main thread. Each live `codex`
// process (the terminal UI, `codex exec`, `codex resume`) is paired with the
// rollout it writes: the one it names when resuming, else the newest thread
// of its working directory begun since the process started, else the newest
// one written since then. Threads of Codex's desktop app or an editor have
// no process of their own and show while that host runs and the rollout is
// fresh. Subagent threads are badged on their parent's row.
class CodexSessionSource : public SessionSource {
public:
    struct Options {
        std::filesystem::path sessionsRoot;  // ~/.codex/sessions
        // How fresh a rollout without a process of its own (desktop threads,
        // subagents) must be to count.
        std::chrono::seconds maxAge{30 * 60};
        // Tells whether Codex's desktop app, or an editor's Codex, runs.
        std::function<bool(const ProcessSnapshot&)> desktopRunning;
    };

    explicit CodexSessionSource(Options options);

    std::vector<SessionObservation> observe(const ScanContext& context) override;
    // The rollout of each shown thread (its subagents' too); while a process
    // has none yet, today's dated folder, where it will appear.
    void addWatchTargets(std::vector<FileWatcher::Target>& out) const override;

    // True when Codex's desktop app runs, or a `codex app-server` that an
    // editor or another application (not a terminal) started.
    static bool desktopHostRunning(const ProcessSnapshot& snapshot, HostResolver& hosts);

    // The thread a `codex resume <id>` (or `codex exec resume <id>`) names.
    static std::optional<std::string> resumedThreadId(const std::vector<std::string>& arguments);

private:
    using Header = scrivet::CodexTranscriptReader::Header;
    using Rollout = scrivet::CodexTranscriptReader::Rollout;

    // The head of a rollout, read again only when it may have changed.
    const std::optional<Header>& header(const Rollout& rollout);
    // The thread's facts, read again only when the rollout changed.
    std::optional<scrivet::CodexSession> readSession(const Rollout& rollout, const Header& header);

    struct CachedHeader {
        scrivet::FileStamp stamp;
        std::optional<Header> header;
    };
    struct CachedSession {
        scrivet::FileStamp stamp;
        scrivet::CodexSession session;
    };

    Options options_;
    std::vector<FileWatcher::Target> watch_;
    std::map<std::filesystem::path, CachedHeader> headers_;
    std::map<std::filesystem::path, CachedSession> sessions_;
};

}  // namespace lumora
