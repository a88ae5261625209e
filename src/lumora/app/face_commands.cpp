#include "lumora/app/face_commands.hpp"

#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>
#include <thread>

#include "lumora/app/front_protocol.hpp"
#include "lumora/app/jump_command.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/app/run_commands.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/base/log.hpp"
#include "lumora/hooks/front_connection.hpp"
#include "lumora/hooks/front_socket_server.hpp"
#include "lumora/hooks/jump_service.hpp"
#include "lumora/monitor/agent_jump.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::FaceCommands {

namespace {

using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;

// The mark of each status in the text: needs you, waiting, working, idle.
std::string_view markOf(AgentStatus s) {
    switch (s) {
        case AgentStatus::attention: return "!";
        case AgentStatus::waiting: return "?";
        case AgentStatus::working: return "*";
        case AgentStatus::idle: return "·";
    }
    return "·";
}

std::string hex(scrivet::Rgb c) {
    auto byte = [](double v) { return static_cast<int>(std::lround(std::clamp(v, 0.0, 1.0) * 255)); };
    char buf[8];
    std::snprintf(buf, sizeof buf, "#%02x%02x%02x", byte(c.r), byte(c.g), byte(c.b));
    return buf;
}

std::filesystem::path facesSocket() { return FrontSocketServer::pathBeside(Paths::socketPath()); }

// Prints what a face shows, once per change; false once the output has gone.
class Printer {
public:
    explicit Printer(Format format) : format_(format) {}
    bool print(std::string_view stateLine) {
        auto text = formatState(stateLine, format_);
        if (!text || *text == last_) return static_cast<bool>(std::cout);
        last_ = *text;
        std::cout << *text << '\n' << std::flush;
        return static_cast<bool>(std::cout);
    }

private:
    Format format_;
    std::string last_ = "\x01";  // nothing printed yet
};

// Watches through the service until it goes (true) or the output does (false).
bool watchAttached(FrontConnection& connection, Printer& printer) {
    while (!RunCommands::stopRequested()) {
        auto line = connection.readLine(200ms);
        if (line) {
            if (!printer.print(*line)) return false;
        } else if (connection.closed()) {
            return true;
        }
    }
    return false;
}

// With no service: the monitor in this process, serving nothing and answering nothing.
void watchInProcess(Printer& printer) {
    LumoraApp app;
    bool posted = false;
    auto printNow = [&] {
        posted = false;
        // Nothing before the first scan: an empty list would read as "no sessions".
        if (app.monitor().publishCount() == 0) return;
        FrontProtocol::State s;
        s.sessions = app.monitor().instances();
        s.plans = app.plans().plans();
        s.quotas = app.usage().readings();
        s.spend = app.spend().summary();
        s.unseen = app.monitor().unseenCompletions();
        s.acknowledged = app.monitor().acknowledgedAttention();
        s.peek = app.monitor().peekEvent();
        s.usageAlert = app.usage().alert();
        if (!printer.print(FrontProtocol::encodeState(s, std::chrono::system_clock::now()))) RunLoop::main().stop();
    };
    app.addChangeListener([&] {
        if (posted) return;
        posted = true;
        RunLoop::main().post(printNow);
    });
    app.startReadOnly();
    RunLoop::main().run();
    app.stop();
}

std::optional<FrontProtocol::State> askService(std::chrono::milliseconds timeout,
                                               std::unique_ptr<FrontConnection>* keep = nullptr) {
    auto connection = FrontConnection::connect(facesSocket(), timeout);
    if (!connection) return std::nullopt;
    auto line = connection->readLine(timeout);
    if (!line) return std::nullopt;
    auto state = FrontProtocol::decodeState(*line);
    if (state && keep) *keep = std::move(connection);
    return state;
}

// A quick look without a service: one scan, as `--scan` does.
std::vector<AgentInstance> scanNow() {
    LumoraApp app;
    app.readRunningHookState();
    return app.monitor().scanOnce();
}

}  // namespace

std::optional<Format> formatNamed(std::string_view name) {
    if (name == "json") return Format::json;
    if (name == "waybar") return Format::waybar;
    if (name == "plain") return Format::plain;
    if (name == "tmux") return Format::tmux;
    return std::nullopt;
}

std::string tabText(const std::vector<AgentInstance>& sessions, bool tmux) {
    std::map<AgentStatus, int> counts;
    for (const auto& a : sessions) ++counts[a.status];
    std::string out;
    for (AgentStatus s : kStatusesWorstFirst) {
        auto it = counts.find(s);
        if (it == counts.end()) continue;
        if (!out.empty()) out += ' ';
        if (tmux) out += "#[fg=" + hex(colour(s)) + "]";
        out += std::string(markOf(s)) + std::to_string(it->second);
    }
    if (tmux && !out.empty()) out += "#[default]";
    return out;
}

