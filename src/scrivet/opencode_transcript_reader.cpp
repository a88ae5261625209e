#include "scrivet/opencode_transcript_reader.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/file_stamp.hpp"
#include "scrivet/journal_entry.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/session_topic.hpp"

namespace scrivet::OpenCodeTranscriptReader {

namespace {

using simdjson::dom::element;
using namespace std::chrono_literals;

constexpr size_t kActivityChars = 100;
constexpr size_t kSummaryChars = 120;
constexpr size_t kCatalogueLimit = 64 << 20;
// Parts read per activity line wanted: step markers and patches give none.
constexpr size_t kPartsPerLine = 4;
constexpr auto kSubagentActiveWindow = std::chrono::seconds(900);

// The queries. Parts are reached through their message (message_id is
// indexed with the part id, and messages by session and time), so a session
// with tens of thousands of parts costs no more than a short one.
constexpr std::string_view kSessionColumns =
    "SELECT id, parent_id, directory, title, agent, model, cost, tokens_input, tokens_output, tokens_reasoning, "
    "tokens_cache_read, tokens_cache_write, time_updated FROM session ";
constexpr std::string_view kRecentSessions =
    "WHERE time_archived IS NULL AND time_updated >= ?1 ORDER BY time_updated DESC LIMIT ?2";
constexpr std::string_view kSessionById = "WHERE time_archived IS NULL AND id = ?1";
constexpr std::string_view kLatestMessages =
    "SELECT data, time_created FROM message WHERE session_id = ?1 ORDER BY time_created DESC, id DESC LIMIT 8";
constexpr std::string_view kRecentParts =
    "SELECT p.data, m.data, p.time_created FROM message m JOIN part p ON p.message_id = m.id "
    "WHERE m.session_id = ?1 ORDER BY m.time_created DESC, m.id DESC, p.id DESC LIMIT ?2";
constexpr std::string_view kFirstPrompt =
    "SELECT p.data FROM message m JOIN part p ON p.message_id = m.id WHERE m.session_id = ?1 "
    "AND CASE WHEN json_valid(m.data) THEN json_extract(m.data, '$.role') END = 'user' "
    "ORDER BY m.time_created ASC, m.id ASC, p.id ASC LIMIT 50";
constexpr std::string_view kGoCharges =
    "SELECT COALESCE(CASE WHEN json_valid(data) THEN json_extract(data, '$.time.completed') END, time_created), "
    "COALESCE(CASE WHEN json_valid(data) THEN json_extract(data, '$.cost') END, 0) FROM message "
    "WHERE time_created >= ?1 AND CASE WHEN json_valid(data) THEN json_extract(data, '$.providerID') END = ?2";
constexpr std::string_view kTodos =
    "SELECT content, status, priority, position FROM todo WHERE session_id = ?1 ORDER BY position ASC";

Date fromMillis(int64_t ms) {
    return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(ms));
}

int64_t toMillis(Date d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d.time_since_epoch()).count();
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

// A JSON column's parse; nothing for text that is not a JSON object.
class Json {
public:
    explicit Json(std::string_view text) : padded_(text) {
        element root;
        if (!parser_.parse(padded_).get(root) && root.is_object()) root_ = root;
    }
    const std::optional<element>& root() const { return root_; }

private:
    simdjson::padded_string padded_;
    simdjson::dom::parser parser_;
    std::optional<element> root_;
};

std::optional<std::string> stringAt(element e, std::string_view k) {
    auto s = json::string(e, k);
    if (!s || s->empty()) return std::nullopt;
    return std::string(*s);
}

std::optional<double> number(element e, std::string_view k) {
    auto f = json::field(e, k);
    double d;
    if (!f || f->get_double().get(d)) return std::nullopt;
    return d;
}

// "tokens"."total", else the sum of its kinds; nothing below 1.
std::optional<long long> tokensOf(element message) {
    auto tokens = json::field(message, "tokens");
    if (!tokens) return std::nullopt;
    if (auto total = json::integer(*tokens, "total"); total && *total > 0) return *total;
    long long sum = 0;
    for (auto k : {"input", "output", "reasoning"}) sum += std::max<int64_t>(0, json::integer(*tokens, k).value_or(0));
    if (auto cache = json::field(*tokens, "cache")) {
        for (auto k : {"read", "write"}) sum += std::max<int64_t>(0, json::integer(*cache, k).value_or(0));
    }
    if (sum < 1) return std::nullopt;
    return sum;
}

bool hasError(element message) {
    auto error = json::field(message, "error");
    return error && !error->is_null();
}

std::optional<std::string> toolTitle(element part) {
    auto state = json::field(part, "state");
    if (!state) return std::nullopt;
    if (auto title = json::string(*state, "title"); title && !trimmed(*title).empty()) return oneLine(*title, kActivityChars);
    if (auto input = json::field(*state, "input")) {
        static constexpr std::array<std::string_view, 9> kKeys = {
            "command", "filePath", "file_path", "description", "pattern", "path", "url", "query", "prompt"};
        for (auto k : kKeys) {
            if (auto v = json::string(*input, k); v && !trimmed(*v).empty()) return oneLine(*v, kActivityChars);
        }
    }
    return std::nullopt;
}

std::string stripQuotes(std::string_view text) {
    auto t = trimmed(text);
    if (t.size() >= 2 && t.front() == '"' && t.back() == '"') t = t.substr(1, t.size() - 2);
    return std::string(t);
}

// The catalogue's parse, reread when the file changes; shared, never copied per tick.
std::shared_ptr<const ModelCatalogue> cachedCatalogue(const fs::path& url) {
    static std::mutex lock;
    static std::optional<FileStamp> loadedStamp;
    static fs::path loadedPath;
    static std::shared_ptr<const ModelCatalogue> loaded = std::make_shared<ModelCatalogue>();
    auto current = stamp(url);
    {
        std::lock_guard guard(lock);
        if (loadedPath == url && loadedStamp == current) return loaded;
    }
    auto fresh = std::make_shared<ModelCatalogue>();
    if (current) {
        auto read = RegularFile::read(url, kCatalogueLimit);
        if (read.text) {
            if (auto parsed = ModelCatalogue::parse(*read.text)) *fresh = std::move(*parsed);
        }
    }
    std::lock_guard guard(lock);
    loadedPath = url;
    loadedStamp = current;
    loaded = fresh;
    return loaded;
}

// First prompts by session id: a session's first prompt never changes.
struct PromptCache {
    std::mutex lock;
    std::unordered_map<std::string, std::string> prompts;
};

PromptCache& firstPromptCache() {
    static PromptCache cache;
    return cache;
}

std::optional<std::string> firstPrompt(ReadOnlyDatabase& db, const std::string& sessionId) {
    auto& cache = firstPromptCache();
    {
        std::lock_guard guard(cache.lock);
        if (auto it = cache.prompts.find(sessionId); it != cache.prompts.end()) return it->second;
    }
    auto q = db.prepare(kFirstPrompt);
    q.bind(1, sessionId);
    std::optional<std::string> found;
    while (!found && q.step()) found = promptText(q.text(0));
    if (found) {
        std::lock_guard guard(cache.lock);
        if (cache.prompts.size() > 4096) cache.prompts.clear();
        cache.prompts[sessionId] = *found;
    }
    return found;
}

struct SessionRow {
    std::string id;
    std::optional<std::string> parentId;
    std::string directory;
    std::string title;
    std::optional<std::string> agent;
    std::optional<SessionModel> model;
    double cost = 0;
    OpenCodeTokens tokens;
    int64_t timeUpdated = 0;
};

std::optional<std::string> optionalText(const ReadOnlyDatabase::Statement& q, int column) {
    if (q.isNull(column)) return std::nullopt;
    auto t = q.text(column);
    if (t.empty()) return std::nullopt;
    return std::string(t);
}

SessionRow sessionRow(const ReadOnlyDatabase::Statement& q) {
    SessionRow r;
    r.id = std::string(q.text(0));
    r.parentId = optionalText(q, 1);
    r.directory = std::string(q.text(2));
    r.title = std::string(q.text(3));
    r.agent = optionalText(q, 4);
    if (!q.isNull(5)) r.model = parseSessionModel(q.text(5));
    r.cost = q.real(6);
    r.tokens = {q.integer(7), q.integer(8), q.integer(9), q.integer(10), q.integer(11)};
    r.timeUpdated = q.integer(12);
    return r;
}

std::string modelName(const std::optional<std::string>& provider, const std::string& id,
                      const ModelCatalogue& catalogue) {
    if (provider) {
        if (auto spec = catalogue.model(*provider, id); spec && !trimmed(spec->name).empty()) return spec->name;
    }
    return id;
}

}  // namespace

