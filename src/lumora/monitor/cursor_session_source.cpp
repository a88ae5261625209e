#include "lumora/monitor/cursor_session_source.hpp"

#include <algorithm>
#include <set>

#include "lumora/hooks/cursor_waiting.hpp"
#include "lumora/monitor/agent_process_finder.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/monitor/directory_sessions.hpp"
#include "lumora/monitor/worktree_resolver.hpp"

namespace lumora {

namespace Reader = scrivet::CursorTranscriptReader;
namespace fs = std::filesystem;
using std::chrono::seconds;

namespace {

constexpr auto kStartSlack = seconds(5);
constexpr auto kCwdRetry = seconds(60);

// The conversation a `cursor-agent --resume <id>` names.
std::optional<std::string> resumedConversation(const std::vector<std::string>& args) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i].starts_with("--resume=")) return args[i].substr(9);
        if ((args[i] == "--resume" || args[i] == "resume") && i + 1 < args.size() && !args[i + 1].starts_with("-"))
            return args[i + 1];
    }
    return std::nullopt;
}

Date fromSeconds(double s) { return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(s)); }

struct CursorProcess {
    const DiscoveredAgent* agent = nullptr;
    Date start{};
    std::optional<std::string> resumes;
};

// One conversation found on disk.
struct Conversation {
    Reader::Transcript transcript;
    fs::path folder;
    Date fresh{};  // the newest write to it or its subagents
};

}  // namespace

CursorSessionSource::CursorSessionSource(Options options) : options_(std::move(options)) {}

bool CursorSessionSource::commandAppearsRunning(const std::string& command, const ProcessSnapshot& snapshot) {
    std::string_view want = command;
    while (!want.empty() && want.front() == ' ') want.remove_prefix(1);
    while (!want.empty() && want.back() == ' ') want.remove_suffix(1);
    if (want.size() > 120) want = want.substr(0, 120);
    if (want.size() < 2) return false;
    for (const auto& p : snapshot.processes()) {
        if (AgentProcessFinder::provider(p)) continue;  // an agent's own arguments may quote it
        std::string line = p.command;
        for (const auto& a : p.arguments) line += " " + a;
        if (line.find(want) != std::string::npos) return true;
    }
    return false;
}

bool CursorSessionSource::cursorRunning(const ProcessSnapshot& snapshot) {
    for (const auto& p : snapshot.processes()) {
        std::string name = fs::path(p.command).filename().string();
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
        if (name == "cursor" || name == "cursor-agent" || name.starts_with("cursor-")) return true;
        if (p.executable && (p.executable->find("/Cursor.app/") != std::string::npos ||
                             p.executable->find("/cursor/cursor") != std::string::npos))
            return true;
    }
    return false;
}

std::optional<std::string> CursorSessionSource::projectCwd(const fs::path& folder, const std::vector<fs::path>& files,
                                                           Date now) {
    auto key = folder.filename().string();
    auto it = cwds_.find(key);
    if (it != cwds_.end() && (it->second.cwd || now - it->second.at < kCwdRetry)) return it->second.cwd;
    auto cwd = Reader::projectCwd(folder, files);
    cwds_[key] = {cwd, now};
    return cwd;
}

std::optional<scrivet::CursorSession> CursorSessionSource::readSession(const Reader::Transcript& t,
                                                                      const std::string& cwd, Date now) {
    // Subagents are live by their age, so only a conversation without them is
    // read again just when its file changed.
    std::error_code ec;
    bool hasSubagents = fs::exists(Reader::subagentsFolder(t.file), ec);
    auto it = sessions_.find(t.file);
    if (!hasSubagents && it != sessions_.end() && it->second.stamp == t.stamp && it->second.cwd == cwd)
        return it->second.session;
    auto s = Reader::session(t.file, cwd, now);
    if (s && !hasSubagents) {
        sessions_[t.file] = {t.stamp, cwd, *s};
    } else {
        sessions_.erase(t.file);
    }
    return s;
}

void CursorSessionSource::addWatchTargets(std::vector<FileWatcher::Target>& out) const {
    out.insert(out.end(), watch_.begin(), watch_.end());
}

