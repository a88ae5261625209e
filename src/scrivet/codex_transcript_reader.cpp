#include "scrivet/codex_transcript_reader.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <unordered_set>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/journal_tail.hpp"
#include "scrivet/session_topic.hpp"

namespace scrivet {

CodexSession::HostKind CodexSession::hostKind() const {
    if (!originator) return HostKind::unknown;
    std::string o = *originator;
    std::transform(o.begin(), o.end(), o.begin(), [](unsigned char c) { return std::tolower(c); });
    auto has = [&](std::string_view part) { return o.find(part) != std::string::npos; };
    if (has("tui") || has("cli") || has("exec")) return HostKind::cli;
    if (has("desktop") || has("vscode") || has("chatgpt")) return HostKind::desktop;
    return HostKind::unknown;
}

bool CodexSession::hostAlive(bool desktop, bool cli) const {
    switch (hostKind()) {
        case HostKind::cli: return cli;
        case HostKind::desktop: return desktop;
        case HostKind::unknown: return desktop || cli;
    }
    return false;
}

namespace CodexTranscriptReader {

namespace {

using simdjson::dom::array;
using simdjson::dom::element;

constexpr size_t kTailLines = 600;
constexpr size_t kHeadBytes = 256 * 1024;
constexpr size_t kHeadLines = 200;
constexpr size_t kFirstLineMax = 4 * 1024 * 1024;
constexpr size_t kPromptChars = 2000;
constexpr size_t kSummaryChars = 160;
constexpr size_t kActivityChars = 100;
constexpr size_t kActivityLines = 8;
constexpr auto kExtendedAge = std::chrono::hours(24 * 7);

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\v'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// A line of at most `maxChars` characters; only the text's beginning is looked
// at, so a prompt of megabytes costs no more than a short one.

std::optional<element> payload(const JournalEntry& e) {
    auto p = e.field("payload");
    if (!p || !p->is_object()) return std::nullopt;
    return p;
}

std::string_view payloadType(const JournalEntry& e) {
    auto p = payload(e);
    return p ? json::string(*p, "type").value_or(std::string_view{}) : std::string_view{};
}

bool isEvent(const JournalEntry& e, std::string_view type) {
    return e.type() == "event_msg" && payloadType(e) == type;
}

bool isResponse(const JournalEntry& e, std::string_view type) {
    return e.type() == "response_item" && payloadType(e) == type;
}

// The item of an "item_completed" event.
std::optional<element> item(const JournalEntry& e) {
    if (!isEvent(e, "item_completed")) return std::nullopt;
    auto p = payload(e);
    auto i = p ? json::field(*p, "item") : std::nullopt;
    if (!i || !i->is_object()) return std::nullopt;
    return i;
}

std::string_view itemType(const JournalEntry& e) {
    auto i = item(e);
    return i ? json::string(*i, "type").value_or(std::string_view{}) : std::string_view{};
}

std::optional<double> number(element e, std::string_view key) {
    auto f = json::field(e, key);
    if (!f) return std::nullopt;
    double d;
    if (!f->get_double().get(d)) return d;
    if (auto i = json::integer(*f)) return static_cast<double>(*i);
    return std::nullopt;
}

std::optional<std::string> nonEmpty(std::optional<std::string_view> s) {
    if (!s || trim(*s).empty()) return std::nullopt;
    return std::string(*s);
}

// The texts of a content list's blocks of the given kinds, joined by newlines.
std::string blocksText(element container, std::string_view key, std::initializer_list<std::string_view> kinds) {
    std::string out;
    auto blocks = json::array(container, key);
    if (!blocks) {
        if (auto s = json::string(container, key)) return std::string(*s);
        return out;
    }
    for (element b : *blocks) {
        auto t = json::string(b, "type").value_or("");
        if (std::find(kinds.begin(), kinds.end(), t) == kinds.end()) continue;
        auto text = json::string(b, "text");
        if (!text) continue;
        if (!out.empty()) out += '\n';
        out += *text;
    }
    return out;
}

// 0.169 marks what Codex itself put in the conversation with a provenance.
bool hasHarnessProvenance(element p) {
    auto meta = json::field(p, "internal_chat_message_metadata_passthrough");
    auto items = meta ? json::array(*meta, "content_item_metadata") : std::nullopt;
    if (!items) return false;
    bool harness = false;
    for (element m : *items) {
        auto prov = json::field(m, "provenance");
        auto type = prov ? json::string(*prov, "type") : std::nullopt;
        if (!type) continue;
        if (*type == "user") return false;
        harness = true;
    }
    return harness;
}

std::string commandText(element command) {
    if (auto s = json::string(command)) return std::string(*s);
    array items;
    if (command.get_array().get(items)) return {};
    std::vector<std::string_view> parts;
    for (element i : items)
        if (auto s = json::string(i)) parts.push_back(*s);
    if (parts.size() >= 3 && (parts[1] == "-lc" || parts[1] == "-c")) return std::string(parts.back());
    std::string out;
    for (auto p : parts) out += (out.empty() ? "" : " ") + std::string(p);
    return out;
}

// What a call's arguments say in a few words: its command, path or query.
std::optional<std::string> argumentsSnippet(std::string_view arguments) {
    simdjson::dom::parser parser;
    element root;
    if (parser.parse(arguments.data(), arguments.size()).get(root) || !root.is_object()) return std::nullopt;
    for (auto key : {"cmd", "command"}) {
        if (auto c = json::field(root, key)) {
            auto text = commandText(*c);
            if (!trim(text).empty()) return text;
        }
    }
    for (auto key : {"path", "file_path", "query", "pattern", "url", "q", "prompt", "message", "explanation"}) {
        if (auto s = nonEmpty(json::string(root, key))) return s;
    }
    return std::nullopt;
}

std::string toolLine(std::string_view name, const std::optional<std::string>& snippet, size_t maxChars) {
    std::string n(name.empty() ? "tool" : name);
    if (!snippet) return n;
    return oneLine(n + ": " + *snippet, maxChars);
}

// The files an apply_patch input names, by base name.
std::string patchFiles(std::string_view patch) {
    std::string out;
    int count = 0;
    size_t pos = 0;
    while (pos < patch.size()) {
        auto nl = patch.find('\n', pos);
        auto line = patch.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
        pos = nl == std::string_view::npos ? patch.size() : nl + 1;
        for (auto marker : {"*** Add File: ", "*** Update File: ", "*** Delete File: "}) {
            std::string_view m(marker);
            if (line.substr(0, m.size()) != m) continue;
            auto path = trim(line.substr(m.size()));
            auto slash = path.rfind('/');
            if (++count <= 4) out += (out.empty() ? "" : ", ") + std::string(path.substr(slash == std::string_view::npos ? 0 : slash + 1));
        }
    }
    if (count > 4) out += ", …";
    return out;
}

std::string changedFiles(element changes) {
    simdjson::dom::object obj;
    if (changes.get_object().get(obj)) return {};
    std::string out;
    int count = 0;
    for (auto field : obj) {
        std::string_view path = field.key;
        auto slash = path.rfind('/');
        if (++count <= 4) out += (out.empty() ? "" : ", ") + std::string(path.substr(slash == std::string_view::npos ? 0 : slash + 1));
    }
    if (count > 4) out += ", …";
    return out;
}

std::optional<Date> entryDate(const JournalEntry& e) {
    auto ts = e.string("timestamp");
    return ts ? parseIsoDate(*ts) : std::nullopt;
}

// A tool call the model made, in any of its shapes: its call id, the tool's
// name and the line that tells it.
struct ToolCall {
    std::string callId;
    std::string name;
    std::optional<std::string> snippet;
};

std::optional<ToolCall> toolCall(const JournalEntry& e) {
    if (e.type() != "response_item") return std::nullopt;
    auto p = payload(e);
    if (!p) return std::nullopt;
    auto type = payloadType(e);
    ToolCall call;
    call.callId = std::string(json::string(*p, "call_id").value_or(""));
    if (type == "function_call") {
        call.name = std::string(json::string(*p, "name").value_or("tool"));
        if (auto args = json::string(*p, "arguments")) call.snippet = argumentsSnippet(*args);
        return call;
    }
    if (type == "custom_tool_call") {
        call.name = std::string(json::string(*p, "name").value_or("tool"));
        auto input = json::string(*p, "input").value_or("");
        if (call.name == "apply_patch") {
            auto files = patchFiles(input);
            if (!files.empty()) call.snippet = files;
        } else if (!trim(input).empty()) {
            call.snippet = std::string(input);
        }
        return call;
    }
    if (type == "local_shell_call") {
        call.name = "shell";
        auto action = json::field(*p, "action");
        if (auto cmd = action ? json::field(*action, "command") : std::nullopt) call.snippet = nonEmpty(commandText(*cmd));
        return call;
    }
    if (type == "web_search_call") {
        call.name = "web_search";
        auto action = json::field(*p, "action");
        if (action) call.snippet = nonEmpty(json::string(*action, "query"));
        return call;
    }
    return std::nullopt;
}

std::set<std::string, std::less<>> callIds(const Entries& entries) {
    std::set<std::string, std::less<>> ids;
    for (const auto& e : entries)
        if (auto c = toolCall(e); c && !c->callId.empty()) ids.insert(c->callId);
    return ids;
}

// Command executions and file changes as "item_completed" items.
struct ToolItem {
    std::string id;
    bool fileChange = false;
    bool failed = false;
    std::string what;    // the command, or the files changed
    std::string output;  // the first line of the command's output
};

std::optional<ToolItem> toolItem(const JournalEntry& e) {
    auto i = item(e);
    if (!i) return std::nullopt;
    auto type = json::string(*i, "type").value_or("");
    ToolItem t;
    t.id = std::string(json::string(*i, "id").value_or(""));
    auto status = json::string(*i, "status").value_or("completed");
    t.failed = status == "failed" || status == "declined" || status == "error" || status == "rejected";
    if (type == "CommandExecution") {
        if (auto c = json::field(*i, "command")) t.what = commandText(*c);
        if (auto code = json::integer(*i, "exit_code"); code && *code != 0) t.failed = true;
        auto out = trim(json::string(*i, "aggregated_output").value_or(""));
        t.output = std::string(out.substr(0, out.find('\n')));
        return t;
    }
    if (type == "FileChange") {
        t.fileChange = true;
        if (auto c = json::field(*i, "changes")) t.what = changedFiles(*c);
        return t;
    }
    return std::nullopt;
}

bool isLifecycle(const JournalEntry& e) {
    auto t = payloadType(e);
    return e.type() == "event_msg" && (t == "task_started" || t == "task_complete" || t == "turn_aborted");
}

// The entries that count as a turn for the window's growth.
bool isTurnEntry(const JournalEntry& e) {
    if (e.type() == "response_item") return true;
    if (e.type() != "event_msg") return false;
    auto t = payloadType(e);
    return t == "task_started" || t == "task_complete" || t == "turn_aborted" || t == "user_message" ||
           t == "agent_message" || t == "item_completed";
}

// Entries the tail keeps: the rest (world_state, token_usage_record…) can be
// large and say nothing about the turn.
bool keepType(std::string_view type) {
    return type == "event_msg" || type == "response_item" || type == "turn_context" || type == "session_meta" ||
           type == "compacted";
}

bool isReasoning(const JournalEntry& e) { return isResponse(e, "reasoning") || itemType(e) == "Reasoning"; }

std::string reasoningText(const JournalEntry& e) {
    std::optional<element> source = isResponse(e, "reasoning") ? payload(e) : item(e);
    if (!source) return {};
    std::string out;
    if (auto summary = json::array(*source, "summary")) {
        for (element s : *summary) {
            auto text = json::string(s).value_or(json::string(s, "text").value_or(""));
            if (!trim(text).empty()) out += (out.empty() ? "" : " ") + std::string(text);
        }
    }
    return out;
}

// Local calendar dates as yyyymmdd numbers, for the dated folders.
int localDay(Date when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    return (tm.tm_year + 1900) * 10000 + (tm.tm_mon + 1) * 100 + tm.tm_mday;
}

std::optional<int> folderNumber(const std::string& name, size_t digits) {
    if (name.size() != digits || !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return std::stoi(name);
}

// The sub-folders of `dir` named by a number of `digits` digits, with their numbers.
std::vector<std::pair<int, fs::path>> numberedFolders(const fs::path& dir, size_t digits) {
    std::vector<std::pair<int, fs::path>> out;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        auto n = folderNumber(it->path().filename().string(), digits);
        if (!n) continue;
        std::error_code typeEc;
        if (!it->is_directory(typeEc) || typeEc) continue;
        out.emplace_back(*n, it->path());
    }
    return out;
}

Date fromNanos(int64_t nanos) {
    return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(nanos));
}

}  // namespace

// --- Files ----------------------------------------------------------------------

bool isRolloutName(std::string_view name) {
    return name.size() > 14 && name.substr(0, 8) == "rollout-" && name.substr(name.size() - 6) == ".jsonl";
}

std::optional<std::string> threadIdFromName(std::string_view name) {
    if (!isRolloutName(name)) return std::nullopt;
    auto stem = name.substr(0, name.size() - 6);
    if (stem.size() < 8 + 36) return std::nullopt;
    auto id = stem.substr(stem.size() - 36);
    if (id[8] != '-' || id[13] != '-' || id[18] != '-' || id[23] != '-') return std::nullopt;
    return std::string(id);
}

std::vector<Rollout> recentRollouts(const fs::path& root, Date since, Date now) {
    using namespace std::chrono;
    int from = localDay(since - hours(24)), to = localDay(std::max(now, since) + hours(24));
    std::vector<Rollout> out;
    for (auto& [year, yearDir] : numberedFolders(root, 4)) {
        if (year < from / 10000 || year > to / 10000) continue;
        for (auto& [month, monthDir] : numberedFolders(yearDir, 2)) {
            int ym = year * 100 + month;
            if (ym < from / 100 || ym > to / 100) continue;
            for (auto& [day, dayDir] : numberedFolders(monthDir, 2)) {
                int ymd = ym * 100 + day;
                if (ymd < from || ymd > to) continue;
                std::error_code ec;
                for (fs::directory_iterator it(dayDir, ec), end; !ec && it != end; it.increment(ec)) {
                    auto name = it->path().filename().string();
                    if (!isRolloutName(name)) continue;
                    auto st = stamp(it->path());
                    if (!st) continue;
                    auto modified = fromNanos(st->mtimeNanos);
                    if (modified < since) continue;
                    out.push_back({it->path(), *st, modified});
                }
            }
        }
    }
    std::sort(out.begin(), out.end(), [](const Rollout& a, const Rollout& b) {
        return a.modified != b.modified ? a.modified > b.modified : a.file > b.file;
    });
    return out;
}

std::vector<fs::path> recentRollouts(const fs::path& root, std::chrono::seconds maxAge, bool extended, Date now) {
    Date since = now - maxAge;
    if (extended) since -= kExtendedAge;
    std::vector<fs::path> out;
    for (auto& r : recentRollouts(root, since, now)) out.push_back(std::move(r.file));
    return out;
}

fs::path dayFolder(const fs::path& root, Date when) {
    int day = localDay(when);
    char parts[32];
    std::snprintf(parts, sizeof parts, "%04d/%02d/%02d", day / 10000, day / 100 % 100, day % 100);
    return root / parts;
}

// --- One rollout --------------------------------------------------------------------

std::optional<Header> header(const fs::path& file) {
    // The head up to the first prompt: what comes after it is the tail's.
    auto entries = JournalTail::head(file, kHeadBytes, kHeadLines, kFirstLineMax, [](const Entries& read) {
        // The event holds the prompt as typed: read on until it comes.
        return read.size() == 1 ? read.front().type() != "session_meta"
                                : read.back().type() == "event_msg" && userPromptText(read.back()).has_value();
    });
    if (entries.empty() || entries.front().type() != "session_meta") return std::nullopt;
    auto p = payload(entries.front());
    if (!p) return std::nullopt;
    Header h;
    h.sessionId = std::string(json::string(*p, "id").value_or(json::string(*p, "session_id").value_or("")));
    h.cwd = std::string(json::string(*p, "cwd").value_or(""));
    if (h.sessionId.empty() || h.cwd.empty() || h.cwd.front() != '/') return std::nullopt;
    h.originator = nonEmpty(json::string(*p, "originator"));
    h.agentName = nonEmpty(json::string(*p, "agent_nickname"));
    h.parentThreadId = nonEmpty(json::string(*p, "parent_thread_id"));
    auto source = json::field(*p, "source");
    if (auto ts = json::field(*p, "thread_source")) {
        if (auto s = json::string(*ts)) {
            h.threadSource = std::string(*s);
        } else if (ts->is_object()) {
            // A structured source names its kind by its one key.
            simdjson::dom::object o;
            if (!ts->get_object().get(o))
                for (auto f : o) {
                    h.threadSource = std::string(f.key);
                    break;
                }
        }
    }
    h.subagent = h.threadSource && h.threadSource->find("subagent") != std::string::npos;
    if (source && source->is_object()) {
        // {"subagent": {"thread_spawn": {"parent_thread_id": …}}} and the like.
        if (auto sub = json::field(*source, "subagent")) {
            h.subagent = true;
            if (!h.parentThreadId) {
                simdjson::dom::object o;
                if (sub->is_object() && !sub->get_object().get(o))
                    for (auto f : o)
                        if (auto id = nonEmpty(json::string(f.value, "parent_thread_id"))) h.parentThreadId = id;
            }
        }
    }
    if (auto git = json::field(*p, "git")) h.gitBranch = nonEmpty(json::string(*git, "branch"));
    if (auto ts = json::string(*p, "timestamp")) h.created = parseIsoDate(*ts);
    if (!h.created) h.created = entryDate(entries.front());
    h.firstPrompt = SessionTopic::codexFirstPrompt(entries);
    h.model = modelId(entries);
    uint64_t size = 0;
    if (auto st = stamp(file)) size = st->size;
    h.complete = h.firstPrompt.has_value() || size >= kHeadBytes;
    return h;
}

bool isRollout(const fs::path& file) {
    auto entries = JournalTail::head(file, 64 * 1024, 1, kFirstLineMax);
    return !entries.empty() && entries.front().type() == "session_meta";
}

Entries tailEntries(const fs::path& file) {
    JournalTail::Options options;
    options.lineLimit = kTailLines;
    options.keep = keepType;
    options.enough = [](const Entries& entries) { return std::any_of(entries.begin(), entries.end(), isTurnEntry); };
    return std::move(JournalTail::read(file, options).entries);
}

std::optional<CodexSession> session(const fs::path& file) {
    auto h = header(file);
    if (!h) return std::nullopt;
    return session(file, *h);
}

std::optional<CodexSession> session(const fs::path& file, const Header& h) {
    auto entries = tailEntries(file);
    if (entries.empty()) return std::nullopt;
    CodexSession s;
    s.file = file;
    s.cwd = h.cwd;
    s.projectName = fs::path(h.cwd).filename().string();
    if (s.projectName.empty()) s.projectName = h.cwd;
    s.sessionId = h.sessionId;
    s.threadSource = h.threadSource;
    s.parentThreadId = h.parentThreadId;
    s.agentName = h.agentName;
    s.originator = h.originator;
    s.subagent = h.subagent;
    auto id = modelId(entries);
    if (!id) id = h.model;
    if (id) s.model = displayModel(*id);
    auto tokens = tokenCounts(entries);
    s.contextTokens = tokens.contextTokens;
    s.totalUsageTokens = tokens.totalUsageTokens;
    s.rateLimits = rateLimits(entries);
    if (auto prompt = newestPrompt(entries)) s.prompt = truncateText(*prompt, kPromptChars);

    TranscriptInfo& info = s.info;
    auto newest = ClaudeTranscriptReader::lastEntryDate(entries);
    info.lastModified = modificationDate(file).value_or(newest.value_or(Date{}));
    info.summary = summarize(entries);
    info.gitBranch = h.gitBranch;
    info.sessionId = h.sessionId;
    info.model = s.model;
    info.contextTokens = s.contextTokens;
    info.contextMax = tokens.contextWindow;
    info.inProgress = isInProgress(entries);
    info.pendingApproval = pendingApproval(entries);
    info.endsWithQuestion = endsWithQuestion(entries);
    info.awaitingFirstReply = awaitingFirstReply(entries);
    info.recentActivity = recentActivity(entries, kActivityLines);
    info.hasRealTurn = hasRealTurn(entries);
    info.lastEntryDate = newest.value_or(info.lastModified);
    info.created = h.created.value_or(ClaudeTranscriptReader::firstEntryDate(entries).value_or(info.lastEntryDate));
    // The topic is the first prompt's, from the head only: a prompt found in
    // the tail could be a later one.
    SessionTopic::fill(info, std::nullopt, h.firstPrompt, h.sessionId);
    return s;
}

// --- Running sessions -----------------------------------------------------------------

std::vector<CodexSession> runningSessions(const fs::path& root, std::chrono::seconds maxAge,
                                          const std::set<std::string>& keepAlive, Date now, bool desktopRunning,
                                          bool cliRunning) {
    Date since = now - maxAge;
    Date walkSince = keepAlive.empty() ? since : since - kExtendedAge;
    std::vector<CodexSession> out;
    for (const auto& r : recentRollouts(root, walkSince, now)) {
        auto h = header(r.file);
        if (!h) continue;
        if (r.modified < since && !keepAlive.count(h->sessionId)) continue;
        auto s = session(r.file, *h);
        if (!s || !s->hostAlive(desktopRunning, cliRunning)) continue;
        out.push_back(std::move(*s));
    }
    foldSubagents(out);
    return out;
}

void foldSubagents(std::vector<CodexSession>& sessions) {
    std::map<std::string, size_t> byId;
    for (size_t i = 0; i < sessions.size(); ++i)
        if (!sessions[i].subagent) byId.emplace(sessions[i].sessionId, i);
    for (const auto& s : sessions) {
        if (!s.subagent || !s.parentThreadId || !s.info.inProgress) continue;
        auto parent = byId.find(*s.parentThreadId);
        if (parent == byId.end()) continue;
        auto& info = sessions[parent->second].info;
        info.subagents.push_back({s.sessionId, s.agentName.value_or("Subagent"), oneLine(s.prompt.value_or(""), kActivityChars), s.model,
                                  s.info.summary, true, s.totalUsageTokens});
        info.subagentCount = static_cast<int>(info.subagents.size());
        // A subagent at work keeps its parent fresh.
        info.recentSubagentActivity = true;
        info.lastModified = std::max(info.lastModified, s.info.lastModified);
    }
    std::erase_if(sessions, [](const CodexSession& s) { return s.subagent; });
}

// --- Rate limits ------------------------------------------------------------------------

std::optional<CodexRateLimits> rateLimitsFromPayload(element rl, std::optional<Date> observedAt) {
    if (!rl.is_object()) return std::nullopt;
    CodexRateLimits out;
    out.observedAt = observedAt;
    for (auto key : {"primary", "secondary"}) {
        auto w = json::field(rl, key);
        if (!w || !w->is_object()) continue;
        auto used = number(*w, "used_percent");
        if (!used || !(*used >= 0) || *used > 1e6) continue;
        CodexRateLimits::Window window;
        window.percentUsed = std::clamp(*used, 0.0, 100.0);
        if (auto minutes = number(*w, "window_minutes"); minutes && *minutes > 0 && *minutes < 1e7)
            window.period = std::chrono::seconds(static_cast<long long>(*minutes * 60));
        if (auto at = number(*w, "resets_at"); at && *at > 0 && *at < 1e11) {
            window.resetsAt = Date{} + std::chrono::seconds(static_cast<long long>(*at));
        } else if (auto in = number(*w, "resets_in_seconds"); in && observedAt && *in >= 0 && *in < 1e9) {
            window.resetsAt = *observedAt + std::chrono::seconds(static_cast<long long>(*in));
        }
        out.windows.push_back(window);
    }
    if (out.windows.empty()) return std::nullopt;
    std::stable_sort(out.windows.begin(), out.windows.end(), [](const auto& a, const auto& b) {
        if (a.period && b.period) return *a.period < *b.period;
        return a.period.has_value() && !b.period.has_value();
    });
    return out;
}

std::optional<CodexRateLimits> rateLimits(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (!isEvent(*it, "token_count")) continue;
        auto p = payload(*it);
        auto rl = p ? json::field(*p, "rate_limits") : std::nullopt;
        if (!rl) continue;
        if (auto limits = rateLimitsFromPayload(*rl, entryDate(*it))) return limits;
    }
    return std::nullopt;
}

