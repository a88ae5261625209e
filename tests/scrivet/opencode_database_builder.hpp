#pragma once

#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>

// Real OpenCode databases for the tests: the schema OpenCode 1.18.33 creates
// (a copy kept in tests/scrivet/fixtures), and rows shaped like the ones it
// writes (message and part "data" as JSON text, times in milliseconds).
namespace lumora::test {

namespace fs = std::filesystem;
using Json = nlohmann::json;

inline fs::path openCodeSchemaFixture() {
    return fs::path(LUMORA_SOURCE_DIR) / "tests/scrivet/fixtures/opencode-schema.sql";
}

inline int64_t millisNow(std::chrono::seconds offset = std::chrono::seconds(0)) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               (std::chrono::system_clock::now() + offset).time_since_epoch())
        .count();
}

class OpenCodeDatabase {
public:
    // Creates the database with OpenCode's schema; WAL mode as OpenCode runs it.
    explicit OpenCodeDatabase(const fs::path& file, bool wal = true, const std::string& schema = {}) : file_(file) {
        fs::create_directories(file.parent_path());
        if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) throw std::runtime_error("cannot create " + file.string());
        std::string sql = schema;
        if (sql.empty()) {
            std::ifstream in(openCodeSchemaFixture());
            std::stringstream s;
            s << in.rdbuf();
            sql = s.str();
        }
        exec("PRAGMA synchronous=OFF");  // a test needs no durability
        if (wal) exec("PRAGMA journal_mode=WAL");
        exec("BEGIN");
        exec(sql);
        exec("COMMIT");
        exec("INSERT INTO project (id, worktree, time_created, time_updated, sandboxes) VALUES ('prj', '/', 0, 0, '[]')");
    }
    ~OpenCodeDatabase() { close(); }
    OpenCodeDatabase(const OpenCodeDatabase&) = delete;
    OpenCodeDatabase& operator=(const OpenCodeDatabase&) = delete;

    // Closes the writer's connection (its -wal and -shm files go with it).
    void close() {
        if (db_) sqlite3_close(db_);
        db_ = nullptr;
    }
    sqlite3* handle() { return db_; }
    const fs::path& file() const { return file_; }

    void exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            std::string why = error ? error : "?";
            sqlite3_free(error);
            throw std::runtime_error("sql failed: " + why + " in " + sql.substr(0, 200));
        }
    }

    // A session row; the setters chain: Session("ses_1", "/p").titled("x").updatedAt(t).
    struct Session {
        std::string id;
        std::string directory;
        std::string title = "New session - 2026-11-22T00:52:42.544Z";
        std::optional<std::string> parentId;
        std::optional<std::string> agent = "build";
        std::optional<std::string> model = R"({"id":"harness-model","providerID":"harness","variant":"default"})";
        int64_t timeUpdated = millisNow();
        std::optional<int64_t> timeArchived;
        int64_t tokensInput = 0, tokensOutput = 0, tokensReasoning = 0, tokensCacheRead = 0, tokensCacheWrite = 0;
        double cost = 0;

        Session(std::string id, std::string directory) : id(std::move(id)), directory(std::move(directory)) {}
        Session& titled(std::string t) { title = std::move(t); return *this; }
        Session& childOf(std::string parent) { parentId = std::move(parent); return *this; }
        Session& agentNamed(std::string a) { agent = std::move(a); return *this; }
        Session& modelJson(std::string m) { model = std::move(m); return *this; }
        Session& updatedAt(int64_t t) { timeUpdated = t; return *this; }
        Session& archivedAt(int64_t t) { timeArchived = t; return *this; }
        Session& tokens(int64_t in, int64_t out, int64_t reasoning = 0, int64_t read = 0, int64_t write = 0) {
            tokensInput = in, tokensOutput = out, tokensReasoning = reasoning, tokensCacheRead = read,
            tokensCacheWrite = write;
            return *this;
        }
        Session& costing(double dollars) { cost = dollars; return *this; }
    };

    void session(const Session& s) {
        run("INSERT INTO session (id, project_id, parent_id, slug, directory, title, version, cost, tokens_input, "
            "tokens_output, tokens_reasoning, tokens_cache_read, tokens_cache_write, agent, model, time_created, "
            "time_updated, time_archived) VALUES (?1, 'prj', ?2, 'slug', ?3, ?4, '1.18.33', ?5, ?6, ?7, ?8, ?9, ?10, "
            "?11, ?12, ?13, ?13, ?14)",
            [&](sqlite3_stmt* st) {
                text(st, 1, s.id);
                text(st, 2, s.parentId);
                text(st, 3, s.directory);
                text(st, 4, s.title);
                sqlite3_bind_double(st, 5, s.cost);
                sqlite3_bind_int64(st, 6, s.tokensInput);
                sqlite3_bind_int64(st, 7, s.tokensOutput);
                sqlite3_bind_int64(st, 8, s.tokensReasoning);
                sqlite3_bind_int64(st, 9, s.tokensCacheRead);
                sqlite3_bind_int64(st, 10, s.tokensCacheWrite);
                text(st, 11, s.agent);
                text(st, 12, s.model);
                sqlite3_bind_int64(st, 13, s.timeUpdated);
                if (s.timeArchived) sqlite3_bind_int64(st, 14, *s.timeArchived);
                else sqlite3_bind_null(st, 14);
            });
    }

    // A message row; `data` may be any text (tests put broken JSON there too).
    void message(const std::string& id, const std::string& sessionId, int64_t created, const std::string& data) {
        run("INSERT INTO message (id, session_id, time_created, time_updated, data) VALUES (?1, ?2, ?3, ?3, ?4)",
            [&](sqlite3_stmt* st) {
                text(st, 1, id);
                text(st, 2, sessionId);
                sqlite3_bind_int64(st, 3, created);
                text(st, 4, data);
            });
    }

    void part(const std::string& id, const std::string& messageId, const std::string& sessionId, int64_t created,
              const std::string& data) {
        run("INSERT INTO part (id, message_id, session_id, time_created, time_updated, data) VALUES (?1, ?2, ?3, ?4, "
            "?4, ?5)",
            [&](sqlite3_stmt* st) {
                text(st, 1, id);
                text(st, 2, messageId);
                text(st, 3, sessionId);
                sqlite3_bind_int64(st, 4, created);
                text(st, 5, data);
            });
    }

    void todo(const std::string& sessionId, int position, const std::string& content, const std::string& status,
              const std::string& priority) {
        run("INSERT INTO todo (session_id, content, status, priority, position, time_created, time_updated) VALUES "
            "(?1, ?2, ?3, ?4, ?5, 0, 0)",
            [&](sqlite3_stmt* st) {
                text(st, 1, sessionId);
                text(st, 2, content);
                text(st, 3, status);
                text(st, 4, priority);
                sqlite3_bind_int64(st, 5, position);
            });
    }

