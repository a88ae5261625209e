#include "lumora/app/transcript_command.hpp"

#include <cstdio>
#include <ctime>
#include <functional>
#include <ostream>
#include <system_error>

#include "lumora/platform/paths.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/codex_transcript_reader.hpp"
#include "scrivet/cursor_transcript_reader.hpp"
#include "scrivet/kimi_transcript_reader.hpp"

namespace lumora::TranscriptCommand {

namespace {

namespace fs = std::filesystem;
namespace CTR = scrivet::ClaudeTranscriptReader;

std::string isoDate(scrivet::Date date) {
    auto secs = std::chrono::system_clock::to_time_t(date);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count() % 1000;
    if (ms < 0) ms += 1000;
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char buf[40];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    char out[48];
    std::snprintf(out, sizeof out, "%s.%03lldZ", buf, static_cast<long long>(ms));
    return out;
}

template <typename T>
std::string optional(const std::optional<T>& value) {
    if (!value) return "-";
    if constexpr (std::is_same_v<T, std::string>) return *value;
    else return std::to_string(*value);
}

const char* flag(bool b) { return b ? "true" : "false"; }

using DelayOf = int (*)(scrivet::PendingApproval);

std::string pendingText(const std::optional<scrivet::PendingApproval>& pending, DelayOf delay) {
    if (!pending) return "-";
    return std::string(scrivet::kindName(*pending)) + " (" + std::to_string(delay(*pending)) + " s)";
}

// The fields every agent's facts share, under the same names for each. A
// pending call shows the grace delay its agent's status rule gives it;
// `afterBackground` adds lines after the background agents.
void printInfo(const scrivet::TranscriptInfo& info, std::ostream& out, DelayOf delay = scrivet::delaySeconds,
               const std::function<void()>& afterBackground = {}) {
    out << "lastModified: " << isoDate(info.lastModified) << "\n";
    out << "summary: " << optional(info.summary) << "\n";
    out << "gitBranch: " << optional(info.gitBranch) << "\n";
    out << "sessionId: " << optional(info.sessionId) << "\n";
    out << "model: " << optional(info.model) << "\n";
    out << "contextTokens: " << optional(info.contextTokens) << "\n";
    out << "contextMax: " << optional(info.contextMax) << "\n";
    out << "contextMaxEstimated: " << flag(info.contextMaxEstimated) << "\n";
    out << "inProgress: " << flag(info.inProgress) << "\n";
    out << "pendingApproval: " << pendingText(info.pendingApproval, delay) << "\n";
    out << "endsWithQuestion: " << flag(info.endsWithQuestion) << "\n";
    out << "awaitingFirstReply: " << flag(info.awaitingFirstReply) << "\n";
    for (const auto& line : info.recentActivity)
        out << "recentActivity: " << scrivet::kindName(line.kind) << " " << line.text << "\n";
    out << "subagentCount: " << info.subagentCount << "\n";
    for (const auto& s : info.subagents) {
        out << "subagent: " << s.id << " | " << s.type << " | " << s.task << " | model " << optional(s.model)
            << " | action " << optional(s.action) << " | tokens " << optional(s.tokens)
            << (s.isRunning ? " | running" : "") << "\n";
    }
    out << "hasRealTurn: " << flag(info.hasRealTurn) << "\n";
    out << "pendingBackgroundAgents: " << info.pendingBackgroundAgents << "\n";
    if (afterBackground) afterBackground();
    out << "recentSubagentActivity: " << flag(info.recentSubagentActivity) << "\n";
    out << "created: " << isoDate(info.created) << "\n";
    out << "lastEntryDate: " << isoDate(info.lastEntryDate) << "\n";
    out << "topic: " << optional(info.topic) << "\n";
}

std::string periodText(std::chrono::seconds period) {
    auto minutes = period.count() / 60;
    if (minutes % (60 * 24) == 0) return std::to_string(minutes / (60 * 24)) + " d";
    if (minutes % 60 == 0) return std::to_string(minutes / 60) + " h";
    return std::to_string(minutes) + " min";
}

int printCodex(const fs::path& file, std::ostream& out, std::ostream& err) {
    namespace Codex = scrivet::CodexTranscriptReader;
    auto session = Codex::session(file);
    if (!session) {
        err << "lumora: --transcript: no rollout entries could be read from " << file.string() << "\n";
        return 1;
    }
    static constexpr const char* kHostKinds[] = {"cli", "desktop", "unknown"};
    out << "file: " << file.string() << "\n";
    out << "agent: codex\n";
    out << "cwd: " << session->cwd << "\n";
    out << "originator: " << optional(session->originator) << "\n";
    out << "hostKind: " << kHostKinds[static_cast<int>(session->hostKind())] << "\n";
    out << "threadSource: " << optional(session->threadSource) << "\n";
    out << "parentThreadId: " << optional(session->parentThreadId) << "\n";
    out << "agentName: " << optional(session->agentName) << "\n";
    printInfo(session->info, out);
    out << "prompt: " << optional(session->prompt) << "\n";
    out << "totalUsageTokens: " << optional(session->totalUsageTokens) << "\n";
    if (!session->rateLimits) {
        out << "rateLimits: -\n";
    } else {
        for (const auto& w : session->rateLimits->windows) {
            char percent[32];
            std::snprintf(percent, sizeof percent, "%.1f%%", w.percentUsed);
            out << "rateLimit: " << percent << " used, period " << (w.period ? periodText(*w.period) : "-")
                << ", resets " << (w.resetsAt ? isoDate(*w.resetsAt) : "-") << "\n";
        }
    }
    return 0;
}

int printCursor(const fs::path& file, std::ostream& out, std::ostream& err) {
    namespace Cursor = scrivet::CursorTranscriptReader;
    // <projects>/<encoded cwd>/agent-transcripts/[<id>/]<id>.jsonl
    fs::path folder = file.parent_path();
    while (!folder.empty() && folder.filename() != "agent-transcripts" && folder != folder.root_path())
        folder = folder.parent_path();
    folder = folder.parent_path();
    auto cwd = folder.empty() ? std::nullopt : Cursor::projectCwd(folder, {file});
    auto session = Cursor::session(file, cwd.value_or(file.parent_path().string()), std::chrono::system_clock::now());
    if (!session) {
        err << "lumora: --transcript: no transcript entries could be read from " << file.string() << "\n";
        return 1;
    }
    out << "file: " << file.string() << "\n";
    out << "agent: cursor\n";
    out << "cwd: " << (cwd ? *cwd : "-") << "\n";
    printInfo(session->info, out, Cursor::confirmationDelaySeconds);
    out << "prompt: " << optional(session->prompt) << "\n";
    out << "pendingCommand: " << optional(session->pendingCommand) << "\n";
    return 0;
}

bool isKimiWire(const fs::path& file) { return file.filename() == "wire.jsonl"; }

int runKimi(const fs::path& file, std::ostream& out, std::ostream& err) {
    namespace Kimi = scrivet::KimiTranscriptReader;
    // state.json beside the journal, else in the session folder (<session>/agents/<agent>/wire.jsonl).
    std::optional<fs::path> state;
    for (auto candidate : {file.parent_path() / "state.json", file.parent_path().parent_path().parent_path() / "state.json"}) {
        std::error_code ec;
        if (fs::is_regular_file(candidate, ec)) {
            state = candidate;
            break;
        }
    }
    auto session = Kimi::parseWire(file, state, std::chrono::system_clock::now(), Paths::kimiHome() / "config.toml");
    if (!session) {
        err << "lumora: --transcript: no journal entries could be read from " << file.string() << "\n";
        return 1;
    }
    out << "file: " << file.string() << "\n";
    out << "state: " << (state ? state->string() : std::string("-")) << "\n";
    out << "cwd: " << (session->cwd.empty() ? std::string("-") : session->cwd) << "\n";
    printInfo(session->info, out);
    if (session->question) {
        out << "question: " << session->question->text << "\n";
        out << "questionOptions: " << session->question->optionsLine() << "\n";
    }
    return 0;
}

}  // namespace

int run(const fs::path& file, std::ostream& out, std::ostream& err) {
    std::error_code ec;
    if (!fs::is_regular_file(file, ec)) {
        err << "lumora: --transcript: no such journal: " << file.string() << "\n";
        return 1;
    }
    if (scrivet::CodexTranscriptReader::isRollout(file)) return printCodex(file, out, err);
    if (scrivet::CursorTranscriptReader::isTranscript(file)) return printCursor(file, out, err);
    if (isKimiWire(file)) return runKimi(file, out, err);
    auto cwd = CTR::recordedCwd(file).value_or(file.parent_path().string());
    CTR::ReadOptions options{std::chrono::system_clock::now(), Paths::claudeTempFolder()};
    auto info = CTR::info(file, cwd, Paths::claudeConfigFile(), options);
    if (!info) {
        err << "lumora: --transcript: no journal entries could be read from " << file.string() << "\n";
        return 1;
    }
    out << "file: " << file.string() << "\n";
    out << "cwd: " << cwd << "\n";
    printInfo(*info, out, scrivet::delaySeconds, [&] {
        for (const auto& id : CTR::outstandingBackgroundTasks(file).pending) out << "pendingBackgroundTask: " << id << "\n";
    });
    return 0;
}

}  // namespace lumora::TranscriptCommand