std::optional<CodexRateLimits> rateLimits(const fs::path& rollout) { return rateLimits(tailEntries(rollout)); }

std::optional<CodexRateLimits> rateLimits(const fs::path& sessionsRoot, Date now, std::chrono::seconds maxAge) {
    constexpr size_t kMaxRollouts = 64;
    size_t looked = 0;
    for (const auto& r : recentRollouts(sessionsRoot, now - maxAge, now)) {
        if (++looked > kMaxRollouts) break;
        if (auto limits = rateLimits(r.file)) return limits;
    }
    return std::nullopt;
}

// --- Derivations over tail entries ------------------------------------------------------

std::string displayModel(std::string_view id) {
    if (id.size() <= 4 || (id.substr(0, 4) != "gpt-" && id.substr(0, 4) != "GPT-")) return std::string(id);
    std::string out = "GPT-";
    auto rest = id.substr(4);
    bool first = true;
    while (!rest.empty()) {
        auto dash = rest.find('-');
        std::string part(rest.substr(0, dash));
        rest = dash == std::string_view::npos ? std::string_view{} : rest.substr(dash + 1);
        if (!first) {
            out += '-';
            if (!part.empty() && std::isalpha(static_cast<unsigned char>(part[0])))
                part[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(part[0])));
        }
        out += part;
        first = false;
    }
    return out;
}

