#include "lumora/app/front_protocol.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "lumora/app/run_commands.hpp"
#include "lumora/app/usage_command.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/base/json_text.hpp"

namespace lumora::FrontProtocol {

namespace {

using Json = nlohmann::ordered_json;

// Lenient reads: a key of the wrong type reads as missing.
const Json* field(const Json& o, const char* key) {
    if (!o.is_object()) return nullptr;
    auto it = o.find(key);
    if (it == o.end() || it->is_null()) return nullptr;
    return &*it;
}

std::string text(const Json& o, const char* key) {
    const Json* v = field(o, key);
    return v && v->is_string() ? v->get<std::string>() : std::string();
}

std::optional<std::string> optText(const Json& o, const char* key) {
    const Json* v = field(o, key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}

bool flag(const Json& o, const char* key) {
    const Json* v = field(o, key);
    return v && v->is_boolean() && v->get<bool>();
}

std::optional<double> number(const Json& o, const char* key) {
    const Json* v = field(o, key);
    if (!v || !v->is_number()) return std::nullopt;
    double d = v->get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    return d;
}

// A whole number in range, or nothing (a fraction is cut, not refused).
template <typename T>
std::optional<T> whole(const Json& o, const char* key) {
    auto d = number(o, key);
    if (!d) return std::nullopt;
    // The upper bound is 2^digits, exact as a double (the type's max rounds up to it).
    if (*d < static_cast<double>(std::numeric_limits<T>::lowest()) ||
        *d >= std::ldexp(1.0, std::numeric_limits<T>::digits))
        return std::nullopt;
    return static_cast<T>(*d);
}

std::vector<std::string> texts(const Json& o, const char* key) {
    std::vector<std::string> out;
    const Json* v = field(o, key);
    if (!v || !v->is_array()) return out;
    for (const auto& item : *v)
        if (item.is_string()) out.push_back(item.get<std::string>());
    return out;
}

std::optional<Date> date(const Json& o, const char* key) {
    const Json* v = field(o, key);
    if (!v) return std::nullopt;
    return Dates::parse(*v);
}

template <typename T>
Json opt(const std::optional<T>& v) {
    return v ? Json(*v) : Json(nullptr);
}

std::optional<AgentStatus> statusNamed(std::string_view raw) { return statusFromRaw(raw); }

ActivityLine::Kind activityKind(std::string_view raw) {
    using K = ActivityLine::Kind;
    for (K k : {K::prompt, K::reply, K::tool, K::ok, K::error, K::thinking})
        if (kindName(k) == raw) return k;
    return K::reply;
}

std::optional<PendingApproval> pendingNamed(std::string_view raw) {
    for (auto k : {PendingApproval::question, PendingApproval::edit, PendingApproval::run})
        if (kindName(k) == raw) return k;
    return std::nullopt;
}

AgentHost::Kind hostKind(std::string_view raw) {
    for (auto k : {AgentHost::Kind::terminal, AgentHost::Kind::ide, AgentHost::Kind::app})
        if (kindName(k) == raw) return k;
    return AgentHost::Kind::terminal;
}

UsageBlocker blockerNamed(std::string_view raw) {
    using B = UsageBlocker;
    for (B b : {B::ok, B::noLogin, B::expired, B::unreachable, B::rateLimited, B::noPlanLimits, B::localOnly})
        if (rawValue(b) == raw) return b;
    return B::ok;
}

Json peekJson(const PeekEvent& p) {
    return {{"token", p.token},         {"sessionId", p.sessionId},
            {"projectName", p.projectName}, {"ask", p.ask},
            {"done", p.done},           {"provider", std::string(scrivet::rawValue(p.provider))},
            {"riseCount", p.riseCount}, {"chimes", p.chimes}};
}

std::optional<PeekEvent> peekFromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    PeekEvent p;
    p.token = whole<long long>(j, "token").value_or(0);
    p.sessionId = text(j, "sessionId");
    p.projectName = text(j, "projectName");
    p.ask = text(j, "ask");
    p.done = flag(j, "done");
    p.provider = scrivet::providerFromRaw(text(j, "provider")).value_or(HarnessProvider::claudeCode);
    p.riseCount = whole<int>(j, "riseCount").value_or(0);
    p.chimes = !field(j, "chimes") || flag(j, "chimes");
    return p;
}

Json alertJson(const UsageAlert& a) {
    return {{"token", a.token},
            {"provider", std::string(scrivet::rawValue(a.provider))},
            {"windowLabel", a.windowLabel},
            {"text", a.text}};
}

std::optional<UsageAlert> alertFromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    UsageAlert a;
    a.token = whole<long long>(j, "token").value_or(0);
    a.provider = scrivet::providerFromRaw(text(j, "provider")).value_or(HarnessProvider::claudeCode);
    a.windowLabel = text(j, "windowLabel");
    a.text = text(j, "text");
    return a;
}

Json idList(const std::set<std::string>& ids) {
    Json out = Json::array();
    for (const auto& id : ids) out.push_back(id);
    return out;
}

std::set<std::string> idSet(const Json& o, const char* key) {
    auto list = texts(o, key);
    return {list.begin(), list.end()};
}

std::optional<Json> parseObject(std::string_view line, size_t limit) {
    if (line.size() > limit) return std::nullopt;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    auto json = JsonText::parse(line);
    if (!json || !json->is_object()) return std::nullopt;
    auto v = whole<int>(*json, "v");
    if (v != kVersion) return std::nullopt;
    return json;
}

}  // namespace

