#include "lumora/hooks/jump_service.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "lumora/hooks/herdr_bridge.hpp"
#include "lumora/hooks/terminal_routes.hpp"

namespace lumora::JumpService {

namespace {

using Session = DesktopFocus::Session;

// The Claude desktop app, where Claude rows without a terminal land.
constexpr const char* kClaudeDesktopId = "claude-desktop";
constexpr const char* kClaudeDesktopName = "Claude";

std::string lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool mentions(const Target& t, const std::string& word) {
    return lower(t.hostName).find(word) != std::string::npos ||
           (t.hostAppId && lower(*t.hostAppId).find(word) != std::string::npos);
}

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool isUuid(const std::string& s) {
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != '-' : !isHex(s[i])) return false;
    }
    return true;
}

bool isUuidV7(const std::string& s) { return isUuid(s) && s[14] == '7'; }

// Percent-encodes what a URL query value cannot hold; "/" stays readable.
std::string encode(const std::string& s) {
    static const char* digits = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 15];
        }
    }
    return out;
}

std::string get(const std::map<std::string, std::string>& env, const std::string& key) {
    auto it = env.find(key);
    return it == env.end() ? "" : it->second;
}

bool lineageHas(const std::vector<Ancestor>& lineage, bool (*is)(const Ancestor&)) {
    for (size_t i = 1; i < lineage.size(); ++i) {
        if (is(lineage[i])) return true;
    }
    return false;
}

bool isTmux(const Ancestor& a) { return a.program == "tmux" || a.name.starts_with("tmux"); }
bool isScreen(const Ancestor& a) {
    return a.program == "screen" || a.program == "SCREEN" || a.name == "screen" || a.name == "SCREEN";
}
bool isZellij(const Ancestor& a) { return a.program == "zellij" || a.name == "zellij"; }
bool isHerdr(const Ancestor& a) { return HerdrBridge::isHerdrProcess(a.program) || HerdrBridge::isHerdrProcess(a.name); }

std::vector<std::string> unique(std::vector<std::string> words) {
    std::vector<std::string> out;
    for (auto& w : words) {
        if (!w.empty() && std::find(out.begin(), out.end(), w) == out.end()) out.push_back(std::move(w));
    }
    return out;
}

std::vector<std::string> titleWordsOf(const Target& t) {
    std::string folder = t.cwd;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    size_t slash = folder.rfind('/');
    if (slash != std::string::npos) folder = folder.substr(slash + 1);
    return unique({t.title, folder});
}

// Words a window's WM_CLASS is likely to hold for an application.
std::vector<std::string> classWordsOf(const std::optional<std::string>& appId, const std::string& appName) {
    std::vector<std::string> words;
    if (appId) {
        words.push_back(*appId);
        size_t dot = appId->rfind('.');
        if (dot != std::string::npos) words.push_back(appId->substr(dot + 1));
        if (appId->starts_with("jetbrains-")) words.push_back(*appId);
    }
    if (!appName.empty()) words.push_back(appName.substr(0, appName.find(' ')));
    return unique(std::move(words));
}

HostKind kindOf(Applications::Role role) {
    switch (role) {
        case Applications::Role::terminal: return HostKind::terminal;
        case Applications::Role::editor: return HostKind::ide;
        case Applications::Role::other: return HostKind::app;
    }
    return HostKind::app;
}

Window hostWindow(const Target& t) {
    Window w;
    w.appName = t.hostName.empty() ? t.hostAppId.value_or("the host") : t.hostName;
    w.appId = t.hostAppId;
    w.kind = t.hostKind.value_or(HostKind::app);
    w.titleWords = titleWordsOf(t);
    w.classWords = classWordsOf(t.hostAppId, t.hostName);
    return w;
}

Window claudeDesktopWindow(const Target& t) {
    Window w;
    w.appName = kClaudeDesktopName;
    w.appId = kClaudeDesktopId;
    w.kind = HostKind::app;
    w.titleWords = {kClaudeDesktopName};
    w.classWords = {kClaudeDesktopName};
    return w;
}

std::string noHost(int32_t pid) {
    return "NO hosting app for pid " + std::to_string(pid) + " — jump is a no-op (pid dead or unpaired?)";
}

