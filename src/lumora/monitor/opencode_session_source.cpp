#include "lumora/monitor/opencode_session_source.hpp"

namespace lumora {

namespace Reader = scrivet::OpenCodeTranscriptReader;

OpenCodeSessionSource::OpenCodeSessionSource(Paths paths) : paths_(std::move(paths)) {}

void OpenCodeSessionSource::addWatchTargets(std::vector<FileWatcher::Target>& out) const {
    if (!running_) return;
    out.push_back({paths_.database, FileWatcher::Target::Kind::file});
    out.push_back({paths_.database.string() + "-wal", FileWatcher::Target::Kind::file});
}

std::vector<SessionObservation> OpenCodeSessionSource::observe(const ScanContext& ctx) {
    std::vector<SessionObservation> out;
    auto processes = DirectorySessions::processesByDirectory(ctx, HarnessProvider::opencode);
    running_ = !processes.empty();
    if (processes.empty()) {
        shown_.clear();
        lastLook_.reset();
        lastSessions_.clear();
        return out;
    }

    Look look{FileStamp::of(paths_.database), FileStamp::of(paths_.database.string() + "-wal"),
              FileStamp::of(paths_.catalogue), {}};
    for (const auto& [dir, agents] : processes) look.directories.insert(dir);
    // Reused only when the files had been quiet for a second before the last
    // look: a write in the same clock tick would leave the stamps equal.
    auto quietBefore = [&](const std::optional<FileStamp>& s) {
        return !s || s->modified() < lastLookAt_ - std::chrono::seconds(1);
    };
    bool unchanged = lastLook_ && *lastLook_ == look && ctx.now >= lastLookAt_ && ctx.now - lastLookAt_ < kReuseFor &&
                     quietBefore(look.database) && quietBefore(look.wal) && quietBefore(look.catalogue);
    if (!unchanged) {
        Reader::ScanOptions options;
        options.maxAge = kMaxAge;
        options.keepAlive = shown_;
        options.cliRunning = [&](const std::string& cwd) {
            return processes.count(DirectorySessions::normalized(cwd)) > 0;
        };
        options.now = ctx.now;
        options.catalogue = paths_.catalogue;
        auto result = Reader::runningSessions(paths_.database, options);
        if (result.failure) {
            problems_.note(result.failure->why);
            lastLook_.reset();
            // A lock held by OpenCode passes: keep the last look for this
            // tick. Anything else means nothing can be shown.
            if (!result.failure->busy) lastSessions_.clear();
        } else {
            lastSessions_ = std::move(result.sessions);
            lastLook_ = look;
            lastLookAt_ = ctx.now;
        }
    }

    std::vector<std::string> directories;
    for (const auto& s : lastSessions_) directories.push_back(s.cwd);
    shown_.clear();
    for (auto [index, agent] : DirectorySessions::pair(directories, processes)) {
        const auto& session = lastSessions_[index];
        auto o = DirectorySessions::observation(*agent, HarnessProvider::opencode, session.sessionId);
        o.backgroundActive = session.info.pendingBackgroundAgents > 0;
        o.info = session.info;
        shown_.insert(o.id);
        out.push_back(std::move(o));
    }
    return out;
}

}  // namespace lumora