std::string_view choiceName(ApprovalChoice::Kind kind) {
    switch (kind) {
        case ApprovalChoice::Kind::approve: return "approve";
        case ApprovalChoice::Kind::deny: return "deny";
        case ApprovalChoice::Kind::allowSession: return "allowSession";
        case ApprovalChoice::Kind::allowAlways: return "allowAlways";
    }
    return "deny";
}

// ---------------------------------------------------------------------------------------------
// Sessions, plans, readings and spend read back

std::optional<AgentInstance> sessionFromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    AgentInstance a;
    a.id = text(j, "id");
    if (a.id.empty()) return std::nullopt;
    a.provider = scrivet::providerFromRaw(text(j, "provider")).value_or(HarnessProvider::claudeCode);
    a.pid = whole<int32_t>(j, "pid");
    a.projectName = text(j, "projectName");
    a.cwd = text(j, "cwd");
    a.gitBranch = optText(j, "gitBranch");
    a.repoName = optText(j, "repoName");
    a.isWorktree = flag(j, "isWorktree");
    a.worktreeName = optText(j, "worktreeName");
    a.status = statusNamed(text(j, "status")).value_or(AgentStatus::idle);
    a.summary = optText(j, "summary");
    a.lastActivity = date(j, "lastActivity").value_or(Date{});
    a.cpu = number(j, "cpu").value_or(0);
    a.model = optText(j, "model");
    a.contextTokens = whole<long long>(j, "contextTokens");
    a.contextMax = whole<long long>(j, "contextMax");
    a.contextMaxEstimated = flag(j, "contextMaxEstimated");
    a.inProgress = flag(j, "inProgress");
    if (auto p = optText(j, "pendingApproval")) a.pendingApproval = pendingNamed(*p);
    a.endsWithQuestion = flag(j, "endsWithQuestion");
    if (const Json* r = field(j, "approval"); r && r->is_object()) {
        ApprovalRequest req;
        req.sessionId = a.id;
        req.provider = a.provider;
        req.toolName = text(*r, "toolName");
        req.detail = optText(*r, "detail");
        req.approvable = flag(*r, "approvable");
        req.reason = optText(*r, "reason");
        req.escalated = flag(*r, "escalated");
        req.gateId = whole<uint64_t>(*r, "gateId").value_or(0);
        a.approval = std::move(req);
    }
    if (const Json* q = field(j, "question"); q && q->is_object()) {
        PendingQuestion question;
        question.text = text(*q, "text");
        question.options = texts(*q, "options");
        question.moreCount = whole<int>(*q, "moreCount").value_or(0);
        a.question = std::move(question);
    }
    if (const Json* list = field(j, "recentActivity"); list && list->is_array()) {
        for (const auto& l : *list) {
            if (!l.is_object()) continue;
            a.recentActivity.push_back({activityKind(text(l, "kind")), text(l, "text")});
        }
    }
    a.subagentCount = whole<int>(j, "subagentCount").value_or(0);
    if (const Json* list = field(j, "subagents"); list && list->is_array()) {
        for (const auto& s : *list) {
            if (!s.is_object()) continue;
            SubagentInfo info;
            info.id = text(s, "id");
            info.type = text(s, "type");
            info.task = text(s, "task");
            info.model = optText(s, "model");
            info.action = optText(s, "action");
            info.isRunning = flag(s, "isRunning");
            info.tokens = whole<long long>(s, "tokens");
            a.subagents.push_back(std::move(info));
        }
    }
    a.hasRealTurn = flag(j, "hasRealTurn");
    if (const Json* h = field(j, "host"); h && h->is_object())
        a.host = AgentHost{hostKind(text(*h, "kind")), text(*h, "appName"), optText(*h, "bundleID")};
    a.hasHookGroundTruth = flag(j, "hasHookGroundTruth");
    a.surface = text(j, "surface") == "cowork" ? AgentSurface::cowork : AgentSurface::coding;
    a.topic = optText(j, "topic");
    a.workspaceFolders = texts(j, "workspaceFolders");
    return a;
}