fs::path databaseURL(const fs::path& dataFolder) {
    if (const char* v = std::getenv("LUMORA_OPENCODE_DB"); v && *v) return fs::path(v);
    return dataFolder / "opencode.db";
}

fs::path modelsCatalogURL(const fs::path& cacheFolder) {
    if (const char* v = std::getenv("LUMORA_OPENCODE_MODELS"); v && *v) return fs::path(v);
    return cacheFolder / "models.json";
}

bool isPlaceholderTitle(std::string_view title) { return trimmed(title).empty() || trimmed(title).starts_with("New session"); }

std::string OpenCodeSession::projectName() const {
    auto name = fs::path(cwd).filename().string();
    return name.empty() ? cwd : name;
}

// --- the JSON columns -------------------------------------------------------------------------

std::optional<SessionModel> parseSessionModel(std::string_view text) {
    Json j(text);
    if (!j.root()) return std::nullopt;
    SessionModel m;
    m.id = stringAt(*j.root(), "id");
    if (!m.id) m.id = stringAt(*j.root(), "modelID");
    m.providerID = stringAt(*j.root(), "providerID");
    m.variant = stringAt(*j.root(), "variant");
    return m;
}

std::optional<std::string> promptText(std::string_view partData) {
    Json j(partData);
    if (!j.root()) return std::nullopt;
    const element& part = *j.root();
    if (json::string(part, "type").value_or("") != "text") return std::nullopt;
    if (json::boolean(part, "synthetic").value_or(false) || json::boolean(part, "ignored").value_or(false))
        return std::nullopt;
    auto text = stripQuotes(json::string(part, "text").value_or(""));
    if (trimmed(text).empty()) return std::nullopt;
    return text;
}

