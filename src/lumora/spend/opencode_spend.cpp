#include "lumora/spend/opencode_spend.hpp"

#include <sqlite3.h>

#include <cmath>
#include <cstdlib>
#include <memory>

#include "lumora/platform/paths.hpp"
#include "lumora/spend/journal_usage.hpp"

namespace lumora::OpenCodeSpend {

namespace {

int64_t count(sqlite3_stmt* st, int column) {
    if (sqlite3_column_type(st, column) != SQLITE_INTEGER && sqlite3_column_type(st, column) != SQLITE_FLOAT) return 0;
    double v = sqlite3_column_double(st, column);
    if (!std::isfinite(v) || v < 0 || v > 1e11) return 0;
    return static_cast<int64_t>(v);
}

std::string text(sqlite3_stmt* st, int column) {
    const unsigned char* t = sqlite3_column_text(st, column);
    return t ? std::string(reinterpret_cast<const char*>(t)) : std::string();
}

}  // namespace

std::filesystem::path databaseFile() {
    if (const char* p = std::getenv("LUMORA_OPENCODE_DB"); p && *p) return p;
    return Paths::openCodeData() / "opencode.db";
}

std::optional<std::vector<SpendEvent>> read(const std::filesystem::path& database, Date since, ModelPricing& pricing) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(database, ec)) return std::nullopt;
    sqlite3* raw = nullptr;
    std::string uri = "file:" + database.string() + "?mode=ro";
    if (sqlite3_open_v2(uri.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr) != SQLITE_OK) {
        sqlite3_close(raw);
        return std::nullopt;
    }
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(raw, sqlite3_close);
    sqlite3_busy_timeout(db.get(), 500);
    const char* sql =
        "SELECT id, time_created, json_extract(data, '$.modelID'), json_extract(data, '$.providerID'), "
        "json_extract(data, '$.cost'), json_extract(data, '$.tokens.input'), json_extract(data, '$.tokens.output'), "
        "json_extract(data, '$.tokens.cache.read'), json_extract(data, '$.tokens.cache.write') "
        "FROM message WHERE time_created >= ? AND json_valid(data) AND json_extract(data, '$.role') = 'assistant'";
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db.get(), sql, -1, &stmt, nullptr) != SQLITE_OK) return std::nullopt;
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> st(stmt, sqlite3_finalize);
    auto sinceMs = std::chrono::duration_cast<std::chrono::milliseconds>(since.time_since_epoch()).count();
    sqlite3_bind_int64(stmt, 1, sinceMs);

    std::vector<SpendEvent> events;
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        UsageCounts c;
        c.input = count(stmt, 5);
        c.output = count(stmt, 6);
        c.cacheRead = count(stmt, 7);
        c.cacheWrite5m = count(stmt, 8);
        if (c.total() == 0) continue;
        std::string model = text(stmt, 2);
        std::string provider = text(stmt, 3);
        Date date{std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(sqlite3_column_int64(stmt, 1)))};
        double ownCost = sqlite3_column_type(stmt, 4) == SQLITE_NULL ? 0 : sqlite3_column_double(stmt, 4);
        std::string qualified = provider.empty() || model.empty() ? model : provider + "/" + model;
        SpendEvent e = JournalUsage::makeEvent("opencode:" + text(stmt, 0), date, c, qualified, pricing);
        if (std::isfinite(ownCost) && ownCost > 0 && ownCost < 1e6) {
            e.cost = ownCost;
            e.unpricedModel.reset();
        }
        events.push_back(std::move(e));
    }
    if (rc != SQLITE_DONE) return std::nullopt;
    return events;
}

}  // namespace lumora::OpenCodeSpend
