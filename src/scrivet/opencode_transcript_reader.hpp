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

#include "scrivet/read_only_database.hpp"
#include "scrivet/transcript_records.hpp"

// OpenCode keeps its sessions, messages and message parts in a local SQLite
// database (~/.local/share/opencode/opencode.db, WAL mode, written by OpenCode
// while we read). This reader opens it read-only for each look, lists the
// recently updated sessions, reads each one's latest turn and activity, and
// builds OpenCodeSession records; a child session (one with a parent) is a
// subagent of its parent and never a session of its own. It also reads
// OpenCode's cached model catalogue (context windows and prices), the charges
// of the paid "Go" plan, and a session's to-do list.
//
// Times in the database are milliseconds since 1970. Message and part rows
// keep their facts as JSON text in "data"; a row whose JSON does not parse is
// skipped.
namespace scrivet::OpenCodeTranscriptReader {

namespace fs = std::filesystem;

// $LUMORA_OPENCODE_DB when set, else <dataFolder>/opencode.db.
fs::path databaseURL(const fs::path& dataFolder);
// $LUMORA_OPENCODE_MODELS when set, else <cacheFolder>/models.json.
fs::path modelsCatalogURL(const fs::path& cacheFolder);

// OpenCode's placeholder title is "New session - <ISO time>": any title
// beginning "New session" counts as none.
bool isPlaceholderTitle(std::string_view title);

struct OpenCodeTokens {
    long long input = 0, output = 0, reasoning = 0, cacheRead = 0, cacheWrite = 0;
    // input + output + cacheRead + cacheWrite; reasoning is left out on purpose.
    long long blended() const { return input + output + cacheRead + cacheWrite; }
    bool operator==(const OpenCodeTokens&) const = default;
};

struct OpenCodeSession {
    std::string sessionId;  // "ses_…"
    std::string cwd;        // the session's directory
    std::optional<std::string> title;  // none while it is the placeholder
    std::optional<std::string> modelID;
    std::optional<std::string> providerID;
    std::optional<std::string> agent;
    double cost = 0;  // dollars
    OpenCodeTokens tokens;
    std::optional<std::string> parentId;
    std::optional<std::string> firstPrompt;
    TranscriptInfo info;

    std::string projectName() const;
    bool operator==(const OpenCodeSession&) const = default;
};

// What a session's newest messages say about its turn.
struct Turn {
    bool inProgress = false;
    bool awaitingFirstReply = false;
    bool hasRealTurn = false;
    std::optional<long long> contextTokens;
    std::optional<Date> lastEntry;
    std::vector<ActivityLine> activity;  // oldest first
    // Beyond the turn state: the newest assistant message's model, whether
    // the turn was aborted, and the settled turn's last reply text.
    std::optional<std::string> modelID;
    std::optional<std::string> providerID;
    bool interrupted = false;
    bool endsWithQuestion = false;
    bool operator==(const Turn&) const = default;
};

// --- the model catalogue -------------------------------------------------------------

struct ModelSpec {
    std::string name;
    std::optional<long long> contextLimit;  // "limit"."context"
    std::optional<double> inputPerMTok, outputPerMTok, cacheReadPerMTok, cacheWritePerMTok;  // "cost"
    bool operator==(const ModelSpec&) const = default;
};

struct ModelCatalogue {
    // provider id -> model id -> spec
    std::map<std::string, std::map<std::string, ModelSpec>> providers;

