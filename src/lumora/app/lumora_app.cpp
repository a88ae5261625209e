#include "lumora/app/lumora_app.hpp"

#include "lumora/app/approval_decision.hpp"
#include "lumora/monitor/agent_jump.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/power_state.hpp"
#include "scrivet/claude_transcript_reader.hpp"

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

HookSnapshot LumoraApp::hookSnapshot(const HookBridge& bridge, Date now) {
    HookSnapshot snap;
    auto held = bridge.heldGateSessions();
    auto created = bridge.claudeMarkerCreatedAt();
    auto add = [&](HarnessProvider provider, const std::vector<AttentionMarker>& markers, bool withCreation) {
        for (const auto& m : markers) {
            std::optional<Date> at;
            if (withCreation) {
                if (auto it = created.find(m.sessionId); it != created.end()) at = it->second;
            }
            auto& sig = snap.signals[{provider, m.sessionId}];
            sig.marker = toSignal(m, at);
            sig.gateHeld = held.count(m.sessionId) > 0;
        }
    };
    add(HarnessProvider::claudeCode, bridge.claudeMarkers(), true);
    add(HarnessProvider::codex, bridge.codexMarkers(), false);
    add(HarnessProvider::kimi, bridge.kimiMarkers(), false);
    add(HarnessProvider::opencode, bridge.openCodeMarkers(), false);
    for (const auto& [sessionId, since] : bridge.claudeBusy(now)) {
        snap.signals[{HarnessProvider::claudeCode, sessionId}].busySince = since;
    }
    return snap;
}

LumoraApp::LumoraApp()
    : defaults_(DefaultsStore::shared()), settings_(SettingsStore::shared()), rules_(ApprovalRulesStore::shared()) {
    bridge_ = std::make_unique<HookBridge>(Paths::socketPath(), Paths::supportFolder(), rules_);
    discovery_ = std::make_unique<ProcessDiscovery>(ProcessTable::system(), Paths::claudeSessions(), Paths::claudeProjects());

    ClaudeMonitor::Dependencies deps;
    ProcessDiscovery* discovery = discovery_.get();
    deps.discover = [discovery] { return discovery->run(); };
    // The desktop's sessions come first: a desktop session's titled row wins
    // over the plain row of its `claude` process.
    auto desktop = std::make_unique<DesktopSessionSource>(
        DesktopSessionSource::Paths{Paths::claudeDesktopData(), Paths::claudeProjects(), Paths::claudeConfigFile()});
    desktop_ = desktop.get();
    deps.sources.push_back(std::move(desktop));
    deps.sources.push_back(std::make_unique<ClaudeSessionSource>(
        ClaudeSessionSource::Paths{Paths::claudeProjects(), Paths::claudeConfigFile(), Paths::claudeTempFolder()},
        SDKHostMemory::shared(), [discovery](const std::string& appId, const ProcessSnapshot& snapshot) {
            return discovery->hosts().isApplicationRunning(appId, snapshot);
        }));
    HookBridge* bridge = bridge_.get();
    deps.hooks = [bridge](Date now) { return hookSnapshot(*bridge, now); };
    deps.lowPowerMode = [] { return PowerState::lowPowerMode(); };
    monitor_ = std::make_unique<ClaudeMonitor>(std::move(deps));
    // With tracing on, new journal shapes are noted beside the trace.
    if (const char* trace = std::getenv("LUMORA_DEBUG_LOG"); trace && *trace)
        scrivet::ClaudeTranscriptReader::setDiagnosticLogDirectory(Paths::supportFolder());

    // A hook event rescans at once; the monitor hops to the main loop itself.
    ClaudeMonitor* monitor = monitor_.get();
    bridge_->setOnEvent([monitor] { monitor->refreshNow(); });
    settings_.setListener([this](const std::string&) { applySettings(); });
    applySettings();
}

LumoraApp::~LumoraApp() {
    stop();
    settings_.setListener({});
}

void LumoraApp::applySettings() {
    ClaudeMonitor::Settings s;
    s.hooksEnabled = settings_.hooksEnabled();
    s.soundEnabled = settings_.soundEnabled();
    s.subagentsEnabled = settings_.subagentsEnabled();
    s.idleTimeoutMinutes = settings_.idleTimeoutMinutes();
    monitor_->setSettings(s);
    desktop_->setCoworkEnabled(settings_.coworkEnabled());
    bridge_->setGating(gatingWanted_ && settings_.approveRuns());
}

void LumoraApp::jump(const AgentInstance& session, std::function<void(std::vector<std::string>)> done) {
    if (!jumps_) jumps_ = std::make_unique<SerialQueue>("lumora.jump");
    auto target = jumpTarget(session);
    jumps_->async([target, done = std::move(done)] {
        auto result = JumpService::jump(target);
        RunLoop::main().post([done, lines = std::move(result.lines)]() mutable { done(std::move(lines)); });
    });
}

void LumoraApp::start(bool gatingWanted) {
    gatingWanted_ = gatingWanted;
    applySettings();
    bridge_->start();
    monitor_->start();
    started_ = true;
}

void LumoraApp::stop() {
    if (!started_) return;
    started_ = false;
    // Nobody is left to answer: every held prompt goes back to the agent.
    bridge_->setGating(false);
    bridge_->releaseAllGates();
    monitor_->stop();
    bridge_->stop();
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

void AppBackend::jump(const AgentInstance& session, JumpDone done) { app_.jump(session, std::move(done)); }

void AppBackend::setOnChange(std::function<void()> onChange) { app_.monitor().setOnPublish(std::move(onChange)); }

}  // namespace lumora
