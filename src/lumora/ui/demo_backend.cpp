#include "lumora/ui/demo_backend.hpp"

#include "lumora/monitor/agent_jump.hpp"

#include <algorithm>

namespace lumora::ui {

namespace {

using namespace std::chrono_literals;
using K = ActivityLine::Kind;

std::string joined(const std::vector<std::string>& heads) {
    std::string out;
    for (const auto& h : heads) out += (out.empty() ? "" : ", ") + h;
    return out;
}

AgentInstance session(std::string id, HarnessProvider provider, std::string project, AgentStatus status, Date last) {
    AgentInstance a;
    a.id = std::move(id);
    a.provider = provider;
    a.projectName = project;
    a.repoName = project;
    a.cwd = "/home/dev/src/" + project;
    a.status = status;
    a.lastActivity = last;
    a.hasRealTurn = true;
    a.host = AgentHost{AgentHost::Kind::terminal, "kitty", std::nullopt};
    return a;
}

void context(AgentInstance& a, long long tokens, long long max, bool estimated = false) {
    a.contextTokens = tokens;
    a.contextMax = max;
    a.contextMaxEstimated = estimated;
}

}  // namespace

DemoBackend::DemoBackend(Date now) {
    using S = TaskPlanItem::Status;
    auto step = [](std::string subject, S status, std::optional<std::string> active = std::nullopt) {
        return TaskPlanItem{subject, subject, std::move(active), status};
    };
    plans_["0199a1c2-1111-7000-8000-000000000001"] = TaskPlan{{
        step("Update the changelog", S::completed),
        step("Run the test suite", S::inProgress, "Running the test suite"),
        step("Tag v0.3.0", S::pending),
    }};
    plans_["0199a1c2-1111-7000-8000-000000000006"] = TaskPlan{{
        step("Map the journal readers", S::completed),
        step("Sketch the scanner's state", S::completed),
        step("Read only what a journal gained", S::completed),
        step("Write the scanner tests", S::inProgress, "Writing the scanner tests"),
        step("Benchmark a week of journals", S::pending),
        step("Handle truncated journals", S::pending),
        step("Document the cache file", S::pending),
        step("Wire it into the monitor", S::pending),
    }};
    plans_["019fb206-97a0-7573-a940-cb4c5cf36e91"] = TaskPlan{{
        {"goal", "Retry failed refunds with exponential backoff", std::nullopt, S::inProgress}}};
    int pid = 41200;
    auto add = [&](AgentInstance a) {
        a.pid = pid++;
        sessions_.push_back(std::move(a));
    };

    {
        auto a = session("0199a1c2-1111-7000-8000-000000000001", HarnessProvider::claudeCode, "lumora",
                         AgentStatus::attention, now - 20s);
        a.gitBranch = "main";
        a.model = "Opus 4.1";
        context(a, 142000, 200000);
        a.topic = "Release checklist for 0.3";
        a.summary = "Running the release checks";
        a.recentActivity = {{K::prompt, "Get the tree ready for the 0.3 release"},
                            {K::reply, "I'll check the working tree and run the test suite first."},
                            {K::tool, "Read CHANGELOG.md"},
                            {K::ok, "Read 212 lines"}};
        a.approval = ApprovalRequest{a.id, "Bash", "git status && npm test", true,
                                     "Check the tree is clean and the tests pass before tagging", false};
        a.hasHookGroundTruth = true;
        heads_[a.id] = {"git", "npm"};
        add(a);
    }
    {
        auto a = session("019fb206-97a0-7573-a940-cb4c5cf36e91", HarnessProvider::codex, "payments-api",
                         AgentStatus::attention, now - 45s);
        a.gitBranch = "refund-retry";
        a.isWorktree = true;
        a.worktreeName = "refund-retry";
        a.model = "gpt-5-codex";
        context(a, 61000, 272000);
        a.topic = "Retry failed refunds with backoff";
        a.approval = ApprovalRequest{a.id, "exec_command", "curl -sS https://sandbox.payments.test/v1/refunds",
                                     true, "Needs network access to reach the sandbox API", true};
        a.recentActivity = {{K::tool, "apply_patch src/refunds/retry.rs"}, {K::ok, "Patched 2 files"}};
        heads_[a.id] = {"curl"};
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000003", HarnessProvider::claudeCode, "docs-site",
                         AgentStatus::attention, now - 2min);
        a.gitBranch = "search";
        a.model = "Sonnet 4.5";
        context(a, 38000, 200000);
        a.topic = "Add search to the docs";
        a.question = PendingQuestion{"Which search backend should the docs use?", {"Pagefind", "Algolia", "Lunr"}, 1};
        a.recentActivity = {{K::prompt, "Add full-text search to the docs"},
                            {K::thinking, "Comparing static and hosted indexes"}};
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000004", HarnessProvider::cursor, "mobile-app",
                         AgentStatus::attention, now - 3min);
        a.gitBranch = "login-screen";
        a.model = "GPT-5";
        a.topic = "Fix the login screen's keyboard overlap";
        a.approval = ApprovalRequest{a.id, "Edit", "src/screens/Login.tsx", false, std::nullopt, false};
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000005", HarnessProvider::claudeCode, "infra",
                         AgentStatus::waiting, now - 90s);
        a.gitBranch = "terraform-upgrade";
        a.model = "Opus 4.1";
        context(a, 97000, 200000);
        a.summary = "Upgraded the providers; the plan shows 3 changes. Apply them now?";
        a.endsWithQuestion = true;
        unseen_.insert(a.id);
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000006", HarnessProvider::claudeCode, "lumora",
                         AgentStatus::working, now - 4s);
        a.gitBranch = "issue-12";
        a.isWorktree = true;
        a.worktreeName = "scanner";
        a.cwd = "/home/dev/src/lumora-wt-scanner";
        a.model = "Sonnet 4.5";
        context(a, 88000, 200000);
        a.inProgress = true;
        a.cpu = 12.5;
        a.topic = "Scan journals incrementally";
        a.summary = "Running 3 subagents over the readers";
        a.subagentCount = 2;
        a.subagents = {{"t1", "Explore", "Map the journal readers", "Sonnet 4.5", "Reading src/scrivet/tail_reader.cpp", true, 18000},
                       {"t2", "general-purpose", "Write the scanner tests", "Sonnet 4.5", "Running ctest -R scanner", true, 9000},
                       {"t3", "Explore", "Find the callers", std::nullopt, std::nullopt, false, 4000}};
        a.recentActivity = {{K::prompt, "Make the journal scan incremental"},
                            {K::tool, "Task Map the journal readers"},
                            {K::tool, "Task Write the scanner tests"},
                            {K::thinking, "Waiting for the subagents"}};
        add(a);
    }
    {
        auto a = session("019fb206-97a0-7573-a940-cb4c5cf36e92", HarnessProvider::codex, "ml-pipeline",
                         AgentStatus::working, now - 8s);
        a.gitBranch = "main";
        a.model = "gpt-5";
        context(a, 248000, 272000);
        a.inProgress = true;
        a.summary = "Profiling the feature-extraction stage";
        a.recentActivity = {{K::tool, "python -m cProfile extract.py"}, {K::reply, "The tokenizer dominates: 71% of the time."}};
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000008", HarnessProvider::opencode, "dotfiles",
                         AgentStatus::working, now - 15s);
        a.model = "qwen3-coder";
        context(a, 12000, 128000, true);
        a.inProgress = true;
        a.topic = "Tidy the shell start-up";
        a.recentActivity = {{K::tool, "Read .zshrc"}};
        add(a);
    }
    {
        auto a = session("session_6b8f2c1e-2222-4a1b-9c3d-000000000009", HarnessProvider::kimi, "crawler",
                         AgentStatus::working, now - 30s);
        a.gitBranch = "feat/robots";
        a.model = "kimi-k2";
        context(a, 30000, 256000);
        a.inProgress = true;
        a.topic = "Respect robots.txt";
        a.recentActivity = {{K::tool, "cargo test robots"}};
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000010", HarnessProvider::cursor, "website",
                         AgentStatus::waiting, now - 6min);
        a.gitBranch = "redesign";
        a.model = "Claude 4 Sonnet";
        a.summary = "The new header is in place; screenshots are in /tmp/shots.";
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000011", HarnessProvider::claudeCode, "notes",
                         AgentStatus::idle, now - 5min);
        a.gitBranch = "main";
        a.model = "Haiku 4.5";
        context(a, 4000, 200000);
        a.topic = "Weekly notes";
        add(a);
    }
    {
        auto a = session("019fb206-97a0-7573-a940-cb4c5cf36e93", HarnessProvider::codex, "old-experiment",
                         AgentStatus::idle, now - 40min);
        a.gitBranch = "spike";
        a.topic = "Try a faster JSON parser";
        add(a);
    }
    {
        auto a = session("0199a1c2-1111-7000-8000-000000000013", HarnessProvider::claudeCode, "scratch",
                         AgentStatus::idle, now - 3h);
        a.topic = "One-off data clean-up";
        add(a);
    }

    // The quota strip: Claude spending faster than its five hours allow,
    // Codex read from a rollout 47 minutes old (drawn stale), OpenCode Go
    // added up from its charges.
    {
        QuotaReading claude;
        claude.provider = HarnessProvider::claudeCode;
        claude.fetchedAt = now - 40s;
        claude.usage.planName = "Max 20x";
        claude.usage.detail = "extra usage $4.20 of $50";
        claude.usage.windows = {
            {62, now + 2h + 30min, kFiveHours, "5h", "5-hour limit", false, false},
            {41, now + 3 * 24h + 5h, kOneWeek, "7d", "7-day limit", false, false},
            {12, now + 3 * 24h + 5h, kOneWeek, "Opus", "Opus weekly", false, true}};
        quotas_.push_back(claude);
        QuotaReading codex;
        codex.provider = HarnessProvider::codex;
        codex.fetchedAt = now - 47min;
        codex.usage.planName = "Plus";
        codex.usage.windows = {{23, now + 3h, kFiveHours, "5h", "5-hour limit", false, false},
                               {9, now + 6 * 24h, kOneWeek, "7d", "7-day limit", false, false}};
        quotas_.push_back(codex);
        QuotaReading go;
        go.provider = HarnessProvider::opencode;
        go.fetchedAt = now - 20s;
        go.blocker = UsageBlocker::localOnly;
        go.usage.detail = "$15.00 in 30 days · 57 turns";
        go.usage.windows = {{18, now + 4h, kFiveHours, "5h", "5-hour limit", false, false},
                            {20, now + 5 * 24h, kOneWeek, "7d", "7-day limit", false, false},
                            {25, now + 21 * 24h, 30 * 86400.0, "30d", "30-day limit", false, false}};
        quotas_.push_back(go);
    }
}