std::string subagentTask(std::string_view title) {
    auto t = trimmed(title);
    if (t.ends_with("subagent)")) {
        if (auto open = t.rfind(" (@"); open != std::string_view::npos) t = trimmed(t.substr(0, open));
    }
    return std::string(t);
}

Turn turnFromMessages(const std::vector<MessageRow>& newestFirst) {
    Turn t;
    bool stateSet = false, anyAssistant = false;
    for (const auto& row : newestFirst) {
        Json j(row.data);
        if (!j.root()) continue;
        const element& m = *j.root();
        auto role = json::string(m, "role").value_or("");
        if (role != "user" && role != "assistant") continue;
        auto created = fromMillis(row.timeCreated);
        std::optional<int64_t> completed;
        if (auto time = json::field(m, "time")) completed = json::integer(*time, "completed");
        if (!t.lastEntry || created > *t.lastEntry) t.lastEntry = created;
        if (completed && fromMillis(*completed) > *t.lastEntry) t.lastEntry = fromMillis(*completed);
        if (role == "user") {
            t.hasRealTurn = true;
            if (!stateSet) {
                // A prompt with nothing after it: the turn runs.
                t.inProgress = true;
                stateSet = true;
            }
            // A prompt names the model it asks for, an answer the one that ran: the newest counts.
            if (!t.modelID) {
                if (auto model = json::field(m, "model")) {
                    t.modelID = stringAt(*model, "modelID");
                    t.providerID = stringAt(*model, "providerID");
                }
            }
            continue;
        }
        anyAssistant = true;
        t.hasRealTurn = true;
        if (!stateSet) {
            stateSet = true;
            if (hasError(m)) {
                // Aborted (MessageAbortedError) or failed: settled either way.
                t.interrupted = true;
            } else if (!completed) {
                t.inProgress = true;
            } else {
                // A finished step that called tools is followed by the next step.
                t.inProgress = json::string(m, "finish").value_or("") == "tool-calls";
            }
        }
        if (!t.contextTokens) t.contextTokens = tokensOf(m);
        if (auto id = stringAt(m, "modelID"); id && !t.modelID) {
            t.modelID = id;
            t.providerID = stringAt(m, "providerID");
        }
    }
    t.awaitingFirstReply = t.inProgress && !anyAssistant;
    return t;
}

