#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/transcript_records.hpp"

// The Kimi command-line tool keeps each session in a folder of its own under
// ~/.kimi-code/sessions/wd_<…>/session_<uuid>/: a small "state.json" and one
// event journal per agent, "agents/<agent>/wire.jsonl" ("main" is the
// session's own agent). This reader lists the sessions of running Kimi
// processes and turns each one's state and the tail of its main wire journal
// into a KimiSession. Kimi reports no permission prompts through hooks, so the
// wire's turn state and a sitting question are all there is to go on.
//
// Stateless apart from small caches (parsed config files, wire facts by file
// stamp, first prompts), each behind its own lock.
namespace scrivet::KimiTranscriptReader {

namespace fs = std::filesystem;

// Called once for each problem met while reading ("state.json is not a
// regular file"), so the caller can log it; the same cause may come again on
// the next scan.
using Note = std::function<void(const std::string& cause)>;

// <kimi home>/sessions
fs::path sessionsRoot(const fs::path& kimiHome);

// --- config.toml -------------------------------------------------------------

// One `[models."<id>"]` table of the configuration.
struct ModelEntry {
    std::optional<long long> maxContextSize;
    std::optional<std::string> displayName;
    bool operator==(const ModelEntry&) const = default;
};

struct Config {
    std::optional<std::string> defaultModel;
    std::map<std::string, ModelEntry> models;  // by the quoted model id
    bool operator==(const Config&) const = default;
};

// Reads "default_model" and the model tables (header lines of the exact form
// [models."<id>"]) from the configuration's text; anything else is skipped.
Config parseConfig(std::string_view text);
// The configuration file's parse, reread only when the file changed; empty
// when it is missing or unreadable.
Config config(const fs::path& file);

// The name a model is shown under: the table's "display_name", else the
// last path component of the id ("kimi-code/k9-test-model" -> "k9-test-model").
std::string displayName(const std::string& modelId, const Config& config);

// --- state.json ----------------------------------------------------------------

struct State {
    std::optional<std::string> workDir;
    std::optional<std::string> title;
    bool isCustomTitle = false;
    std::optional<std::string> lastPrompt;
    bool operator==(const State&) const = default;
};

// Nothing when the text is not a JSON object.
std::optional<State> parseState(std::string_view text);

// The title Kimi gives a session until it is renamed.
inline constexpr std::string_view kDefaultTitle = "New Session";

// --- the wire journal --------------------------------------------------------------

// What the tail of a wire journal says.
struct WireStatus {
    bool inProgress = false;
    bool endsWithQuestion = false;
    bool hasRealTurn = false;
    std::optional<std::string> model;  // "modelAlias", else "model", of the newest request
    std::optional<long long> contextTokens;
    std::optional<long long> contextMax;  // filled in from the configuration by `parse`
    std::optional<PendingQuestion> question;
    // Beyond the turn state: what the row and its feed show.
    std::optional<PendingApproval> pendingApproval;  // the dangling call's kind, while the turn runs
    bool awaitingFirstReply = false;
    bool interrupted = false;  // the newest turn ended without finishing
    std::vector<ActivityLine> recentActivity;  // oldest first
    std::optional<std::string> summary;
    bool operator==(const WireStatus&) const = default;
};

// Derives the status from the journal text (whole lines; a broken first line
// and lines that are not JSON objects are skipped).
WireStatus wireStatus(std::string_view tail);

// The text of the first "turn.prompt" among the lines (the session's first
// prompt when they are the journal's head).
std::optional<std::string> firstPrompt(std::string_view lines);

// --- sessions -------------------------------------------------------------------------

struct KimiSession {
    std::string sessionId;  // "session_<uuid>", the folder's name
    fs::path sessionDir;
    std::string cwd;  // "workDir"
    std::string projectName;
    std::optional<std::string> model;
    std::optional<long long> contextTokens;
    std::optional<long long> contextMax;
    std::optional<PendingQuestion> question;
    TranscriptInfo info;
    bool operator==(const KimiSession&) const = default;
};

struct ScanOptions {
    std::chrono::seconds maxAge{24 * 3600};  // the main wire changed within this long
    std::set<std::string> keepAlive;          // session ids kept whatever their age
    // Whether a Kimi process runs in a working directory; sessions elsewhere
    // are not read. Unset: every directory counts.
    std::function<bool(const std::string& cwd)> cliRunning;
    Date now = std::chrono::system_clock::now();
    fs::path configFile;  // ~/.kimi-code/config.toml
    Note note;
};

// The sessions under `root` (the sessions folder) whose main wire journal
// changed within `maxAge` (or whose id is in `keepAlive`) and whose working
// directory has a Kimi process running, newest wire first.
std::vector<KimiSession> runningSessions(const fs::path& root, const ScanOptions& options);

// One session folder, or nothing without a readable state and wire journal.
std::optional<KimiSession> parse(const fs::path& sessionDir, Date now, const fs::path& configFile = {},
                                 const Note& note = {});

// One wire journal on its own (the command line's --transcript), with the
// session state from `stateFile` when there is one.
std::optional<KimiSession> parseWire(const fs::path& wireFile, const std::optional<fs::path>& stateFile, Date now,
                                     const fs::path& configFile = {}, const Note& note = {});

// --- background work -------------------------------------------------------------------

struct BackgroundTasks {
    int running = 0;
    std::optional<Date> newestActivity;  // newest change of a sidecar or its output.log
    bool operator==(const BackgroundTasks&) const = default;
};

// The session's task sidecars (agents/<agent>/tasks/<id>.json): those whose
// "status" is "running" are pending.
BackgroundTasks backgroundTasks(const fs::path& sessionDir, Date now);
// How many of the sidecars' texts say "running".
int pendingBackgroundTaskCount(const std::vector<std::string>& sidecars);

// Other agents of the session (agents/<name>/wire.jsonl, not "main") whose
// journal changed within two minutes and whose turn still runs.
std::vector<SubagentInfo> runningSubagents(const fs::path& sessionDir, Date now, const Config& config);

// The session's title, to find its terminal tab by.
std::optional<std::string> jumpTitleNeedle(const fs::path& root, const std::string& sessionId);

// True for a folder name of the form "session_" followed by a UUID.
bool isSessionId(std::string_view name);

}  // namespace scrivet::KimiTranscriptReader