private:
    static void text(sqlite3_stmt* st, int i, const std::optional<std::string>& v) {
        if (v) sqlite3_bind_text(st, i, v->c_str(), static_cast<int>(v->size()), SQLITE_TRANSIENT);
        else sqlite3_bind_null(st, i);
    }

    template <typename Bind>
    void run(const char* sql, Bind bind) {
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db_, sql, -1, &st, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("prepare: ") + sqlite3_errmsg(db_));
        bind(st);
        int rc = sqlite3_step(st);
        sqlite3_finalize(st);
        if (rc != SQLITE_DONE) throw std::runtime_error(std::string("insert: ") + sqlite3_errmsg(db_));
    }

    fs::path file_;
    sqlite3* db_ = nullptr;
};

// Message and part data as OpenCode writes them.
namespace OpenCodeRows {

inline std::string user(const std::string& sessionId, int64_t created, const std::string& model = "harness-model",
                        const std::string& provider = "harness") {
    return Json{{"role", "user"},
                {"time", {{"created", created}}},
                {"agent", "build"},
                {"model", {{"providerID", provider}, {"modelID", model}}},
                {"sessionID", sessionId}}
        .dump();
}

// An assistant message: finished with "stop" when `completed`, still
// streaming otherwise; `total` 0 leaves "tokens"."total" out.
inline std::string assistant(const std::string& sessionId, int64_t created, std::optional<int64_t> completed,
                             int64_t total = 2509, const std::string& finish = "stop",
                             const std::string& model = "harness-model", const std::string& provider = "harness") {
    Json tokens = {{"input", total ? total - 55 : 0}, {"output", total ? 55 : 0}, {"reasoning", 0},
                   {"cache", {{"read", 0}, {"write", 0}}}};
    if (total) tokens["total"] = total;
    Json time = {{"created", created}};
    if (completed) time["completed"] = *completed;
    Json m = {{"role", "assistant"}, {"mode", "build"}, {"agent", "build"}, {"cost", 0.002},
              {"tokens", tokens},    {"modelID", model},  {"providerID", provider},
              {"time", time},        {"sessionID", sessionId}};
    if (completed) m["finish"] = finish;
    return m.dump();
}

inline std::string aborted(const std::string& sessionId, int64_t created, int64_t completed) {
    return Json{{"role", "assistant"},
                {"cost", 0},
                {"tokens", {{"input", 0}, {"output", 0}, {"reasoning", 0}, {"cache", {{"read", 0}, {"write", 0}}}}},
                {"modelID", "harness-model"},
                {"providerID", "harness"},
                {"time", {{"created", created}, {"completed", completed}}},
                {"sessionID", sessionId},
                {"error", {{"name", "MessageAbortedError"}, {"data", {{"message", "Aborted"}}}}}}
        .dump();
}

inline std::string text(const std::string& text) { return Json{{"type", "text"}, {"text", text}}.dump(); }
inline std::string reasoning(const std::string& text) { return Json{{"type", "reasoning"}, {"text", text}}.dump(); }
inline std::string stepStart() { return Json{{"type", "step-start"}, {"snapshot", "9d454e8b"}}.dump(); }
inline std::string stepFinish() {
    return Json{{"type", "step-finish"}, {"reason", "stop"}, {"tokens", {{"total", 2509}}}, {"cost", 0}}.dump();
}
inline std::string patch() { return Json{{"type", "patch"}, {"hash", "9d454e8b"}, {"files", {"/x/a.txt"}}}.dump(); }

inline std::string tool(const std::string& name, const std::string& status, const std::string& title,
                        const std::string& output = "") {
    Json state = {{"status", status}, {"input", {{"command", title}}}};
    if (status == "completed") {
        state["title"] = title;
        state["output"] = output;
    }
    if (status == "error") state["error"] = output;
    return Json{{"type", "tool"}, {"tool", name}, {"callID", "call_1"}, {"state", state}}.dump();
}

}  // namespace OpenCodeRows

}  // namespace lumora::test