std::vector<ActivityLine> activityFromParts(const std::vector<PartRow>& newestFirst, size_t limit) {
    using Kind = ActivityLine::Kind;
    std::vector<ActivityLine> reversed;  // newest first
    for (const auto& row : newestFirst) {
        if (reversed.size() >= limit) break;
        Json partJson(row.partData);
        if (!partJson.root()) continue;
        const element& part = *partJson.root();
        auto type = json::string(part, "type").value_or("");
        if (type == "text") {
            if (json::boolean(part, "synthetic").value_or(false) || json::boolean(part, "ignored").value_or(false))
                continue;
            Json messageJson(row.messageData);
            auto role = messageJson.root() ? json::string(*messageJson.root(), "role").value_or("") : "";
            auto text = json::string(part, "text").value_or("");
            if (role == "user") {
                auto line = oneLine(stripQuotes(text), kActivityChars);
                if (!line.empty()) reversed.push_back({Kind::prompt, line});
            } else {
                auto line = oneLine(text, kActivityChars);
                if (!line.empty()) reversed.push_back({Kind::reply, line});
            }
        } else if (type == "reasoning") {
            auto line = oneLine(json::string(part, "text").value_or(""), kActivityChars);
            reversed.push_back({Kind::thinking, line.empty() ? "Thinking…" : line});
        } else if (type == "tool") {
            std::string name(json::string(part, "tool").value_or("tool"));
            auto title = toolTitle(part);
            auto state = json::field(part, "state");
            auto status = state ? json::string(*state, "status").value_or("") : "";
            if (status == "completed") {
                auto output = oneLine(json::string(*state, "output").value_or(""), kActivityChars);
                reversed.push_back({Kind::ok, output.empty() ? "Done" : output});
            } else if (status == "error") {
                auto error = oneLine(json::string(*state, "error").value_or(""), kActivityChars);
                reversed.push_back({Kind::error, error.empty() ? "Failed" : error});
            }
            reversed.push_back({Kind::tool, title ? name + ": " + *title : name});
        }
        // step-start, step-finish, patch and the other bookkeeping parts are not activity.
    }
    std::vector<ActivityLine> lines;
    for (auto it = reversed.rbegin(); it != reversed.rend(); ++it) {
        if (!lines.empty() && lines.back() == *it) continue;
        lines.push_back(std::move(*it));
    }
    if (lines.size() > limit) lines.erase(lines.begin(), lines.end() - static_cast<long>(limit));
    return lines;
}

std::optional<std::string> lastReplyText(const std::vector<PartRow>& newestFirst) {
    for (const auto& row : newestFirst) {
        Json partJson(row.partData);
        if (!partJson.root()) continue;
        const element& part = *partJson.root();
        auto type = json::string(part, "type").value_or("");
        if (type == "tool") return std::nullopt;  // the turn's last act was a tool, not words
        if (type != "text" || json::boolean(part, "synthetic").value_or(false)) continue;
        Json messageJson(row.messageData);
        if (!messageJson.root() || json::string(*messageJson.root(), "role").value_or("") != "assistant")
            return std::nullopt;
        auto text = json::string(part, "text").value_or("");
        if (trimmed(text).empty()) continue;
        return std::string(text);
    }
    return std::nullopt;
}

