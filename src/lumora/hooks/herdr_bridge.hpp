#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// herdr, the terminal workspace manager, answers on a Unix socket with one
// JSON line per request. A jump asks it which processes each pane runs, finds
// the pane that holds the session, and asks it to focus that pane.
namespace lumora::HerdrBridge {

namespace fs = std::filesystem;

// Where a session runs in herdr.
struct Location {
    std::string paneID;
    fs::path socket;
    bool operator==(const Location&) const = default;
};

struct ForegroundProcess {
    int32_t pid = 0;
    std::string argv0;
    bool operator==(const ForegroundProcess&) const = default;
};

// One pane's processes, as herdr reports them (`pane_id`, `shell_pid`,
// `foreground_processes`).
struct PaneProcessInfo {
    std::string paneID;
    std::optional<int32_t> shellPid;
    std::vector<ForegroundProcess> foregroundProcesses;
    bool operator==(const PaneProcessInfo&) const = default;
};

inline constexpr std::chrono::milliseconds kTimeout{1000};

// True for herdr's own programs: base name "herdr" or "herdrctl", exactly.
bool isHerdrProcess(std::string_view program);

// Reads an environment variable; empty when unset.
using Lookup = std::function<std::string(const std::string& name)>;

// The server sockets to ask, in order: $HERDR_SOCKET_PATH, "herdr.sock" in
// the folder of the file $HERDR_CONFIG_PATH names, then in `defaultRoot`.
// Only an existing socket named "herdr.sock" counts (a plain file does not).
std::vector<fs::path> socketCandidates(const Lookup& env, const fs::path& defaultRoot);
// The default config root: $XDG_CONFIG_HOME/herdr.
fs::path defaultConfigRoot();

// The request lines, each ending in a newline.
std::string processInfoRequest(const std::optional<std::string>& paneID);
std::string focusRequest(const std::string& paneID);

// The panes of a `pane.process_info` reply line: its `result` (one pane, a
// list of panes, or an object with `panes`). An `error` reply or garbage
// gives nothing.
std::optional<std::vector<PaneProcessInfo>> parseProcessInfo(std::string_view line);
// True when a reply line carries a `result` and no `error`.
bool isSuccess(std::string_view line);

// True when the session's process runs in the pane: its pid is one of the
// pane's foreground processes, or the pane's shell is the process or one of
// its ancestors (`lineage`, the process first).
bool holds(const PaneProcessInfo& pane, int32_t pid, const std::vector<int32_t>& lineage);

// Sends one line to the socket and returns the first reply line; nothing
// (with the reason in `why`) when the server cannot be reached, closes
// without answering or does not answer within `timeout`.
std::optional<std::string> exchange(const fs::path& socket, const std::string& request,
                                    std::chrono::milliseconds timeout, std::string* why = nullptr);

// Finds the pane that holds the process among the servers of `sockets`.
// Every server asked adds a line to `log`.
std::optional<Location> locate(int32_t pid, const std::vector<int32_t>& lineage, const std::vector<fs::path>& sockets,
                               const std::optional<std::string>& paneHint, std::vector<std::string>& log,
                               std::chrono::milliseconds timeout = kTimeout);
// Asks the server to focus the pane; true when it says it did.
bool focus(const Location& location, std::vector<std::string>& log, std::chrono::milliseconds timeout = kTimeout);

}  // namespace lumora::HerdrBridge
