#include "lumora/monitor/kimi_session_source.hpp"

#include "scrivet/kimi_transcript_reader.hpp"

namespace lumora {

namespace Reader = scrivet::KimiTranscriptReader;

KimiSessionSource::KimiSessionSource(Paths paths) : paths_(std::move(paths)) {}

void KimiSessionSource::addWatchTargets(std::vector<FileWatcher::Target>& out) const {
    out.insert(out.end(), watch_.begin(), watch_.end());
}

std::vector<SessionObservation> KimiSessionSource::observe(const ScanContext& ctx) {
    using Kind = FileWatcher::Target::Kind;
    std::vector<SessionObservation> out;
    watch_.clear();
    auto processes = DirectorySessions::processesByDirectory(ctx, HarnessProvider::kimi);
    if (processes.empty()) {
        shown_.clear();
        return out;
    }
    Reader::ScanOptions options;
    options.maxAge = kMaxAge;
    options.keepAlive = shown_;
    options.cliRunning = [&](const std::string& cwd) { return processes.count(DirectorySessions::normalized(cwd)) > 0; };
    options.now = ctx.now;
    options.configFile = paths_.configFile;
    options.note = [this](const std::string& cause) { problems_.note(cause); };
    auto sessions = Reader::runningSessions(paths_.sessionsRoot, options);

    std::vector<std::string> directories;
    for (const auto& s : sessions) directories.push_back(s.cwd);
    shown_.clear();
    size_t paired = 0;
    for (auto [index, agent] : DirectorySessions::pair(directories, processes)) {
        auto& session = sessions[index];
        ++paired;
        watch_.push_back({session.sessionDir / "state.json", Kind::file});
        watch_.push_back({session.sessionDir / "agents/main/wire.jsonl", Kind::file});
        watch_.push_back({session.sessionDir / "agents", Kind::folder});
        auto o = DirectorySessions::observation(*agent, HarnessProvider::kimi, session.sessionId);
        o.backgroundActive = session.info.pendingBackgroundAgents > 0 && session.info.recentSubagentActivity;
        o.question = session.question;
        o.info = std::move(session.info);
        shown_.insert(o.id);
        out.push_back(std::move(o));
    }
    size_t running = 0;
    for (const auto& [dir, agents] : processes) running += agents.size();
    if (running > paired) {
        // A new session folder appears in its working directory's folder
        // (named by a hash of the directory), or that folder is new.
        std::error_code ec;
        if (std::filesystem::is_directory(paths_.sessionsRoot, ec)) {
            watch_.push_back({paths_.sessionsRoot, Kind::folder});
            size_t n = 0;
            for (std::filesystem::directory_iterator it(paths_.sessionsRoot, ec), end;
                 !ec && it != end && n < kMaxWatchedDirectories; it.increment(ec)) {
                std::error_code typeEc;
                if (!it->is_directory(typeEc)) continue;
                watch_.push_back({it->path(), Kind::folder});
                ++n;
            }
        }
    }
    return out;
}

}  // namespace lumora