std::optional<TaskPlan> planFromJson(const Json& j) {
    const Json* items = field(j, "items");
    if (!items || !items->is_array()) return std::nullopt;
    TaskPlan plan;
    for (const auto& i : *items) {
        if (!i.is_object()) continue;
        TaskPlanItem item;
        item.id = text(i, "id");
        item.subject = text(i, "subject");
        item.activeForm = optText(i, "activeForm");
        item.status = TaskPlanItem::normalizing(text(i, "status"));
        plan.items.push_back(std::move(item));
    }
    if (plan.empty()) return std::nullopt;
    return plan;
}

std::optional<QuotaReading> readingFromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    auto provider = scrivet::providerFromRaw(text(j, "provider"));
    if (!provider) return std::nullopt;
    QuotaReading r;
    r.provider = *provider;
    r.usage.planName = optText(j, "planName");
    r.usage.detail = optText(j, "detail");
    r.fetchedAt = date(j, "fetchedAt").value_or(Date{});
    r.blocker = blockerNamed(text(j, "blocker"));
    r.status = whole<int>(j, "status");
    r.retryIn = number(j, "retryIn");
    if (const Json* windows = field(j, "windows"); windows && windows->is_array()) {
        for (const auto& w : *windows) {
            if (!w.is_object()) continue;
            PlanUsage::Window window;
            window.percentUsed = number(w, "percentUsed").value_or(0);
            window.resetsAt = date(w, "resetsAt");
            window.period = number(w, "period");
            window.label = text(w, "label");
            window.name = text(w, "name");
            window.isCritical = flag(w, "isCritical");
            window.isModelScoped = flag(w, "isModelScoped");
            r.usage.windows.push_back(std::move(window));
        }
    }
    return r;
}

Json toJson(const SpendSummary& s) {
    Json days = Json::array();
    for (const auto& d : s.days) days.push_back({{"date", Dates::format(d.date)}, {"tokens", d.tokens}, {"cost", d.cost}});
    return {{"todayTokens", s.todayTokens},
            {"todayCost", s.todayCost},
            {"todayNewTokens", s.todayNewTokens},
            {"todayClaude", s.todayClaude},
            {"todayCodex", s.todayCodex},
            {"todayKimi", s.todayKimi},
            {"todayOpenCode", s.todayOpenCode},
            {"todayClaudeCost", s.todayClaudeCost},
            {"todayCodexCost", s.todayCodexCost},
            {"todayKimiCost", s.todayKimiCost},
            {"todayOpenCodeCost", s.todayOpenCodeCost},
            {"comparisonSameTime", s.comparisonSameTime},
            {"comparisonSameTimeCost", s.comparisonSameTimeCost},
            {"comparisonDate", Dates::format(s.comparisonDate)},
            {"typicalDay", s.typicalDay},
            {"typicalDayCost", s.typicalDayCost},
            {"unpricedModels", s.unpricedModels},
            {"days", days}};
}