bool isInjectedUserText(std::string_view text) {
    auto t = trim(text);
    if (t.substr(0, 24) == "# AGENTS.md instructions") return true;
    // One message wrapped whole in one tag: <environment_context>…</environment_context>,
    // <turn_aborted>…</turn_aborted>, <user_instructions>…
    if (t.size() < 3 || t[0] != '<') return false;
    size_t n = 1;
    while (n < t.size() && (std::isalnum(static_cast<unsigned char>(t[n])) || t[n] == '_' || t[n] == '-' || t[n] == ' '))
        ++n;
    if (n >= t.size() || t[n] != '>' || n == 1) return false;
    auto tag = t.substr(1, n - 1);
    auto endsWith = [&](std::string_view name) {
        std::string close = "</" + std::string(name) + ">";
        return t.size() >= close.size() && t.substr(t.size() - close.size()) == close;
    };
    // "<permissions instructions>" closes whole or by its first word.
    return endsWith(tag) || endsWith(tag.substr(0, tag.find(' ')));
}

std::optional<std::string> userPromptText(const JournalEntry& e) {
    std::optional<std::string> text;
    if (isEvent(e, "user_message")) {
        auto p = payload(e);
        text = nonEmpty(json::string(*p, "message"));
    } else if (itemType(e) == "UserMessage") {
        text = nonEmpty(blocksText(*item(e), "content", {"text", "Text", "input_text"}));
    } else if (isResponse(e, "message")) {
        auto p = payload(e);
        if (json::string(*p, "role") != "user" || hasHarnessProvenance(*p)) return std::nullopt;
        text = nonEmpty(blocksText(*p, "content", {"input_text", "text"}));
    }
    if (!text || isInjectedUserText(*text)) return std::nullopt;
    return text;
}

