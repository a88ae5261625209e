#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

// A short read-only look at an SQLite database that another program owns and
// writes while we read. Opened through a read-only URI, every statement
// prepared with bound parameters, a busy wait of at most 100 ms, and closed
// when the object goes: no transaction outlives one read, nothing is written
// and no file is created beside the database.
//
// A database in WAL mode whose "-wal" and "-shm" files are absent (its writer
// is not running) is opened as immutable: a plain read-only open would create
// both files and leave them behind.
namespace scrivet {

class ReadOnlyDatabase {
public:
    struct Error {
        bool busy = false;  // locked by its writer: worth trying again next time
        std::string why;
        bool operator==(const Error&) const = default;
    };

    // One prepared statement; steps through its rows.
    class Statement {
    public:
        Statement(Statement&& other) noexcept;
        Statement& operator=(Statement&&) = delete;
        ~Statement();

        // Makes the statement ready to run again with new parameters.
        Statement& reset();
        Statement& bind(int index, int64_t value);
        Statement& bind(int index, std::string_view value);
        // Advances to the next row; false at the end or on an error (which
        // the database then reports).
        bool step();

        bool isNull(int column) const;
        int64_t integer(int column) const;
        double real(int column) const;
        std::string_view text(int column) const;  // valid until the next step

    private:
        friend class ReadOnlyDatabase;
        Statement(ReadOnlyDatabase* db, sqlite3_stmt* stmt) : db_(db), stmt_(stmt) {}
        ReadOnlyDatabase* db_;
        sqlite3_stmt* stmt_;
    };

    explicit ReadOnlyDatabase(const std::filesystem::path& file);
    ~ReadOnlyDatabase();
    ReadOnlyDatabase(const ReadOnlyDatabase&) = delete;
    ReadOnlyDatabase& operator=(const ReadOnlyDatabase&) = delete;

    // The first failure of the open or of any statement since; none while
    // everything worked. Once failed, statements return no rows.
    const std::optional<Error>& error() const { return error_; }
    bool ok() const { return !error_; }

    Statement prepare(std::string_view sql);

    // The read-only URI for a path ("file:/a%20b/x.db?mode=ro").
    static std::string uri(const std::filesystem::path& file, bool immutable);

private:
    void fail(int code, std::string why);

    sqlite3* db_ = nullptr;
    std::optional<Error> error_;
};

}  // namespace scrivet