// --- the catalogue ------------------------------------------------------------------------------

std::optional<ModelCatalogue> ModelCatalogue::parse(std::string_view text) {
    Json j(text);
    if (!j.root()) return std::nullopt;
    ModelCatalogue c;
    simdjson::dom::object providers;
    if (j.root()->get_object().get(providers)) return std::nullopt;
    for (auto [providerId, provider] : providers) {
        auto models = json::object(provider, "models");
        if (!models) continue;
        auto& out = c.providers[std::string(providerId)];
        for (auto [modelId, model] : *models) {
            if (!model.is_object()) continue;
            ModelSpec spec;
            spec.name = stringAt(model, "name").value_or(std::string(modelId));
            if (auto limit = json::field(model, "limit")) {
                if (auto context = json::integer(*limit, "context"); context && *context > 0) spec.contextLimit = *context;
            }
            if (auto cost = json::field(model, "cost")) {
                spec.inputPerMTok = number(*cost, "input");
                spec.outputPerMTok = number(*cost, "output");
                spec.cacheReadPerMTok = number(*cost, "cache_read");
                spec.cacheWritePerMTok = number(*cost, "cache_write");
            }
            out[std::string(modelId)] = std::move(spec);
        }
    }
    return c;
}

ModelCatalogue ModelCatalogue::load(const fs::path& url) { return *cachedCatalogue(url); }

std::optional<ModelSpec> ModelCatalogue::model(const std::string& provider, const std::string& id) const {
    auto p = providers.find(provider);
    if (p == providers.end()) return std::nullopt;
    auto m = p->second.find(id);
    if (m == p->second.end()) return std::nullopt;
    return m->second;
}

// --- the Go plan ------------------------------------------------------------------------------------

double GoUsage::Window::percentUsed() const {
    if (cap <= 0) return 0;
    return std::clamp(spent / cap * 100.0, 0.0, 100.0);
}

GoUsage goUsage(const std::vector<GoCharge>& charges, Date now, const GoPlan& plan) {
    auto window = [&](std::chrono::seconds period, double cap) {
        GoUsage::Window w;
        w.cap = cap;
        w.period = period;
        for (const auto& c : charges) {
            if (c.at <= now - period) continue;
            w.spent += c.cost;
            if (c.cost > 0 && (!w.resetsAt || c.at + period < *w.resetsAt)) w.resetsAt = c.at + period;
        }
        return w;
    };
    GoUsage u;
    u.fiveHour = window(std::chrono::hours(5), plan.fiveHourCap);
    u.weekly = window(std::chrono::hours(24 * 7), plan.weeklyCap);
    u.monthly = window(std::chrono::hours(24 * 30), plan.monthlyCap);
    u.turns = static_cast<int>(std::count_if(charges.begin(), charges.end(),
                                             [&](const GoCharge& c) { return c.at > now - u.monthly.period; }));
    return u;
}

std::optional<std::vector<GoCharge>> goCharges(const fs::path& database, Date since, const std::string& providerID,
                                               std::string* why) {
    ReadOnlyDatabase db(database);
    std::vector<GoCharge> out;
    auto q = db.prepare(kGoCharges);
    q.bind(1, toMillis(since)).bind(2, providerID);
    while (q.step()) out.push_back({fromMillis(q.integer(0)), q.real(1)});
    if (!db.ok()) {
        if (why) *why = db.error()->why;
        return std::nullopt;
    }
    return out;
}

std::optional<GoUsage> goUsage(const fs::path& database, Date now, const GoPlan& plan, std::string* why) {
    auto charges = goCharges(database, now - std::chrono::hours(24 * 30), plan.providerID, why);
    if (!charges) return std::nullopt;
    return goUsage(*charges, now, plan);
}

// --- to-do lists ---------------------------------------------------------------------------------------

