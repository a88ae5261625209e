#include "lumora/monitor/process_discovery.hpp"

#include <algorithm>
#include <map>
#include <set>

#include "lumora/monitor/agent_process_finder.hpp"
#include "scrivet/claude_transcript_reader.hpp"

namespace lumora {

namespace {

// "session:@window.%pane", as Claude Code writes its tmux pane.
void applyTmuxPane(std::optional<Multiplexer>& m, const std::string& text) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) return;
    if (!m) m = Multiplexer();  // a tmux pane whose server we did not see
    if (m->kind != Multiplexer::Kind::tmux) return;
    std::string rest = text.substr(colon + 1);
    m->session = text.substr(0, colon);
    size_t dot = rest.find('.');
    if (dot != std::string::npos) {
        m->window = rest.substr(0, dot);
        m->pane = rest.substr(dot + 1);
    } else {
        m->window = rest;
    }
}

}  // namespace

std::string_view pairingName(DiscoveredAgent::Pairing pairing) {
    switch (pairing) {
        case DiscoveredAgent::Pairing::none: return "none";
        case DiscoveredAgent::Pairing::index: return "index";
        case DiscoveredAgent::Pairing::fallback: return "fallback";
    }
    return "none";
}

std::unordered_map<int32_t, std::string> pairByRecency(const std::vector<const ProcessInfo*>& unpaired,
                                                       const std::vector<std::string>& taken,
                                                       const fs::path& claudeProjects) {
    std::unordered_map<int32_t, std::string> out;
    std::set<std::string> used(taken.begin(), taken.end());
    std::map<std::string, std::vector<const ProcessInfo*>> byCwd;
    for (const ProcessInfo* p : unpaired) {
        if (p->cwd) byCwd[*p->cwd].push_back(p);
    }
    for (auto& [cwd, processes] : byCwd) {
        std::sort(processes.begin(), processes.end(),
                  [](const ProcessInfo* a, const ProcessInfo* b) { return a->startTicks > b->startTicks; });
        // Newest first; but where several recent journals compete for fewer
        // processes, rank them by liveness: a session whose subagents or
        // background work still run outranks a newer journal whose turn has
        // settled (a one-shot that wrote last must not hide a working parent).
        auto folder = claudeProjects / scrivet::ClaudeTranscriptReader::encodedDirName(cwd);
        std::vector<std::string> ids;
        size_t recent = 0;
        auto now = fs::file_time_type::clock::now();
        for (const auto& path : scrivet::ClaudeTranscriptReader::recentTranscripts(folder, processes.size() + used.size() + 1)) {
            auto id = path.stem().string();
            if (used.count(id)) continue;
            ids.push_back(id);
            std::error_code ec;
            auto mtime = fs::last_write_time(path, ec);
            if (!ec && now - mtime < std::chrono::hours(1)) ++recent;
        }
        if (recent > processes.size()) {
            ids.clear();
            for (auto& info : scrivet::ClaudeTranscriptReader::recentInfos(claudeProjects, cwd, processes.size(), used, {})) {
                if (info.sessionId) ids.push_back(*info.sessionId);
            }
        }
        size_t next = 0;
        for (const ProcessInfo* p : processes) {
            while (next < ids.size() && used.count(ids[next])) ++next;
            if (next >= ids.size()) break;
            used.insert(ids[next]);
            out.emplace(p->pid, ids[next++]);
        }
    }
    return out;
}

ProcessDiscovery::ProcessDiscovery(ProcessTable& table, fs::path claudeSessions, fs::path claudeProjects)
    : table_(table),
      claudeSessions_(std::move(claudeSessions)),
      claudeProjects_(std::move(claudeProjects)),
      hosts_(table) {}