    // The catalogue file's parse, reread only when the file changed; empty
    // when it is missing or unreadable.
    static ModelCatalogue load(const fs::path& url);
    // Nothing when the text is not a JSON object.
    static std::optional<ModelCatalogue> parse(std::string_view text);
    std::optional<ModelSpec> model(const std::string& provider, const std::string& id) const;
    bool operator==(const ModelCatalogue&) const = default;
};

// --- the Go plan ----------------------------------------------------------------------

// One charged message: when it was completed (else created) and its cost.
struct GoCharge {
    Date at{};
    double cost = 0;
    bool operator==(const GoCharge&) const = default;
};

// The Go plan's limits, in dollars over rolling windows. The plan has no
// usage endpoint, so its meter adds up the charges recorded on this machine.
struct GoPlan {
    std::string providerID = "opencode-go";
    double fiveHourCap = 12;
    double weeklyCap = 30;
    double monthlyCap = 60;
};

struct GoUsage {
    struct Window {
        double spent = 0;
        double cap = 0;
        std::chrono::seconds period{0};
        std::optional<Date> resetsAt;  // when the oldest charge in the window rolls off
        double percentUsed() const;    // spent / cap in percent, capped at 100; 0 without a cap
        bool operator==(const Window&) const = default;
    };
    Window fiveHour, weekly, monthly;
    int turns = 0;  // charged messages in the monthly window
    bool operator==(const GoUsage&) const = default;
};

// The plan's charged messages since `since`, or nothing when the database
// can't be read (`why` then says why).
std::optional<std::vector<GoCharge>> goCharges(const fs::path& database, Date since, const std::string& providerID,
                                               std::string* why = nullptr);
// Adds the charges up into the plan's windows as of `now`.
GoUsage goUsage(const std::vector<GoCharge>& charges, Date now, const GoPlan& plan = {});
// The plan usage read from the database, or nothing when it can't be read.
std::optional<GoUsage> goUsage(const fs::path& database, Date now, const GoPlan& plan = {},
                               std::string* why = nullptr);

// --- to-do lists ------------------------------------------------------------------------

// One step of a session's to-do list (OpenCode's "todo" table).
struct OpenCodeTodo {
    std::string content;
    std::string status;    // "pending", "in_progress", "completed", "cancelled"
    std::string priority;  // "high", "medium", "low"
    long long position = 0;
    bool operator==(const OpenCodeTodo&) const = default;
};

// The session's to-do list in order, or nothing when the database (or its
// "todo" table) can't be read.
std::optional<std::vector<OpenCodeTodo>> todos(const fs::path& database, const std::string& sessionId,
                                               std::string* why = nullptr);
// The same on a database already open (one open for many sessions).
std::optional<std::vector<OpenCodeTodo>> todos(ReadOnlyDatabase& db, const std::string& sessionId);

// --- sessions -----------------------------------------------------------------------------

struct ScanOptions {
    std::chrono::seconds maxAge{24 * 3600};  // updated within this long
    std::set<std::string> keepAlive;          // session ids kept whatever their age
    // Whether an OpenCode process runs in a directory; sessions elsewhere are
    // not read further. Unset: every directory counts.
    std::function<bool(const std::string& cwd)> cliRunning;
    Date now = std::chrono::system_clock::now();
    fs::path catalogue;          // models.json
    size_t sessionLimit = 100;   // rows of the recent-sessions query
    size_t activityLimit = 8;    // activity lines per session
};

struct ScanResult {
    std::vector<OpenCodeSession> sessions;  // top-level sessions, newest first
    // Why nothing could be read; `busy` when the database was locked (worth
    // trying again on the next tick).
    std::optional<ReadOnlyDatabase::Error> failure;
    bool operator==(const ScanResult&) const = default;
};

ScanResult runningSessions(const fs::path& database, const ScanOptions& options);

// The latest turn of a session (newest eight messages and `activityLimit`
// activity lines) on an open database.
Turn latestTurn(ReadOnlyDatabase& db, const std::string& sessionId, size_t activityLimit);
std::vector<ActivityLine> recentActivity(ReadOnlyDatabase& db, const std::string& sessionId, size_t limit);

// --- the JSON columns, one row at a time (pure, for tests and fuzzing) ---------------------

// One row of the newest-messages query.
struct MessageRow {
    std::string data;  // the message's JSON
    int64_t timeCreated = 0;
};
// The turn state from messages, newest first (no activity).
Turn turnFromMessages(const std::vector<MessageRow>& newestFirst);

// One row of the activity query: a part's JSON and its message's JSON.
struct PartRow {
    std::string partData;
    std::string messageData;
    int64_t timeCreated = 0;
};
// Activity lines from parts, newest first; returns them oldest first, at most `limit`.
std::vector<ActivityLine> activityFromParts(const std::vector<PartRow>& newestFirst, size_t limit);
// The settled reply's last text part among parts, newest first.
std::optional<std::string> lastReplyText(const std::vector<PartRow>& newestFirst);

// "session.model": {"id", "providerID", "variant"}.
struct SessionModel {
    std::optional<std::string> id, providerID, variant;
    bool operator==(const SessionModel&) const = default;
};
std::optional<SessionModel> parseSessionModel(std::string_view json);

// A text part's prompt: its "text", without the literal quotes that
// `opencode run` may wrap it in; nothing for a synthetic or empty part.
std::optional<std::string> promptText(std::string_view partData);

// A child session's title without OpenCode's " (@<agent> subagent)" suffix.
std::string subagentTask(std::string_view title);

}  // namespace scrivet::OpenCodeTranscriptReader
