#include "lumora/monitor/codex_session_source.hpp"

#include <algorithm>
#include <set>

#include "lumora/monitor/agent_process_finder.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/monitor/directory_sessions.hpp"
#include "lumora/monitor/worktree_resolver.hpp"

namespace lumora {

namespace Reader = scrivet::CodexTranscriptReader;
using std::chrono::seconds;

namespace {

// How far before a process's start a rollout of its own may date (clocks and
// the time between starting and writing the first line).
constexpr auto kStartSlack = seconds(5);
// How far back a rollout may lie: a resumed thread's rollout lies in the
// folder of the day it began.
constexpr auto kLongestLookBack = std::chrono::hours(24 * 30);

bool isThreadId(std::string_view s) {
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != '-' : !std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
    }
    return true;
}

scrivet::CodexSession::HostKind hostKind(const scrivet::CodexTranscriptReader::Header& h) {
    scrivet::CodexSession probe;
    probe.originator = h.originator;
    return probe.hostKind();
}

// A Codex process, as the source pairs it.
struct CodexProcess {
    const DiscoveredAgent* agent = nullptr;
    Date start{};
    std::optional<std::string> resumes;  // the thread it resumes, by id
};

}  // namespace

CodexSessionSource::CodexSessionSource(Options options) : options_(std::move(options)) {}

bool CodexSessionSource::desktopHostRunning(const ProcessSnapshot& snapshot, HostResolver& hosts) {
    for (const auto& p : snapshot.processes()) {
        auto program = AgentProcessFinder::program(p);
        if (program.name == "Codex" || program.name == "codex-desktop") return true;
        bool codex = program.name == "codex" || program.name.starts_with("codex-") || program.name == "codex.js";
        if (!codex || program.arguments.empty() || program.arguments[0] != "app-server") continue;
        auto host = hosts.resolve(p.pid, snapshot).host;
        if (host && host->kind != AgentHost::Kind::terminal) return true;
    }
    return false;
}

std::optional<std::string> CodexSessionSource::resumedThreadId(const std::vector<std::string>& args) {
    auto resume = std::find(args.begin(), args.end(), "resume");
    if (resume == args.end()) return std::nullopt;
    for (auto it = resume + 1; it != args.end(); ++it)
        if (isThreadId(*it)) return *it;
    return std::nullopt;
}

const std::optional<CodexSessionSource::Header>& CodexSessionSource::header(const Rollout& r) {
    auto it = headers_.find(r.file);
    if (it != headers_.end()) {
        const auto& cached = it->second;
        bool sameFile = cached.stamp.device == r.stamp.device && cached.stamp.inode == r.stamp.inode;
        // A complete head never changes; an incomplete one (or a first line
        // still being written) is read again once the file grew.
        bool settled = cached.header ? cached.header->complete : false;
        if (sameFile && (settled || cached.stamp.size == r.stamp.size)) return cached.header;
    }
    auto& slot = headers_[r.file];
    slot = {r.stamp, Reader::header(r.file)};
    return slot.header;
}

std::optional<scrivet::CodexSession> CodexSessionSource::readSession(const Rollout& r, const Header& h) {
    auto it = sessions_.find(r.file);
    if (it != sessions_.end() && it->second.stamp == r.stamp) return it->second.session;
    auto s = Reader::session(r.file, h);
    if (s) {
        sessions_[r.file] = {r.stamp, *s};
    } else {
        sessions_.erase(r.file);
    }
    return s;
}

void CodexSessionSource::addWatchTargets(std::vector<FileWatcher::Target>& out) const {
    out.insert(out.end(), watch_.begin(), watch_.end());
}

