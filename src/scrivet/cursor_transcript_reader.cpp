#include "scrivet/cursor_transcript_reader.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/journal_tail.hpp"
#include "scrivet/session_topic.hpp"

namespace scrivet::CursorTranscriptReader {

namespace {

using simdjson::dom::array;
using simdjson::dom::element;

constexpr size_t kTailLines = 400;
constexpr size_t kHeadBytes = 256 * 1024;
constexpr size_t kPromptChars = 2000;
constexpr size_t kSummaryChars = 160;
constexpr size_t kActivityChars = 100;
constexpr size_t kActivityLines = 8;
constexpr size_t kTerminalBytes = 64 * 1024;
constexpr size_t kMaxTerminals = 64;
constexpr std::string_view kRedacted = "[REDACTED]";

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\v'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}


Date fromNanos(int64_t nanos) {
    return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(nanos));
}

std::string_view role(const JournalEntry& e) { return e.string("role").value_or(std::string_view{}); }
bool isTurnEnded(const JournalEntry& e) { return e.type() == "turn_ended"; }
bool hasRole(const JournalEntry& e) { return !role(e).empty(); }

// The message's content blocks (a string content is one text block).
struct Block {
    std::string_view type;
    element value;
};

std::vector<Block> blocks(const JournalEntry& e) {
    std::vector<Block> out;
    auto m = e.field("message");
    auto content = m ? json::field(*m, "content") : e.field("content");
    if (!content) return out;
    if (content->is_string()) {
        out.push_back({"text", *content});
        return out;
    }
    array items;
    if (content->get_array().get(items)) return out;
    for (element b : items) out.push_back({json::string(b, "type").value_or(""), b});
    return out;
}

std::string_view blockText(const Block& b) {
    if (auto s = json::string(b.value)) return *s;
    return json::string(b.value, "text").value_or("");
}

std::string userText(const JournalEntry& e) {
    std::string out;
    for (const auto& b : blocks(e)) {
        if (b.type != "text") continue;
        if (!out.empty()) out += '\n';
        out += blockText(b);
    }
    return out;
}

std::optional<std::string> promptOf(const JournalEntry& e) {
    if (role(e) != "user") return std::nullopt;
    return userQuery(userText(e));
}

// The newest line that tells the turn's state: one with a role, or "turn_ended".
long newestTurnLine(const Entries& entries) {
    for (long i = static_cast<long>(entries.size()) - 1; i >= 0; --i)
        if (hasRole(entries[i]) || isTurnEnded(entries[i])) return i;
    return -1;
}

// The last tool call of the newest line, when that line is the assistant's.
std::optional<element> danglingCall(const Entries& entries) {
    long i = newestTurnLine(entries);
    if (i < 0 || role(entries[i]) != "assistant") return std::nullopt;
    std::optional<element> last;
    for (const auto& b : blocks(entries[i]))
        if (b.type == "tool_use") last = b.value;
    return last;
}

std::optional<std::string> nonEmpty(std::optional<std::string_view> s) {
    if (!s || trim(*s).empty()) return std::nullopt;
    return std::string(*s);
}

std::string toolLine(element call, size_t maxChars) {
    std::string name(json::string(call, "name").value_or("tool"));
    if (name.empty()) name = "tool";
    auto input = json::field(call, "input");
    if (input) {
        for (auto key : {"command", "path", "pattern", "file_path", "target_file", "query", "url"}) {
            if (auto s = nonEmpty(json::string(*input, key))) return oneLine(name + ": " + *s, maxChars);
        }
    }
    return name;
}

bool isRedacted(std::string_view text) { return trim(text) == kRedacted || trim(text).empty(); }

bool mentionsAbort(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.find("abort") != std::string::npos || lower.find("cancel") != std::string::npos ||
           lower.find("interrupt") != std::string::npos;
}

bool isAbortedEnd(const JournalEntry& e) {
    if (!isTurnEnded(e)) return false;
    for (auto key : {"reason", "status", "stopReason", "stop_reason"})
        if (auto s = e.string(key); s && mentionsAbort(*s)) return true;
    return e.boolean("aborted").value_or(false) || e.boolean("interrupted").value_or(false);
}

bool isInterruptText(const JournalEntry& e) {
    return role(e) == "user" && trim(userText(e)).substr(0, 28) == "[Request interrupted by user";
}

std::string readHead(const fs::path& file, size_t maxBytes) {
    uint64_t size = 0;
    int fd = JournalTail::openRegular(file, &size);
    if (fd < 0) return {};
    std::string out(std::min<uint64_t>(size, maxBytes), '\0');
    ssize_t n = ::pread(fd, out.data(), out.size(), 0);
    ::close(fd);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

// The path or one of its parents that encodes to `folderName`.
std::optional<std::string> matchingAncestor(std::string_view path, std::string_view folderName) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    while (path.size() > 1) {
        if (encodedDirName(path) == folderName) return std::string(path);
        auto slash = path.rfind('/');
        if (slash == std::string_view::npos || slash == 0) break;
        path = path.substr(0, slash);
    }
    return std::nullopt;
}

// The directory whose encoded path is `folderName`, found by walking the file
// system from "/" (the encoding loses which "-" was a "/", "." or "_").
std::optional<std::string> resolveEncoded(const fs::path& dir, std::string_view rest, int depth) {
    if (depth > 16) return std::nullopt;
    std::error_code ec;
    size_t looked = 0;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end && looked < 4096; it.increment(ec), ++looked) {
        auto name = it->path().filename().string();
        auto encoded = encodedDirName("/" + name);
        if (encoded.empty() || rest.substr(0, encoded.size()) != encoded) continue;
        std::error_code typeEc;
        if (!it->is_directory(typeEc) || typeEc) continue;
        if (rest.size() == encoded.size()) return it->path().string();
        if (rest[encoded.size()] != '-') continue;
        if (auto found = resolveEncoded(it->path(), rest.substr(encoded.size() + 1), depth + 1)) return found;
    }
    return std::nullopt;
}