std::string tooltip(const std::vector<AgentInstance>& sessions, const std::set<std::string>& unseen) {
    std::vector<std::string> ids(unseen.begin(), unseen.end());
    std::string out;
    for (const auto& a : rowOrder(sessions, ids)) {
        if (!out.empty()) out += '\n';
        out += std::string(label(a.status)) + "  " + a.projectName;
        if (a.isWorktree && a.worktreeName) out += " (wt:" + *a.worktreeName + ")";
        else if (a.gitBranch) out += " (" + *a.gitBranch + ")";
        out += "  " + std::string(scrivet::displayName(a.provider));
        std::string about = scrivet::collapseWhitespace(a.topic ? *a.topic : a.summary.value_or(""));
        if (!about.empty()) out += "  " + about;
    }
    return scrivet::validUtf8(out);
}

std::string worstClass(const std::vector<AgentInstance>& sessions) {
    std::optional<AgentStatus> worst;
    for (const auto& a : sessions)
        if (!worst || severityRank(a.status) < severityRank(*worst)) worst = a.status;
    return worst ? std::string(rawValue(*worst)) : "none";
}

Json waybar(const std::vector<AgentInstance>& sessions, const std::set<std::string>& unseen) {
    std::string cls = worstClass(sessions);
    return {{"text", tabText(sessions)}, {"tooltip", tooltip(sessions, unseen)}, {"class", cls}, {"alt", cls}};
}

std::optional<std::string> formatState(std::string_view stateLine, Format format) {
    if (format == Format::json) {
        if (!FrontProtocol::stateJson(stateLine)) return std::nullopt;
        std::string line(stateLine);
        while (!line.empty() && line.back() == '\n') line.pop_back();
        return line;
    }
    auto state = FrontProtocol::decodeState(stateLine);
    if (!state) return std::nullopt;
    switch (format) {
        case Format::waybar: return JsonText::dump(waybar(state->sessions, state->unseen));
        case Format::tmux: return tabText(state->sessions, true);
        default: return tabText(state->sessions);
    }
}

std::optional<AgentInstance> mostInNeed(const std::vector<AgentInstance>& sessions, const std::set<std::string>& unseen) {
    std::vector<std::string> ids(unseen.begin(), unseen.end());
    auto rows = rowOrder(sessions, ids);
    if (rows.empty()) return std::nullopt;
    const auto& first = rows.front();
    if (first.status == AgentStatus::attention || first.status == AgentStatus::waiting || unseen.count(first.id))
        return first;
    return std::nullopt;
}

int watch(Format format) {
    Log::silence();
    RunCommands::stopOnSignals();
    Printer printer(format);
    while (!RunCommands::stopRequested()) {
        auto connection = FrontConnection::connect(facesSocket());
        if (connection) {
            if (!watchAttached(*connection, printer)) return 0;
            // The service went away: a view that takes over brings a new one within moments.
            for (int i = 0; i < 20 && !RunCommands::stopRequested(); ++i) {
                if (FrontConnection::connect(facesSocket(), 50ms)) break;
                std::this_thread::sleep_for(100ms);
            }
            continue;
        }
        watchInProcess(printer);
        break;
    }
    return 0;
}

int statusLine(Format format, std::ostream& out) {
    Log::silence();
    std::string text;
    if (auto state = askService(40ms)) {
        FrontProtocol::State s = std::move(*state);
        if (format == Format::json) text = FrontProtocol::encodeState(s, std::chrono::system_clock::now());
        else text = *formatState(FrontProtocol::encodeState(s, std::chrono::system_clock::now()), format);
    } else {
        FrontProtocol::State s;
        s.sessions = scanNow();
        text = *formatState(FrontProtocol::encodeState(s, std::chrono::system_clock::now()), format);
    }
    while (!text.empty() && text.back() == '\n') text.pop_back();
    out << text << "\n";
    return 0;
}

int jumpNext(std::ostream& out, std::ostream& err) {
    Log::silence();
    std::unique_ptr<FrontConnection> connection;
    if (auto state = askService(500ms, &connection)) {
        auto next = mostInNeed(state->sessions, state->unseen);
        if (!next) {
            out << "Nothing needs you.\n";
            return 0;
        }
        FrontProtocol::Command c;
        c.kind = FrontProtocol::Command::Kind::jump;
        c.session = next->id;
        c.ref = 1;
        if (connection->send(FrontProtocol::commandLine(c))) {
            auto deadline = std::chrono::steady_clock::now() + 15s;
            while (std::chrono::steady_clock::now() < deadline && !connection->closed()) {
                auto line = connection->readLine(200ms);
                if (!line) continue;
                auto reply = FrontProtocol::parseJumpReply(*line);
                if (!reply || reply->ref != c.ref) continue;
                for (const auto& l : reply->lines) out << l << "\n";
                out << "jumped to " << next->projectName << "\n";
                return 0;
            }
        }
        err << "lumora: the Lumora service did not answer the jump\n";
        return 1;
    }
    LumoraApp app;
    app.readRunningHookState();
    auto sessions = app.monitor().scanOnce();
    auto next = mostInNeed(sessions, {});
    if (!next) {
        out << "Nothing needs you.\n";
        return 0;
    }
    auto result = JumpService::jump(jumpTarget(*next));
    for (const auto& line : result.lines) out << line << "\n";
    out << (result.landed ? "landed" : "did not land") << " on " << next->projectName << "\n";
    return result.landed ? 0 : 1;
}

}  // namespace lumora::FaceCommands
