#include "scrivet/read_only_database.hpp"

#include <sqlite3.h>

#include "scrivet/regular_file.hpp"

namespace scrivet {

namespace {

constexpr int kBusyTimeoutMs = 100;
constexpr std::string_view kMagic{"SQLite format 3\0", 16};

bool isUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~' || c == '/';
}

}  // namespace

std::string ReadOnlyDatabase::uri(const std::filesystem::path& file, bool immutable) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out = "file:";
    for (unsigned char c : file.string()) {
        if (isUnreserved(c)) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    out += "?mode=ro";
    if (immutable) out += "&immutable=1";
    return out;
}

ReadOnlyDatabase::ReadOnlyDatabase(const std::filesystem::path& file) {
    // Look before SQLite does: it would wait on a FIFO and read anything.
    auto head = RegularFile::head(file, 100);
    if (!head.text) {
        error_ = Error{false, head.missing ? "no database file" : head.why};
        return;
    }
    if (head.text->empty()) {
        error_ = Error{false, "empty database file"};
        return;
    }
    if (head.text->size() < 100 || std::string_view(*head.text).substr(0, kMagic.size()) != kMagic) {
        error_ = Error{false, "not an SQLite database"};
        return;
    }
    // Bytes 18 and 19 are 2 in WAL mode. Without its writer's -wal and -shm
    // files, a read-only open would make both; an immutable open makes none
    // and sees everything, since no WAL holds uncheckpointed pages.
    bool wal = (*head.text)[18] == 2 && (*head.text)[19] == 2;
    auto sibling = [&](const char* suffix) { return RegularFile::isRegular(file.string() + suffix); };
    bool immutable = wal && !(sibling("-wal") && sibling("-shm"));
    int rc = sqlite3_open_v2(uri(file, immutable).c_str(), &db_,
                             SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        fail(rc, db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
        return;
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
}

ReadOnlyDatabase::~ReadOnlyDatabase() {
    if (db_) sqlite3_close_v2(db_);
}

void ReadOnlyDatabase::fail(int code, std::string why) {
    if (error_) return;
    int primary = code & 0xff;
    error_ = Error{primary == SQLITE_BUSY || primary == SQLITE_LOCKED, std::move(why)};
}

ReadOnlyDatabase::Statement ReadOnlyDatabase::prepare(std::string_view sql) {
    sqlite3_stmt* stmt = nullptr;
    if (ok() && db_) {
        int rc = sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()), 0, &stmt, nullptr);
        if (rc != SQLITE_OK) {
            fail(rc, sqlite3_errmsg(db_));
            if (stmt) sqlite3_finalize(stmt);
            stmt = nullptr;
        }
    }
    return Statement(this, stmt);
}

ReadOnlyDatabase::Statement::Statement(Statement&& other) noexcept : db_(other.db_), stmt_(other.stmt_) {
    other.stmt_ = nullptr;
}

ReadOnlyDatabase::Statement::~Statement() {
    if (stmt_) sqlite3_finalize(stmt_);
}

ReadOnlyDatabase::Statement& ReadOnlyDatabase::Statement::reset() {
    if (stmt_) {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    return *this;
}

ReadOnlyDatabase::Statement& ReadOnlyDatabase::Statement::bind(int index, int64_t value) {
    if (stmt_) {
        int rc = sqlite3_bind_int64(stmt_, index, value);
        if (rc != SQLITE_OK) db_->fail(rc, sqlite3_errstr(rc));
    }
    return *this;
}

ReadOnlyDatabase::Statement& ReadOnlyDatabase::Statement::bind(int index, std::string_view value) {
    if (stmt_) {
        int rc = sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        if (rc != SQLITE_OK) db_->fail(rc, sqlite3_errstr(rc));
    }
    return *this;
}

bool ReadOnlyDatabase::Statement::step() {
    if (!stmt_ || !db_->ok()) return false;
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) db_->fail(rc, sqlite3_errmsg(db_->db_));
    // Ends the statement's read at once rather than when it is finalized.
    sqlite3_reset(stmt_);
    return false;
}

bool ReadOnlyDatabase::Statement::isNull(int column) const {
    return !stmt_ || sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

int64_t ReadOnlyDatabase::Statement::integer(int column) const {
    return stmt_ ? sqlite3_column_int64(stmt_, column) : 0;
}

double ReadOnlyDatabase::Statement::real(int column) const { return stmt_ ? sqlite3_column_double(stmt_, column) : 0; }

std::string_view ReadOnlyDatabase::Statement::text(int column) const {
    if (!stmt_) return {};
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    int n = sqlite3_column_bytes(stmt_, column);
    return p ? std::string_view(p, static_cast<size_t>(n)) : std::string_view{};
}

}  // namespace scrivet