DemoBackend::~DemoBackend() {
    if (loop_ && timer_) loop_->cancelTimer(timer_);
}

void DemoBackend::start(RunLoop& loop, RunLoop::Clock::duration interval) {
    loop_ = &loop;
    timer_ = loop.addTimer(interval, [this] {
        if (!step()) {
            loop_->cancelTimer(timer_);
            timer_ = 0;
        }
    });
}

AgentInstance* DemoBackend::find(const std::string& id) {
    auto it = std::find_if(sessions_.begin(), sessions_.end(), [&](const AgentInstance& a) { return a.id == id; });
    return it == sessions_.end() ? nullptr : &*it;
}

void DemoBackend::changed() {
    if (onChange_) onChange_();
}

void DemoBackend::peek(const AgentInstance& a, const std::string& ask, bool done) {
    peek_ = PeekEvent{++peekToken_, a.id, a.projectName, ask, done, a.provider, done ? 0 : 1, true};
}

void DemoBackend::gate(const std::string& id, const std::string& tool, const std::string& command,
                       const std::vector<std::string>& heads, const std::string& reason, Date now) {
    auto* a = find(id);
    if (!a) return;
    a->lastActivity = now;
    bool covered = std::all_of(heads.begin(), heads.end(), [&](const std::string& h) {
        return always_.count("head:" + h) || sessionRules_[id].count("head:" + h);
    });
    if (covered) {
        // A standing rule answers at once; the agent just carries on.
        a->recentActivity.push_back({K::tool, command});
        a->recentActivity.push_back({K::ok, "Allowed by a rule"});
        a->summary = "Ran " + command;
        return;
    }
    a->status = AgentStatus::attention;
    a->approval = ApprovalRequest{id, tool, command, true, reason, false};
    heads_[id] = heads;
    acknowledged_.erase(id);
    peek(*a, "Allow " + command + "?", false);
}

