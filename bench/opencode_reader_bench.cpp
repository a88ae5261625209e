// One tick of the OpenCode reader on a 200 MB database in WAL mode while a
// writer keeps committing: the recent sessions and the latest turn and
// activity of the 20 sessions whose directories have a process.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <atomic>
#include <optional>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "bench_support.hpp"
#include "scrivet/opencode_transcript_reader.hpp"

namespace OC = scrivet::OpenCodeTranscriptReader;
namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

constexpr int kLive = 20;
constexpr int kRecentIdle = 80;   // updated today, no process
constexpr int kOld = 1750;        // older sessions that fill the file
constexpr uint64_t kTargetBytes = 190ull * 1000 * 1000;

int64_t millis(std::chrono::system_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

void exec(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::string why = error ? error : "?";
        sqlite3_free(error);
        throw std::runtime_error(why);
    }
}

std::string dir(int i) { return "/home/dev/proj" + std::to_string(i); }
std::string sid(int i) { return "ses_bench" + std::to_string(100000 + i); }

// Builds the database once and keeps it for later runs (it takes a while).
fs::path database() {
    auto folder = fs::temp_directory_path() / "lumora-bench-cache";
    fs::create_directories(folder);
    auto file = folder / "opencode-200mb.db";
    std::error_code ec;
    if (fs::exists(file, ec) && fs::file_size(file, ec) >= kTargetBytes) return file;
    fs::remove(file, ec);
    sqlite3* db = nullptr;
    sqlite3_open(file.c_str(), &db);
    exec(db, "PRAGMA journal_mode=WAL");
    exec(db, bench::readFile(fs::path(LUMORA_SOURCE_DIR) / "tests/scrivet/fixtures/opencode-schema.sql"));
    exec(db, "BEGIN");
    sqlite3_stmt *session, *message, *part;
    sqlite3_prepare_v2(db,
                       "INSERT INTO session (id, project_id, slug, directory, title, version, agent, model, "
                       "time_created, time_updated) VALUES (?1, 'prj', 's', ?2, ?3, '1.18.33', 'build', "
                       "'{\"id\":\"harness-model\",\"providerID\":\"harness\"}', ?4, ?4)",
                       -1, &session, nullptr);
    sqlite3_prepare_v2(db, "INSERT INTO message (id, session_id, time_created, time_updated, data) VALUES (?1, ?2, ?3, ?3, ?4)",
                       -1, &message, nullptr);
    sqlite3_prepare_v2(db,
                       "INSERT INTO part (id, message_id, session_id, time_created, time_updated, data) VALUES (?1, "
                       "?2, ?3, ?4, ?4, ?5)",
                       -1, &part, nullptr);
    auto now = std::chrono::system_clock::now();
    std::string output(2000, 'o');
    long long serial = 0;
    auto bindText = [](sqlite3_stmt* st, int i, const std::string& s) {
        sqlite3_bind_text(st, i, s.c_str(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
    };
    int total = kLive + kRecentIdle + kOld;
    for (int i = 0; i < total; ++i) {
        auto updated = i < kLive ? now - std::chrono::seconds(30)
                     : i < kLive + kRecentIdle ? now - std::chrono::hours(3)
                                               : now - std::chrono::hours(24 * 10 + i);
        bindText(session, 1, sid(i));
        bindText(session, 2, dir(i));
        bindText(session, 3, "Session " + std::to_string(i));
        sqlite3_bind_int64(session, 4, millis(updated));
        sqlite3_step(session);
        sqlite3_reset(session);
        int messages = i < kLive ? 400 : 40;
        int64_t t = millis(updated) - messages * 1000;
        for (int m = 0; m < messages; ++m, t += 1000) {
            bool user = m % 2 == 0;
            auto mid = "msg_" + std::to_string(++serial);
            Json data = user ? Json{{"role", "user"}, {"time", {{"created", t}}},
                                    {"model", {{"providerID", "harness"}, {"modelID", "harness-model"}}}}
                             : Json{{"role", "assistant"}, {"time", {{"created", t}, {"completed", t + 900}}},
                                    {"tokens", {{"total", 20000 + m}, {"input", 19000}, {"output", 1000}}},
                                    {"modelID", "harness-model"}, {"providerID", "harness"}, {"finish", "stop"},
                                    {"cost", 0.01}};
            bindText(message, 1, mid);
            bindText(message, 2, sid(i));
            sqlite3_bind_int64(message, 3, t);
            bindText(message, 4, data.dump());
            sqlite3_step(message);
            sqlite3_reset(message);
            std::vector<Json> parts;
            if (user) {
                parts = {{{"type", "text"}, {"text", "please run the tests for module " + std::to_string(m)}}};
            } else {
                parts = {{{"type", "step-start"}},
                         {{"type", "tool"}, {"tool", "bash"},
                          {"state", {{"status", "completed"}, {"title", "make test"}, {"output", output}}}},
                         {{"type", "text"}, {"text", "All green. Anything else?"}},
                         {{"type", "step-finish"}, {"tokens", {{"total", 20000}}}}};
            }
            for (size_t p = 0; p < parts.size(); ++p) {
                bindText(part, 1, "prt_" + std::to_string(++serial));
                bindText(part, 2, mid);
                bindText(part, 3, sid(i));
                sqlite3_bind_int64(part, 4, t + static_cast<int64_t>(p));
                bindText(part, 5, parts[p].dump());
                sqlite3_step(part);
                sqlite3_reset(part);
            }
        }
    }
    sqlite3_finalize(session);
    sqlite3_finalize(message);
    sqlite3_finalize(part);
    exec(db, "COMMIT");
    sqlite3_close(db);
    return file;
}

// OpenCode at work: commits a new part and bumps a live session every few
// milliseconds through its own connection, as the real writer does.
class Writer {
public:
    explicit Writer(const fs::path& file) {
        sqlite3_open(file.c_str(), &db_);
        sqlite3_busy_timeout(db_, 1000);
        thread_ = std::thread([this] {
            long long n = 0;
            while (!stop_) {
                auto t = millis(std::chrono::system_clock::now());
                auto s = sid(static_cast<int>(n % kLive));
                std::string sql = "BEGIN; INSERT INTO part (id, message_id, session_id, time_created, time_updated, "
                                  "data) VALUES ('prt_live" + std::to_string(n) + "', 'msg_live', '" + s + "', " +
                                  std::to_string(t) + ", " + std::to_string(t) +
                                  ", '{\"type\":\"text\",\"text\":\"streaming\"}'); UPDATE session SET time_updated = " +
                                  std::to_string(t) + " WHERE id = '" + s + "'; COMMIT;";
                sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
                ++n;
                commits_ = n;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    ~Writer() {
        stop_ = true;
        thread_.join();
        sqlite3_close(db_);
    }
    long long commits() const { return commits_; }

private:
    sqlite3* db_ = nullptr;
    std::atomic<bool> stop_{false};
    std::atomic<long long> commits_{0};
    std::thread thread_;
};

// state.range(0): whether OpenCode is writing while we read.
void BM_OpenCode_Tick_200MB(benchmark::State& state) {
    auto file = database();
    state.counters["db_MB"] = static_cast<double>(fs::file_size(file)) / 1e6;
    std::optional<Writer> writer;
    if (state.range(0)) writer.emplace(file);
    std::set<std::string> live;
    for (int i = 0; i < kLive; ++i) live.insert(dir(i));
    OC::ScanOptions options;
    options.cliRunning = [&](const std::string& cwd) { return live.count(cwd) > 0; };
    for (auto _ : state) {
        options.now = std::chrono::system_clock::now();
        auto result = OC::runningSessions(file, options);
        if (result.failure && !result.failure->busy) {
            state.SkipWithError(result.failure->why.c_str());
            break;
        }
        if (!result.failure && result.sessions.size() != kLive) {
            state.SkipWithError("wrong session count");
            break;
        }
        benchmark::DoNotOptimize(result);
    }
    if (writer) state.counters["writer_commits"] = static_cast<double>(writer->commits());
}
BENCHMARK(BM_OpenCode_Tick_200MB)->ArgName("writer")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plan meter's read: the Go charges of the last 30 days (not per tick).
void BM_OpenCode_GoUsage_200MB(benchmark::State& state) {
    auto file = database();
    for (auto _ : state) {
        auto usage = OC::goUsage(file, std::chrono::system_clock::now());
        benchmark::DoNotOptimize(usage);
    }
}
BENCHMARK(BM_OpenCode_GoUsage_200MB)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