// The session process's ancestry, read from the process table.
std::vector<Ancestor> readLineage(int32_t pid, ProcessTable& table, ApplicationIdentifier& apps) {
    std::vector<ProcessInfo> chain;
    for (int32_t next = pid; next > 1 && chain.size() < 64;) {
        auto p = table.process(next);
        if (!p) break;
        if (std::any_of(chain.begin(), chain.end(), [&](const ProcessInfo& q) { return q.pid == p->pid; })) break;
        next = p->ppid;
        chain.push_back(std::move(*p));
    }
    ProcessSnapshot snapshot(chain);
    std::vector<Ancestor> out;
    for (size_t i = 0; i < chain.size(); ++i) {
        const auto& p = chain[i];
        Ancestor a;
        a.pid = p.pid;
        size_t slash = p.command.rfind('/');
        a.program = slash == std::string::npos ? p.command : p.command.substr(slash + 1);
        a.name = p.name;
        if (i > 0) a.appId = apps.launchedAs(p, snapshot);
        out.push_back(std::move(a));
    }
    return out;
}

void note(Result& r, std::string line) {
    spdlog::info("jump: {}", line);
    r.lines.push_back(std::move(line));
}

}  // namespace

std::optional<std::string> deeplinkURL(const Target& t) {
    if (t.demo) return std::nullopt;
    if (mentions(t, "talvik")) {
        std::string cwd = t.cwd;
        while (cwd.size() > 1 && cwd.back() == '/') cwd.pop_back();
        if (isUuid(t.sessionId)) {
            std::string url = "talvik://chat?session=" + t.sessionId;
            if (!cwd.empty()) url += "&cwd=" + encode(cwd);
            return url;
        }
        if (!cwd.empty()) return "talvik://chat?cwd=" + encode(cwd);
        return std::nullopt;
    }
    bool codexApp = t.provider == scrivet::HarnessProvider::codex && t.hostKind == HostKind::app && mentions(t, "codex");
    if (codexApp && t.activeTurn && isUuidV7(t.sessionId)) return "codex://threads/" + t.sessionId;
    return std::nullopt;
}

const std::vector<std::string>& environmentNames() {
    static const std::vector<std::string> names = {
        "TMUX",          "TMUX_PANE",           "STY",            "WINDOW",            "ZELLIJ",
        "ZELLIJ_SESSION_NAME", "ZELLIJ_PANE_ID", "KITTY_LISTEN_ON", "KITTY_WINDOW_ID", "WEZTERM_PANE",
        "WEZTERM_UNIX_SOCKET", "HERDR_SOCKET_PATH", "HERDR_CONFIG_PATH", "HERDR_PANE_ID"};
    return names;
}

std::optional<Window> windowOf(const std::vector<Ancestor>& lineage, const Target& target) {
    for (size_t i = 1; i < lineage.size(); ++i) {
        if (!lineage[i].appId) continue;
        const std::string& id = *lineage[i].appId;
        auto d = Applications::describe(id);
        Window w;
        w.appName = d.name;
        w.appId = id;
        w.kind = kindOf(d.role);
        w.childPid = lineage[i - 1].pid;
        for (size_t j = i; j < lineage.size() && lineage[j].appId == id; ++j) w.pids.push_back(lineage[j].pid);
        w.titleWords = titleWordsOf(target);
        w.classWords = classWordsOf(id, d.name);
        return w;
    }
    return std::nullopt;
}