void DemoBackend::finish(const std::string& id, const std::string& summary, Date now) {
    auto* a = find(id);
    if (!a) return;
    a->status = AgentStatus::waiting;
    a->inProgress = false;
    a->summary = summary;
    a->lastActivity = now;
    a->recentActivity.push_back({K::reply, summary});
    unseen_.insert(id);
    peek(*a, summary, true);
}

bool DemoBackend::step(Date now) {
    ++step_;
    switch (step_) {
        case 1:
            if (auto* a = find("0199a1c2-1111-7000-8000-000000000006")) {
                a->subagents[0].action = "Reading src/scrivet/claude_transcript_reader.cpp";
                a->recentActivity.push_back({K::ok, "Explore: 4 readers mapped"});
                a->lastActivity = now;
            }
            break;
        case 2: finish("session_6b8f2c1e-2222-4a1b-9c3d-000000000009", "robots.txt is honoured; 14 tests pass.", now); break;
        case 3:
            gate("0199a1c2-1111-7000-8000-000000000008", "Bash", "npm run lint", {"npm"},
                 "Lint the shell scripts after the clean-up", now);
            break;
        case 4:
            if (auto* a = find("019fb206-97a0-7573-a940-cb4c5cf36e92")) {
                a->recentActivity.push_back({K::tool, "apply_patch src/extract/tokenize.py"});
                a->summary = "Caching the tokenizer between batches";
                a->lastActivity = now;
            }
            break;
        case 5:
            // OpenCode Go's five hours turn to run out before they reset.
            for (auto& q : quotas_) {
                if (q.provider != HarnessProvider::opencode) continue;
                q.fetchedAt = now;
                q.usage.windows[0].percentUsed = 71;
                q.usage.windows[0].resetsAt = now + 2h;
                usageAlert_ = UsageAlert{++usageToken_, q.provider, "5h",
                                         "5-hour limit runs out in 1h 14m, before its reset in 2h"};
            }
            break;
        default: return false;
    }
    changed();
    return true;
}