double ProcessDiscovery::cpuPercent(const ProcessInfo& p, std::chrono::steady_clock::time_point at) {
    double percent = 0;
    auto it = cpu_.find(p.pid);
    if (it != cpu_.end() && it->second.startTicks == p.startTicks && at > it->second.at) {
        double seconds = std::chrono::duration<double>(at - it->second.at).count();
        percent = std::max(0.0, (p.cpuSeconds - it->second.cpuSeconds) / seconds * 100.0);
    } else if (p.start) {
        // The first sight of a process: its average over its life so far.
        double alive = std::chrono::duration<double>(std::chrono::system_clock::now() - *p.start).count();
        if (alive > 0.05) percent = p.cpuSeconds / alive * 100.0;
    }
    cpu_[p.pid] = CpuSample{p.startTicks, p.cpuSeconds, at};
    return percent;
}

ProcessDiscovery::Pass ProcessDiscovery::run() {
    ExclusiveUse::Scope one(inUse_);
    Pass pass;
    // Only agents need their working directory and executable read.
    SnapshotOptions options;
    options.wantsDetails = [](const ProcessInfo& p) { return AgentProcessFinder::provider(p).has_value(); };
    pass.snapshot = table_.snapshot(options);
    const ProcessSnapshot& snap = pass.snapshot;
    hosts_.evict(snap);

    auto found = AgentProcessFinder::find(snap, table_.selfPid());

    // Exact pairing through the session index, then recency for the rest.
    bool anyClaude = std::any_of(found.begin(), found.end(),
                                 [](const auto& a) { return a.provider == HarnessProvider::claudeCode; });
    std::unordered_map<int32_t, const ClaudeSessionIndex::Record*> byPid;
    std::unordered_map<int32_t, std::string> fallback;
    if (anyClaude) {
        pass.index = ClaudeSessionIndex::validate(ClaudeSessionIndex::read(claudeSessions_), snap);
        std::vector<std::string> taken;
        for (const auto& r : pass.index) {
            byPid[r.pid] = &r;
            taken.push_back(r.sessionId);
        }
        std::vector<const ProcessInfo*> unpaired;
        for (const auto& a : found) {
            if (a.provider == HarnessProvider::claudeCode && !byPid.count(a.pid)) unpaired.push_back(snap.find(a.pid));
        }
        if (!unpaired.empty()) fallback = pairByRecency(unpaired, taken, claudeProjects_);
    }

    std::unordered_map<std::string, std::pair<WorktreeResolver::Resolution, std::optional<std::string>>> repos;
    std::unordered_map<int32_t, CpuSample> keep;
    for (const auto& a : found) {
        const ProcessInfo* p = snap.find(a.pid);
        if (!p || !p->cwd) continue;  // a process we may not inspect
        DiscoveredAgent d;
        d.provider = a.provider;
        d.pid = p->pid;
        d.cwd = *p->cwd;
        d.start = p->start;
        d.tty = p->tty;
        d.cpu = cpuPercent(*p, snap.takenAt());
        if (auto r = byPid.find(p->pid); r != byPid.end()) {
            d.sessionId = r->second->sessionId;
            d.pairing = DiscoveredAgent::Pairing::index;
            d.indexRecord = *r->second;
        } else if (auto f = fallback.find(p->pid); f != fallback.end()) {
            d.sessionId = f->second;
            d.pairing = DiscoveredAgent::Pairing::fallback;
        }
        auto where = hosts_.resolve(p->pid, snap);
        d.host = where.host;
        d.multiplexer = where.multiplexer;
        if (d.indexRecord && d.indexRecord->tmux) applyTmuxPane(d.multiplexer, *d.indexRecord->tmux);
        auto repo = repos.find(d.cwd);
        if (repo == repos.end()) {
            repo = repos.emplace(d.cwd, std::make_pair(WorktreeResolver::resolve(d.cwd),
                                                        WorktreeResolver::currentBranch(d.cwd)))
                       .first;
        }
        d.worktree = repo->second.first;
        d.gitBranch = repo->second.second;
        keep[p->pid] = cpu_[p->pid];
        pass.agents.push_back(std::move(d));
    }
    cpu_ = std::move(keep);
    return pass;
}

}  // namespace lumora