Plan plan(const Target& t, const Facts& f) {
    Plan p;
    if (t.demo) {
        p.noOp = true;
        p.lines.push_back("demo row " + t.sessionId + " — nothing real to jump to");
        return p;
    }
    if (auto link = deeplinkURL(t)) {
        if (f.linkHandled) p.deepLink = link;
        else p.lines.push_back("deep link " + *link + " skipped: no application handles its scheme");
    }

    if (!t.pid) {
        // Desktop, Cowork, SDK and cloud rows have no process of their own.
        bool claudeApp = t.cowork || (t.provider == scrivet::HarnessProvider::claudeCode &&
                                      (!t.hostAppId || mentions(t, "claude")));
        if (claudeApp) {
            p.window = claudeDesktopWindow(t);
            p.lines.push_back("Claude desktop: no route into its conversations on Linux — activating the app");
        } else if (t.hostAppId || !t.hostName.empty()) {
            p.window = hostWindow(t);
        } else {
            p.lines.push_back("no process and no host for " + t.sessionId + " — nothing to jump to");
            p.noOp = true;
            return p;
        }
        p.mayLaunch = true;
    } else if (f.lineage.empty()) {
        p.lines.push_back(noHost(*t.pid));
        p.noOp = true;
        return p;
    } else {
        const auto& env = f.environment;
        bool inHerdr = lineageHas(f.lineage, isHerdr) || !get(env, "HERDR_PANE_ID").empty();
        if (inHerdr) {
            if (!f.herdrSockets.empty()) p.inner.push_back(Inner::herdr);
            else p.lines.push_back("herdr: no server socket named herdr.sock was found");
        }
        if (lineageHas(f.lineage, isTmux) || !get(env, "TMUX").empty()) p.inner.push_back(Inner::tmux);
        if (lineageHas(f.lineage, isScreen) || !get(env, "STY").empty()) p.inner.push_back(Inner::screen);
        if (lineageHas(f.lineage, isZellij) || !get(env, "ZELLIJ_SESSION_NAME").empty()) p.inner.push_back(Inner::zellij);

        p.window = windowOf(f.lineage, t);
        // A multiplexer's server hangs off no terminal: the row's host (the
        // terminal of its newest client, as the scan resolved it) stands in.
        if (!p.window && (t.hostAppId || !t.hostName.empty())) p.window = hostWindow(t);
        if (!p.window && p.inner.empty()) {
            p.lines.push_back(noHost(*t.pid));
            if (t.provider != scrivet::HarnessProvider::claudeCode) {
                p.noOp = true;
                return p;
            }
            p.window = claudeDesktopWindow(t);
            p.mayLaunch = false;
        }
        if (p.window && p.inner.empty() && p.window->appId) {
            const std::string& id = *p.window->appId;
            if (id == "kitty") {
                if (!get(env, "KITTY_LISTEN_ON").empty()) p.remote = Remote::kitty;
                else p.lines.push_back("kitty remote control is off (no KITTY_LISTEN_ON) — raising its window");
            } else if (id == "org.wezfurlong.wezterm" && !get(env, "WEZTERM_PANE").empty()) {
                p.remote = Remote::wezterm;
            }
        }
    }

    if (p.window) {
        if (f.session == Session::wayland) {
            p.lines.push_back("the Wayland compositor does not allow raising " + p.window->appName +
                              "'s window from outside — the jump ends here");
            p.window.reset();
            p.mayLaunch = false;
        } else if (f.session == Session::none) {
            p.lines.push_back("no display to raise " + p.window->appName + "'s window on");
            p.window.reset();
            p.mayLaunch = false;
        }
    }
    return p;
}

Facts gather(const Target& t, ProcessTable& table, ApplicationIdentifier& apps, DesktopFocus& desktop) {
    Facts f;
    if (t.demo) return f;
    if (t.pid) {
        f.lineage = readLineage(*t.pid, table, apps);
        if (!f.lineage.empty()) f.environment = table.environment(*t.pid, environmentNames());
    }
    f.session = desktop.session();
    bool herdr = lineageHas(f.lineage, isHerdr) || f.environment.count("HERDR_PANE_ID");
    if (herdr) {
        auto env = f.environment;
        f.herdrSockets = HerdrBridge::socketCandidates(
            [&env](const std::string& name) {
                if (auto v = get(env, name); !v.empty()) return v;
                const char* own = std::getenv(name.c_str());
                return std::string(own ? own : "");
            },
            HerdrBridge::defaultConfigRoot());
    }
    if (auto link = deeplinkURL(t)) f.linkHandled = desktop.handlesScheme(link->substr(0, link->find(':')));
    return f;
}

