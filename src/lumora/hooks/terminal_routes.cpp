#include "lumora/hooks/terminal_routes.hpp"

#include <algorithm>
#include <limits>
#include <sstream>

namespace lumora::TerminalRoutes {

const char* const kPaneFormat = "#{pane_id}\t#{pane_pid}\t#{session_id}\t#{window_id}\t#{session_name}";
const char* const kClientFormat = "#{client_tty}\t#{client_pid}\t#{session_id}\t#{client_activity}";

namespace {

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> out;
    size_t pos = 0;
    for (;;) {
        size_t tab = line.find('\t', pos);
        out.push_back(line.substr(pos, tab == std::string::npos ? std::string::npos : tab - pos));
        if (tab == std::string::npos) break;
        pos = tab + 1;
    }
    return out;
}

template <typename Int>
std::optional<Int> number(const std::string& s) {
    if (s.empty() || s.size() > 19 || !std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    long long v = std::stoll(s);
    if (v > static_cast<long long>(std::numeric_limits<Int>::max())) return std::nullopt;
    return static_cast<Int>(v);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) out.push_back(line);
    }
    return out;
}

std::vector<std::string> tmuxCommand(const std::optional<std::string>& socket, std::vector<std::string> rest) {
    std::vector<std::string> argv{"tmux"};
    if (socket && !socket->empty()) argv.insert(argv.end(), {"-S", *socket});
    argv.insert(argv.end(), rest.begin(), rest.end());
    return argv;
}

}  // namespace

CommandResult run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
                  const ChildProcess::Environment& overrides) {
    CommandResult r;
    auto child = ChildProcess::spawn(argv, "", overrides);
    if (!child) return r;
    r.started = true;
    if (!child->wait(timeout)) {
        child->kill();
        r.timedOut = true;
        return r;
    }
    r.exitCode = child->exitCode();
    r.output = child->output();
    return r;
}

std::string failure(const std::vector<std::string>& argv, const CommandResult& result) {
    std::string what = argv.empty() ? "command" : argv[0];
    // The subcommand names the step: skip the program's own options and their values.
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i].starts_with("-")) {
            if (argv[i] == "-S" || argv[i] == "--to") ++i;
            continue;
        }
        if (argv[i] == "@" || argv[i] == "cli") {
            what += " " + argv[i];
            continue;
        }
        what += " " + argv[i];
        break;
    }
    std::string why;
    if (!result.started) why = "could not start";
    else if (result.timedOut) why = "no answer, killed";
    else if (result.exitCode == 127) why = "not installed";
    else if (result.exitCode != 0) why = "exit " + std::to_string(result.exitCode);
    else why = "empty output";
    return what + " → error/empty: " + why;
}

std::vector<TmuxPane> parsePanes(const std::string& output) {
    std::vector<TmuxPane> out;
    for (const auto& line : lines(output)) {
        auto f = fields(line);
        if (f.size() < 4) continue;
        auto pid = number<int32_t>(f[1]);
        if (!pid || !f[0].starts_with("%") || !f[2].starts_with("$") || !f[3].starts_with("@")) continue;
        TmuxPane p{f[0], *pid, f[2], f[3], f.size() > 4 ? f[4] : ""};
        out.push_back(std::move(p));
    }
    return out;
}

std::vector<TmuxClient> parseClients(const std::string& output) {
    std::vector<TmuxClient> out;
    for (const auto& line : lines(output)) {
        auto f = fields(line);
        if (f.size() < 4) continue;
        auto pid = number<int32_t>(f[1]);
        if (f[0].empty() || !pid) continue;
        out.push_back(TmuxClient{f[0], *pid, f[2], number<long long>(f[3]).value_or(0)});
    }
    return out;
}

std::optional<TmuxPane> paneHolding(const std::vector<TmuxPane>& panes, const std::vector<int32_t>& lineage) {
    // The nearest ancestor wins: a tmux inside a tmux pane has panes of its own.
    for (int32_t pid : lineage) {
        for (const auto& p : panes) {
            if (p.panePid == pid) return p;
        }
    }
    return std::nullopt;
}

std::optional<TmuxClient> clientFor(const std::vector<TmuxClient>& clients, const std::string& sessionID) {
    const TmuxClient* best = nullptr;
    for (const auto& c : clients) {
        bool on = c.sessionID == sessionID;
        bool bestOn = best && best->sessionID == sessionID;
        if (!best || (on && !bestOn) || (on == bestOn && c.activity > best->activity)) best = &c;
    }
    if (!best) return std::nullopt;
    return *best;
}

