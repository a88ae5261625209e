#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/platform/file_stamp.hpp"
#include "lumora/usage/plan_usage.hpp"

namespace lumora {

// One charge of OpenCode's paid "Go" plan: an assistant message's cost.
struct GoCharge {
    Date at{};
    double cost = 0;  // dollars
    bool operator==(const GoCharge&) const = default;
};

// OpenCode Go's meter. The plan has no usage endpoint, so its charges are
// added up from OpenCode's own database on this machine, over rolling
// windows of five hours, a week and 30 days, each against its cap.
struct GoUsage {
    struct Window {
        double spent = 0;   // dollars within the window
        double cap = 0;     // dollars the plan allows
        double period = 0;  // seconds
        std::optional<Date> resetsAt;  // when the window's oldest charge leaves it
        double percentUsed() const;
        bool operator==(const Window&) const = default;
    };

    // The caps, in dollars (settings; these are the plan's published limits).
    struct Caps {
        double fiveHour = 12;
        double weekly = 30;
        double monthly = 60;
        bool operator==(const Caps&) const = default;
    };

    Window fiveHour, weekly, monthly;
    int turns = 0;  // charges within the 30 days

    // The meter at `now` from the charges (any order); nothing without a
    // charge in the last 30 days.
    static std::optional<GoUsage> from(const std::vector<GoCharge>& charges, const Caps& caps, Date now);
    // As the strip draws it: "5h", "7d" and "30d" windows and the month's spend.
    PlanUsage planUsage() const;
    bool operator==(const GoUsage&) const = default;
};

// Reading the Go plan's charges from OpenCode's database, read-only
// (a "mode=ro" URI, prepared statements, a 250 ms busy time-out; closed after
// every read).
namespace OpenCodeGoUsage {

namespace fs = std::filesystem;

// The provider id OpenCode records on messages billed to the Go plan.
inline constexpr std::string_view kProviderID = "opencode-go";
inline constexpr double kMonth = 30 * 86400.0;

// The charges since `since`; nothing when the database is missing or cannot be read.
std::optional<std::vector<GoCharge>> charges(const fs::path& database, Date since,
                                             std::string_view providerID = kProviderID);

// The same charges, kept between reads so that a poll costs little on a big
// database: nothing is read while the database and its log are unchanged,
// and a changed one is read from the table's tail only (new messages, the
// last rows, and those still running). Everything is read again every 15 minutes, and when
// the file was replaced or rows went away. One caller at a time.
class ChargeLedger {
public:
    // `tailRows`: how many of the last rows every read looks at again.
    explicit ChargeLedger(long long tailRows = 256) : tailRows_(tailRows) {}
    std::optional<std::vector<GoCharge>> charges(const fs::path& database, Date since, Date now);
    // How many times the database was queried (tests and benchmarks).
    long long reads() const { return reads_; }

    static constexpr std::chrono::minutes kFullReadEvery{15};

private:
    struct Entry {
        long long rowid = 0;
        GoCharge charge;
        bool complete = false;
    };
    long long tailRows_;
    fs::path database_;
    std::optional<FileStamp> stamp_, walStamp_;
    std::map<std::string, Entry> rows_;  // by message id
    long long maxRowid_ = 0;
    Date since_{};
    Date lastFullRead_{};
    long long reads_ = 0;
};
// The meter at `now` (through `ledger` when given).
std::optional<GoUsage> read(const fs::path& database, const GoUsage::Caps& caps, Date now, ChargeLedger* ledger = nullptr);
// $LUMORA_OPENCODE_DB, else ~/.local/share/opencode/opencode.db.
fs::path databasePath();
// The read-only URI SQLite opens the database with.
std::string readOnlyUri(const fs::path& database);

}  // namespace OpenCodeGoUsage

}  // namespace lumora
