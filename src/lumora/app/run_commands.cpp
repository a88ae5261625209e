#include "lumora/app/run_commands.hpp"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <map>
#include <atomic>
#include <sstream>
#include <thread>

#include "lumora/base/json_text.hpp"
#include "lumora/base/log.hpp"
#include <spdlog/spdlog.h>
#include "lumora/app/attached_backend.hpp"
#include "lumora/app/desktop_wiring.hpp"
#include "lumora/app/front_service.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/hooks/front_connection.hpp"
#include "lumora/hooks/front_socket_server.hpp"
#include "lumora/hooks/hook_client.hpp"
#include "lumora/app/usage_command.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/ui/terminal_app.hpp"

namespace lumora::RunCommands {

namespace {

using Json = nlohmann::ordered_json;

std::string timestamp(Date when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    std::ostringstream out;
    out << std::put_time(&tm, "%Y-%m-%d %H:%M:%S");
    return out.str();
}

std::string iso(Date when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    std::ostringstream out;
    out << std::put_time(&tm, "%Y-%m-%dT%H:%M:%SZ");
    return out.str();
}

std::string place(const AgentInstance& a) {
    if (a.isWorktree && a.worktreeName) return "wt:" + *a.worktreeName;
    return a.gitBranch.value_or("-");
}

template <typename T>
Json opt(const std::optional<T>& v) {
    return v ? Json(*v) : Json(nullptr);
}

// How long a stop that a signal asked for may take (held prompts answered,
// state saved, threads joined) before the process ends anyway: a worker stuck
// in a read of a file system that hangs must not keep us alive. A quit from
// the keyboard gets longer, but still ends.
constexpr auto kStopDeadline = std::chrono::milliseconds(1500);
constexpr auto kQuitDeadline = std::chrono::milliseconds(15000);

// Ends the process `after` from now unless it has ended by then.
void exitAfter(std::chrono::milliseconds after, int code) {
    std::thread([after, code] {
        std::this_thread::sleep_for(after);
        std::_Exit(code);
    }).detach();
}

std::atomic<bool> gStopRequested{false};

}  // namespace

bool stopRequested() { return gStopRequested.load(); }

void stopOnSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set] {
        int sig = 0;
        sigwait(&set, &sig);
        gStopRequested = true;
        RunLoop::main().stop();
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(kStopDeadline).count();
        timespec wait{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
        while (sigtimedwait(&set, nullptr, &wait) < 0 && errno == EINTR) {
        }
        std::_Exit(128 + sig);
    }).detach();
}

namespace {

// What we print is text, whatever bytes a folder or branch name holds.
void printLine(const std::string& line) { std::cout << scrivet::validUtf8(line) << std::endl; }

// True (after saying so) when another Lumora serves the socket already: one
// instance owns it, and a second one would only take its prompts away.
bool anotherInstanceRuns() {
    auto who = HookClient::who(Paths::socketPath());
    if (who.kind != HookClient::Who::Kind::lumora) return false;
    std::cerr << "Lumora is already running (pid " << who.pid << ")\n";
    return true;
}

}  // namespace

std::string scanLine(const AgentInstance& a) {
    std::ostringstream out;
    out << std::left << std::setw(16) << label(a.status) << std::setw(12) << scrivet::displayName(a.provider)
        << std::setw(20) << a.projectName << ' ' << std::setw(24) << place(a) << ' ' << std::setw(14)
        << a.model.value_or("-") << ' ' << std::setw(9) << a.contextLabel().value_or("-") << ' '
        << (a.subagentCount == 1 ? "1 subagent  " : std::to_string(a.subagentCount) + " subagents ") << ' '
        << scrivet::collapseWhitespace(a.topic ? *a.topic : a.summary.value_or(""));
    return scrivet::validUtf8(out.str());
}