std::optional<SubagentInfo> liveSubagent(const fs::path& file, Date now) {
    auto st = stamp(file);
    if (!st || now - fromNanos(st->mtimeNanos) > kLiveSubagentWindow) return std::nullopt;
    auto entries = tailEntries(file);
    long i = newestTurnLine(entries);
    if (i >= 0 && isTurnEnded(entries[i])) return std::nullopt;
    SubagentInfo s;
    s.id = file.stem().string();
    s.type = "Subagent";
    for (const auto& e : entries) {
        if (role(e) != "user") continue;
        auto text = userText(e);
        auto query = userQuery(text);
        s.task = oneLine(query ? *query : text, kActivityChars);
        break;
    }
    s.action = summarize(entries);
    s.isRunning = true;
    return s;
}

}  // namespace

int confirmationDelaySeconds(PendingApproval kind) {
    switch (kind) {
        case PendingApproval::question: return 0;
        case PendingApproval::edit: return 3;
        case PendingApproval::run: return 8;
    }
    return 0;
}

// --- Files ----------------------------------------------------------------------

std::string encodedDirName(std::string_view path) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    std::string out(path);
    for (char& c : out)
        if (c == '/' || c == '.' || c == '_') c = '-';
    return out;
}

std::vector<Transcript> transcripts(const fs::path& projectFolder) {
    std::vector<Transcript> out;
    std::error_code ec;
    for (fs::directory_iterator it(projectFolder / "agent-transcripts", ec), end; !ec && it != end; it.increment(ec)) {
        fs::path file = it->path();
        if (file.extension() != ".jsonl") {
            // A conversation with a folder of its own keeps its transcript inside.
            file = file / (file.filename().string() + ".jsonl");
        }
        auto st = stamp(file);
        if (!st) continue;
        out.push_back({file, file.stem().string(), *st, fromNanos(st->mtimeNanos)});
    }
    std::sort(out.begin(), out.end(), [](const Transcript& a, const Transcript& b) {
        return a.modified != b.modified ? a.modified > b.modified : a.file > b.file;
    });
    // The same conversation in both layouts counts once (the newer).
    std::vector<Transcript> unique;
    for (auto& t : out)
        if (std::none_of(unique.begin(), unique.end(), [&](const Transcript& u) { return u.sessionId == t.sessionId; }))
            unique.push_back(std::move(t));
    return unique;
}

fs::path subagentsFolder(const fs::path& transcript) {
    auto parent = transcript.parent_path();
    if (parent.filename() == transcript.stem()) return parent / "subagents";
    return parent / transcript.stem() / "subagents";
}

std::optional<Date> newestSubagentMtime(const fs::path& transcript) {
    std::optional<Date> newest;
    std::error_code ec;
    for (fs::directory_iterator it(subagentsFolder(transcript), ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".jsonl") continue;
        auto st = stamp(it->path());
        if (!st) continue;
        auto d = fromNanos(st->mtimeNanos);
        if (!newest || d > *newest) newest = d;
    }
    return newest;
}