std::optional<std::vector<OpenCodeTodo>> todos(ReadOnlyDatabase& db, const std::string& sessionId) {
    std::vector<OpenCodeTodo> out;
    auto q = db.prepare(kTodos);
    q.bind(1, sessionId);
    while (q.step())
        out.push_back({std::string(q.text(0)), std::string(q.text(1)), std::string(q.text(2)), q.integer(3)});
    if (!db.ok()) return std::nullopt;
    return out;
}

std::optional<std::vector<OpenCodeTodo>> todos(const fs::path& database, const std::string& sessionId,
                                               std::string* why) {
    ReadOnlyDatabase db(database);
    auto out = todos(db, sessionId);
    if (!out && why && db.error()) *why = db.error()->why;
    return out;
}

// --- sessions -------------------------------------------------------------------------------------------

namespace {

// The turn and the raw parts it was read from.
struct TurnRead {
    Turn turn;
    std::vector<PartRow> parts;
};

// The two statements of a turn, prepared once for all the sessions of a look.
struct TurnQueries {
    ReadOnlyDatabase::Statement messages;
    ReadOnlyDatabase::Statement parts;
    explicit TurnQueries(ReadOnlyDatabase& db) : messages(db.prepare(kLatestMessages)), parts(db.prepare(kRecentParts)) {}
};

TurnRead readTurn(TurnQueries& queries, const std::string& sessionId, size_t activityLimit) {
    TurnRead r;
    std::vector<MessageRow> messages;
    auto& q = queries.messages.reset().bind(1, sessionId);
    while (q.step()) messages.push_back({std::string(q.text(0)), q.integer(1)});
    r.turn = turnFromMessages(messages);
    if (activityLimit == 0) return r;
    auto& p = queries.parts.reset().bind(1, sessionId).bind(2, static_cast<int64_t>(activityLimit * kPartsPerLine));
    while (p.step()) r.parts.push_back({std::string(p.text(0)), std::string(p.text(1)), p.integer(2)});
    r.turn.activity = activityFromParts(r.parts, activityLimit);
    if (!r.parts.empty()) {
        auto newestPart = fromMillis(r.parts.front().timeCreated);
        if (!r.turn.lastEntry || newestPart > *r.turn.lastEntry) r.turn.lastEntry = newestPart;
    }
    if (!r.turn.inProgress && !r.turn.interrupted) {
        auto reply = lastReplyText(r.parts);
        r.turn.endsWithQuestion = reply && ClaudeTranscriptReader::textEndsWithQuestion(*reply);
    }
    return r;
}

}  // namespace

Turn latestTurn(ReadOnlyDatabase& db, const std::string& sessionId, size_t activityLimit) {
    TurnQueries queries(db);
    return readTurn(queries, sessionId, activityLimit).turn;
}

std::vector<ActivityLine> recentActivity(ReadOnlyDatabase& db, const std::string& sessionId, size_t limit) {
    std::vector<PartRow> parts;
    auto p = db.prepare(kRecentParts);
    p.bind(1, sessionId).bind(2, static_cast<int64_t>(limit * kPartsPerLine));
    while (p.step()) parts.push_back({std::string(p.text(0)), std::string(p.text(1)), p.integer(2)});
    return activityFromParts(parts, limit);
}

