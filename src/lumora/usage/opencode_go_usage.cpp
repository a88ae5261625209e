#include "lumora/usage/opencode_go_usage.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "lumora/platform/file_stamp.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora {

namespace {

double secondsBetween(Date a, Date b) { return std::chrono::duration<double>(b - a).count(); }

Date fromMillis(double ms) {
    return Date(std::chrono::milliseconds(std::llround(ms)));
}

double toMillis(Date d) { return std::chrono::duration<double, std::milli>(d.time_since_epoch()).count(); }

GoUsage::Window window(const std::vector<GoCharge>& charges, double cap, double period, Date now) {
    GoUsage::Window w;
    w.cap = cap;
    w.period = period;
    std::optional<Date> oldest;
    for (const auto& c : charges) {
        double age = secondsBetween(c.at, now);
        if (age < 0 || age >= period) continue;
        w.spent += c.cost;
        if (!oldest || c.at < *oldest) oldest = c.at;
    }
    if (oldest) w.resetsAt = *oldest + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(period));
    return w;
}

PlanUsage::Window planWindow(const GoUsage::Window& w) {
    PlanUsage::Window out;
    out.percentUsed = w.percentUsed();
    out.period = w.period;
    out.resetsAt = w.resetsAt;
    auto label = PlanUsage::windowLabel(w.period);
    out.label = label ? label->label : "";
    out.name = label ? label->name : "";
    return out;
}

struct DbCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};

}  // namespace

double GoUsage::Window::percentUsed() const {
    if (!(cap > 0) || !std::isfinite(spent)) return 0;
    return spent / cap * 100.0;
}

std::optional<GoUsage> GoUsage::from(const std::vector<GoCharge>& charges, const Caps& caps, Date now) {
    GoUsage u;
    u.monthly = window(charges, caps.monthly, OpenCodeGoUsage::kMonth, now);
    u.weekly = window(charges, caps.weekly, kOneWeek, now);
    u.fiveHour = window(charges, caps.fiveHour, kFiveHours, now);
    for (const auto& c : charges) {
        double age = secondsBetween(c.at, now);
        if (age >= 0 && age < OpenCodeGoUsage::kMonth) ++u.turns;
    }
    if (u.turns == 0) return std::nullopt;
    return u;
}

PlanUsage GoUsage::planUsage() const {
    PlanUsage p;
    p.windows = {planWindow(fiveHour), planWindow(weekly), planWindow(monthly)};
    char buf[96];
    std::snprintf(buf, sizeof buf, "$%.2f in 30 days · %d turn%s", monthly.spent, turns, turns == 1 ? "" : "s");
    p.detail = buf;
    return p;
}

