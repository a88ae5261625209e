#include "lumora/hooks/cursor_waiting.hpp"

#include "lumora/platform/file_stamp.hpp"

#include "lumora/base/dates.hpp"

namespace lumora::CursorHooks {

namespace {

constexpr double kShellThreshold = 8.0;
constexpr double kOtherThreshold = 3.0;
constexpr double kTranscriptSlack = 0.75;

// The file's modification time in seconds since 1970, if it can be read.
std::optional<double> modifiedAt(const std::string& path) {
    if (path.empty()) return std::nullopt;
    auto stamp = FileStamp::of(path);
    if (!stamp) return std::nullopt;
    return static_cast<double>(stamp->mtimeNanos) / 1e9;
}

}  // namespace

bool isWaiting(const CursorPending& pending, std::chrono::system_clock::time_point now,
               const ShellAppearsRunning& shellAppearsRunning) {
    if (pending.kind == "mcp") return false;
    bool shell = pending.kind == "shell";
    double age = Dates::toSeconds(now) - pending.ts;
    if (age < (shell ? kShellThreshold : kOtherThreshold)) return false;
    // A transcript written after the note means the agent moved on.
    if (auto written = modifiedAt(pending.transcriptPath); written && *written > pending.ts + kTranscriptSlack)
        return false;
    if (shell && shellAppearsRunning && shellAppearsRunning(pending)) return false;
    return true;
}

std::string waitingSummary(const CursorPending& pending) {
    if (pending.toolName.empty()) return "Cursor needs your approval";
    return "Wants to use " + pending.toolName;
}

}  // namespace lumora::CursorHooks