ScanResult runningSessions(const fs::path& database, const ScanOptions& options) {
    ScanResult result;
    ReadOnlyDatabase db(database);
    if (!db.ok()) {
        result.failure = db.error();
        return result;
    }
    std::vector<SessionRow> rows;
    std::set<std::string> listed;
    {
        auto q = db.prepare(std::string(kSessionColumns) + std::string(kRecentSessions));
        q.bind(1, toMillis(options.now - options.maxAge)).bind(2, static_cast<int64_t>(options.sessionLimit));
        while (q.step()) {
            rows.push_back(sessionRow(q));
            listed.insert(rows.back().id);
        }
    }
    if (!options.keepAlive.empty()) {
        auto q = db.prepare(std::string(kSessionColumns) + std::string(kSessionById));
        for (const auto& id : options.keepAlive) {
            if (listed.count(id)) continue;
            q.reset().bind(1, id);
            while (q.step()) rows.push_back(sessionRow(q));
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const SessionRow& a, const SessionRow& b) { return a.timeUpdated > b.timeUpdated; });
    TurnQueries queries(db);
    auto catalogue = options.catalogue.empty() ? std::make_shared<const ModelCatalogue>()
                                               : cachedCatalogue(options.catalogue);

    for (const auto& row : rows) {
        if (row.parentId) continue;  // a child is its parent's subagent
        if (options.cliRunning && !options.cliRunning(row.directory)) continue;
        auto read = readTurn(queries, row.id, options.activityLimit);
        const Turn& turn = read.turn;
        OpenCodeSession s;
        s.sessionId = row.id;
        s.cwd = row.directory;
        if (!isPlaceholderTitle(row.title)) s.title = collapseWhitespace(row.title);
        s.modelID = turn.modelID ? turn.modelID : (row.model ? row.model->id : std::nullopt);
        s.providerID = turn.modelID ? turn.providerID : (row.model ? row.model->providerID : std::nullopt);
        s.agent = row.agent;
        s.cost = row.cost;
        s.tokens = row.tokens;
        s.firstPrompt = firstPrompt(db, row.id);

        TranscriptInfo& info = s.info;
        info.lastModified = fromMillis(row.timeUpdated);
        info.sessionId = row.id;
        if (s.modelID) {
            info.model = modelName(s.providerID, *s.modelID, *catalogue);
            if (s.providerID) {
                if (auto spec = catalogue->model(*s.providerID, *s.modelID)) info.contextMax = spec->contextLimit;
            }
        }
        info.contextTokens = turn.contextTokens;
        info.inProgress = turn.inProgress;
        info.endsWithQuestion = turn.endsWithQuestion;
        info.awaitingFirstReply = turn.awaitingFirstReply;
        info.recentActivity = turn.activity;
        info.hasRealTurn = turn.hasRealTurn;
        if (turn.interrupted) {
            info.summary = "Interrupted";
        } else if (!turn.activity.empty()) {
            const auto& last = turn.activity.back();
            info.summary = last.kind == ActivityLine::Kind::prompt ? "You: " + truncateText(last.text, kSummaryChars)
                                                                   : truncateText(last.text, kSummaryChars);
        }
        info.lastEntryDate = turn.lastEntry.value_or(info.lastModified);
        info.created = info.lastEntryDate;
        SessionTopic::fill(info, s.title, s.firstPrompt, s.sessionId);

        // Child sessions: running ones are the subagents on the row.
        // Children that have not changed for a while have finished; only the
        // recent ones are worth two more queries.
        for (const auto& child : rows) {
            if (child.parentId != row.id) continue;
            if (options.now - fromMillis(child.timeUpdated) > kSubagentActiveWindow) continue;
            info.recentSubagentActivity = true;
            auto childTurn = readTurn(queries, child.id, 1).turn;
            if (!childTurn.inProgress) continue;
            SubagentInfo sub;
            sub.id = child.id;
            sub.type = child.agent.value_or("subagent");
            sub.task = subagentTask(child.title);
            auto childModel = childTurn.modelID ? childTurn.modelID : (child.model ? child.model->id : std::nullopt);
            auto childProvider = childTurn.modelID ? childTurn.providerID
                                                   : (child.model ? child.model->providerID : std::nullopt);
            if (childModel) sub.model = modelName(childProvider, *childModel, *catalogue);
            if (!childTurn.activity.empty()) sub.action = childTurn.activity.back().text;
            sub.isRunning = true;
            if (child.tokens.blended() > 0) sub.tokens = child.tokens.blended();
            info.subagents.push_back(std::move(sub));
        }
        info.subagentCount = static_cast<int>(info.subagents.size());
        info.pendingBackgroundAgents = info.subagentCount;
        result.sessions.push_back(std::move(s));
    }
    if (!db.ok()) {
        result.sessions.clear();
        result.failure = db.error();
    }
    return result;
}

}  // namespace scrivet::OpenCodeTranscriptReader