namespace OpenCodeGoUsage {

std::string readOnlyUri(const fs::path& database) {
    // '?', '#' and '%' mean something in a URI: escape them (and nothing else).
    std::string out = "file:";
    for (char c : database.string()) {
        if (c == '?' || c == '#' || c == '%') {
            char buf[4];
            std::snprintf(buf, sizeof buf, "%%%02X", static_cast<unsigned char>(c));
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "?mode=ro";
}

namespace {

// One Go message as the ledger keeps it.
struct Row {
    std::string id;
    sqlite3_int64 rowid = 0;
    GoCharge charge;
    bool complete = false;
};

struct Query {
    std::vector<Row> rows;
    sqlite3_int64 maxRowid = 0;
};

// The Go charges created since `since` among the rows from `fromRowid` on
// (rowids grow as OpenCode inserts, so a later read need only look at the
// table's tail), and the table's highest rowid.
std::optional<Query> query(const fs::path& database, Date since, sqlite3_int64 fromRowid, std::string_view providerID) {
    std::error_code ec;
    if (!fs::is_regular_file(database, ec)) return std::nullopt;
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(readOnlyUri(database).c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    std::unique_ptr<sqlite3, DbCloser> db(raw);
    if (rc != SQLITE_OK) return std::nullopt;
    sqlite3_busy_timeout(db.get(), 250);
    // The substring test spares the JSON parse of every other provider's messages.
    static constexpr const char* kQuery =
        "SELECT COALESCE(json_extract(data, '$.time.completed'), time_created), "
        "COALESCE(json_extract(data, '$.cost'), 0), id, rowid, json_extract(data, '$.time.completed') IS NOT NULL "
        "FROM message WHERE rowid >= ?3 AND time_created >= ?1 AND instr(data, ?2) > 0 "
        "AND json_extract(data, '$.providerID') = ?2";
    auto prepare = [&](const char* sql) -> std::unique_ptr<sqlite3_stmt, StatementFinalizer> {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db.get(), sql, -1, &s, nullptr) != SQLITE_OK) return nullptr;
        return std::unique_ptr<sqlite3_stmt, StatementFinalizer>(s);
    };
    auto statement = prepare(kQuery);
    auto highest = prepare("SELECT max(rowid) FROM message");
    if (!statement || !highest) return std::nullopt;
    Query out;
    if (sqlite3_step(highest.get()) != SQLITE_ROW) return std::nullopt;
    out.maxRowid = sqlite3_column_int64(highest.get(), 0);
    sqlite3_bind_int64(statement.get(), 1, static_cast<sqlite3_int64>(toMillis(since)));
    sqlite3_bind_text(statement.get(), 2, providerID.data(), static_cast<int>(providerID.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(statement.get(), 3, fromRowid);
    while (true) {
        rc = sqlite3_step(statement.get());
        if (rc == SQLITE_DONE) break;
        if (rc != SQLITE_ROW) return std::nullopt;
        int atType = sqlite3_column_type(statement.get(), 0);
        int costType = sqlite3_column_type(statement.get(), 1);
        // A time or a cost that is not a number is not a charge we can count.
        if ((atType != SQLITE_INTEGER && atType != SQLITE_FLOAT) || (costType != SQLITE_INTEGER && costType != SQLITE_FLOAT))
            continue;
        double at = sqlite3_column_double(statement.get(), 0);
        double cost = sqlite3_column_double(statement.get(), 1);
        if (!std::isfinite(at) || !std::isfinite(cost) || cost < 0 || cost > 1e6 || at < 0 || at > 1e14) continue;
        Row row;
        if (auto id = sqlite3_column_text(statement.get(), 2)) row.id = reinterpret_cast<const char*>(id);
        row.rowid = sqlite3_column_int64(statement.get(), 3);
        row.complete = sqlite3_column_int(statement.get(), 4) != 0;
        row.charge = {fromMillis(at), cost};
        out.rows.push_back(std::move(row));
    }
    return out;
}

}  // namespace

std::optional<std::vector<GoCharge>> charges(const fs::path& database, Date since, std::string_view providerID) {
    auto q = query(database, since, 0, providerID);
    if (!q) return std::nullopt;
    std::vector<GoCharge> out;
    for (const auto& r : q->rows) out.push_back(r.charge);
    return out;
}

std::optional<std::vector<GoCharge>> ChargeLedger::charges(const fs::path& database, Date since, Date now) {
    // The database and its write-ahead log as they stand: unchanged, nothing to read.
    auto stamp = FileStamp::of(database);
    auto wal = FileStamp::of(fs::path(database.string() + "-wal"));
    if (!stamp) {
        *this = ChargeLedger(tailRows_);
        return std::nullopt;
    }
    bool unchanged = database_ == database && stamp_ == stamp && walStamp_ == wal && since >= since_;
    bool replaced = database_ != database || !stamp_ || stamp_->inode != stamp->inode || stamp_->device != stamp->device;
    bool due = now - lastFullRead_ >= kFullReadEvery || now < lastFullRead_;
    if (!unchanged) {
        // Read the last rows again (a message rewritten in place of the last
        // one keeps its rowid), and from the oldest message that may still
        // change (one not yet completed, created within the hour).
        sqlite3_int64 from = std::max<sqlite3_int64>(0, maxRowid_ - tailRows_ + 1);
        for (const auto& [id, row] : rows_) {
            if (!row.complete && now - row.charge.at < std::chrono::hours(1)) from = std::min<sqlite3_int64>(from, row.rowid);
        }
        bool full = replaced || due || since < since_;
        auto q = query(database, since, full ? 0 : from, kProviderID);
        if (!q) return std::nullopt;
        if (full || q->maxRowid < maxRowid_) {
            if (!full) q = query(database, since, 0, kProviderID);  // rows went away: start over
            if (!q) return std::nullopt;
            rows_.clear();
            lastFullRead_ = now;
        } else {
            // What was read again is replaced: a row that went from the tail is gone.
            std::erase_if(rows_, [&](const auto& e) { return e.second.rowid >= from; });
        }
        for (const auto& r : q->rows) rows_[r.id] = Entry{r.rowid, r.charge, r.complete};
        maxRowid_ = q->maxRowid;
        database_ = database;
        stamp_ = stamp;
        walStamp_ = wal;
        since_ = since;
        ++reads_;
    }
    std::vector<GoCharge> out;
    for (auto it = rows_.begin(); it != rows_.end();) {
        // Charges older than the window are forgotten.
        if (it->second.charge.at < since - std::chrono::hours(24)) {
            it = rows_.erase(it);
            continue;
        }
        out.push_back(it->second.charge);
        ++it;
    }
    return out;
}

std::optional<GoUsage> read(const fs::path& database, const GoUsage::Caps& caps, Date now, ChargeLedger* ledger) {
    auto since = now - std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(kMonth));
    auto list = ledger ? ledger->charges(database, since, now) : charges(database, since);
    if (!list) return std::nullopt;
    return GoUsage::from(*list, caps, now);
}

fs::path databasePath() {
    if (const char* p = std::getenv("LUMORA_OPENCODE_DB"); p && *p) return fs::path(p);
    return Paths::openCodeData() / "opencode.db";
}

}  // namespace OpenCodeGoUsage

}  // namespace lumora