std::vector<SessionObservation> CursorSessionSource::observe(const ScanContext& ctx) {
    const Date now = ctx.now;
    using Kind = FileWatcher::Target::Kind;
    watch_.clear();
    static const HookSnapshot::CursorNotes kNoNotes;
    const auto& notes = ctx.hooks ? ctx.hooks->cursor : kNoNotes;
    const ProcessSnapshot* snapshot = ctx.processes ? &ctx.processes->snapshot : nullptr;

    std::vector<CursorProcess> processes;
    if (ctx.processes) {
        for (const auto& agent : ctx.processes->agents) {
            if (agent.provider != HarnessProvider::cursor) continue;
            CursorProcess p{&agent, agent.start.value_or(now), std::nullopt};
            if (const ProcessInfo* info = snapshot->find(agent.pid))
                p.resumes = resumedConversation(AgentProcessFinder::program(*info).arguments);
            processes.push_back(p);
        }
    }
    std::stable_sort(processes.begin(), processes.end(),
                     [](const CursorProcess& a, const CursorProcess& b) { return a.start > b.start; });
    bool running = !processes.empty() || (snapshot && cursorRunning(*snapshot));

    // Every conversation on disk, by project folder. While Cursor does not
    // run, only the projects its hook's notes name can hold a row.
    std::set<std::string> noted;
    if (!running) {
        for (const auto& [_, n] : notes.pending) noted.insert(Reader::encodedDirName(n.cwd));
        for (const auto& [_, n] : notes.activity) noted.insert(Reader::encodedDirName(n.cwd));
    }
    std::map<std::string, std::vector<Conversation>> byFolder;
    std::error_code ec;
    for (fs::directory_iterator it(options_.projectsRoot, ec), end; (running || !noted.empty()) && !ec && it != end;
         it.increment(ec)) {
        if (!running && !noted.count(it->path().filename().string())) continue;
        std::error_code typeEc;
        if (!it->is_directory(typeEc) || typeEc) continue;
        for (auto& t : Reader::transcripts(it->path())) {
            // Its subagents may keep an older conversation fresh.
            auto fresh = now - t.modified <= options_.maxAge
                             ? t.modified
                             : std::max(t.modified, Reader::newestSubagentMtime(t.file).value_or(t.modified));
            byFolder[it->path().filename().string()].push_back({std::move(t), it->path(), fresh});
        }
    }

    // Pair each process with its conversation.
    std::map<std::string, const CursorProcess*> processOf;  // conversation id -> process
    std::set<const CursorProcess*> paired;
    for (const auto& p : processes) {
        auto folder = byFolder.find(Reader::encodedDirName(p.agent->cwd));
        if (folder == byFolder.end()) continue;
        const Conversation* best = nullptr;
        for (const auto& c : folder->second) {  // newest first
            if (processOf.count(c.transcript.sessionId)) continue;
            if (p.resumes ? c.transcript.sessionId == *p.resumes : c.transcript.modified >= p.start - kStartSlack) {
                best = &c;
                break;
            }
        }
        if (!best) continue;
        processOf[best->transcript.sessionId] = &p;
        paired.insert(&p);
    }

    std::vector<SessionObservation> out;
    std::map<std::string, std::pair<WorktreeResolver::Resolution, std::optional<std::string>>> repos;
    for (const auto& [folderName, conversations] : byFolder) {
        std::vector<const Conversation*> shown;
        for (const auto& c : conversations) {
            const auto& id = c.transcript.sessionId;
            bool noted = notes.pending.count(id) || notes.activity.count(id);
            bool fresh = running && now - c.fresh <= options_.maxAge;
            if (processOf.count(id) || noted || fresh) shown.push_back(&c);
        }
        if (shown.empty()) continue;

        // The project's directory: its process's, a note's, else what the folder tells.
        std::optional<std::string> cwd;
        for (const auto* c : shown) {
            if (auto p = processOf.find(c->transcript.sessionId); p != processOf.end()) cwd = p->second->agent->cwd;
            else if (auto n = notes.pending.find(c->transcript.sessionId);
                     n != notes.pending.end() && Reader::encodedDirName(n->second.cwd) == folderName)
                cwd = n->second.cwd;
            if (cwd) break;
        }
        if (!cwd) {
            std::vector<fs::path> files;
            for (const auto* c : shown) files.push_back(c->transcript.file);
            cwd = projectCwd(shown.front()->folder, files, now);
        }
        if (!cwd) continue;

        for (const auto* c : shown) {
            watch_.push_back({c->transcript.file, Kind::file});
            watch_.push_back({Reader::subagentsFolder(c->transcript.file), Kind::folder});
            auto s = readSession(c->transcript, *cwd, now);
            if (!s) continue;
            SessionObservation o;
            auto proc = processOf.find(s->sessionId);
            if (proc != processOf.end()) {
                o = DirectorySessions::observation(*proc->second->agent, HarnessProvider::cursor, s->sessionId);
            } else {
                o.cwd = *cwd;
                auto repo = repos.find(*cwd);
                if (repo == repos.end())
                    repo = repos.emplace(*cwd, std::make_pair(WorktreeResolver::resolve(*cwd),
                                                              WorktreeResolver::currentBranch(*cwd)))
                               .first;
                o.repoName = repo->second.first.repoName;
                o.isWorktree = repo->second.first.isWorktree;
                o.worktreeName = repo->second.first.worktreeName;
                o.gitBranch = repo->second.second;
                o.host = AgentHost{AgentHost::Kind::ide, "Cursor", std::nullopt};
            }
            o.id = s->sessionId;
            o.provider = HarnessProvider::cursor;
            o.projectName = ClaudeSessionSource::projectName(o.cwd, o.repoName);
            auto& info = s->info;

            // A dangling command that is visibly running was approved: the
            // turn works on.
            if (info.pendingApproval == PendingApproval::run && s->pendingCommand && snapshot &&
                commandAppearsRunning(*s->pendingCommand, *snapshot))
                info.pendingApproval.reset();

            // What Cursor's hook told the bridge.
            if (auto m = notes.models.find(o.id); m != notes.models.end() && !m->second.empty()) info.model = m->second;
            HookSignals signals;
            if (auto a = notes.activity.find(o.id); a != notes.activity.end()) {
                Date at = fromSeconds(a->second.ts);
                signals.busySince = at;
                if (at > info.lastEntryDate && !a->second.title.empty()) info.summary = a->second.title;
            }
            if (auto n = notes.pending.find(o.id); n != notes.pending.end()) {
                CursorPending pending = n->second;
                if (pending.transcriptPath.empty()) pending.transcriptPath = s->file.string();
                auto shellRunning = [snapshot](const CursorPending& p) {
                    return snapshot && commandAppearsRunning(p.command, *snapshot);
                };
                if (CursorHooks::isWaiting(pending, now, shellRunning)) {
                    HookSignals::Marker marker;
                    marker.kind = HookSignals::MarkerKind::permission;
                    marker.toolName = !pending.toolName.empty() ? pending.toolName
                                      : pending.kind == "shell"  ? "Shell"
                                                                 : "";
                    if (!pending.command.empty()) marker.detail = pending.command;
                    marker.createdAt = fromSeconds(pending.ts);
                    signals.marker = marker;
                    info.summary = CursorHooks::waitingSummary(pending);
                }
            }
            if (ctx.hooks && (signals.marker || signals.busySince)) {
                auto& slot = ctx.hooks->signals[{HarnessProvider::cursor, o.id}];
                if (signals.marker) slot.marker = signals.marker;
                if (signals.busySince) slot.busySince = signals.busySince;
            }
            o.backgroundActive = info.subagentCount > 0;
            o.info = std::move(info);
            out.push_back(std::move(o));
        }
    }

    // A process with no conversation yet: a row of its own, ageing from its start.
    for (const auto& p : processes) {
        if (paired.count(&p)) continue;
        const auto& agent = *p.agent;
        if (std::error_code rootEc; fs::is_directory(options_.projectsRoot, rootEc))
            watch_.push_back({options_.projectsRoot / Reader::encodedDirName(agent.cwd) / "agent-transcripts", Kind::folder});
        SessionObservation o = DirectorySessions::observation(agent, HarnessProvider::cursor, std::nullopt);
        scrivet::TranscriptInfo info;
        info.lastModified = info.lastEntryDate = info.created = p.start;
        o.info = info;
        out.push_back(std::move(o));
    }

    std::set<fs::path> live;
    for (const auto& [_, conversations] : byFolder)
        for (const auto& c : conversations) live.insert(c.transcript.file);
    std::erase_if(sessions_, [&](const auto& kv) { return !live.count(kv.first); });
    return out;
}

}  // namespace lumora
