#include "lumora/monitor/claude_session_source.hpp"

#include <set>

#include "lumora/monitor/worktree_resolver.hpp"

#include "scrivet/claude_transcript_reader.hpp"

namespace lumora {

namespace Reader = scrivet::ClaudeTranscriptReader;

ClaudeSessionSource::ClaudeSessionSource(Paths paths, SDKHostMemory& hostMemory, IsRunning isRunning)
    : paths_(std::move(paths)), hostMemory_(hostMemory), isRunning_(std::move(isRunning)) {}

std::string ClaudeSessionSource::projectName(const std::string& cwd, const std::optional<std::string>& repoName) {
    if (repoName && !repoName->empty()) return *repoName;
    auto name = std::filesystem::path(cwd).filename().string();
    return name.empty() ? cwd : name;
}

std::optional<scrivet::TranscriptInfo> ClaudeSessionSource::readInfo(const std::filesystem::path& file,
                                                                      const std::string& cwd, Date now) {
    usedThisScan_.insert(file);
    auto stamp = FileStamp::of(file);
    auto it = infoCache_.find(file);
    if (it != infoCache_.end() && stamp && it->second.stamp == *stamp && it->second.configMtimeNs == configMtimeNs_)
        return it->second.info;
    auto info = Reader::info(file, cwd, paths_.claudeConfig, Reader::ReadOptions{now, paths_.tempFolder});
    // Without subagents or background work nothing in the facts depends on
    // the clock (recent subagent activity counts only beside pending
    // background work), so they hold until the journal changes.
    bool settled = info && info->subagentCount == 0 && info->pendingBackgroundAgents == 0 && stamp;
    if (settled) {
        infoCache_[file] = {*stamp, configMtimeNs_, *info};
    } else {
        infoCache_.erase(file);
    }
    return info;
}

void ClaudeSessionSource::watchJournal(const std::filesystem::path& journal) {
    using Kind = FileWatcher::Target::Kind;
    watch_.push_back({journal, Kind::file});
    // Subagents write beside it, in <session>/subagents (watched for its appearance until it exists).
    watch_.push_back({journal.parent_path() / journal.stem() / "subagents", Kind::folder});
}

void ClaudeSessionSource::addWatchTargets(std::vector<FileWatcher::Target>& out) const {
    out.insert(out.end(), watch_.begin(), watch_.end());
}

std::vector<SessionObservation> ClaudeSessionSource::observe(const ScanContext& ctx) {
    std::vector<SessionObservation> out;
    usedThisScan_.clear();
    watch_.clear();
    // Watched once Claude Code has its folder (else until the tick finds it).
    if (std::error_code ec; !paths_.sessionIndex.empty() && std::filesystem::is_directory(paths_.sessionIndex.parent_path(), ec))
        watch_.push_back({paths_.sessionIndex, FileWatcher::Target::Kind::folder});
    configMtimeNs_ = FileStamp::of(paths_.claudeConfig).value_or(FileStamp{}).mtimeNanos;
    std::set<std::string> seen;
    if (ctx.processes) {
        for (const auto& agent : ctx.processes->agents) {
            if (agent.provider != HarnessProvider::claudeCode) continue;
            SessionObservation o;
            o.id = sessionIdentity(agent.sessionId, agent.cwd, agent.pid);
            o.provider = HarnessProvider::claudeCode;
            o.pid = agent.pid;
            o.cwd = agent.cwd;
            o.repoName = agent.worktree.repoName;
            o.isWorktree = agent.worktree.isWorktree;
            o.worktreeName = agent.worktree.worktreeName;
            o.projectName = projectName(agent.cwd, o.repoName);
            o.gitBranch = agent.gitBranch;
            o.host = agent.host;
            o.cpu = agent.cpu;
            o.processStart = agent.start;
            if (agent.sessionId) {
                auto file = Reader::transcriptURL(paths_.projects, agent.cwd, *agent.sessionId);
                o.info = readInfo(file, agent.cwd, ctx.now);
                watchJournal(file);
            } else {
                // Its first journal will appear in the project's folder.
                watch_.push_back({Reader::transcriptURL(paths_.projects, agent.cwd, "-").parent_path(),
                                  FileWatcher::Target::Kind::folder});
            }
            if (o.info) o.backgroundActive = o.info->pendingBackgroundAgents > 0 && o.info->recentSubagentActivity;
            if (const auto& rec = agent.indexRecord; rec && rec->status) {
                o.selfReport = SessionObservation::SelfReport{*rec->status, rec->waitingFor, rec->statusUpdatedAt};
            }
            // A process driven by an SDK host teaches us that host for its session.
            if (agent.sessionId && agent.host && agent.host->kind == AgentHost::Kind::app)
                hostMemory_.learn(*agent.sessionId, *agent.host, ctx.now);
            seen.insert(o.id);
            out.push_back(std::move(o));
        }
    }

    // Sessions driven through the SDK by a host application that runs.
    static const ProcessSnapshot kNoProcesses;
    const ProcessSnapshot& snapshot = ctx.processes ? ctx.processes->snapshot : kNoProcesses;
    auto isRunning = [&](const std::string& appId) { return isRunning_ && isRunning_(appId, snapshot); };
    std::map<std::string, AgentHost> hosts;
    auto shown = [&](const SDKSession& sdk) {
        auto host = sdkSessionHost(sdk, hostMemory_, isRunning);
        if (host) hosts[sdk.sessionId] = *host;
        return host.has_value();  // else a ghost: its host is not known to run
    };
    for (auto& sdk : SDKSessionReader::runningSessions(paths_.projects, paths_.claudeConfig, ctx.now,
                                                       SDKSessionReader::kMaxAge, seen, shown)) {
        if (seen.count(sdk.sessionId)) continue;
        auto host = hosts[sdk.sessionId];
        SessionObservation o;
        o.id = sdk.sessionId;
        o.cwd = sdk.cwd;
        auto repo = WorktreeResolver::resolve(sdk.cwd);
        o.repoName = repo.repoName;
        o.isWorktree = repo.isWorktree;
        o.worktreeName = repo.worktreeName;
        o.projectName = projectName(sdk.cwd, repo.repoName);
        o.gitBranch = WorktreeResolver::currentBranch(sdk.cwd);
        o.host = host;
        o.info = sdk.info;
        if (!sdk.transcript.empty()) watchJournal(sdk.transcript);
        if (o.info) o.backgroundActive = o.info->pendingBackgroundAgents > 0 && o.info->recentSubagentActivity;
        seen.insert(o.id);
        out.push_back(std::move(o));
    }
    std::erase_if(infoCache_, [&](const auto& kv) { return !usedThisScan_.count(kv.first); });
    return out;
}

}  // namespace lumora