Result jump(const Target& t, ProcessTable& table, DesktopFocus& desktop) {
    Result r;
    ApplicationIdentifier apps(table);
    Facts facts = gather(t, table, apps, desktop);
    Plan p = plan(t, facts);
    for (auto& line : p.lines) note(r, line);

    if (p.deepLink) {
        auto o = desktop.openURL(*p.deepLink);
        note(r, o.line);
        if (o.landed) {
            r.landed = true;
            return r;
        }
    }
    if (p.noOp) return r;

    std::vector<int32_t> lineage;
    for (const auto& a : facts.lineage) lineage.push_back(a.pid);
    const auto& env = facts.environment;
    bool innerLanded = false;
    std::optional<int32_t> client;
    for (Inner inner : p.inner) {
        std::vector<std::string> log;
        switch (inner) {
            case Inner::herdr: {
                std::optional<std::string> hint;
                if (auto pane = get(env, "HERDR_PANE_ID"); !pane.empty()) hint = pane;
                auto where = HerdrBridge::locate(*t.pid, lineage, facts.herdrSockets, hint, log);
                innerLanded = where && HerdrBridge::focus(*where, log);
                if (!innerLanded) log.push_back("herdr focus failed — falling through to terminal tab ladder");
                break;
            }
            case Inner::tmux: {
                std::optional<std::string> socket;
                if (auto tmux = get(env, "TMUX"); !tmux.empty()) socket = tmux.substr(0, tmux.find(','));
                auto landing = TerminalRoutes::tmux(lineage, socket, log);
                innerLanded = landing.landed;
                client = landing.clientPid;
                break;
            }
            case Inner::screen: {
                auto sty = get(env, "STY"), window = get(env, "WINDOW");
                if (sty.empty() || window.empty()) {
                    log.push_back("screen: the session's STY and WINDOW are unknown — raising the terminal around it");
                    break;
                }
                innerLanded = TerminalRoutes::screen(sty, window, log).landed;
                break;
            }
            case Inner::zellij:
                TerminalRoutes::zellij(get(env, "ZELLIJ_SESSION_NAME"), get(env, "ZELLIJ_PANE_ID"), log);
                break;
        }
        for (auto& line : log) note(r, line);
        if (innerLanded) break;
    }

    std::optional<Window> window = p.window;
    if (client) {
        // The terminal around the multiplexer's client is the one to raise.
        auto clientLineage = readLineage(*client, table, apps);
        if (auto w = windowOf(clientLineage, t)) window = w;
    }
    if (p.remote != Remote::none && window) {
        std::vector<std::string> log;
        if (p.remote == Remote::kitty) innerLanded = TerminalRoutes::kitty(get(env, "KITTY_LISTEN_ON"), window->childPid, log);
        else innerLanded = TerminalRoutes::wezterm(get(env, "WEZTERM_UNIX_SOCKET"), get(env, "WEZTERM_PANE"), log);
        for (auto& line : log) note(r, line);
    }
    bool exact = !p.inner.empty() || p.remote != Remote::none;
    if (!window) {
        r.landed = innerLanded;
        return r;
    }

    bool raised = false;
    if (!window->pids.empty()) {
        DesktopFocus::WindowQuery q{window->appName, window->pids, window->titleWords, {}};
        auto o = desktop.raiseByPid(q);
        note(r, o.line);
        raised = o.landed;
    }
    if (!raised && !window->titleWords.empty() && !window->classWords.empty()) {
        DesktopFocus::WindowQuery q{window->appName, {}, window->titleWords, window->classWords};
        auto o = desktop.raiseByTitle(q);
        note(r, o.line);
        raised = o.landed;
    }
    if (!raised) {
        if (exact && !innerLanded)
            note(r, "tab match MISS on " + window->appName +
                        " — falling back to reopen + app activate (may land on wrong tab)");
        DesktopFocus::WindowQuery q{window->appName, {}, window->titleWords, window->classWords};
        auto o = desktop.activate(q);
        note(r, o.line);
        raised = o.landed;
        if (!raised && p.mayLaunch && window->appId) {
            auto launched = desktop.launch(*window->appId);
            note(r, launched.line);
            raised = launched.landed;
        }
        if (!raised && facts.session == Session::xwayland)
            note(r, "the Wayland compositor does not allow raising " + window->appName +
                        "'s window from outside (no XWayland window of it) — the jump ends here");
    }
    r.landed = innerLanded || raised;
    return r;
}

Result jump(const Target& target) { return jump(target, ProcessTable::system(), DesktopFocus::system()); }

}  // namespace lumora::JumpService