std::optional<SpendSummary> spendFromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    SpendSummary s;
    s.todayTokens = whole<int64_t>(j, "todayTokens").value_or(0);
    s.todayCost = number(j, "todayCost").value_or(0);
    s.todayNewTokens = whole<int64_t>(j, "todayNewTokens").value_or(0);
    s.todayClaude = whole<int64_t>(j, "todayClaude").value_or(0);
    s.todayCodex = whole<int64_t>(j, "todayCodex").value_or(0);
    s.todayKimi = whole<int64_t>(j, "todayKimi").value_or(0);
    s.todayOpenCode = whole<int64_t>(j, "todayOpenCode").value_or(0);
    s.todayClaudeCost = number(j, "todayClaudeCost").value_or(0);
    s.todayCodexCost = number(j, "todayCodexCost").value_or(0);
    s.todayKimiCost = number(j, "todayKimiCost").value_or(0);
    s.todayOpenCodeCost = number(j, "todayOpenCodeCost").value_or(0);
    s.comparisonSameTime = whole<int64_t>(j, "comparisonSameTime").value_or(0);
    s.comparisonSameTimeCost = number(j, "comparisonSameTimeCost").value_or(0);
    s.comparisonDate = date(j, "comparisonDate").value_or(Date{});
    s.typicalDay = whole<int64_t>(j, "typicalDay").value_or(0);
    s.typicalDayCost = number(j, "typicalDayCost").value_or(0);
    s.unpricedModels = texts(j, "unpricedModels");
    if (const Json* days = field(j, "days"); days && days->is_array()) {
        for (const auto& d : *days) {
            if (!d.is_object()) continue;
            s.days.push_back({date(d, "date").value_or(Date{}), whole<int64_t>(d, "tokens").value_or(0),
                              number(d, "cost").value_or(0)});
        }
    }
    return s;
}

// ---------------------------------------------------------------------------------------------
// State lines

std::string encodeState(const State& state, Date now) {
    Json usage = UsageCommand::toJson(state.quotas, now);
    Json out;
    out["v"] = kVersion;
    out["pid"] = state.pid;
    out["answeringFaces"] = state.answeringFaces;
    out["sessions"] = RunCommands::scanJson(state.sessions, usage, state.plans);
    out["usage"] = std::move(usage);
    out["spend"] = state.spend ? toJson(*state.spend) : Json(nullptr);
    out["unseen"] = idList(state.unseen);
    out["acknowledged"] = idList(state.acknowledged);
    out["peek"] = state.peek ? peekJson(*state.peek) : Json(nullptr);
    out["usageAlert"] = state.usageAlert ? alertJson(*state.usageAlert) : Json(nullptr);
    out["hooksProblem"] = opt(state.hooksProblem);
    return JsonText::dump(out) + "\n";
}

std::optional<Json> stateJson(std::string_view line) {
    auto json = parseObject(line, kMaxStateBytes);
    if (!json || !json->contains("sessions") || !(*json)["sessions"].is_array()) return std::nullopt;
    return json;
}