std::optional<std::string> assistantText(const JournalEntry& e) {
    if (isEvent(e, "agent_message")) return nonEmpty(json::string(*payload(e), "message"));
    if (itemType(e) == "AgentMessage") return nonEmpty(blocksText(*item(e), "content", {"Text", "text", "output_text"}));
    if (isResponse(e, "message")) {
        auto p = payload(e);
        if (json::string(*p, "role") != "assistant") return std::nullopt;
        return nonEmpty(blocksText(*p, "content", {"output_text", "text"}));
    }
    return std::nullopt;
}

bool isInProgress(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (!isLifecycle(*it)) continue;
        return payloadType(*it) == "task_started";
    }
    // No lifecycle event in the window: the newest turn item decides.
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& e = *it;
        if (assistantText(e)) return false;
        if (userPromptText(e) || toolCall(e) || toolItem(e) || isReasoning(e) ||
            isResponse(e, "function_call_output") || isResponse(e, "custom_tool_call_output"))
            return true;
    }
    return false;
}

std::optional<std::string> summarize(const Entries& entries) {
    auto calls = callIds(entries);
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& e = *it;
        if (isEvent(e, "turn_aborted")) return "Interrupted";
        if (isEvent(e, "patch_apply_end")) {
            if (json::boolean(*payload(e), "success") == false) return "✗ apply_patch failed";
            continue;
        }
        if (auto t = toolItem(e)) {
            if (t->fileChange && t->failed) return "✗ apply_patch failed";
            if (calls.count(t->id)) continue;  // the call itself is older and says it
            if (t->fileChange) return t->what.empty() ? "⚙ apply_patch…" : "⚙ apply_patch: " + t->what;
            return toolLine("exec_command", nonEmpty(t->what), kSummaryChars);
        }
        if (isResponse(e, "custom_tool_call")) {
            auto name = json::string(*payload(e), "name").value_or("tool");
            return "⚙ " + std::string(name) + "…";
        }
        if (auto call = toolCall(e)) return toolLine(call->name, call->snippet, kSummaryChars);
        if (auto text = assistantText(e)) return oneLine(*text, kSummaryChars);
        if (isEvent(e, "task_complete")) {
            if (auto last = nonEmpty(json::string(*payload(e), "last_agent_message"))) return oneLine(*last, kSummaryChars);
            return "Turn complete";
        }
        if (auto prompt = userPromptText(e)) return "You: " + oneLine(*prompt, kSummaryChars);
    }
    return std::nullopt;
}

