#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/platform/child_process.hpp"

// The jump's routes into terminal multiplexers and terminals with remote
// control, each through the tool's own command line: tmux, screen, zellij,
// kitty and WezTerm. Every command runs with a time-out; every route adds
// one line per step to the log it is given.
namespace lumora::TerminalRoutes {

inline constexpr std::chrono::milliseconds kCommandTimeout{2000};

struct CommandResult {
    bool started = false;
    bool timedOut = false;
    int exitCode = -1;
    std::string output;
    bool ok() const { return started && !timedOut && exitCode == 0; }
};

// Runs a command and waits at most `timeout` (then kills it).
CommandResult run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout = kCommandTimeout,
                  const ChildProcess::Environment& overrides = {});
// "<program> <subcommand> → error/empty: <why>" for a command that failed.
std::string failure(const std::vector<std::string>& argv, const CommandResult& result);

// What a route achieved.
struct Landing {
    bool landed = false;
    // A client process that now shows the session (a tmux client): the
    // terminal around it is the window to raise.
    std::optional<int32_t> clientPid;
};

// --- tmux ---------------------------------------------------------------------

struct TmuxPane {
    std::string paneID;     // "%3"
    int32_t panePid = 0;    // the pane's first process
    std::string sessionID;  // "$1"
    std::string windowID;   // "@2"
    std::string sessionName;
    bool operator==(const TmuxPane&) const = default;
};

struct TmuxClient {
    std::string tty;  // the client's name for -c
    int32_t pid = 0;
    std::string sessionID;
    long long activity = 0;  // last input, seconds since 1970
    bool operator==(const TmuxClient&) const = default;
};

// The formats we ask list-panes and list-clients for, and their parsers
// (lines that do not fit are skipped).
extern const char* const kPaneFormat;
extern const char* const kClientFormat;
std::vector<TmuxPane> parsePanes(const std::string& output);
std::vector<TmuxClient> parseClients(const std::string& output);
// The pane whose process tree holds the process (`lineage`: the process first, then its parents).
std::optional<TmuxPane> paneHolding(const std::vector<TmuxPane>& panes, const std::vector<int32_t>& lineage);
// The client to show the pane: the most recently active one already on its
// session, else the most recently active one (which must switch).
std::optional<TmuxClient> clientFor(const std::vector<TmuxClient>& clients, const std::string& sessionID);

// Selects the window and the pane that hold the process on the server at
// `socket` (the default server when absent), and switches the most recently
// used client to that session when none shows it.
Landing tmux(const std::vector<int32_t>& lineage, const std::optional<std::string>& socket,
             std::vector<std::string>& log, std::chrono::milliseconds timeout = kCommandTimeout);

// --- screen, zellij -------------------------------------------------------------

// Selects the session's window through `screen -S <STY> -X select <WINDOW>`.
Landing screen(const std::string& sty, const std::string& window, std::vector<std::string>& log,
               std::chrono::milliseconds timeout = kCommandTimeout);
// zellij's command line cannot focus a pane of another client's session: logs it and lands nowhere.
Landing zellij(const std::string& session, const std::string& pane, std::vector<std::string>& log);

// --- terminals with remote control ------------------------------------------------

// `kitty @ --to <listenOn> focus-window --match pid:<pid>`.
bool kitty(const std::string& listenOn, int32_t windowPid, std::vector<std::string>& log,
           std::chrono::milliseconds timeout = kCommandTimeout);
// `wezterm cli activate-pane --pane-id <pane>` against the GUI's socket.
bool wezterm(const std::optional<std::string>& socket, const std::string& pane, std::vector<std::string>& log,
             std::chrono::milliseconds timeout = kCommandTimeout);

}  // namespace lumora::TerminalRoutes