std::optional<State> decodeState(std::string_view line) {
    auto json = stateJson(line);
    if (!json) return std::nullopt;
    const Json& j = *json;
    State s;
    s.pid = whole<int32_t>(j, "pid").value_or(0);
    s.answeringFaces = std::max(0, whole<int32_t>(j, "answeringFaces").value_or(0));
    for (const auto& item : j["sessions"]) {
        auto a = sessionFromJson(item);
        if (!a) continue;
        if (const Json* plan = field(item, "taskPlan"))
            if (auto p = planFromJson(*plan)) s.plans[a->id] = std::move(*p);
        s.sessions.push_back(std::move(*a));
    }
    if (const Json* usage = field(j, "usage"); usage && usage->is_object()) {
        for (const auto& [_, reading] : usage->items())
            if (auto r = readingFromJson(reading)) s.quotas.push_back(std::move(*r));
    }
    if (const Json* spend = field(j, "spend")) s.spend = spendFromJson(*spend);
    s.unseen = idSet(j, "unseen");
    s.acknowledged = idSet(j, "acknowledged");
    if (const Json* peek = field(j, "peek")) s.peek = peekFromJson(*peek);
    if (const Json* alert = field(j, "usageAlert")) s.usageAlert = alertFromJson(*alert);
    s.hooksProblem = optText(j, "hooksProblem");
    return s;
}

// ---------------------------------------------------------------------------------------------
// Commands

std::optional<Command> parseCommand(std::string_view line) {
    auto json = parseObject(line, kMaxCommandBytes);
    if (!json) return std::nullopt;
    const Json& j = *json;
    std::string action = text(j, "action");
    Command c;
    if (action == "face") {
        c.kind = Command::Kind::face;
        c.answers = flag(j, "answers");
        return c;
    }
    c.session = text(j, "session");
    if (c.session.empty() || c.session.size() > 4096) return std::nullopt;
    if (action == "saw") {
        c.kind = Command::Kind::saw;
        return c;
    }
    if (action == "jump") {
        c.kind = Command::Kind::jump;
        c.ref = whole<int64_t>(j, "ref").value_or(0);
        return c;
    }
    if (action == "decide") {
        c.kind = Command::Kind::decide;
        auto gate = whole<uint64_t>(j, "gate");
        if (!gate || *gate == 0) return std::nullopt;
        c.gate = *gate;
        std::string choice = text(j, "choice");
        using K = ApprovalChoice::Kind;
        bool known = false;
        for (K k : {K::approve, K::deny, K::allowSession, K::allowAlways}) {
            if (choiceName(k) == choice) {
                c.choice = k;
                known = true;
            }
        }
        if (!known) return std::nullopt;
        return c;
    }
    return std::nullopt;
}

std::string commandLine(const Command& c) {
    Json j;
    j["v"] = kVersion;
    switch (c.kind) {
        case Command::Kind::face:
            j["action"] = "face";
            j["answers"] = c.answers;
            break;
        case Command::Kind::decide:
            j["action"] = "decide";
            j["session"] = c.session;
            j["gate"] = c.gate;
            j["choice"] = std::string(choiceName(c.choice));
            break;
        case Command::Kind::saw:
            j["action"] = "saw";
            j["session"] = c.session;
            break;
        case Command::Kind::jump:
            j["action"] = "jump";
            j["session"] = c.session;
            j["ref"] = c.ref;
            break;
    }
    return JsonText::dump(j) + "\n";
}

std::string jumpReply(int64_t ref, const std::vector<std::string>& lines) {
    Json j = {{"v", kVersion}, {"jumped", ref}, {"lines", lines}};
    return JsonText::dump(j) + "\n";
}

std::optional<JumpReply> parseJumpReply(std::string_view line) {
    auto json = parseObject(line, kMaxCommandBytes);
    if (!json) return std::nullopt;
    auto ref = whole<int64_t>(*json, "jumped");
    if (!ref) return std::nullopt;
    return JumpReply{*ref, texts(*json, "lines")};
}

std::string decidedReply(const DecidedReply& reply) {
    Json j = {{"v", kVersion}, {"decided", reply.gate}, {"session", reply.session}, {"taken", reply.taken}};
    return JsonText::dump(j) + "\n";
}

std::optional<DecidedReply> parseDecidedReply(std::string_view line) {
    auto json = parseObject(line, kMaxCommandBytes);
    if (!json) return std::nullopt;
    auto gate = whole<uint64_t>(*json, "decided");
    if (!gate) return std::nullopt;
    return DecidedReply{text(*json, "session"), *gate, flag(*json, "taken")};
}

}  // namespace lumora::FrontProtocol
