#include "lumora/app/lumora_app.hpp"

#include "lumora/app/approval_decision.hpp"
#include "lumora/monitor/agent_jump.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/monitor/codex_session_source.hpp"
#include "lumora/monitor/cursor_session_source.hpp"
#include "lumora/monitor/kimi_session_source.hpp"
#include "lumora/monitor/opencode_session_source.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/power_state.hpp"
#include "lumora/usage/http_client.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/opencode_transcript_reader.hpp"
#include "scrivet/session_namer.hpp"

#include <cstdlib>

namespace lumora {

namespace {

HookSignals::MarkerKind markerKind(const std::string& kind) {
    if (kind == AttentionMarker::question) return HookSignals::MarkerKind::question;
    if (kind == AttentionMarker::plan) return HookSignals::MarkerKind::plan;
    if (kind == AttentionMarker::idle) return HookSignals::MarkerKind::idle;
    return HookSignals::MarkerKind::permission;
}

HookSignals::Marker toSignal(const AttentionMarker& m, std::optional<Date> createdAt) {
    HookSignals::Marker out;
    out.kind = markerKind(m.kind);
    out.toolName = m.toolName;
    out.detail = m.detail;
    out.reason = m.reason;
    out.escalated = m.escalated;
    out.options = m.options.value_or(std::vector<std::string>{});
    out.moreQuestions = m.moreQuestions;
    out.createdAt = createdAt;
    return out;
}

}  // namespace

HookSnapshot LumoraApp::hookSnapshot(const HookBridgeSnapshot& bridge) {
    HookSnapshot snap;
    for (const auto& [provider, markers] : bridge.markers) {
        for (const auto& [sessionId, m] : markers) {
            std::optional<Date> at;
            if (provider == HarnessProvider::claudeCode) {
                if (auto it = bridge.claudeMarkerCreatedAt.find(sessionId); it != bridge.claudeMarkerCreatedAt.end())
                    at = it->second;
            }
            auto& sig = snap.signals[{provider, sessionId}];
            sig.marker = toSignal(m, at);
            // Taken with the markers under one lock: a held gate never shows without its buttons.
            if (const auto* gate = bridge.gate(sessionId); gate && gate->provider == provider) {
                sig.gateHeld = true;
                sig.gateId = gate->id;
            }
        }
    }
    for (const auto& [sessionId, since] : bridge.claudeBusy) {
        snap.signals[{HarnessProvider::claudeCode, sessionId}].busySince = since;
    }
    // Cursor reports through notes, which its session source reads.
    snap.cursor = {bridge.cursorPending, bridge.cursorActivity, bridge.cursorModels};
    return snap;
}

LumoraApp::LumoraApp()
    : defaults_(DefaultsStore::shared()), settings_(SettingsStore::shared()), rules_(ApprovalRulesStore::shared()) {
    files_ = FileWatcher::create();
    bridge_ = std::make_unique<HookBridge>(Paths::socketPath(), Paths::supportFolder(), rules_);
    discovery_ = std::make_unique<ProcessDiscovery>(ProcessTable::system(), Paths::claudeSessions(), Paths::claudeProjects());

    ClaudeMonitor::Dependencies deps;
    ProcessDiscovery* discovery = discovery_.get();
    deps.discover = [discovery] { return discovery->run(); };
    deps.files = files_.get();
    // The desktop's sessions come first: a desktop session's titled row wins
    // over the plain row of its `claude` process.
    auto desktop = std::make_unique<DesktopSessionSource>(
        DesktopSessionSource::Paths{Paths::claudeDesktopData(), Paths::claudeProjects(), Paths::claudeConfigFile()});
    desktop_ = desktop.get();
    deps.sources.push_back(std::move(desktop));
    deps.sources.push_back(std::make_unique<ClaudeSessionSource>(
        ClaudeSessionSource::Paths{Paths::claudeProjects(), Paths::claudeConfigFile(), Paths::claudeTempFolder(),
                                   Paths::claudeSessions()},
        SDKHostMemory::shared(), [discovery](const std::string& appId, const ProcessSnapshot& snapshot) {
            return discovery->hosts().isApplicationRunning(appId, snapshot);
        }));
    deps.sources.push_back(std::make_unique<CodexSessionSource>(CodexSessionSource::Options{
        Paths::codexHome() / "sessions", std::chrono::minutes(30), [discovery](const ProcessSnapshot& snapshot) {
            return CodexSessionSource::desktopHostRunning(snapshot, discovery->hosts());
        }}));
    deps.sources.push_back(std::make_unique<CursorSessionSource>(
        CursorSessionSource::Options{Paths::cursorHome() / "projects", std::chrono::minutes(30)}));
    deps.sources.push_back(std::make_unique<KimiSessionSource>(KimiSessionSource::Paths{
        scrivet::KimiTranscriptReader::sessionsRoot(Paths::kimiHome()), Paths::kimiHome() / "config.toml"}));
    deps.sources.push_back(std::make_unique<OpenCodeSessionSource>(OpenCodeSessionSource::Paths{
        scrivet::OpenCodeTranscriptReader::databaseURL(Paths::openCodeData()),
        scrivet::OpenCodeTranscriptReader::modelsCatalogURL(Paths::openCodeCache())}));
    HookBridge* bridge = bridge_.get();
    deps.hooks = [bridge](Date now) { return hookSnapshot(bridge->snapshot(now)); };
    deps.lowPowerMode = [] { return PowerState::lowPowerMode(); };
    monitor_ = std::make_unique<ClaudeMonitor>(std::move(deps));
    spend_ = std::make_unique<SpendService>(SpendStore::shared(), ModelPricing::shared(), SpendScanner::defaultRoots(),
                                            RunLoop::main(), &defaults_);
    // With tracing on, new journal shapes are noted beside the trace.
    if (const char* trace = std::getenv("LUMORA_DEBUG_LOG"); trace && *trace)
        scrivet::ClaudeTranscriptReader::setDiagnosticLogDirectory(Paths::supportFolder());

    // A hook event rescans at once; the monitor hops to the main loop itself.
    ClaudeMonitor* monitor = monitor_.get();
    bridge_->setOnEvent([monitor] { monitor->refreshNow(); });
    bridge_->setCanShow([this](HarnessProvider provider, const std::string& sessionId, uint64_t gateId) {
        return canShow(provider, sessionId, gateId);
    });
    monitor_->setOnPublish([this] { published(); });

    UsagePoller::Dependencies usage;
    SettingsStore* settings = &settings_;
    usage.sources = QuotaSources::standard([settings] { return settings->openCodeGoCaps(); });
    usage.cache = &UsageSnapshotCache::shared();
    usage_ = std::make_unique<UsagePoller>(std::move(usage));

    SessionNotifications::Actions notify;
    notify.decide = [this](const ApprovalRequest& request, bool allow) {
        decide(request, allow ? ApprovalVerdict::allow : ApprovalVerdict::deny, std::nullopt, *bridge_, rules_);
        monitor_->refreshNow();
    };
    notify.holdsChanged = [this] {
        applySettings();
        bridge_->rowsChanged();
    };
    notify.open = [this](const std::string& sessionId) {
        for (const auto& a : monitor_->instances())
            if (a.id == sessionId) return jump(a, [](std::vector<std::string>) {});
    };
    notify.dismissed = [this](const std::string& sessionId, uint64_t gateId) {
        if (viewShows(sessionId, gateId)) return;
        bridge_->handBack(sessionId, gateId);
    };
    notifications_ = std::make_unique<SessionNotifications>(Notifier::desktop("Lumora", "lumora"), std::move(notify));
    monitor_->setOnAlert([this](const ClaudeMonitor::Alert& alert) { notifications_->alerted(alert.peek); });

    plans_ = std::make_unique<TaskPlanStore>(
        TaskPlanPaths{Paths::claudeTasks(), Paths::claudeProjects(), Paths::codexHome() / "sessions", Paths::codexGoals(),
                      Paths::cursorHome() / "projects", scrivet::KimiTranscriptReader::sessionsRoot(Paths::kimiHome()),
                      scrivet::OpenCodeTranscriptReader::databaseURL(Paths::openCodeData())},
        RunLoop::main());
    plans_->setOnChange([this] {
        if (onPublish_) onPublish_();
        changed();
    });
    usage_->setOnPublish([this] { changed(); });
    spend_->setOnUpdate([this] { changed(); });

    settings_.setListener([this](const std::string&) { applySettings(); });
    applySettings();
}

LumoraApp::~LumoraApp() {
    stop();
    settings_.setListener({});
}

void LumoraApp::published() {
    std::set<std::tuple<HarnessProvider, std::string, uint64_t>> rows;
    for (const auto& a : monitor_->instances()) {
        // Without a view no row shows buttons; only a notification can.
        if (facesShowButtons() && a.approval && a.approval->approvable && a.approval->gateId != 0)
            rows.emplace(a.provider, a.id, a.approval->gateId);
    }
    {
        std::lock_guard lock(showableMutex_);
        showable_ = std::move(rows);
    }
    notifications_->published(monitor_->instances());
    bridge_->rowsChanged();
    std::vector<PlanSession> shown;
    for (const auto& a : monitor_->instances()) shown.push_back({a.provider, a.id});
    plans_->registerSessions(shown);
    if (onPublish_) onPublish_();
    changed();
}

void LumoraApp::changed() {
    if (onViewChange_) onViewChange_();
    for (const auto& listener : listeners_) listener();
}

void LumoraApp::setAnsweringFaces(int count) {
    bool had = facesShowButtons();
    answeringFaces_ = std::max(0, count);
    if (had == facesShowButtons()) return;
    applySettings();
    published();
    if (facesShowButtons() || !started_) return;
    // The last face that could answer went: what only it showed goes back.
    auto snapshot = bridge_->snapshot(std::chrono::system_clock::now());
    for (const auto& [sessionId, gate] : snapshot.gates)
        if (!notifications_->holds(sessionId, gate.id)) bridge_->handBack(sessionId, gate.id);
}

bool LumoraApp::canShow(HarnessProvider provider, const std::string& sessionId, uint64_t gateId) const {
    if (notifications_->holds(sessionId, gateId)) return true;
    std::lock_guard lock(showableMutex_);
    return showable_.count({provider, sessionId, gateId}) > 0;
}

bool LumoraApp::viewShows(const std::string& sessionId, uint64_t gateId) const {
    if (!facesShowButtons()) return false;  // no view runs
    std::lock_guard lock(showableMutex_);
    for (const auto& [provider, id, gate] : showable_)
        if (id == sessionId && gate == gateId) return true;
    return false;
}

void LumoraApp::applySettings() {
    ClaudeMonitor::Settings s;
    // A bridge that cannot listen hears no hooks: poll at the hooks-off pace.
    s.hooksEnabled = settings_.hooksEnabled() && bridge_->listening().ok;
    s.soundEnabled = settings_.soundEnabled();
    s.subagentsEnabled = settings_.subagentsEnabled();
    s.idleTimeoutMinutes = settings_.idleTimeoutMinutes();
    monitor_->setSettings(s);
    usage_->setEnabled(settings_.usageEnabled());
    desktop_->setCoworkEnabled(settings_.coworkEnabled());
    notifications_->setSettings({settings_.notificationsEnabled(), settings_.notifyOnDone()});
    // A notification with Approve and Deny is a face that can answer too.
    bridge_->setGating((facesShowButtons() || notifications_->canAnswer()) && settings_.approveRuns());
    plans_->setEnabled(settings_.taskPlanEnabled());
    configureNamer();
}

void LumoraApp::configureNamer() {
    std::pair<std::string, std::string> wanted{settings_.namingEndpoint(), settings_.namingModel()};
    if (namerSettings_ == wanted) return;
    namerSettings_ = wanted;
    scrivet::SessionNamer::Config c;
    c.endpoint = wanted.first;
    c.model = wanted.second;
    c.cacheFile = Paths::sessionNamesFile();
    c.transport = namingTransport();
    auto& namer = scrivet::SessionNamer::shared();
    namer.configure(std::move(c));
    if (started_) namer.prewarm();
}

void LumoraApp::jump(const AgentInstance& session, std::function<void(std::vector<std::string>)> done) {
    if (!jumps_) jumps_ = std::make_unique<SerialQueue>("lumora.jump");
    auto target = jumpTarget(session);
    jumps_->async([target, done = std::move(done)] {
        auto result = JumpService::jump(target);
        RunLoop::main().post([done, lines = std::move(result.lines)]() mutable { done(std::move(lines)); });
    });
}

Status LumoraApp::start(bool gatingWanted) {
    gatingWanted_ = gatingWanted;
    Status status = bridge_->start();
    notifications_->start();
    applySettings();
    monitor_->start();
    // Settings another process changes (a second terminal, a hand edit) apply while we run.
    settings_.watch(RunLoop::main(), *files_);
    usage_->start();
    spend_->start();
    plans_->start();
    // Names arrive on the namer's worker; the rows pick them up on a rescan.
    auto& namer = scrivet::SessionNamer::shared();
    ClaudeMonitor* monitor = monitor_.get();
    namer.setOnNamed([monitor](const std::string&) { monitor->refreshNow(); });
    namer.start();
    namer.prewarm();
    started_ = true;
    return status;
}

void LumoraApp::startReadOnly() {
    readOnly_ = true;
    readRunningHookState();
    applySettings();
    monitor_->start();
    usage_->start();
    spend_->start();
    plans_->start();
    started_ = true;
}

void LumoraApp::suspend() {
    if (!started_) return;
    bridge_->stop();
    applySettings();
}

Status LumoraApp::resume() {
    if (!started_) return Status::success();
    Status status = bridge_->start();
    applySettings();
    monitor_->refreshNow();
    return status;
}

std::optional<std::string> LumoraApp::hooksProblem() const {
    if (!started_ || readOnly_) return std::nullopt;
    Status listening = bridge_->listening();
    if (listening.ok) return std::nullopt;
    return "Hooks not listening: " + listening.why;
}

void LumoraApp::readRunningHookState() { bridge_->readRunningState(); }

void LumoraApp::stop() {
    if (!started_) return;
    started_ = false;
    if (readOnly_) {
        spend_->stop();
        plans_->stop();
        monitor_->stop();
        usage_->stop();
        return;
    }
    settings_.stopWatching();
    // Nobody is left to answer: every held prompt goes back to the agent.
    bridge_->setGating(false);
    bridge_->releaseAllGates();
    spend_->stop();
    notifications_->stop();
    plans_->stop();
    auto& namer = scrivet::SessionNamer::shared();
    namer.stop();
    namer.setOnNamed({});
    monitor_->stop();
    usage_->stop();
    bridge_->stop();
}

scrivet::SessionNamer::Transport namingTransport() {
    return [](const scrivet::SessionNamer::Exchange& ex) {
        HttpClient::Request r;
        r.url = ex.url;
        r.headers = {{"Content-Type", "application/json"}, {"Accept", "application/json"}};
        r.timeout = ex.timeout;
        r.maxBody = ex.maxAnswer;
        r.cancel = ex.cancel;
        r.direct = true;  // the prompt goes to this machine's server and nowhere else
        auto result = HttpClient::post(r, ex.body);
        scrivet::SessionNamer::Answer answer;
        if (result.response) answer = {result.response->status, std::move(result.response->body)};
        return answer;
    };
}

ui::ViewSettings viewSettings(const SettingsStore& store) {
    ui::ViewSettings s;
    s.tabMarks = store.tabMarks();
    s.idlePolicy = store.idleAgentPolicy();
    s.visibleRowLimit = store.visibleRowLimit();
    s.soundEnabled = store.soundEnabled();
    return s;
}

AppBackend::AppBackend(LumoraApp& app) : app_(app) {}

std::vector<AgentInstance> AppBackend::instances() const { return app_.monitor().instances(); }
std::set<std::string> AppBackend::unseenCompletions() const { return app_.monitor().unseenCompletions(); }
std::set<std::string> AppBackend::acknowledgedAttention() const { return app_.monitor().acknowledgedAttention(); }
std::optional<PeekEvent> AppBackend::peekEvent() const { return app_.monitor().peekEvent(); }

std::vector<ApprovalChoice> AppBackend::approvalChoices(const ApprovalRequest& request) const {
    return approvalChoicesFor(request);
}

std::optional<std::string> confirmationFor(const ApprovalRequest& request, ApprovalChoice::Kind kind) {
    if (!request.approvalScope()) return std::nullopt;
    if (kind == ApprovalChoice::Kind::allowSession) return std::string(ApprovalLabels::approvedThisSession);
    if (kind == ApprovalChoice::Kind::allowAlways) return std::string(ApprovalLabels::approvedAlways);
    return std::nullopt;
}

std::vector<ApprovalChoice> approvalChoicesFor(const ApprovalRequest& request) {
    if (!request.approvable) return {};
    std::vector<ApprovalChoice> choices = {{ApprovalChoice::Kind::approve, ApprovalLabels::approve},
                                           {ApprovalChoice::Kind::deny, ApprovalLabels::deny}};
    if (auto scope = request.approvalScope()) {
        choices.push_back({ApprovalChoice::Kind::allowSession, ApprovalLabels::allowThisSession(*scope, request.toolName)});
        choices.push_back({ApprovalChoice::Kind::allowAlways, ApprovalLabels::alwaysAllow(*scope, request.toolName)});
    }
    return choices;
}

std::optional<std::string> AppBackend::choose(const ApprovalRequest& request, ApprovalChoice::Kind kind) {
    ApprovalVerdict verdict = kind == ApprovalChoice::Kind::deny ? ApprovalVerdict::deny : ApprovalVerdict::allow;
    std::optional<DecisionScopeConfirmation> scope;
    if (kind == ApprovalChoice::Kind::allowSession) scope = DecisionScopeConfirmation::session;
    if (kind == ApprovalChoice::Kind::allowAlways) scope = DecisionScopeConfirmation::always;
    auto confirmation = decide(request, verdict, scope, app_.bridge(), app_.rules());
    app_.monitor().refreshNow();
    return confirmation;
}

void AppBackend::sawRow(const std::string& sessionId) { app_.monitor().sawRow(sessionId); }


std::optional<std::string> AppBackend::hooksProblem() const { return app_.hooksProblem(); }

std::vector<QuotaReading> AppBackend::quotaReadings() const { return app_.usage().readings(); }
std::optional<UsageAlert> AppBackend::usageAlert() const { return app_.usage().alert(); }

std::optional<SpendSummary> AppBackend::spendSummary() const { return app_.spend().summary(); }

TaskPlans AppBackend::taskPlans() const { return app_.plans().plans(); }

void AppBackend::setOnChange(std::function<void()> onChange) { app_.setOnViewChange(std::move(onChange)); }

void AppBackend::jump(const AgentInstance& session, JumpDone done) { app_.jump(session, std::move(done)); }

}  // namespace lumora
