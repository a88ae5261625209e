#include "scrivet/claude_transcript_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <mutex>

#include "scrivet/claude_config.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/file_stamp.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/session_topic.hpp"
#include "scrivet/tail_reader.hpp"

namespace scrivet::ClaudeTranscriptReader {

namespace {

// Enough lines for many turns; the window (at most 4 MiB) bounds the bytes.
constexpr size_t kTailLines = 1000;
constexpr size_t kActivityLines = 8;
constexpr size_t kMaxNotedTags = 512;
constexpr long long kOneMillion = 1'000'000;
constexpr long long kTwoHundredK = 200'000;

// The entries a reader derives anything from. Bookkeeping entries (prompt
// snapshots, request blobs, cost records…) are often the largest lines of a
// journal and are not kept.
bool keepType(std::string_view type) {
    return type == "user" || type == "assistant" || type == "system" || type == "ai-title" ||
           type == "last-prompt" || type == "mode" || type == "permission-mode" || type == "custom-title" ||
           type == "summary";
}

fs::path defaultClaudeTempFolder() {
    std::error_code ec;
    auto temp = fs::temp_directory_path(ec);
    if (ec) temp = "/tmp";
    return temp / ("claude-" + std::to_string(::getuid()));
}

bool withinWindow(std::optional<Date> when, Date now, std::chrono::seconds window) {
    return when && now - *when <= window;
}

struct UnknownShapes {
    std::mutex lock;
    std::optional<fs::path> directory;
    std::set<std::string> logged;
};

UnknownShapes& unknownShapes() {
    static UnknownShapes shapes;
    return shapes;
}

}  // namespace

std::string encodedDirName(const std::string& cwd) {
    std::string out = cwd;
    std::replace(out.begin(), out.end(), '/', '-');
    std::replace(out.begin(), out.end(), '.', '-');
    return out;
}

fs::path transcriptURL(const fs::path& projectsRoot, const std::string& cwd, const std::string& sessionId) {
    return projectsRoot / encodedDirName(cwd) / (sessionId + ".jsonl");
}

std::vector<fs::path> recentTranscripts(const fs::path& folder, size_t limit) {
    std::vector<std::pair<fs::file_time_type, fs::path>> found;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".jsonl") continue;
        std::error_code statEc;
        auto mtime = it->last_write_time(statEc);
        if (statEc || !it->is_regular_file(statEc)) continue;
        found.emplace_back(mtime, it->path());
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<fs::path> out;
    for (size_t i = 0; i < found.size() && i < limit; ++i) out.push_back(found[i].second);
    return out;
}

std::vector<JournalEntry> tailEntries(const fs::path& file) { return TailReader::entries(file, kTailLines, keepType); }

TranscriptInfo infoFromEntries(const std::vector<JournalEntry>& entries, const fs::path& file,
                               const std::string& cwd, const fs::path& claudeConfig, const ReadOptions& options) {
    TranscriptInfo info;
    auto parsed = derive(entries);
    auto newestEntry = lastEntryDate(entries);
    info.lastModified = modificationDate(file).value_or(newestEntry.value_or(options.now));
    info.summary = parsed.summary;
    info.gitBranch = parsed.gitBranch;
    info.sessionId = parsed.sessionId;
    info.model = parsed.model;
    info.contextTokens = parsed.contextTokens;
    if (info.contextTokens) {
        // A context past 200K settles the window outright; otherwise the tier
        // decides, and an unknown tier gets the larger window, marked as a guess,
        // so the gauge never shows falsely full.
        if (*info.contextTokens > kTwoHundredK) {
            info.contextMax = kOneMillion;
        } else {
            switch (ClaudeConfig::contextTier(claudeConfig, cwd, parsed.modelId.value_or(""))) {
                case ClaudeConfig::ContextTier::oneMillion: info.contextMax = kOneMillion; break;
                case ClaudeConfig::ContextTier::twoHundredK: info.contextMax = kTwoHundredK; break;
                case ClaudeConfig::ContextTier::unknown:
                    info.contextMax = kOneMillion;
                    info.contextMaxEstimated = true;
                    break;
            }
        }
    }
    info.inProgress = isInProgress(entries);
    info.pendingApproval = pendingApproval(entries);
    info.pendingToolCall = pendingToolCall(entries);
    info.endsWithQuestion = endsWithQuestion(entries);
    info.awaitingFirstReply = awaitingFirstReply(entries);
    info.recentActivity = recentActivity(entries, kActivityLines);
    info.hasRealTurn = hasRealTurn(entries);

    // Background work: the ledger of launches without notifications and the
    // count the last turn-end record gave are two views of the same work;
    // either one still saying "out" is enough.
    auto background = outstandingBackgroundTasks(file);
    info.pendingBackgroundAgents = std::max(background.count, turnDurationBackgroundAgents(entries));

    // Subagents: the live subagent journals, plus launches still waiting for
    // their result that have no live journal (yet).
    info.subagents = ClaudeSubagentReader::running(file, options.now);
    for (auto& launch : runningSubagentLaunches(entries)) {
        bool shown = std::any_of(info.subagents.begin(), info.subagents.end(),
                                 [&](const SubagentInfo& s) { return s.id == launch.id; });
        if (!shown)
            info.subagents.push_back({launch.id, launch.type, launch.task, std::nullopt, std::nullopt, true, std::nullopt});
    }
    info.subagentCount = static_cast<int>(info.subagents.size());

    auto temp = options.claudeTempFolder.empty() ? defaultClaudeTempFolder() : options.claudeTempFolder;
    std::optional<Date> activity = ClaudeSubagentReader::newestSubagentActivity(file);
    if (auto tasks = ClaudeSubagentReader::newestBackgroundTaskActivity(file, background.pending, temp);
        tasks && (!activity || *tasks > *activity))
        activity = tasks;
    std::error_code ec;
    bool hasSubagentFolder = fs::is_directory(file.parent_path() / file.stem() / "subagents", ec);
    info.subagentActivity = activity;
    if (!activity && !hasSubagentFolder) activity = newestEntry;
    info.recentSubagentActivity = withinWindow(activity, options.now, ClaudeSubagentReader::backgroundActiveWindow);

    info.lastEntryDate = newestEntry.value_or(info.lastModified);
    info.created = info.lastEntryDate;
    for (auto candidate : {creationDate(file), firstEntryDate(entries)})
        if (candidate && *candidate < info.created) info.created = *candidate;
    // The agent's own title wins; else the first prompt, read once from the head.
    std::optional<std::string> id = info.sessionId;
    if (!id && file.extension() == ".jsonl") id = file.stem().string();
    SessionTopic::fill(info, aiTitle(entries), SessionTopic::firstPrompt(file, HarnessProvider::claudeCode), id);
    return info;
}

