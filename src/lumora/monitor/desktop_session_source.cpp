#include "lumora/monitor/desktop_session_source.hpp"

#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/monitor/sdk_sessions.hpp"
#include "lumora/monitor/worktree_resolver.hpp"
#include "scrivet/claude_desktop_session_index.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/cowork_reader.hpp"

namespace lumora {

namespace {

namespace fs = std::filesystem;
namespace Reader = scrivet::ClaudeTranscriptReader;

// The journal of a session, wherever its project folder is.
std::optional<fs::path> findJournal(const fs::path& projects, const std::string& sessionId) {
    std::error_code ec;
    for (fs::directory_iterator it(projects, ec), end; !ec && it != end; it.increment(ec)) {
        fs::path candidate = it->path() / (sessionId + ".jsonl");
        if (fs::is_regular_file(candidate, ec)) return candidate;
    }
    return std::nullopt;
}

void placeIn(SessionObservation& o, const std::string& cwd) {
    o.cwd = cwd;
    auto repo = WorktreeResolver::resolve(cwd);
    o.repoName = repo.repoName;
    o.isWorktree = repo.isWorktree;
    o.worktreeName = repo.worktreeName;
    o.projectName = ClaudeSessionSource::projectName(cwd, repo.repoName);
    o.gitBranch = WorktreeResolver::currentBranch(cwd);
}

}  // namespace

DesktopSessionSource::DesktopSessionSource(Paths paths) : paths_(std::move(paths)) {}

AgentHost DesktopSessionSource::desktopHost() { return AgentHost{AgentHost::Kind::app, "Claude", "claude-desktop"}; }

std::vector<SessionObservation> DesktopSessionSource::observe(const ScanContext& ctx) {
    auto out = desktopSessions(ctx);
    if (cowork_) {
        auto cowork = coworkSessions(ctx);
        out.insert(out.end(), std::make_move_iterator(cowork.begin()), std::make_move_iterator(cowork.end()));
    }
    return out;
}

std::vector<SessionObservation> DesktopSessionSource::desktopSessions(const ScanContext& ctx) {
    std::vector<SessionObservation> out;
    auto entries = scrivet::ClaudeDesktopSessionIndex::visible(
        scrivet::ClaudeDesktopSessionIndex::read(paths_.desktopData / "claude-code-sessions"));
    for (const auto& entry : entries) {
        const DiscoveredAgent* agent = nullptr;
        if (ctx.processes) {
            for (const auto& a : ctx.processes->agents) {
                if (a.provider == HarnessProvider::claudeCode && a.sessionId == entry.cliSessionId) agent = &a;
            }
        }
        bool fresh = entry.lastActivityAt && ctx.now - *entry.lastActivityAt < SDKSessionReader::kMaxAge;
        if (!agent && !fresh) continue;
        auto journal = findJournal(paths_.projects, entry.cliSessionId);
        std::string cwd = agent ? agent->cwd : entry.cwd.value_or("");
        if (cwd.empty() && journal) cwd = Reader::recordedCwd(*journal).value_or("");
        if (cwd.empty()) continue;

        SessionObservation o;
        o.id = entry.cliSessionId;
        o.provider = HarnessProvider::claudeCode;
        if (agent) {
            o.pid = agent->pid;
            o.cpu = agent->cpu;
            o.cwd = cwd;
            o.repoName = agent->worktree.repoName;
            o.isWorktree = agent->worktree.isWorktree;
            o.worktreeName = agent->worktree.worktreeName;
            o.projectName = ClaudeSessionSource::projectName(cwd, o.repoName);
            o.gitBranch = agent->gitBranch;
            if (const auto& rec = agent->indexRecord; rec && rec->status)
                o.selfReport = SessionObservation::SelfReport{*rec->status, rec->waitingFor, rec->statusUpdatedAt};
        } else {
            placeIn(o, cwd);
        }
        o.host = agent && agent->host ? agent->host : desktopHost();
        if (journal) o.info = Reader::info(*journal, cwd, paths_.claudeConfig, Reader::ReadOptions{ctx.now, {}});
        if (o.info) {
            o.backgroundActive = o.info->pendingBackgroundAgents > 0 && o.info->recentSubagentActivity;
            // The desktop's own title wins over every other tier.
            if (entry.title) {
                o.info->topic = entry.title;
                o.info->firstPrompt.reset();
            }
        }
        out.push_back(std::move(o));
    }
    return out;
}

std::vector<SessionObservation> DesktopSessionSource::coworkSessions(const ScanContext& ctx) {
    std::vector<SessionObservation> out;
    for (auto& s : scrivet::CoworkReader::sessions(paths_.desktopData / "local-agent-mode-sessions", ctx.now)) {
        SessionObservation o;
        o.id = s.sessionId;
        o.provider = HarnessProvider::claudeCode;
        o.surface = AgentSurface::cowork;
        o.cwd = s.folders.empty() ? std::string() : s.folders.front();
        // A Cowork row is named by its title; no branch is made up for its folders.
        o.projectName = !s.title.empty() ? s.title
                        : !o.cwd.empty() ? ClaudeSessionSource::projectName(o.cwd, std::nullopt)
                                         : std::string("Cowork");
        o.host = desktopHost();
        o.workspaceFolders = s.folders;
        o.question = s.question;
        if (s.promptSummary) {
            // Blocked on the user: at once, whatever the tool.
            o.selfReport = SessionObservation::SelfReport{"waiting", "input needed", s.info.lastEntryDate};
        }
        o.info = std::move(s.info);
        out.push_back(std::move(o));
    }
    return out;
}

}  // namespace lumora
