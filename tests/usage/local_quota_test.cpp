#include <gtest/gtest.h>
#include <sqlite3.h>

#include <ctime>

#include "lumora/base/dates.hpp"
#include "lumora/usage/codex_rate_limits.hpp"
#include "lumora/usage/opencode_go_usage.hpp"
#include "lumora/usage/quota_sources.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

std::string dayFolder(Date when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y/%m/%d", &tm);
    return buf;
}

std::string tokenCount(Date at, const std::string& rateLimits) {
    return R"({"timestamp":")" + Dates::format(at) +
           R"(","type":"event_msg","payload":{"type":"token_count","info":null,"rate_limits":)" + rateLimits + "}}\n";
}

const char* kNullLimits = R"({"limit_id":"codex","primary":null,"secondary":null,"plan_type":null})";

std::string limits(double primary, double secondary, Date resets) {
    auto s = std::to_string(static_cast<long long>(Dates::toSeconds(resets)));
    return R"({"primary":{"used_percent":)" + std::to_string(primary) + R"(,"window_minutes":300,"resets_at":)" + s +
           R"(},"secondary":{"used_percent":)" + std::to_string(secondary) +
           R"(,"window_minutes":10080,"resets_at":)" + s + R"(},"plan_type":"plus"})";
}

void exec(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
}

// A database in OpenCode's shape: its real schema when the samples are here,
// else the message table as that schema declares it.
void createDatabase(const fs::path& file) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    exec(db, "PRAGMA synchronous=OFF");
    auto schema = test::samplesDir() / "opencode/opencode-schema.sql";
    if (fs::exists(schema)) {
        exec(db, test::readFile(schema));
    } else {
        exec(db, "CREATE TABLE `message` (`id` text PRIMARY KEY, `session_id` text NOT NULL, `time_created` integer NOT NULL,"
                 " `time_updated` integer NOT NULL, `data` text NOT NULL)");
    }
    sqlite3_close(db);
}

void addMessage(const fs::path& file, const std::string& id, Date created, const std::string& data) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    exec(db, "PRAGMA synchronous=OFF");
    long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(created.time_since_epoch()).count();
    sqlite3_stmt* s = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "INSERT INTO message (id, session_id, time_created, time_updated, data) VALUES (?, 's', ?, ?, ?)",
                                 -1, &s, nullptr), SQLITE_OK);
    sqlite3_bind_text(s, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(s, 2, ms);
    sqlite3_bind_int64(s, 3, ms);
    sqlite3_bind_text(s, 4, data.c_str(), -1, SQLITE_TRANSIENT);
    EXPECT_EQ(sqlite3_step(s), SQLITE_DONE);
    sqlite3_finalize(s);
    sqlite3_close(db);
}

std::string charge(const std::string& provider, const std::string& cost, std::optional<Date> completed = {}) {
    std::string out = R"({"role":"assistant","providerID":")" + provider + "\"";
    if (!cost.empty()) out += ",\"cost\":" + cost;
    if (completed)
        out += ",\"time\":{\"completed\":" +
               std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(completed->time_since_epoch()).count()) + "}";
    return out + "}";
}

}  // namespace