Landing tmux(const std::vector<int32_t>& lineage, const std::optional<std::string>& socket,
             std::vector<std::string>& log, std::chrono::milliseconds timeout) {
    Landing out;
    std::string server = socket && !socket->empty() ? *socket : "the default server";
    auto list = tmuxCommand(socket, {"list-panes", "-a", "-F", kPaneFormat});
    auto panes = run(list, timeout);
    if (!panes.ok()) {
        log.push_back(failure(list, panes) + " (" + server + ")");
        return out;
    }
    auto pane = paneHolding(parsePanes(panes.output), lineage);
    if (!pane) {
        log.push_back("tmux: no pane on " + server + " holds pid " + std::to_string(lineage.empty() ? 0 : lineage[0]));
        return out;
    }
    auto select = tmuxCommand(socket, {"select-window", "-t", pane->windowID, ";", "select-pane", "-t", pane->paneID});
    auto selected = run(select, timeout);
    if (!selected.ok()) {
        log.push_back(failure(select, selected));
        return out;
    }
    out.landed = true;
    log.push_back("tmux pane " + pane->paneID + " (window " + pane->windowID + ", session " + pane->sessionName +
                  ") selected on " + server);
    auto listClients = tmuxCommand(socket, {"list-clients", "-F", kClientFormat});
    auto clients = run(listClients, timeout);
    if (!clients.ok()) {
        log.push_back(failure(listClients, clients));
        return out;
    }
    auto client = clientFor(parseClients(clients.output), pane->sessionID);
    if (!client) {
        log.push_back("tmux: no client is attached to " + server + " — the pane waits there");
        return out;
    }
    out.clientPid = client->pid;
    if (client->sessionID != pane->sessionID) {
        auto sw = tmuxCommand(socket, {"switch-client", "-c", client->tty, "-t", pane->sessionID});
        auto switched = run(sw, timeout);
        if (!switched.ok()) {
            log.push_back(failure(sw, switched));
            out.clientPid.reset();
            return out;
        }
        log.push_back("tmux client " + client->tty + " switched to session " + pane->sessionName);
    } else {
        log.push_back("tmux client " + client->tty + " shows session " + pane->sessionName);
    }
    return out;
}

Landing screen(const std::string& sty, const std::string& window, std::vector<std::string>& log,
               std::chrono::milliseconds timeout) {
    Landing out;
    std::vector<std::string> argv{"screen", "-S", sty, "-X", "select", window};
    auto r = run(argv, timeout);
    if (!r.ok()) {
        log.push_back(failure(argv, r) + " (screen session " + sty + ")");
        return out;
    }
    out.landed = true;
    log.push_back("screen window " + window + " selected in session " + sty);
    return out;
}

Landing zellij(const std::string& session, const std::string& pane, std::vector<std::string>& log) {
    log.push_back("zellij: its command line cannot focus pane " + (pane.empty() ? std::string("?") : pane) +
                  " of session " + (session.empty() ? std::string("?") : session) +
                  " — raising the terminal around it");
    return {};
}

bool kitty(const std::string& listenOn, int32_t windowPid, std::vector<std::string>& log,
           std::chrono::milliseconds timeout) {
    std::vector<std::string> argv{"kitty", "@", "--to", listenOn, "focus-window", "--match",
                                  "pid:" + std::to_string(windowPid)};
    auto r = run(argv, timeout);
    if (!r.ok()) {
        log.push_back(failure(argv, r));
        return false;
    }
    log.push_back("kitty window of pid " + std::to_string(windowPid) + " focused through " + listenOn);
    return true;
}

bool wezterm(const std::optional<std::string>& socket, const std::string& pane, std::vector<std::string>& log,
             std::chrono::milliseconds timeout) {
    std::vector<std::string> argv{"wezterm", "cli", "activate-pane", "--pane-id", pane};
    ChildProcess::Environment env;
    if (socket && !socket->empty()) env.emplace_back("WEZTERM_UNIX_SOCKET", *socket);
    auto r = run(argv, timeout, env);
    if (!r.ok()) {
        log.push_back(failure(argv, r));
        return false;
    }
    log.push_back("WezTerm pane " + pane + " activated");
    return true;
}

}  // namespace lumora::TerminalRoutes