bool endsWithQuestion(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& e = *it;
        if (isEvent(e, "turn_aborted") || isEvent(e, "task_started")) return false;
        if (auto text = assistantText(e)) return ClaudeTranscriptReader::textEndsWithQuestion(*text);
        if (userPromptText(e) || toolCall(e) || toolItem(e) || isResponse(e, "function_call_output") ||
            isResponse(e, "custom_tool_call_output"))
            return false;
    }
    return false;
}

std::optional<PendingApproval> pendingApproval(const Entries& entries) {
    std::string_view policy;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (it->type() != "turn_context") continue;
        policy = json::string(*payload(*it), "approval_policy").value_or("");
        break;
    }
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& e = *it;
        if (isEvent(e, "exec_approval_request")) return PendingApproval::run;
        if (isEvent(e, "apply_patch_approval_request")) return PendingApproval::edit;
        if (isLifecycle(e) || assistantText(e) || userPromptText(e) || toolItem(e) ||
            isResponse(e, "function_call_output") || isResponse(e, "custom_tool_call_output"))
            return std::nullopt;
        if (!isResponse(e, "function_call")) continue;
        // The newest turn item is a call that asked to leave the sandbox.
        if (policy == "never") return std::nullopt;
        auto args = json::string(*payload(e), "arguments").value_or("");
        simdjson::dom::parser parser;
        element root;
        if (parser.parse(args.data(), args.size()).get(root)) return std::nullopt;
        if (json::string(root, "sandbox_permissions") == "require_escalated") return PendingApproval::run;
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> newestPrompt(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        if (auto p = userPromptText(*it)) return p;
    return std::nullopt;
}