TEST(CodexRateLimits, TheNewestRolloutsLastGoodWindowsInRecentFoldersOnly) {
    test::TempDir root;
    Date now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    fs::path today = root / dayFolder(now);
    fs::path older = today / "rollout-2026-11-22T00-46-25-a.jsonl";
    fs::path newer = today / "rollout-2026-11-22T00-52-25-b.jsonl";
    test::writeFile(older, tokenCount(now - 30s, limits(90, 95, now + 1h)));
    // The newer rollout's last events carry null windows: its last good one stands.
    test::writeFile(newer, R"({"timestamp":"x","type":"session_meta","payload":{}})" "\n" +
                               tokenCount(now - 600s, limits(22, 9, now + 2h)) + tokenCount(now - 60s, kNullLimits) +
                               "{torn line\n" + tokenCount(now - 5s, kNullLimits));
    test::setMtime(older, now - 3600s);
    test::setMtime(newer, now - 5s);
    auto r = CodexRateLimits::newest(root.path(), now);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->rollout, newer);
    EXPECT_EQ(r->at, now - 600s);
    ASSERT_EQ(r->usage.windows.size(), 2u);
    EXPECT_EQ(r->usage.windows[0].label, "5h");
    EXPECT_EQ(r->usage.windows[0].percentUsed, 22);
    EXPECT_EQ(r->usage.windows[0].resetsAt, now + 2h);
    EXPECT_EQ(r->usage.windows[1].name, "7-day limit");
    EXPECT_EQ(r->usage.planName, "Plus");

    // A rollout in a folder a month old is never looked at, however new its file.
    fs::path stale = root / dayFolder(now - 24h * 30) / "rollout-old.jsonl";
    test::writeFile(stale, tokenCount(now, limits(1, 1, now + 1h)));
    EXPECT_EQ(CodexRateLimits::newest(root.path(), now)->rollout, newer);
    // Only null windows anywhere: nothing.
    test::writeFile(newer, tokenCount(now, kNullLimits));
    test::writeFile(older, tokenCount(now, kNullLimits));
    EXPECT_EQ(CodexRateLimits::newest(root.path(), now), std::nullopt);

    using Json = nlohmann::ordered_json;
    auto only = CodexRateLimits::fromPayload(Json::parse(R"({"primary":{"used_percent":40,"window_minutes":300,
        "resets_in_seconds":600},"secondary":{"used_percent":"50"}})"), now);
    ASSERT_TRUE(only);
    ASSERT_EQ(only->windows.size(), 1u);
    EXPECT_EQ(only->windows[0].period, 18000);
    EXPECT_EQ(only->windows[0].resetsAt, now + 600s);
    EXPECT_EQ(CodexRateLimits::fromPayload(Json::parse("[]"), now), std::nullopt);
}

TEST(CodexRateLimits, RealRolloutsWithNullWindowsGiveNothingButAGoodEventAddedIsRead) {
    auto sessions = test::samplesDir() / "codex/home/.codex/sessions";
    if (!fs::exists(sessions)) GTEST_SKIP() << "the shared samples are not here; the fixture test covers the same";
    Date day = *Dates::parseIso("2026-11-22T12:00:00Z");
    EXPECT_EQ(CodexRateLimits::newest(sessions, day), std::nullopt);
    test::TempDir root;
    fs::copy(sessions, root.path(), fs::copy_options::recursive);
    fs::path newest;
    for (const auto& e : fs::recursive_directory_iterator(root.path()))
        if (e.is_regular_file() && (newest.empty() || e.last_write_time() > fs::last_write_time(newest))) newest = e.path();
    test::writeFile(newest, test::readFile(newest) + tokenCount(day, limits(33, 4, day + 3h)) +
                                tokenCount(day + 1s, kNullLimits));
    auto r = CodexRateLimits::newest(root.path(), day);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->usage.windows[0].percentUsed, 33);
}

TEST(OpenCodeGoUsage, AddsUpTheGoChargesOverRollingWindowsAgainstTheCaps) {
    test::TempDir dir;
    fs::path file = dir / "odd?name#1%.db";
    createDatabase(file);
    Date now = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
    addMessage(file, "m1", now - 1h, charge("opencode-go", "2.4", now - 1h + 30s));
    addMessage(file, "m2", now - 72h, charge("opencode-go", "5"));
    addMessage(file, "m3", now - 240h, charge("opencode-go", "10"));
    addMessage(file, "m4", now - 24h * 40, charge("opencode-go", "100"));  // past the month
    addMessage(file, "m5", now - 1h, charge("anthropic", "50"));           // another provider
    addMessage(file, "m6", now - 2h, charge("opencode-go", "\"3\""));      // a cost that is not a number
    addMessage(file, "m7", now - 2h, charge("opencode-go", ""));           // no cost: a free turn
    addMessage(file, "m8", now - 2h, charge("opencode-go", "-7"));         // not a charge

    GoUsage::Caps caps{12, 30, 60};
    auto go = OpenCodeGoUsage::read(file, caps, now);
    ASSERT_TRUE(go);
    EXPECT_DOUBLE_EQ(go->fiveHour.spent, 2.4);
    EXPECT_NEAR(go->fiveHour.percentUsed(), 20, 1e-9);
    EXPECT_EQ(go->fiveHour.resetsAt, now - 2h + 5h);  // when the free turn two hours ago leaves the window
    EXPECT_DOUBLE_EQ(go->weekly.spent, 7.4);
    EXPECT_DOUBLE_EQ(go->monthly.spent, 17.4);
    EXPECT_EQ(go->turns, 4);
    auto usage = go->planUsage();
    ASSERT_EQ(usage.windows.size(), 3u);
    EXPECT_EQ(usage.windows[2].label, "30d");
    EXPECT_EQ(usage.detail, "$17.40 in 30 days · 4 turns");
    EXPECT_TRUE(OpenCodeGoQuotaSource(file, [] { return GoUsage::Caps{2, 30, 60}; })
                    .fetch(now, std::atomic<bool>{false}).probe.usage->hasPressure());

    // Nothing without a Go charge this month, a missing database or one that is not SQLite.
    EXPECT_EQ(OpenCodeGoUsage::read(file, caps, now + 24h * 60), std::nullopt);
    EXPECT_EQ(OpenCodeGoUsage::read(dir / "missing.db", caps, now), std::nullopt);
    test::writeFile(dir / "garbage.db", std::string(10000, 'g'));
    EXPECT_EQ(OpenCodeGoUsage::read(dir / "garbage.db", caps, now), std::nullopt);
    EXPECT_EQ(OpenCodeGoUsage::readOnlyUri("/a?b#c%d"), "file:/a%3Fb%23c%25d?mode=ro");
}

