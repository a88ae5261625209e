#include "lumora/monitor/session_derivation.hpp"

#include <algorithm>

namespace lumora::SessionDerivation {

namespace {

using Kind = HookSignals::MarkerKind;

double secondsBetween(Date from, Date to) { return std::chrono::duration<double>(to - from).count(); }

// The tool a dangling call on disk waits on, for a display-only approval.
std::optional<std::string> pendingToolName(const scrivet::TranscriptInfo& info) {
    if (!info.pendingApproval) return std::nullopt;
    switch (*info.pendingApproval) {
        case PendingApproval::run: return "Bash";
        case PendingApproval::edit: return "Edit";
        case PendingApproval::question: return "AskUserQuestion";
    }
    return std::nullopt;
}

}  // namespace

ApprovalRequest approvalFromMarker(const std::string& sessionId, const HookSignals::Marker& m, bool approvable) {
    ApprovalRequest r;
    r.sessionId = sessionId;
    r.toolName = m.toolName;
    r.detail = m.detail;
    r.approvable = approvable;
    r.reason = m.reason;
    r.escalated = m.escalated;
    return r;
}

std::optional<PendingQuestion> questionFromMarker(const HookSignals::Marker& m) {
    if (m.kind != Kind::question || !m.detail || m.detail->empty()) return std::nullopt;
    return PendingQuestion{scrivet::collapseWhitespace(*m.detail), m.options, m.moreQuestions};
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
    a.projectName = obs.projectName;
    a.cwd = obs.cwd;
    a.gitBranch = obs.gitBranch ? obs.gitBranch : info.gitBranch;
    a.repoName = obs.repoName;
    a.isWorktree = obs.isWorktree;
    a.worktreeName = obs.worktreeName;
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
    a.workspaceFolders = obs.workspaceFolders;
    a.question = obs.question;

    // Latest activity: the newest entry (the journal's own time when no entry
    // carries one); a subagent writing right now keeps the session fresh.
    Date last = info.lastEntryDate != Date{} ? info.lastEntryDate : info.lastModified;
    if (info.recentSubagentActivity) last = std::max(last, info.lastModified);
    if (last == Date{}) last = now;
    a.lastActivity = last;
    double age = std::max(0.0, secondsBetween(info.lastEntryDate == Date{} ? last : info.lastEntryDate, now));

    std::optional<Date> busySince = hooks.busySince;
    const auto& self = obs.selfReport;
    if (self && self->status == "busy" && self->updatedAt && (!busySince || *self->updatedAt > *busySince))
        busySince = self->updatedAt;

    std::optional<AgentStatus> status;
    // 1. Hook ground truth: a live permission prompt or a question.
    if (hooks.marker && hooks.marker->kind != Kind::idle) {
        const auto& m = *hooks.marker;
        status = AgentStatus::attention;
        a.hasHookGroundTruth = true;
        if (m.kind == Kind::permission) a.approval = approvalFromMarker(obs.id, m, hooks.gateHeld);
        if (m.kind == Kind::question) a.question = questionFromMarker(m);
    } else if (!hooks.marker && self && self->status == "waiting" && self->waitingFor) {
        // The agent's own index says it waits on the user: as good as a hook,
        // but display-only (nothing holds the prompt for us).
        if (*self->waitingFor == "permission prompt") {
            status = AgentStatus::attention;
            a.hasHookGroundTruth = true;
            ApprovalRequest r;
            r.sessionId = obs.id;
            r.toolName = pendingToolName(info).value_or("");
            r.approvable = false;
            a.approval = r;
        } else if (*self->waitingFor == "input needed") {
            status = AgentStatus::attention;
            a.hasHookGroundTruth = true;
        }
    }

    // 2. A busy signal that the transcript does not refute.
    if (!status && busySince) {
        std::optional<Date> newest;
        if (info.lastEntryDate != Date{}) newest = info.lastEntryDate;
        if (StatusRules::busyApplies(*busySince, info.inProgress, newest)) status = AgentStatus::working;
    }

    // 3. The transcript heuristics.
    if (!status) {
        StatusRules::TranscriptFacts facts{info.inProgress, info.pendingApproval, info.endsWithQuestion, age};
        status = StatusRules::initialStatus(facts, settings.idleTimeoutMinutes);
    }

    // 4. An idle prompt while the session seems to work means a question the transcript cannot see.
    if (hooks.marker && hooks.marker->kind == Kind::idle) {
        std::optional<Date> newest;
        if (info.lastEntryDate != Date{}) newest = info.lastEntryDate;
        if (StatusRules::idleMarkerFlips(*status, obs.backgroundActive, hooks.marker->createdAt, busySince, newest)) {
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
    memo.cpu = obs.cpu;
    memo.pid = obs.pid;
    return a;
}

}  // namespace lumora::SessionDerivation