std::optional<std::string> cwdFromTerminals(const fs::path& projectFolder) {
    auto folderName = projectFolder.filename().string();
    std::error_code ec;
    size_t looked = 0;
    for (fs::directory_iterator it(projectFolder / "terminals", ec), end; !ec && it != end && looked < kMaxTerminals;
         it.increment(ec), ++looked) {
        auto text = readHead(it->path(), kTerminalBytes);
        size_t pos = 0;
        while (pos < text.size()) {
            auto nl = text.find('\n', pos);
            auto line = trim(std::string_view(text).substr(pos, nl == std::string::npos ? std::string::npos : nl - pos));
            pos = nl == std::string::npos ? text.size() : nl + 1;
            if (line.substr(0, 4) != "cwd:") continue;
            auto path = trim(line.substr(4));
            if (path.empty() || path.front() != '/') continue;
            if (auto match = matchingAncestor(path, folderName)) return match;
        }
    }
    return std::nullopt;
}

std::optional<std::string> cwdFromText(std::string_view text, std::string_view folderName) {
    static constexpr std::array<std::string_view, 10> kRoots = {"Users", "private", "var", "opt",  "tmp",
                                                                "Volumes", "home", "root", "srv", "mnt"};
    auto pathChar = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == ' ' || c == '.' || c == '_' || c == '/' || c == '-';
    };
    for (size_t pos = text.find('/'); pos != std::string_view::npos; pos = text.find('/', pos + 1)) {
        auto rest = text.substr(pos + 1);
        bool rooted = std::any_of(kRoots.begin(), kRoots.end(), [&](std::string_view r) {
            return rest.substr(0, r.size()) == r && rest.size() > r.size() && rest[r.size()] == '/';
        });
        if (!rooted) continue;
        size_t end = pos + 1;
        while (end < text.size() && pathChar(text[end])) ++end;
        auto candidate = text.substr(pos, end - pos);
        // A path may run into the words after it: try every cut at a blank too.
        for (size_t cut = candidate.size(); cut > 1; --cut) {
            if (cut < candidate.size() && candidate[cut] != ' ' && candidate[cut] != '/') continue;
            if (auto match = matchingAncestor(trim(candidate.substr(0, cut)), folderName)) return match;
        }
        pos = end - 1;
    }
    return std::nullopt;
}

std::optional<std::string> projectCwd(const fs::path& projectFolder, const std::vector<fs::path>& files) {
    if (auto cwd = cwdFromTerminals(projectFolder)) return cwd;
    auto folderName = projectFolder.filename().string();
    size_t looked = 0;
    for (const auto& file : files) {
        if (++looked > 4) break;
        if (auto cwd = cwdFromText(readHead(file, kHeadBytes), folderName)) return cwd;
    }
    if (folderName.empty()) return std::nullopt;
    return resolveEncoded("/", folderName, 0);
}

// --- One transcript -------------------------------------------------------------

bool isTranscript(const fs::path& file) {
    auto entries = JournalTail::head(file, 64 * 1024, 8);
    if (entries.empty()) entries = tailEntries(file);  // a first line too long for the head
    if (entries.empty()) return false;
    return std::all_of(entries.begin(), entries.end(), [](const JournalEntry& e) {
               return (hasRole(e) && e.type().empty()) || isTurnEnded(e);
           }) &&
           std::any_of(entries.begin(), entries.end(), hasRole);
}

Entries tailEntries(const fs::path& file) {
    JournalTail::Options options;
    options.lineLimit = kTailLines;
    options.enough = [](const Entries& entries) {
        return std::any_of(entries.begin(), entries.end(), [](const JournalEntry& e) { return hasRole(e); });
    };
    options.wholeLongLine = true;
    return std::move(JournalTail::read(file, options).entries);
}