std::optional<std::string> firstPrompt(const Entries& entries) {
    // The event's text is what the user typed; the model's copy may carry
    // images or wrappers, so it is used only when no event says it.
    std::optional<std::string> fromItem;
    for (const auto& e : entries) {
        if (isEvent(e, "user_message") || itemType(e) == "UserMessage") {
            if (auto p = userPromptText(e)) return p;
        } else if (!fromItem) {
            fromItem = userPromptText(e);
        }
    }
    return fromItem;
}

bool awaitingFirstReply(const Entries& entries) {
    bool prompt = false;
    for (const auto& e : entries) {
        if (assistantText(e) || toolCall(e) || toolItem(e) || isReasoning(e)) return false;
        if (userPromptText(e)) prompt = true;
    }
    return prompt;
}

bool hasRealTurn(const Entries& entries) {
    return std::any_of(entries.begin(), entries.end(), [](const JournalEntry& e) {
        return assistantText(e) || userPromptText(e) || toolCall(e) || toolItem(e);
    });
}

std::vector<ActivityLine> recentActivity(const Entries& entries, size_t limit) {
    using Kind = ActivityLine::Kind;
    std::vector<ActivityLine> lines;
    auto add = [&](Kind kind, std::string text) {
        if (text.empty()) return;
        ActivityLine line{kind, std::move(text)};
        if (!lines.empty() && lines.back() == line) return;  // the same thing in its other shape
        lines.push_back(std::move(line));
    };
    std::unordered_set<std::string> itemIds;
    for (const auto& e : entries)
        if (auto t = toolItem(e); t && !t->id.empty()) itemIds.insert(t->id);
    std::unordered_set<std::string> seenCalls;
    for (const auto& e : entries) {
        if (auto prompt = userPromptText(e)) {
            add(Kind::prompt, oneLine(*prompt, kActivityChars));
        } else if (auto text = assistantText(e)) {
            add(Kind::reply, oneLine(*text, kActivityChars));
        } else if (isReasoning(e)) {
            auto text = oneLine(reasoningText(e), kActivityChars);
            add(Kind::thinking, text.empty() ? "Thinking…" : text);
        } else if (auto call = toolCall(e)) {
            seenCalls.insert(call->callId);
            add(Kind::tool, toolLine(call->name, call->snippet, kActivityChars));
        } else if (auto t = toolItem(e)) {
            if (!seenCalls.count(t->id))
                add(Kind::tool, toolLine(t->fileChange ? "apply_patch" : "exec_command", nonEmpty(t->what), kActivityChars));
            if (t->fileChange) {
                if (t->failed) add(Kind::error, "✗ apply_patch failed");
                else add(Kind::ok, t->what.empty() ? "Patch applied" : oneLine("Changed " + t->what, kActivityChars));
            } else if (t->failed) {
                add(Kind::error, t->output.empty() ? "Failed" : oneLine(t->output, kActivityChars));
            } else {
                add(Kind::ok, t->output.empty() ? "Done" : oneLine(t->output, kActivityChars));
            }
        } else if (isEvent(e, "patch_apply_end")) {
            auto p = payload(e);
            if (itemIds.count(std::string(json::string(*p, "call_id").value_or("")))) continue;
            if (json::boolean(*p, "success") == false) add(Kind::error, "✗ apply_patch failed");
            else add(Kind::ok, "Patch applied");
        } else if (isResponse(e, "function_call_output") || isResponse(e, "custom_tool_call_output")) {
            auto p = payload(e);
            if (itemIds.count(std::string(json::string(*p, "call_id").value_or("")))) continue;
            auto output = json::string(*p, "output").value_or("");
            // "Process exited with code N" / "Exit code: N" name a failure; the
            // text after "Output:" is what the command printed.
            bool failed = false;
            for (std::string_view marker : {"Process exited with code ", "Exit code: "}) {
                auto at = output.find(marker);
                if (at != std::string_view::npos && output.substr(at + marker.size(), 1) != "0") failed = true;
            }
            auto body = output;
            if (auto at = output.find("Output:\n"); at != std::string_view::npos) body = output.substr(at + 8);
            body = trim(body);
            auto first = oneLine(body.substr(0, body.find('\n')), kActivityChars);
            add(failed ? Kind::error : Kind::ok, first.empty() ? (failed ? "Failed" : "Done") : first);
        } else if (isEvent(e, "turn_aborted")) {
            add(Kind::error, "Interrupted");
        }
    }
    if (lines.size() > limit) lines.erase(lines.begin(), lines.end() - static_cast<long>(limit));
    return lines;
}

