#include "lumora/monitor/session_derivation.hpp"

#include <algorithm>
#include <set>

#include "lumora/monitor/cursor_status_rules.hpp"
#include "scrivet/session_namer.hpp"

namespace lumora {

std::optional<Date> HookSignals::latest() const {
    std::optional<Date> out = busySince;
    if (marker && marker->createdAt && (!out || *marker->createdAt > *out)) out = marker->createdAt;
    return out;
}

HookSignals HookSnapshot::lookup(HarnessProvider provider, const std::string& sessionId) const {
    auto it = signals.find({provider, sessionId});
    return it == signals.end() ? HookSignals{} : it->second;
}

namespace SessionDerivation {

namespace {

using Kind = HookSignals::MarkerKind;

// How far before its process's start a hook signal may lie and still belong
// to it (the two clocks are read at different moments).
constexpr auto kStartSlack = std::chrono::seconds(2);

double secondsBetween(Date from, Date to) { return std::chrono::duration<double>(to - from).count(); }

std::optional<Date> known(Date d) {
    if (d == Date{}) return std::nullopt;
    return d;
}

}  // namespace

ApprovalRequest approvalFromMarker(const std::string& sessionId, const HookSignals::Marker& m, bool approvable,
                                   HarnessProvider provider) {
    ApprovalRequest r;
    r.sessionId = sessionId;
    r.toolName = m.toolName;
    r.detail = m.detail;
    r.approvable = approvable;
    r.reason = m.reason;
    r.provider = provider;
    r.escalated = ApprovalRequest::leavesSandbox(provider, m.escalated);
    return r;
}

std::optional<PendingQuestion> questionFromMarker(const HookSignals::Marker& m) {
    if (m.kind != Kind::question || !m.detail || m.detail->empty()) return std::nullopt;
    return PendingQuestion{scrivet::collapseWhitespace(*m.detail), m.options, m.moreQuestions};
}

bool questionMarkerStale(const HookSignals::Marker& m, const std::optional<SessionObservation::SelfReport>& self,
                         const scrivet::TranscriptInfo& info) {
    if ((m.kind != Kind::question && m.kind != Kind::plan) || !m.createdAt) return false;
    // The agent's own index left the question: working again, or back at its prompt.
    if (self && (self->status == "busy" || self->status == "idle") && self->updatedAt && *self->updatedAt > *m.createdAt)
        return true;
    // The journal went on past the question (an answer or a dismissal is a
    // newer entry); the question's own call still dangling is not that.
    return info.lastEntryDate > *m.createdAt && info.pendingApproval != PendingApproval::question;
}

void adoptHookSessionIds(std::vector<SessionObservation>& observations, const HookSnapshot& hooks) {
    using Place = std::pair<HarnessProvider, std::string>;
    std::map<Place, std::vector<const SessionObservation*>> unkeyed;
    std::set<std::string> rows;
    for (const auto& o : observations) {
        rows.insert(o.id);
        if (isFallbackIdentity(o.id)) unkeyed[{o.provider, o.cwd}].push_back(&o);
    }
    if (unkeyed.empty()) return;
    std::map<Place, std::string> adopted;
    for (const auto& [place, found] : unkeyed) {
        if (found.size() != 1) continue;  // two processes in one folder: no way to tell them apart
        const SessionObservation& o = *found.front();
        std::vector<std::string> candidates;
        for (const auto& [key, sig] : hooks.signals) {
            if (key.first != place.first || sig.cwd != place.second || rows.count(key.second)) continue;
            auto heard = sig.latest();
            if (!heard) continue;
            if (o.processStart && *heard + kStartSlack < *o.processStart) continue;  // from an earlier process
            candidates.push_back(key.second);
        }
        if (candidates.size() == 1) adopted[place] = candidates.front();
    }
    for (auto& o : observations) {
        if (!isFallbackIdentity(o.id)) continue;
        if (auto it = adopted.find({o.provider, o.cwd}); it != adopted.end()) o.id = it->second;
    }
}

AgentInstance derive(const SessionObservation& obs, const HookSignals& hooks, Memo& memo, Date now,
                     const Settings& settings) {
    // A reader that returns nothing keeps the last facts.
    if (obs.info) memo.info = obs.info;
    const scrivet::TranscriptInfo empty{};
    const scrivet::TranscriptInfo& info = memo.info ? *memo.info : empty;

    AgentInstance a;
    a.id = obs.id;
    a.provider = obs.provider;
    a.pid = obs.pid;
    // Folder and branch names are bytes; what the views show is text. The
    // working directory itself stays as it is: it names the folder.
    auto text = [](const std::optional<std::string>& s) -> std::optional<std::string> {
        if (!s) return std::nullopt;
        return scrivet::validUtf8(*s);
    };
    a.projectName = scrivet::validUtf8(obs.projectName);
    a.cwd = obs.cwd;
    a.gitBranch = text(obs.gitBranch ? obs.gitBranch : info.gitBranch);
    a.repoName = text(obs.repoName);
    a.isWorktree = obs.isWorktree;
    a.worktreeName = text(obs.worktreeName);
    a.summary = info.summary;
    a.cpu = obs.cpu.value_or(0);
    a.model = info.model;
    a.contextTokens = info.contextTokens;
    a.contextMax = info.contextMax;
    a.contextMaxEstimated = info.contextMaxEstimated;
    a.inProgress = info.inProgress;
    a.pendingApproval = info.pendingApproval;
    a.endsWithQuestion = info.endsWithQuestion;
    a.recentActivity = info.recentActivity;
    if (settings.subagentsEnabled) {
        a.subagentCount = info.subagentCount;
        a.subagents = info.subagents;
    }
    a.hasRealTurn = info.hasRealTurn;
    a.host = obs.host;
    a.surface = obs.surface;
    a.topic = info.topic;
    // A topic left to the first prompt takes the local model's name once it
    // has one: asked again on every scan, since a reader's facts may be
    // reused unchanged while the journal is quiet.
    if (info.firstPrompt && !isFallbackIdentity(obs.id)) {
        if (auto name = scrivet::SessionNamer::shared().cachedName(obs.id, *info.firstPrompt)) a.topic = name;
    }
    a.workspaceFolders = obs.workspaceFolders;
    a.question = obs.question;

    // Latest activity: the newest entry (the journal's own time when no entry
    // carries one), or a subagent's journal written since; a process with no
    // journal yet counts from its start, so it ages like any other row.
    std::optional<Date> newestEntry = known(info.lastEntryDate);
    Date entryTime = newestEntry.value_or(info.lastModified);
    Date last = entryTime;
    if (info.subagentActivity) last = std::max(last, *info.subagentActivity);
    if (last == Date{}) last = obs.processStart.value_or(now);
    if (entryTime == Date{}) entryTime = last;
    a.lastActivity = last;
    double age = std::max(0.0, secondsBetween(entryTime, now));
    double quiet = std::max(0.0, secondsBetween(last, now));

    std::optional<Date> busySince = hooks.busySince;
    const auto& self = obs.selfReport;
    if (self && self->status == "busy" && self->updatedAt && (!busySince || *self->updatedAt > *busySince))
        busySince = self->updatedAt;
    // The agent's own index back at its prompt after everything else: a turn
    // stopped before its first token leaves the journal ending on the prompt,
    // and no hook says the turn ended.
    bool idleSinceAll = self && self->status == "idle" && self->updatedAt &&
                        (!newestEntry || *self->updatedAt > *newestEntry) &&
                        (!busySince || *self->updatedAt > *busySince);
    bool inProgress = info.inProgress && !idleSinceAll;
    if (idleSinceAll) busySince.reset();

    std::optional<HookSignals::Marker> marker = hooks.marker;
    if (marker && questionMarkerStale(*marker, self, info)) marker.reset();

    std::optional<AgentStatus> status;
    // 1. Hook ground truth: a live permission prompt or a question.
    if (marker && marker->kind != Kind::idle) {
        const auto& m = *marker;
        status = AgentStatus::attention;
        a.hasHookGroundTruth = true;
        if (m.kind == Kind::permission) {
            a.approval = approvalFromMarker(obs.id, m, hooks.gateHeld, obs.provider);
            if (hooks.gateHeld) a.approval->gateId = hooks.gateId;
        }
        if (m.kind == Kind::question) a.question = questionFromMarker(m);
    } else if (!marker && self && self->status == "waiting" && self->waitingFor) {
        // The agent's own index says it waits on the user: as good as a hook,
        // but display-only (nothing holds the prompt for us). The journal's
        // dangling call tells what it asks for.
        if (*self->waitingFor == "permission prompt") {
            status = AgentStatus::attention;
            a.hasHookGroundTruth = true;
            ApprovalRequest r;
            r.sessionId = obs.id;
            r.provider = obs.provider;
            if (info.pendingToolCall) {
                r.toolName = info.pendingToolCall->toolName;
                r.detail = info.pendingToolCall->detail;
            }
            r.approvable = false;
            r.provider = obs.provider;
            r.escalated = r.leavesSandbox();
            a.approval = r;
        } else if (*self->waitingFor == "input needed") {
            status = AgentStatus::attention;
            a.hasHookGroundTruth = true;
        }
    }

    // 2. A busy signal that the transcript does not refute.
    if (!status && busySince) {
        if (StatusRules::busyApplies(*busySince, inProgress, newestEntry)) status = AgentStatus::working;
    }

    // 3. The transcript heuristics.
    if (!status) {
        StatusRules::TranscriptFacts facts{inProgress, inProgress ? info.pendingApproval : std::nullopt,
                                           info.endsWithQuestion, age, quiet};
        status = obs.provider == HarnessProvider::cursor
                     ? CursorStatusRules::initialStatus(facts, settings.idleTimeoutMinutes)
                     : StatusRules::initialStatus(facts, settings.idleTimeoutMinutes);
    }

    // 4. An idle prompt while the session seems to work means a question the transcript cannot see.
    if (marker && marker->kind == Kind::idle) {
        if (StatusRules::idleMarkerFlips(*status, obs.backgroundActive, marker->createdAt, busySince, newestEntry)) {
            status = AgentStatus::attention;
            a.hasHookGroundTruth = true;
        }
    }

    // 5. The processor-use hold at a working -> waiting flip.
    StatusRules::CpuHoldInput hold{*status, memo.status, a.hasHookGroundTruth, obs.pid.has_value(), obs.cpu, memo.cpu,
                                   memo.cpuHoldSince, memo.cpuHoldCapped};
    switch (StatusRules::cpuHoldOutcome(hold, now)) {
        case StatusRules::CpuHoldOutcome::hold:
            if (!memo.cpuHoldSince) memo.cpuHoldSince = now;
            status = AgentStatus::working;
            break;
        case StatusRules::CpuHoldOutcome::capped:
            memo.cpuHoldSince.reset();
            memo.cpuHoldCapped = true;
            break;
        case StatusRules::CpuHoldOutcome::idle:
            memo.cpuHoldSince.reset();
            // A capped session may be held again once it has really worked again.
            if (*status == AgentStatus::working && memo.status != AgentStatus::working) memo.cpuHoldCapped = false;
            break;
    }

    a.status = *status;
    a.inProgress = inProgress;
    if (!a.question && obs.question && a.status == AgentStatus::attention) a.question = obs.question;
    memo.cpu = obs.cpu;
    memo.pid = obs.pid;
    return a;
}

}  // namespace SessionDerivation

}  // namespace lumora
