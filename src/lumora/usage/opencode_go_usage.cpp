#include "lumora/usage/opencode_go_usage.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

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

std::optional<std::vector<GoCharge>> charges(const fs::path& database, Date since, std::string_view providerID) {
    std::error_code ec;
    if (!fs::is_regular_file(database, ec)) return std::nullopt;
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(readOnlyUri(database).c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    std::unique_ptr<sqlite3, DbCloser> db(raw);
    if (rc != SQLITE_OK) return std::nullopt;
    sqlite3_busy_timeout(db.get(), 250);
    static constexpr const char* kQuery =
        "SELECT COALESCE(json_extract(data, '$.time.completed'), time_created), "
        "COALESCE(json_extract(data, '$.cost'), 0) FROM message "
        "WHERE time_created >= ? AND json_extract(data, '$.providerID') = ?";
    sqlite3_stmt* rawStatement = nullptr;
    if (sqlite3_prepare_v2(db.get(), kQuery, -1, &rawStatement, nullptr) != SQLITE_OK) return std::nullopt;
    std::unique_ptr<sqlite3_stmt, StatementFinalizer> statement(rawStatement);
    sqlite3_bind_int64(statement.get(), 1, static_cast<sqlite3_int64>(toMillis(since)));
    sqlite3_bind_text(statement.get(), 2, providerID.data(), static_cast<int>(providerID.size()), SQLITE_TRANSIENT);
    std::vector<GoCharge> out;
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
        out.push_back({fromMillis(at), cost});
    }
    return out;
}

std::optional<GoUsage> read(const fs::path& database, const GoUsage::Caps& caps, Date now) {
    auto since = now - std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(kMonth));
    auto list = charges(database, since);
    if (!list) return std::nullopt;
    return GoUsage::from(*list, caps, now);
}

fs::path databasePath() {
    if (const char* p = std::getenv("LUMORA_OPENCODE_DB"); p && *p) return fs::path(p);
    return Paths::openCodeData() / "opencode.db";
}

}  // namespace OpenCodeGoUsage

}  // namespace lumora