TEST(OpenCodeGoUsage, ALockedDatabaseIsGivenUpQuicklyAndNeverWritten) {
    test::TempDir dir;
    fs::path file = dir / "opencode.db";
    createDatabase(file);
    Date now = std::chrono::system_clock::now();
    addMessage(file, "m1", now - 1h, charge("opencode-go", "1"));
    auto before = test::readFile(file);

    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &writer), SQLITE_OK);
    exec(writer, "PRAGMA journal_mode=DELETE; BEGIN EXCLUSIVE; INSERT INTO message VALUES ('m2','s',1,1,'{}');");
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(OpenCodeGoUsage::read(file, {}, now), std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);  // the busy time-out, not a wait for the writer
    exec(writer, "ROLLBACK");
    sqlite3_close(writer);
    EXPECT_TRUE(OpenCodeGoUsage::read(file, {}, now));
    EXPECT_EQ(test::readFile(file), before);
}

TEST(OpenCodeGoUsage, TheLedgerReadsOnlyWhatChangedAndAgreesWithAFullRead) {
    test::TempDir dir;
    fs::path file = dir / "opencode.db";
    createDatabase(file);
    Date now = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
    Date since = now - 720h;
    addMessage(file, "m1", now - 3h, charge("opencode-go", "1", now - 3h));
    addMessage(file, "m2", now - 2h, charge("anthropic", "9", now - 2h));
    OpenCodeGoUsage::ChargeLedger ledger(1);  // only the last row is read again
    auto total = [&](Date at) {
        auto list = ledger.charges(file, since, at);
        double sum = 0;
        for (const auto& c : *list) sum += c.cost;
        auto full = OpenCodeGoUsage::charges(file, since);
        double fullSum = 0;
        for (const auto& c : *full) fullSum += c.cost;
        EXPECT_DOUBLE_EQ(sum, fullSum);
        return sum;
    };
    EXPECT_EQ(total(now), 1);
    EXPECT_EQ(total(now + 1s), 1);
    EXPECT_EQ(ledger.reads(), 1);  // unchanged: not read again

    // A running message (no completion yet) then finishing with its cost.
    addMessage(file, "m3", now - 1min, charge("opencode-go", "0"));
    EXPECT_EQ(total(now + 2s), 1);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    exec(db, "UPDATE message SET data = '" + charge("opencode-go", "2.5", now) + "' WHERE id = 'm3'");
    EXPECT_EQ(total(now + 3s), 3.5);
    // A message replaced under a new rowid counts once; a deleted one not at all.
    exec(db, "DELETE FROM message WHERE id = 'm3'");
    sqlite3_close(db);
    addMessage(file, "m3", now - 1min, charge("opencode-go", "2", now));
    EXPECT_EQ(total(now + 4s), 3);
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    exec(db, "DELETE FROM message WHERE id = 'm3'");
    sqlite3_close(db);
    EXPECT_EQ(total(now + 5s), 1);
    // Another database in its place is read afresh.
    fs::remove(file);
    createDatabase(file);
    addMessage(file, "x1", now - 1h, charge("opencode-go", "4", now));
    EXPECT_EQ(total(now + 6s), 4);
    fs::remove(file);
    EXPECT_EQ(ledger.charges(file, since, now + 7s), std::nullopt);
}