Json toJson(const AgentInstance& a) {
    Json j;
    j["id"] = a.id;
    j["provider"] = std::string(scrivet::rawValue(a.provider));
    j["pid"] = opt(a.pid);
    j["projectName"] = a.projectName;
    j["cwd"] = a.cwd;
    j["gitBranch"] = opt(a.gitBranch);
    j["repoName"] = opt(a.repoName);
    j["isWorktree"] = a.isWorktree;
    j["worktreeName"] = opt(a.worktreeName);
    j["status"] = std::string(rawValue(a.status));
    j["statusLabel"] = std::string(label(a.status));
    j["summary"] = opt(a.summary);
    j["lastActivity"] = iso(a.lastActivity);
    j["cpu"] = a.cpu;
    j["model"] = opt(a.model);
    j["contextTokens"] = opt(a.contextTokens);
    j["contextMax"] = opt(a.contextMax);
    j["contextMaxEstimated"] = a.contextMaxEstimated;
    j["contextLabel"] = opt(a.contextLabel());
    j["inProgress"] = a.inProgress;
    j["pendingApproval"] = a.pendingApproval ? Json(std::string(scrivet::kindName(*a.pendingApproval))) : Json(nullptr);
    j["endsWithQuestion"] = a.endsWithQuestion;
    if (a.approval) {
        j["approval"] = {{"toolName", a.approval->toolName}, {"detail", opt(a.approval->detail)},
                         {"approvable", a.approval->approvable}, {"reason", opt(a.approval->reason)},
                         {"escalated", a.approval->escalated}, {"gateId", a.approval->gateId}};
    } else {
        j["approval"] = nullptr;
    }
    if (a.question) {
        j["question"] = {{"text", a.question->text}, {"options", a.question->options},
                         {"moreCount", a.question->moreCount}};
    } else {
        j["question"] = nullptr;
    }
    Json activity = Json::array();
    for (const auto& l : a.recentActivity) activity.push_back({{"kind", std::string(kindName(l.kind))}, {"text", l.text}});
    j["recentActivity"] = activity;
    j["subagentCount"] = a.subagentCount;
    Json subagents = Json::array();
    for (const auto& s : a.subagents) {
        subagents.push_back({{"id", s.id}, {"type", s.type}, {"task", s.task}, {"model", opt(s.model)},
                             {"action", opt(s.action)}, {"isRunning", s.isRunning}, {"tokens", opt(s.tokens)}});
    }
    j["subagents"] = subagents;
    j["hasRealTurn"] = a.hasRealTurn;
    if (a.host) {
        j["host"] = {{"kind", std::string(kindName(a.host->kind))}, {"appName", a.host->appName},
                     {"bundleID", opt(a.host->bundleID)}};
    } else {
        j["host"] = nullptr;
    }
    j["hasHookGroundTruth"] = a.hasHookGroundTruth;
    j["surface"] = a.surface == AgentSurface::cowork ? "cowork" : "coding";
    j["topic"] = opt(a.topic);
    j["workspaceFolders"] = a.workspaceFolders;
    return j;
}

Json toJson(const TaskPlan& plan) {
    Json items = Json::array();
    for (const auto& i : plan.items)
        items.push_back({{"id", i.id}, {"subject", i.subject}, {"activeForm", opt(i.activeForm)},
                         {"status", std::string(rawValue(i.status))}});
    return {{"doneCount", plan.doneCount()}, {"totalCount", plan.totalCount()}, {"items", items}};
}

Json scanJson(const std::vector<AgentInstance>& list, const Json& usage, const TaskPlans& plans) {
    Json out = Json::array();
    for (const auto& a : list) {
        Json j = toJson(a);
        auto it = usage.is_object() ? usage.find(std::string(scrivet::rawValue(a.provider))) : usage.end();
        j["planUsage"] = usage.is_object() && it != usage.end() ? *it : Json(nullptr);
        auto plan = plans.find(a.id);
        j["taskPlan"] = plan != plans.end() && !plan->second.empty() ? toJson(plan->second) : Json(nullptr);
        out.push_back(std::move(j));
    }
    return out;
}

int scan(bool json) {
    LumoraApp app;
    // Read, never serve: the running app's hook state (or the saved one).
    app.readRunningHookState();
    auto list = rowOrder(app.monitor().scanOnce());
    if (json) {
        auto now = std::chrono::system_clock::now();
        Json usage = Json::object();
        if (app.settings().usageEnabled())
            usage = UsageCommand::toJson(UsageCommand::currentReadings(now, app.settings().openCodeGoCaps()), now);
        // One look at the shown sessions' plans, as the running app would have them.
        TaskPlans plans;
        if (app.settings().taskPlanEnabled()) {
            std::vector<PlanSession> shown;
            for (const auto& a : list) shown.push_back({a.provider, a.id});
            app.plans().registerSessions(shown);
            app.plans().pollNow();
            plans = app.plans().plans();
        }
        Json out = scanJson(list, usage, plans);
        std::cout << JsonText::dump(out, 2) << "\n";  // invalid bytes replaced, never a throw
    } else {
        for (const auto& a : list) std::cout << scanLine(a) << "\n";
    }
    return 0;
}