std::optional<CursorSession> session(const fs::path& file, const std::string& cwd, Date now) {
    auto entries = tailEntries(file);
    if (entries.empty()) return std::nullopt;
    auto modified = modificationDate(file);
    if (!modified) return std::nullopt;
    CursorSession s;
    s.file = file;
    s.cwd = cwd;
    s.projectName = fs::path(cwd).filename().string();
    if (s.projectName.empty()) s.projectName = cwd;
    s.sessionId = file.stem().string();
    if (auto prompt = newestPrompt(entries)) s.prompt = truncateText(*prompt, kPromptChars);
    s.pendingCommand = pendingCommand(entries);

    TranscriptInfo& info = s.info;
    info.sessionId = s.sessionId;
    auto own = ClaudeTranscriptReader::lastEntryDate(entries).value_or(*modified);
    auto subagentWrite = newestSubagentMtime(file);
    info.lastModified = std::max(*modified, subagentWrite.value_or(*modified));
    info.lastEntryDate = std::max(own, subagentWrite.value_or(own));
    info.recentSubagentActivity = subagentWrite && now - *subagentWrite <= kSubagentActivityWindow;
    info.summary = summarize(entries);
    info.inProgress = isInProgress(entries);
    info.pendingApproval = pendingApproval(entries);
    info.endsWithQuestion = endsWithQuestion(entries);
    info.awaitingFirstReply = awaitingFirstReply(entries);
    info.recentActivity = recentActivity(entries, kActivityLines);
    info.hasRealTurn = hasRealTurn(entries);
    info.created = std::min(creationDate(file).value_or(*modified), info.lastEntryDate);
    std::error_code ec;
    for (fs::directory_iterator it(subagentsFolder(file), ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".jsonl") continue;
        if (auto sub = liveSubagent(it->path(), now)) info.subagents.push_back(std::move(*sub));
    }
    std::sort(info.subagents.begin(), info.subagents.end(),
              [](const SubagentInfo& a, const SubagentInfo& b) { return a.id < b.id; });
    info.subagentCount = static_cast<int>(info.subagents.size());
    SessionTopic::fill(info, std::nullopt, SessionTopic::firstPrompt(file, HarnessProvider::cursor), s.sessionId);
    return s;
}

std::optional<TranscriptInfo> infoForCwd(const fs::path& projectsRoot, const std::string& cwd, Date now) {
    auto list = transcripts(projectsRoot / encodedDirName(cwd));
    if (list.empty()) return std::nullopt;
    auto s = session(list.front().file, cwd, now);
    if (!s) return std::nullopt;
    return s->info;
}

std::vector<CursorSession> runningSessions(const fs::path& projectsRoot, std::chrono::seconds maxAge,
                                           const std::set<std::string>& keepAlive, Date now) {
    std::vector<CursorSession> out;
    std::error_code ec;
    for (fs::directory_iterator it(projectsRoot, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code typeEc;
        if (!it->is_directory(typeEc) || typeEc) continue;
        std::vector<fs::path> fresh;
        for (const auto& t : transcripts(it->path())) {
            auto latest = std::max(t.modified, newestSubagentMtime(t.file).value_or(t.modified));
            if (now - latest <= maxAge || keepAlive.count(t.sessionId)) fresh.push_back(t.file);
        }
        if (fresh.empty()) continue;
        auto cwd = projectCwd(it->path(), fresh);
        if (!cwd) continue;
        for (const auto& file : fresh)
            if (auto s = session(file, *cwd, now)) out.push_back(std::move(*s));
    }
    return out;
}

// --- Derivations over tail entries ------------------------------------------------

std::optional<std::string> userQuery(std::string_view text) {
    static constexpr std::string_view kOpen = "<user_query>", kClose = "</user_query>";
    auto a = text.find(kOpen);
    if (a == std::string_view::npos) return std::nullopt;
    a += kOpen.size();
    auto b = text.find(kClose, a);
    auto inner = trim(text.substr(a, b == std::string_view::npos ? std::string_view::npos : b - a));
    if (inner.empty()) return std::nullopt;
    return std::string(inner);
}

std::optional<PendingApproval> approvalClass(std::string_view name) {
    static constexpr std::array<std::string_view, 12> kQuiet = {
        "Read", "Grep", "Glob", "SemanticSearch", "ReadLints", "Task", "ListDir", "Codebase", "TodoWrite", "Fetch",
        "WebSearch", "Await"};
    if (name.empty() || std::find(kQuiet.begin(), kQuiet.end(), name) != kQuiet.end()) return std::nullopt;
    if (name == "Shell") return PendingApproval::run;
    if (name == "AskQuestion") return PendingApproval::question;
    return PendingApproval::edit;
}

bool isInProgress(const Entries& entries) {
    long i = newestTurnLine(entries);
    return i >= 0 && !isTurnEnded(entries[i]);
}

std::optional<PendingApproval> pendingApproval(const Entries& entries) {
    auto call = danglingCall(entries);
    if (!call) return std::nullopt;
    return approvalClass(json::string(*call, "name").value_or(""));
}

std::optional<std::string> askQuestion(const Entries& entries) {
    auto call = danglingCall(entries);
    if (!call || json::string(*call, "name") != "AskQuestion") return std::nullopt;
    std::optional<std::string> what;
    if (auto input = json::field(*call, "input")) {
        what = nonEmpty(json::string(*input, "title"));
        if (!what)
            if (auto questions = json::array(*input, "questions"))
                for (element q : *questions) {
                    what = nonEmpty(json::string(q, "prompt"));
                    break;
                }
    }
    return "Cursor is asking: " + oneLine(what.value_or("a question"), kSummaryChars);
}

std::optional<std::string> pendingCommand(const Entries& entries) {
    auto call = danglingCall(entries);
    if (!call || json::string(*call, "name") != "Shell") return std::nullopt;
    auto input = json::field(*call, "input");
    return input ? nonEmpty(json::string(*input, "command")) : std::nullopt;
}

bool endsWithQuestion(const Entries& entries) {
    long i = newestTurnLine(entries);
    if (i < 0 || !isTurnEnded(entries[i]) || isAbortedEnd(entries[i])) return false;
    for (long j = i - 1; j >= 0; --j) {
        if (!hasRole(entries[j])) continue;
        if (role(entries[j]) != "assistant") return false;
        auto bs = blocks(entries[j]);
        for (auto it = bs.rbegin(); it != bs.rend(); ++it) {
            if (it->type == "thinking" || it->type == "redacted_thinking") continue;
            if (it->type != "text") return false;
            auto text = blockText(*it);
            if (isRedacted(text)) continue;
            return ClaudeTranscriptReader::textEndsWithQuestion(text);
        }
        return false;
    }
    return false;
}

bool awaitingFirstReply(const Entries& entries) {
    bool prompt = false;
    for (const auto& e : entries) {
        if (role(e) == "assistant") return false;
        if (promptOf(e)) prompt = true;
    }
    return prompt;
}

bool hasRealTurn(const Entries& entries) {
    return std::any_of(entries.begin(), entries.end(),
                       [](const JournalEntry& e) { return role(e) == "assistant" || promptOf(e).has_value(); });
}

bool wasInterrupted(const Entries& entries) {
    long i = newestTurnLine(entries);
    return i >= 0 && (isAbortedEnd(entries[i]) || isInterruptText(entries[i]));
}

std::optional<std::string> summarize(const Entries& entries) {
    if (auto ask = askQuestion(entries)) return ask;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& e = *it;
        if (isAbortedEnd(e) || isInterruptText(e)) return "Interrupted";
        if (auto prompt = promptOf(e)) return "You: " + oneLine(*prompt, kSummaryChars);
        if (role(e) != "assistant") continue;
        auto bs = blocks(e);
        for (auto b = bs.rbegin(); b != bs.rend(); ++b) {
            if (b->type == "tool_use") return toolLine(b->value, kSummaryChars);
            if (b->type == "text" && !isRedacted(blockText(*b))) return oneLine(blockText(*b), kSummaryChars);
        }
    }
    return std::nullopt;
}