std::optional<std::string> modelId(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (it->type() == "turn_context") {
            if (auto m = nonEmpty(json::string(*payload(*it), "model"))) return m;
        } else if (isEvent(*it, "thread_settings_applied")) {
            auto settings = json::field(*payload(*it), "thread_settings");
            if (auto m = settings ? nonEmpty(json::string(*settings, "model")) : std::nullopt) return m;
        }
    }
    return std::nullopt;
}

TokenCounts tokenCounts(const Entries& entries) {
    TokenCounts out;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (isEvent(*it, "task_started") && !out.contextWindow) {
            if (auto w = json::integer(*payload(*it), "model_context_window"); w && *w > 0) out.contextWindow = *w;
            continue;
        }
        if (!isEvent(*it, "token_count") || out.contextTokens) continue;
        auto info = json::field(*payload(*it), "info");
        if (!info || !info->is_object()) continue;
        if (auto last = json::field(*info, "last_token_usage"))
            if (auto t = json::integer(*last, "total_tokens"); t && *t > 0) out.contextTokens = *t;
        if (auto total = json::field(*info, "total_token_usage"))
            if (auto t = json::integer(*total, "total_tokens"); t && *t > 0) out.totalUsageTokens = *t;
        if (auto w = json::integer(*info, "model_context_window"); w && *w > 0) out.contextWindow = *w;
    }
    return out;
}

}  // namespace CodexTranscriptReader

}  // namespace scrivet