int headless() {
    if (anotherInstanceRuns()) return 1;
    stopOnSignals();
    Paths::ensureSupportFolder();
    LumoraApp app;
    std::map<std::string, AgentStatus> last;
    long long lastToken = 0;
    app.setOnPublish([&] {
        auto now = std::chrono::system_clock::now();
        std::map<std::string, AgentStatus> next;
        for (const auto& a : app.monitor().instances()) {
            next[a.id] = a.status;
            auto it = last.find(a.id);
            if (it == last.end() || it->second != a.status) printLine(timestamp(now) + "  " + scanLine(a));
        }
        for (const auto& [id, status] : last) {
            if (!next.count(id)) printLine(timestamp(now) + "  ended " + id);
        }
        last = std::move(next);
        if (const auto& peek = app.monitor().peekEvent(); peek && peek->token != lastToken) {
            lastToken = peek->token;
            printLine(timestamp(now) + "  peek " + (peek->done ? "done" : "needs you") + "  " + peek->projectName +
                      ": " + peek->ask);
        }
    });
    long long lastUsageToken = 0;
    app.addChangeListener([&] {
        if (const auto& alert = app.usage().alert(); alert && alert->token != lastUsageToken) {
            lastUsageToken = alert->token;
            std::cout << timestamp(std::chrono::system_clock::now()) << "  usage " << scrivet::displayName(alert->provider)
                      << ": " << alert->text << std::endl;
        }
    });
    // No view answers prompts here: the agents show their own, unless a
    // desktop notification with Approve and Deny holds one for the user.
    if (!app.start(false)) std::cout << timestamp(std::chrono::system_clock::now()) << "  " << *app.hooksProblem() << std::endl;
    // Faces attach here: a terminal view, --watch, a status bar.
    FrontService faces(app, Paths::socketPath());
    if (app.bridge().listening().ok) faces.start();
    RunLoop::main().run();
    faces.stop();
    app.stop();
    return 0;
}

namespace {

int desktop() {
    if (!ui::desktopBuilt()) {
        std::cerr << "lumora: this build has no desktop front end (Qt 6 Widgets was not found when it was built)\n";
        return 1;
    }
    if (!ui::displayAvailable()) {
        std::cerr << "lumora: no display to show the pill on (DISPLAY and WAYLAND_DISPLAY are not set)\n";
        return 1;
    }
    if (anotherInstanceRuns()) return 1;
    Paths::ensureSupportFolder();
    Log::toFile(Paths::logFile());
    LumoraApp app;
    AppBackend backend(app);
    // A socket it cannot serve shows in the panel's footer ("Hooks not listening: ...").
    app.start(true);
    FrontService faces(app, Paths::socketPath());
    if (app.bridge().listening().ok) faces.start();
    auto options = ui::DesktopViewOptions(desktopOptions(app.settings()));
    options.onQuit = [&] {
        exitAfter(kStopDeadline, 0);  // stopping may not hang
        faces.stop();
        app.stop();
    };
    int code = ui::runDesktopView(backend, options);
    faces.stop();
    app.stop();
    return code;
}

}  // namespace

namespace {

// The terminal view's backend and what stands behind it: attached to the
// running service, or the service itself. When the service it is attached to
// goes away, it becomes the service (the hook socket is free) or attaches
// to the one that did.
class TerminalFace {
public:
    ~TerminalFace() { stop(); }

    ViewBackend& view() { return view_; }