std::vector<SessionObservation> CodexSessionSource::observe(const ScanContext& ctx) {
    const Date now = ctx.now;
    watch_.clear();
    auto watchFile = [&](const std::filesystem::path& file) { watch_.push_back({file, FileWatcher::Target::Kind::file}); };

    // The live Codex processes, newest first.
    std::vector<CodexProcess> processes;
    if (ctx.processes) {
        for (const auto& agent : ctx.processes->agents) {
            if (agent.provider != HarnessProvider::codex) continue;
            CodexProcess p{&agent, agent.start.value_or(now), std::nullopt};
            if (const ProcessInfo* info = ctx.processes->snapshot.find(agent.pid))
                p.resumes = resumedThreadId(AgentProcessFinder::program(*info).arguments);
            processes.push_back(p);
        }
    }
    std::stable_sort(processes.begin(), processes.end(),
                     [](const CodexProcess& a, const CodexProcess& b) { return a.start > b.start; });

    // Walk only the dated folders that can hold what we look for: fresh
    // rollouts, and those written since the oldest process started.
    Date since = now - options_.maxAge;
    for (const auto& p : processes) {
        since = std::min(since, p.start - kStartSlack - seconds(60));
        if (p.resumes) since = std::min(since, now - kLongestLookBack);
    }
    since = std::max(since, now - kLongestLookBack);
    auto rollouts = Reader::recentRollouts(options_.sessionsRoot, since, now);

    struct Candidate {
        const Rollout* rollout;
        const Header* header;
        Date created;
    };
    std::vector<Candidate> mains, subagents;
    std::set<std::filesystem::path> seen;
    for (const auto& r : rollouts) {
        seen.insert(r.file);
        const auto& h = header(r);
        if (!h) continue;
        Candidate c{&r, &*h, h->created.value_or(r.modified)};
        (h->subagent ? subagents : mains).push_back(c);
    }
    std::erase_if(headers_, [&](const auto& kv) { return !seen.count(kv.first); });
    std::erase_if(sessions_, [&](const auto& kv) { return !seen.count(kv.first); });

    // Pair processes with their threads.
    std::map<const DiscoveredAgent*, const Candidate*> paired;
    std::set<const Rollout*> taken;
    auto pick = [&](const CodexProcess& p, auto&& eligible, auto&& newer) {
        const Candidate* best = nullptr;
        for (const auto& c : mains) {
            if (taken.count(c.rollout) || c.header->cwd != p.agent->cwd || !eligible(c)) continue;
            if (hostKind(*c.header) == scrivet::CodexSession::HostKind::desktop) continue;
            if (!best || newer(c, *best)) best = &c;
        }
        if (best) {
            paired[p.agent] = best;
            taken.insert(best->rollout);
        }
    };
    for (const auto& p : processes) {
        if (!p.resumes) continue;
        for (const auto& c : mains) {
            if (c.header->sessionId != *p.resumes || taken.count(c.rollout)) continue;
            paired[p.agent] = &c;
            taken.insert(c.rollout);
            break;
        }
    }
    auto byCreation = [](const Candidate& a, const Candidate& b) { return a.created > b.created; };
    auto byWrite = [](const Candidate& a, const Candidate& b) { return a.rollout->modified > b.rollout->modified; };
    for (const auto& p : processes) {
        if (paired.count(p.agent)) continue;
        pick(p, [&](const Candidate& c) { return c.created >= p.start - kStartSlack; }, byCreation);
    }
    for (const auto& p : processes) {
        if (paired.count(p.agent)) continue;
        // A thread begun before the process and written since: a resumed one.
        pick(p, [&](const Candidate& c) { return c.rollout->modified >= p.start - kStartSlack; }, byWrite);
    }

    // The threads that make rows, then their running subagents folded in.
    bool desktop = options_.desktopRunning && ctx.processes && options_.desktopRunning(ctx.processes->snapshot);
    bool cli = !processes.empty();
    std::vector<scrivet::CodexSession> threads;
    std::map<std::string, const CodexProcess*> processOf;  // thread id -> its process
    for (const auto& p : processes) {
        auto it = paired.find(p.agent);
        if (it == paired.end()) continue;
        watchFile(it->second->rollout->file);
        if (auto s = readSession(*it->second->rollout, *it->second->header)) {
            processOf[s->sessionId] = &p;
            threads.push_back(std::move(*s));
        }
    }
    for (const auto& c : mains) {
        if (taken.count(c.rollout) || now - c.rollout->modified > options_.maxAge) continue;
        scrivet::CodexSession probe;
        probe.originator = c.header->originator;
        // A terminal thread shows only with its process; others while their host runs.
        if (hostKind(*c.header) == scrivet::CodexSession::HostKind::cli || !probe.hostAlive(desktop, cli)) continue;
        watchFile(c.rollout->file);
        if (auto s = readSession(*c.rollout, *c.header)) threads.push_back(std::move(*s));
    }
    for (const auto& c : subagents) {
        if (now - c.rollout->modified > options_.maxAge) continue;
        watchFile(c.rollout->file);
        if (auto s = readSession(*c.rollout, *c.header)) threads.push_back(std::move(*s));
    }
    Reader::foldSubagents(threads);

    std::vector<SessionObservation> out;
    std::map<std::string, std::pair<WorktreeResolver::Resolution, std::optional<std::string>>> repos;
    for (auto& s : threads) {
        SessionObservation o;
        auto proc = processOf.find(s.sessionId);
        if (proc != processOf.end()) {
            o = DirectorySessions::observation(*proc->second->agent, HarnessProvider::codex, s.sessionId);
        } else {
            o.cwd = s.cwd;
            auto repo = repos.find(s.cwd);
            if (repo == repos.end())
                repo = repos.emplace(s.cwd, std::make_pair(WorktreeResolver::resolve(s.cwd),
                                                           WorktreeResolver::currentBranch(s.cwd)))
                           .first;
            o.repoName = repo->second.first.repoName;
            o.isWorktree = repo->second.first.isWorktree;
            o.worktreeName = repo->second.first.worktreeName;
            o.gitBranch = repo->second.second;
            o.host = AgentHost{AgentHost::Kind::app, "Codex", std::nullopt};
        }
        o.id = s.sessionId;
        o.provider = HarnessProvider::codex;
        o.projectName = ClaudeSessionSource::projectName(o.cwd, o.repoName);
        o.backgroundActive = s.info.subagentCount > 0;
        o.info = std::move(s.info);
        out.push_back(std::move(o));
    }

    // A process with no rollout yet (the terminal UI before its first
    // prompt): a row of its own, ageing from the process's start. Its
    // rollout will appear in today's folder.
    std::error_code ec;
    if (processes.size() > paired.size() && std::filesystem::is_directory(options_.sessionsRoot, ec))
        watch_.push_back({Reader::dayFolder(options_.sessionsRoot, now), FileWatcher::Target::Kind::folder});
    for (const auto& p : processes) {
        if (paired.count(p.agent)) continue;
        const auto& agent = *p.agent;
        SessionObservation o = DirectorySessions::observation(agent, HarnessProvider::codex, std::nullopt);
        scrivet::TranscriptInfo info;
        info.lastModified = info.lastEntryDate = info.created = p.start;
        o.info = info;
        out.push_back(std::move(o));
    }
    return out;
}

}  // namespace lumora