std::vector<ApprovalChoice> DemoBackend::approvalChoices(const ApprovalRequest& request) const {
    if (!request.approvable) return {};
    std::vector<ApprovalChoice> out = {{ApprovalChoice::Kind::approve, "Approve"}, {ApprovalChoice::Kind::deny, "Deny"}};
    auto heads = heads_.find(request.sessionId);
    if (request.escalated || request.toolName.empty() || heads == heads_.end() || heads->second.empty()) return out;
    out.push_back({ApprovalChoice::Kind::allowSession, "Allow " + joined(heads->second) + " this session"});
    out.push_back({ApprovalChoice::Kind::allowAlways, "Always allow " + joined(heads->second)});
    return out;
}

std::optional<std::string> DemoBackend::choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) {
    auto* a = find(request.sessionId);
    if (!a || !a->approval || !a->approval->approvable) return std::nullopt;
    std::optional<std::string> confirmation;
    const auto heads = heads_[request.sessionId];
    switch (kind) {
        case ApprovalChoice::Kind::deny:
            a->recentActivity.push_back({K::error, "Denied: " + request.detail.value_or(request.toolName)});
            break;
        case ApprovalChoice::Kind::approve: break;
        case ApprovalChoice::Kind::allowSession:
            for (const auto& h : heads) sessionRules_[request.sessionId].insert("head:" + h);
            confirmation = "Approved · this session";
            break;
        case ApprovalChoice::Kind::allowAlways:
            for (const auto& h : heads) always_.insert("head:" + h);
            confirmation = "Approved · won't ask again";
            break;
    }
    if (kind != ApprovalChoice::Kind::deny) a->recentActivity.push_back({K::tool, request.detail.value_or(request.toolName)});
    a->approval.reset();
    a->status = AgentStatus::working;
    a->inProgress = true;
    a->lastActivity = std::chrono::system_clock::now();
    heads_.erase(request.sessionId);
    acknowledged_.erase(request.sessionId);
    changed();
    return confirmation;
}

void DemoBackend::jump(const AgentInstance& session, JumpDone done) {
    auto plan = JumpService::plan(jumpTarget(session, true), JumpService::Facts{});
    done(plan.lines);
}

void DemoBackend::sawRow(const std::string& sessionId) {
    bool change = unseen_.erase(sessionId) > 0;
    if (auto* a = find(sessionId); a && a->status == AgentStatus::attention) change |= acknowledged_.insert(sessionId).second;
    if (change) changed();
}

std::optional<SpendSummary> DemoBackend::spendSummary() const {
    SpendSummary s;
    s.todayClaude = 1'912'400;
    s.todayCodex = 486'150;
    s.todayKimi = 23'551;
    s.todayTokens = s.todayClaude + s.todayCodex + s.todayKimi;
    s.todayClaudeCost = 6.91;
    s.todayCodexCost = 0.87;
    s.todayKimiCost = 0.07;
    s.todayCost = s.todayClaudeCost + s.todayCodexCost + s.todayKimiCost;
    s.todayNewTokens = 402'300;
    s.comparisonSameTime = 2'104'000;
    return s;
}

}  // namespace lumora::ui