    // Attaches to the running service; false when none answers.
    bool attach(std::chrono::milliseconds timeout = std::chrono::milliseconds(500)) {
        auto connection = FrontConnection::connect(FrontSocketServer::pathBeside(Paths::socketPath()), timeout);
        if (!connection) return false;
        auto first = connection->readLine(std::chrono::seconds(2));
        auto state = first ? FrontProtocol::decodeState(*first) : std::nullopt;
        if (!state) return false;
        attached_ = std::make_unique<AttachedBackend>(std::move(connection), std::move(*state), RunLoop::main());
        attached_->setOnNews([this](std::string text) { view_.tell(std::move(text)); });
        attached_->start([this] { RunLoop::main().post([this] { serviceLost(); }); });
        attached_->setAnswers(!suspended_);
        spdlog::info("attached to the Lumora service (pid {})", attached_->servicePid());
        view_.use(attached_.get());
        return true;
    }

    // Becomes the service: the monitor, the hook socket and the face socket.
    // With `onlyIfFree` it starts nothing unless the hook socket is its own.
    Status serve(bool onlyIfFree = false) {
        auto app = std::make_unique<LumoraApp>();
        if (onlyIfFree)
            if (Status s = app->bridge().start(); !s) return s;
        app_ = std::move(app);
        backend_ = std::make_unique<AppBackend>(*app_);
        // A socket it cannot serve shows in the view's status line ("Hooks not listening: ...").
        Status status = app_->start(true);
        faces_ = std::make_unique<FrontService>(*app_, Paths::socketPath());
        if (status) faces_->start();
        view_.use(backend_.get());
        return status;
    }

    void suspend() {
        suspended_ = true;
        if (attached_) attached_->setAnswers(false);
        if (app_) {
            faces_->stop();
            app_->suspend();
        }
    }
    void resume() {
        suspended_ = false;
        if (attached_) attached_->setAnswers(true);
        if (app_ && app_->resume()) faces_->start();
    }

    void stop() {
        if (faces_) faces_->stop();
        if (app_) app_->stop();
        if (attached_) attached_->close();
    }

private:
    void serviceLost() {
        if (!attached_ || attached_->connected()) return;
        view_.use(nullptr);
        // Gone after this turn: its reader has ended, and nothing of it runs now.
        auto old = std::shared_ptr<AttachedBackend>(std::move(attached_));
        RunLoop::main().post([old] {});
        for (int attempt = 0; attempt < 30; ++attempt) {
            if (HookClient::who(Paths::socketPath(), std::chrono::milliseconds(200)).kind !=
                HookClient::Who::Kind::lumora) {
                if (serve(true)) {
                    view_.tell("The Lumora service stopped: this view is the service now");
                    return;
                }
                // Another view took over first: attach to it.
            }
            if (attach(std::chrono::milliseconds(200))) {
                view_.tell("The Lumora service restarted (pid " + std::to_string(attached_->servicePid()) + ")");
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        // Nobody serves and we could not: show that much, as a view that cannot listen does.
        serve();
        view_.tell("The Lumora service stopped");
    }

    SwitchingBackend view_;
    std::unique_ptr<AttachedBackend> attached_;
    std::unique_ptr<LumoraApp> app_;
    std::unique_ptr<AppBackend> backend_;
    std::unique_ptr<FrontService> faces_;
    bool suspended_ = false;
};

}  // namespace

int interactive(Face face) {
    if (face == Face::desktop) return desktop();
    if (face == Face::terminal && !ui::terminalAvailable()) {
        std::cerr << "lumora: the terminal view needs a terminal\n";
        return 1;
    }
    if (!ui::terminalAvailable()) {
        if (ui::desktopBuilt() && ui::displayAvailable()) return desktop();
        return headless();
    }
    Paths::ensureSupportFolder();
    Log::toFile(Paths::logFile());
    TerminalFace terminal;
    // A service runs: this view is one more face of it. Else it is the service.
    if (!terminal.attach()) {
        if (anotherInstanceRuns()) return 1;
        terminal.serve();
    }
    ui::TerminalViewOptions options;
    options.onQuit = [&] {
        exitAfter(ui::quitBySignal() ? kStopDeadline : kQuitDeadline, 0);  // stopping may not hang
        terminal.stop();
    };
    options.onSuspend = [&] { terminal.suspend(); };
    options.onResume = [&] { terminal.resume(); };
    options.settings = [] { return viewSettings(SettingsStore::shared()); };
    int code = ui::runTerminalView(terminal.view(), options);
    terminal.stop();
    return code;
}

}  // namespace lumora::RunCommands
