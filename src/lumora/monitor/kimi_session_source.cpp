#include "lumora/monitor/kimi_session_source.hpp"

#include "scrivet/kimi_transcript_reader.hpp"

namespace lumora {

namespace Reader = scrivet::KimiTranscriptReader;

KimiSessionSource::KimiSessionSource(Paths paths) : paths_(std::move(paths)) {}

std::vector<SessionObservation> KimiSessionSource::observe(const ScanContext& ctx) {
    std::vector<SessionObservation> out;
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
    for (auto [index, agent] : DirectorySessions::pair(directories, processes)) {
        auto& session = sessions[index];
        auto o = DirectorySessions::observation(*agent, HarnessProvider::kimi, session.sessionId);
        o.backgroundActive = session.info.pendingBackgroundAgents > 0 && session.info.recentSubagentActivity;
        o.question = session.question;
        o.info = std::move(session.info);
        shown_.insert(o.id);
        out.push_back(std::move(o));
    }
    return out;
}

}  // namespace lumora