std::vector<ActivityLine> recentActivity(const Entries& entries, size_t limit) {
    using Kind = ActivityLine::Kind;
    std::vector<ActivityLine> lines;
    auto add = [&](Kind kind, std::string text) {
        if (text.empty()) return;
        ActivityLine line{kind, std::move(text)};
        if (!lines.empty() && lines.back() == line) return;
        lines.push_back(std::move(line));
    };
    for (const auto& e : entries) {
        if (isAbortedEnd(e) || isInterruptText(e)) {
            add(Kind::error, "Interrupted");
            continue;
        }
        if (auto prompt = promptOf(e)) {
            add(Kind::prompt, oneLine(*prompt, kActivityChars));
            continue;
        }
        for (const auto& b : blocks(e)) {
            if (b.type == "tool_result") {
                bool failed = json::boolean(b.value, "is_error").value_or(false);
                std::string text;
                if (auto content = json::field(b.value, "content")) {
                    if (auto s = json::string(*content)) text = std::string(*s);
                }
                auto line = oneLine(trim(text).substr(0, trim(text).find('\n')), kActivityChars);
                add(failed ? Kind::error : Kind::ok, line.empty() ? (failed ? "Failed" : "Done") : line);
            }
            if (role(e) != "assistant") continue;
            if (b.type == "text" && !isRedacted(blockText(b))) add(Kind::reply, oneLine(blockText(b), kActivityChars));
            else if (b.type == "thinking") add(Kind::thinking, "Thinking…");
            else if (b.type == "tool_use") add(Kind::tool, toolLine(b.value, kActivityChars));
        }
    }
    if (lines.size() > limit) lines.erase(lines.begin(), lines.end() - static_cast<long>(limit));
    return lines;
}

std::optional<std::string> newestPrompt(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        if (auto p = promptOf(*it)) return p;
    return std::nullopt;
}

std::optional<std::string> firstPrompt(const Entries& entries) {
    for (const auto& e : entries)
        if (auto p = promptOf(e)) return p;
    return std::nullopt;
}

}  // namespace scrivet::CursorTranscriptReader