std::optional<TranscriptInfo> info(const fs::path& file, const std::string& cwd, const fs::path& claudeConfig,
                                   const ReadOptions& options) {
    auto entries = tailEntries(file);
    if (entries.empty()) return std::nullopt;
    noteUnknownShapes(entries);
    return infoFromEntries(entries, file, cwd, claudeConfig, options);
}

std::optional<TranscriptInfo> info(const fs::path& file, const std::string& cwd, const fs::path& claudeConfig) {
    return info(file, cwd, claudeConfig, ReadOptions{});
}

std::optional<TranscriptInfo> infoForCwd(const fs::path& projectsRoot, const std::string& cwd,
                                         const fs::path& claudeConfig) {
    auto newest = recentTranscripts(projectsRoot / encodedDirName(cwd), 1);
    if (newest.empty()) return std::nullopt;
    return info(newest.front(), cwd, claudeConfig);
}

std::vector<TranscriptInfo> recentInfos(const fs::path& projectsRoot, const std::string& cwd, size_t limit,
                                        const std::set<std::string>& excluding, const fs::path& claudeConfig,
                                        const ReadOptions& options) {
    if (limit == 0) return {};
    // Liveness may lift an older session above newer ones, so read a few more
    // journals than asked for; never the whole folder.
    size_t candidates = std::max(limit * 2, limit + 3);
    std::vector<TranscriptInfo> infos;
    for (const auto& file : recentTranscripts(projectsRoot / encodedDirName(cwd), candidates + excluding.size())) {
        if (excluding.count(file.stem().string())) continue;
        if (infos.size() >= candidates) break;
        auto one = info(file, cwd, claudeConfig, options);
        if (!one || (one->sessionId && excluding.count(*one->sessionId))) continue;
        infos.push_back(std::move(*one));
    }
    return rankedByLiveness(std::move(infos), limit);
}

std::vector<TranscriptInfo> rankedByLiveness(std::vector<TranscriptInfo> infos, size_t limit) {
    auto live = [](const TranscriptInfo& i) {
        bool runningSubagent = std::any_of(i.subagents.begin(), i.subagents.end(),
                                           [](const SubagentInfo& s) { return s.isRunning; });
        return runningSubagent || (i.pendingBackgroundAgents > 0 && i.recentSubagentActivity);
    };
    std::stable_sort(infos.begin(), infos.end(), [&](const TranscriptInfo& a, const TranscriptInfo& b) {
        bool la = live(a), lb = live(b);
        if (la != lb) return la;
        return a.lastModified > b.lastModified;
    });
    if (infos.size() > limit) infos.resize(limit);
    return infos;
}

std::optional<std::string> aiTitle(const fs::path& file) {
    return aiTitle(TailReader::entries(file, kTailLines, [](std::string_view t) { return t == "ai-title"; }));
}

std::optional<std::string> aiTitleForCwd(const fs::path& projectsRoot, const std::string& cwd,
                                         const std::string& sessionId) {
    return aiTitle(transcriptURL(projectsRoot, cwd, sessionId));
}

std::optional<std::string> recordedCwd(const fs::path& file) { return recordedCwd(tailEntries(file)); }

void setDiagnosticLogDirectory(std::optional<fs::path> directory) {
    auto& shapes = unknownShapes();
    std::lock_guard lock(shapes.lock);
    shapes.directory = std::move(directory);
}

void noteUnknownShapes(const std::vector<JournalEntry>& entries) {
    auto& shapes = unknownShapes();
    std::vector<std::pair<std::string, std::string>> fresh;  // tag, sample text
    fs::path directory;
    {
        std::lock_guard lock(shapes.lock);
        if (!shapes.directory) return;
        directory = *shapes.directory;
        for (const auto& e : entries) {
            auto tag = unknownLeadingTag(e);
            // Each tag is noted once; past a few hundred the log has made its point.
            if (tag && shapes.logged.size() < kMaxNotedTags && shapes.logged.insert(*tag).second)
                fresh.emplace_back(*tag, truncateText(collapseWhitespace(messageText(e)), 200));
        }
    }
    if (fresh.empty()) return;
    std::error_code ec;
    fs::create_directories(directory, ec);
    std::string lines;
    for (const auto& [tag, sample] : fresh) lines += "claude user text starts with <" + tag + ">: " + sample + "\n";
    RegularFile::append(directory / "unknown-shapes.log", lines);
}

}  // namespace scrivet::ClaudeTranscriptReader
