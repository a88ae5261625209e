#include "lumora/app/transcript_command.hpp"

#include <ctime>
#include <functional>
#include <ostream>
#include <system_error>

#include "lumora/platform/paths.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_reader.hpp"
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

// The fields every reader gives, in TranscriptInfo's order.
void printFacts(const scrivet::TranscriptInfo& info, std::ostream& out, const std::function<void()>& afterBackground) {
    out << "lastModified: " << isoDate(info.lastModified) << "\n";
    out << "summary: " << optional(info.summary) << "\n";
    out << "gitBranch: " << optional(info.gitBranch) << "\n";
    out << "sessionId: " << optional(info.sessionId) << "\n";
    out << "model: " << optional(info.model) << "\n";
    out << "contextTokens: " << optional(info.contextTokens) << "\n";
    out << "contextMax: " << optional(info.contextMax) << "\n";
    out << "contextMaxEstimated: " << flag(info.contextMaxEstimated) << "\n";
    out << "inProgress: " << flag(info.inProgress) << "\n";
    out << "pendingApproval: "
        << (info.pendingApproval ? std::string(scrivet::kindName(*info.pendingApproval)) + " (" +
                                        std::to_string(scrivet::delaySeconds(*info.pendingApproval)) + " s)"
                                  : "-")
        << "\n";
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
    printFacts(session->info, out, {});
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
    printFacts(*info, out, [&] {
        for (const auto& id : CTR::outstandingBackgroundTasks(file).pending) out << "pendingBackgroundTask: " << id << "\n";
    });
    return 0;
}

}  // namespace lumora::TranscriptCommand
