#include "scrivet/kimi_transcript_reader.hpp"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <unordered_map>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/file_stamp.hpp"
#include "scrivet/journal_entry.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/session_topic.hpp"
#include "scrivet/tail_reader.hpp"

namespace scrivet::KimiTranscriptReader {

namespace {

using simdjson::dom::element;
namespace CTR = ClaudeTranscriptReader;

constexpr uint64_t kFirstWindow = 64 * 1024;
constexpr uint64_t kMaxWindow = 4 * 1024 * 1024;
constexpr size_t kActivityLines = 8;
constexpr size_t kActivityChars = 100;
constexpr size_t kSummaryChars = 120;
constexpr size_t kSmallFileLimit = 1 << 20;
constexpr size_t kConfigLimit = 4 << 20;
constexpr auto kLiveAgentWindow = std::chrono::seconds(120);
constexpr auto kBackgroundActiveWindow = std::chrono::seconds(900);

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

// A parse kept until its file changes. One lock per cache, never nested.
template <typename T>
class StampCache {
public:
    template <typename Make>
    T get(const fs::path& file, const std::optional<FileStamp>& stamp, Make make) {
        {
            std::lock_guard lock(mutex_);
            auto it = entries_.find(file.string());
            if (it != entries_.end() && stamp && it->second.first == *stamp) return it->second.second;
        }
        T value = make();
        std::lock_guard lock(mutex_);
        if (stamp) {
            // A bound keeps a long run's cache from growing without end.
            if (entries_.size() > 4096) entries_.clear();
            entries_[file.string()] = {*stamp, value};
        } else {
            entries_.erase(file.string());
        }
        return value;
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::string, std::pair<FileStamp, T>> entries_;
};

// A key of a line, at its top level or inside its "payload" object.
std::optional<element> key(element e, std::string_view name) {
    if (auto f = json::field(e, name)) return f;
    if (auto payload = json::field(e, "payload")) return json::field(*payload, name);
    return std::nullopt;
}

std::optional<std::string_view> text(element e, std::string_view name) {
    auto f = key(e, name);
    return f ? json::string(*f) : std::nullopt;
}

// The prompt's text: its "text" parts joined, or a bare string.
std::string promptText(element e) {
    auto input = key(e, "input");
    if (!input) return {};
    if (auto s = json::string(*input)) return std::string(*s);
    std::string out;
    simdjson::dom::array parts;
    if (input->get_array().get(parts)) return out;
    for (element part : parts) {
        auto type = json::string(part, "type");
        if (type && *type != "text") continue;
        if (auto t = json::string(part, "text")) {
            if (!out.empty()) out += '\n';
            out += *t;
        }
    }
    return out;
}

// A tool call's arguments: an object, or an object written as a JSON string.
struct Args {
    simdjson::dom::parser parser;
    std::optional<element> value;
};

void readArgs(element e, Args& args) {
    auto a = key(e, "args");
    if (!a) a = key(e, "arguments");
    if (!a) return;
    if (a->is_object()) {
        args.value = *a;
        return;
    }
    if (auto s = json::string(*a)) {
        element parsed;
        if (!args.parser.parse(s->data(), s->size()).get(parsed) && parsed.is_object()) args.value = parsed;
    }
}

std::optional<PendingQuestion> questionFrom(element args) {
    auto questions = json::array(args, "questions");
    if (!questions || questions->size() == 0) return std::nullopt;
    PendingQuestion q;
    element first;
    if (questions->at(0).get(first)) return std::nullopt;
    q.text = collapseWhitespace(json::string(first, "question").value_or(""));
    if (auto options = json::array(first, "options")) {
        for (element o : *options) {
            if (auto label = json::string(o, "label")) q.options.emplace_back(*label);
            else if (auto plain = json::string(o)) q.options.emplace_back(*plain);
        }
    }
    q.moreCount = static_cast<int>(questions->size()) - 1;
    return q;
}

// The tokens of one usage record: its "total" when it gives one, else the
// sum of its buckets (input, output and the cache counts), one level deep.
std::optional<long long> usageTokens(element usage) {
    if (auto total = json::integer(usage, "total"); total && *total > 0) return *total;
    simdjson::dom::object obj;
    if (usage.get_object().get(obj)) return std::nullopt;
    long long sum = 0;
    bool any = false;
    for (auto [k, v] : obj) {
        if (auto n = json::integer(v)) {
            if (*n > 0) sum += *n;
            any = true;
        } else if (v.is_object()) {
            simdjson::dom::object inner;
            if (v.get_object().get(inner)) continue;
            for (auto [k2, v2] : inner) {
                if (auto n2 = json::integer(v2); n2 && *n2 > 0) {
                    sum += *n2;
                    any = true;
                }
            }
        }
    }
    if (!any || sum < 1) return std::nullopt;
    return sum;
}

struct ResultFacts {
    bool failed = false;
    std::string text;
};

ResultFacts resultFacts(element e) {
    ResultFacts r;
    auto result = key(e, "result");
    if (!result) return r;
    if (auto s = json::string(*result)) {
        r.text = std::string(*s);
        return r;
    }
    for (auto flag : {"is_error", "isError"}) {
        if (json::boolean(*result, flag).value_or(false)) r.failed = true;
    }
    if (auto type = json::string(*result, "type"); type && *type == "error") r.failed = true;
    if (auto error = json::field(*result, "error"); error && !error->is_null()) {
        r.failed = true;
        if (auto s = json::string(*error)) r.text = std::string(*s);
    }
    for (auto k : {"output", "message", "content", "text"}) {
        if (!r.text.empty()) break;
        if (auto s = json::string(*result, k)) r.text = std::string(*s);
    }
    return r;
}

// Calls `f` with each line of `text` that is a JSON object, in order, through
// one parser and one padded copy: no line is kept beyond its call. Returns
// how many lines parsed. Invalid UTF-8 (a window may cut a character) is
// repaired first rather than failing its line.
template <typename F>
size_t forEachObject(std::string_view text, F&& f) {
    std::string buffer(text);
    TailReader::repairUtf8(buffer);
    size_t size = buffer.size();
    buffer.resize(size + simdjson::SIMDJSON_PADDING, '\0');
    simdjson::dom::parser parser;
    size_t parsed = 0;
    for (size_t pos = 0; pos < size;) {
        size_t nl = buffer.find('\n', pos);
        size_t end = nl == std::string::npos || nl > size ? size : nl;
        size_t b = pos, e = end;
        pos = end + 1;
        while (b < e && std::isspace(static_cast<unsigned char>(buffer[b]))) ++b;
        while (e > b && std::isspace(static_cast<unsigned char>(buffer[e - 1]))) --e;
        if (b == e || buffer[b] != '{') continue;
        // The bytes after a line are the following lines and the padding.
        element root;
        if (parser.parse(reinterpret_cast<const uint8_t*>(buffer.data() + b), e - b, false).get(root) ||
            !root.is_object())
            continue;
        ++parsed;
        f(root);
    }
    return parsed;
}

// Folds the lines of a wire journal, oldest first, into its status; sets
// `parsed` to how many lines were JSON objects.
WireStatus statusOf(std::string_view journal, size_t* parsed = nullptr) {
    using Kind = ActivityLine::Kind;
    WireStatus w;
    bool turnOpen = false, settledOnce = false;
    std::string lastText;
    std::optional<std::string> questionCall;
    std::vector<std::pair<std::string, std::string>> dangling;  // call id, tool name
    int prompts = 0;
    bool assistantSeen = false;
    std::optional<long long> stepTokens, turnTokens;
    std::vector<ActivityLine> lines;
    auto add = [&](Kind kind, std::string t) {
        if (t.empty()) return;
        ActivityLine line{kind, std::move(t)};
        if (!lines.empty() && lines.back() == line) return;
        lines.push_back(std::move(line));
    };
    auto beginTurn = [&] {
        turnOpen = true;
        w.interrupted = false;
    };
    size_t count = forEachObject(journal, [&](element e) {
        auto type = json::string(e, "type").value_or("");
        if (type == "turn.prompt") {
            w.hasRealTurn = true;
            ++prompts;
            beginTurn();
            lastText.clear();
            w.question.reset();
            questionCall.reset();
            dangling.clear();
            auto prompt = promptText(e);
            add(Kind::prompt, trimmed(prompt).empty() ? "[image]" : oneLine(prompt, kActivityChars));
        } else if (type == "llm.request") {
            auto alias = text(e, "modelAlias");
            auto model = alias && !alias->empty() ? alias : text(e, "model");
            if (model && !model->empty()) w.model = std::string(*model);
        } else if (type == "step.begin") {
            beginTurn();
        } else if (type == "content.part") {
            beginTurn();
            auto part = key(e, "part");
            if (!part) return;
            auto partType = json::string(*part, "type").value_or("");
            if (partType == "text") {
                auto t = json::string(*part, "text").value_or("");
                if (trimmed(t).empty()) return;
                lastText = std::string(t);
                assistantSeen = true;
                add(Kind::reply, oneLine(t, kActivityChars));
            } else if (partType == "think" || partType == "thinking" || partType == "reasoning") {
                auto t = json::string(*part, "think");
                if (!t) t = json::string(*part, "text");
                auto line = oneLine(t.value_or(""), kActivityChars);
                add(Kind::thinking, line.empty() ? "Thinking…" : line);
            }
        } else if (type == "tool.call") {
            beginTurn();
            assistantSeen = true;
            std::string name(text(e, "name").value_or("tool"));
            std::string id(text(e, "toolCallId").value_or(""));
            Args args;
            readArgs(e, args);
            if (name == "AskUserQuestion" && args.value) {
                if (auto q = questionFrom(*args.value)) {
                    w.question = std::move(q);
                    questionCall = id;
                }
            }
            dangling.emplace_back(id, name);
            add(Kind::tool, args.value ? CTR::toolLine(name, *args.value, kActivityChars) : CTR::shortToolName(name));
        } else if (type == "tool.result") {
            std::string id(text(e, "toolCallId").value_or(""));
            std::erase_if(dangling, [&](const auto& call) { return call.first == id; });
            if (questionCall && *questionCall == id) {
                w.question.reset();
                questionCall.reset();
            }
            auto r = resultFacts(e);
            auto line = oneLine(r.text, kActivityChars);
            add(r.failed ? Kind::error : Kind::ok, line.empty() ? (r.failed ? "Failed" : "Done") : line);
        } else if (type == "step.end") {
            auto reason = text(e, "finishReason").value_or("");
            if (reason == "tool_use" || reason == "tool_calls") {
                beginTurn();
                return;
            }
            // "end_turn" settles the turn; any other ending (a cancel, an
            // error, a length stop) settles it too, as an interruption.
            turnOpen = false;
            settledOnce = true;
            w.interrupted = !reason.empty() && reason != "end_turn";
            if (w.interrupted) add(Kind::error, "Interrupted");
            w.question.reset();
            questionCall.reset();
            dangling.clear();
        } else if (type == "usage.record") {
            // Bookkeeping: never reopens a turn. A step's usage is the
            // context at that step; a turn's sums its steps.
            auto usage = key(e, "usage");
            auto tokens = usage ? usageTokens(*usage) : std::nullopt;
            if (!tokens) return;
            if (text(e, "usageScope").value_or("") == "turn") turnTokens = tokens;
            else stepTokens = tokens;
        }
    });
    if (parsed) *parsed = count;
    w.inProgress = turnOpen;
    w.endsWithQuestion = !turnOpen && settledOnce && !w.interrupted && CTR::textEndsWithQuestion(lastText);
    if (!turnOpen) w.question.reset();
    if (w.question) {
        w.pendingApproval = PendingApproval::question;
    } else if (turnOpen && !dangling.empty()) {
        w.pendingApproval = pendingApprovalForTool(dangling.back().second);
    }
    w.awaitingFirstReply = prompts == 1 && !assistantSeen && turnOpen;
    w.contextTokens = stepTokens ? stepTokens : turnTokens;
    if (lines.size() > kActivityLines) lines.erase(lines.begin(), lines.end() - static_cast<long>(kActivityLines));
    w.recentActivity = std::move(lines);
    if (w.interrupted) {
        w.summary = "Interrupted";
    } else if (!w.recentActivity.empty()) {
        const auto& last = w.recentActivity.back();
        w.summary = last.kind == Kind::prompt ? "You: " + truncateText(last.text, kSummaryChars)
                                              : truncateText(last.text, kSummaryChars);
    }
    return w;
}

// Whole lines only: a window that starts inside a line drops that line.
std::string_view wholeLines(std::string_view bytes, bool startsLine) {
    if (startsLine) return bytes;
    size_t nl = bytes.find('\n');
    return nl == std::string_view::npos ? std::string_view{} : bytes.substr(nl + 1);
}

bool mentionsTurn(std::string_view text) {
    for (auto needle : {"turn.prompt", "content.part", "tool.call", "step.end", "llm.request"})
        if (text.find(needle) != std::string_view::npos) return true;
    return false;
}

// The wire tail's facts: a 64 KiB window, grown eightfold up to 4 MiB while it
// holds no line of a turn and does not reach the file's start. Nothing when
// the file can't be read or not one line of it parses.
std::optional<WireStatus> readWire(const fs::path& wire, std::string& why) {
    for (uint64_t window = kFirstWindow;; window *= 8) {
        window = std::min(window, kMaxWindow);
        auto tail = RegularFile::tail(wire, window, &why);
        if (!tail) return std::nullopt;
        auto lines = wholeLines(tail->bytes, tail->startsLine);
        if (mentionsTurn(lines) || tail->start == 0 || window >= kMaxWindow) {
            size_t parsed = 0;
            auto status = statusOf(lines, &parsed);
            if (parsed == 0) {
                why = tail->fileSize == 0 ? "empty wire journal" : "no readable line in the wire journal's tail";
                return std::nullopt;
            }
            return status;
        }
    }
}

struct WireRead {
    std::optional<WireStatus> status;
    std::string why;
};

StampCache<WireRead>& wireCache() {
    static StampCache<WireRead> cache;
    return cache;
}

WireRead wireFacts(const fs::path& wire, const std::optional<FileStamp>& wireStamp) {
    return wireCache().get(wire, wireStamp, [&] {
        WireRead r;
        r.status = readWire(wire, r.why);
        return r;
    });
}

struct StateRead {
    std::optional<State> state;
    std::string why;
};

StampCache<StateRead>& stateCache() {
    static StampCache<StateRead> cache;
    return cache;
}

StateRead stateFacts(const fs::path& file) {
    return stateCache().get(file, stamp(file), [&] {
        StateRead r;
        auto read = RegularFile::read(file, kSmallFileLimit);
        if (!read.text) {
            r.why = read.missing ? "missing" : read.why;
            return r;
        }
        r.state = parseState(*read.text);
        if (!r.state) r.why = "not a JSON object";
        else if (!r.state->workDir || r.state->workDir->empty()) r.why = "no workDir";
        return r;
    });
}

// The first prompt, from the journal's head (remembered once found: a
// session's topic never moves to a later prompt).
std::optional<std::string> headPrompt(const fs::path& wire) {
    return SessionTopic::firstPrompt(wire, HarnessProvider::kimi);
}

// A session's working directory never changes, so it is read once.
std::optional<std::string> workDirOf(const fs::path& statePath, std::string& why) {
    static std::mutex lock;
    static std::unordered_map<std::string, std::string> known;
    {
        std::lock_guard guard(lock);
        if (auto it = known.find(statePath.string()); it != known.end()) return it->second;
    }
    auto state = stateFacts(statePath);
    if (!state.state || !state.state->workDir || state.state->workDir->empty()) {
        why = state.why;
        return std::nullopt;
    }
    std::lock_guard guard(lock);
    if (known.size() > 8192) known.clear();
    known[statePath.string()] = *state.state->workDir;
    return state.state->workDir;
}

StampCache<Config>& configCache() {
    static StampCache<Config> cache;
    return cache;
}

Date stampDate(const FileStamp& s) {
    return Date{} + std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(s.mtimeNanos));
}

std::optional<Date> newer(std::optional<Date> a, std::optional<Date> b) {
    if (!a) return b;
    if (!b) return a;
    return std::max(*a, *b);
}

std::string folderName(const std::string& cwd) {
    auto name = fs::path(cwd).filename().string();
    return name.empty() ? cwd : name;
}

// The TOML value after "=": a basic or literal string, or a bare word (an
// integer) with any comment dropped.
std::optional<std::string> tomlString(std::string_view value) {
    value = trimmed(value);
    if (value.size() >= 2 && value.front() == '\'') {
        size_t end = value.find('\'', 1);
        if (end == std::string_view::npos) return std::nullopt;
        return std::string(value.substr(1, end - 1));
    }
    if (value.size() >= 2 && value.front() == '"') {
        std::string out;
        for (size_t i = 1; i < value.size(); ++i) {
            char c = value[i];
            if (c == '"') return out;
            if (c == '\\' && i + 1 < value.size()) {
                char n = value[++i];
                switch (n) {
                    case 'n': out += '\n'; break;
                    case 't': out += '\t'; break;
                    case '"': out += '"'; break;
                    case '\\': out += '\\'; break;
                    default: out += n; break;
                }
                continue;
            }
            out += c;
        }
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<long long> tomlInteger(std::string_view value) {
    value = trimmed(value.substr(0, value.find('#')));
    std::string digits;
    for (char c : value) {
        if (c == '_') continue;
        if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
        digits += c;
    }
    if (digits.empty() || digits.size() > 15) return std::nullopt;
    return std::stoll(digits);
}

}  // namespace

fs::path sessionsRoot(const fs::path& kimiHome) { return kimiHome / "sessions"; }

Config parseConfig(std::string_view text) {
    Config config;
    enum class Table { top, model, other } table = Table::top;
    std::string modelId;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t nl = text.find('\n', pos);
        std::string_view line = text.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
        pos = nl == std::string_view::npos ? text.size() + 1 : nl + 1;
        line = trimmed(line);
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            // [models."<id>"], exactly.
            constexpr std::string_view kOpen = "[models.\"";
            if (line.starts_with(kOpen) && line.ends_with("\"]") && line.size() > kOpen.size() + 2) {
                auto id = line.substr(kOpen.size(), line.size() - kOpen.size() - 2);
                if (id.find('"') == std::string_view::npos) {
                    table = Table::model;
                    modelId = std::string(id);
                    config.models[modelId];
                    continue;
                }
            }
            table = Table::other;
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        auto name = trimmed(line.substr(0, eq));
        auto value = line.substr(eq + 1);
        if (table == Table::top && name == "default_model") {
            config.defaultModel = tomlString(value);
        } else if (table == Table::model && name == "max_context_size") {
            config.models[modelId].maxContextSize = tomlInteger(value);
        } else if (table == Table::model && name == "display_name") {
            config.models[modelId].displayName = tomlString(value);
        }
    }
    return config;
}

Config config(const fs::path& file) {
    if (file.empty()) return {};
    return configCache().get(file, stamp(file), [&] {
        auto read = RegularFile::read(file, kConfigLimit);
        return read.text ? parseConfig(*read.text) : Config{};
    });
}

std::string displayName(const std::string& modelId, const Config& config) {
    if (auto it = config.models.find(modelId); it != config.models.end() && it->second.displayName &&
                                               !trimmed(*it->second.displayName).empty())
        return *it->second.displayName;
    auto slash = modelId.rfind('/');
    std::string last = slash == std::string::npos ? modelId : modelId.substr(slash + 1);
    return last.empty() ? modelId : last;
}

std::optional<State> parseState(std::string_view text) {
    simdjson::dom::parser parser;
    element root;
    simdjson::padded_string padded(text);
    if (parser.parse(padded).get(root) || !root.is_object()) return std::nullopt;
    State s;
    auto str = [&](std::string_view k) -> std::optional<std::string> {
        auto v = json::string(root, k);
        return v ? std::optional<std::string>(std::string(*v)) : std::nullopt;
    };
    s.workDir = str("workDir");
    s.title = str("title");
    s.isCustomTitle = json::boolean(root, "isCustomTitle").value_or(false);
    s.lastPrompt = str("lastPrompt");
    return s;
}

WireStatus wireStatus(std::string_view tail) { return statusOf(tail); }

std::optional<std::string> firstPrompt(std::string_view lines) {
    std::optional<std::string> found;
    forEachObject(lines, [&](element e) {
        if (found || json::string(e, "type").value_or("") != "turn.prompt") return;
        auto prompt = promptText(e);
        // A prompt that says nothing (markup, an image alone) is walked past.
        if (SessionTopic::promptText(prompt)) found = std::move(prompt);
    });
    return found;
}

bool isSessionId(std::string_view name) {
    constexpr std::string_view kPrefix = "session_";
    if (!name.starts_with(kPrefix)) return false;
    auto uuid = name.substr(kPrefix.size());
    if (uuid.size() != 36) return false;
    for (size_t i = 0; i < uuid.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? uuid[i] != '-' : !std::isxdigit(static_cast<unsigned char>(uuid[i]))) return false;
    }
    return true;
}

int pendingBackgroundTaskCount(const std::vector<std::string>& sidecars) {
    int count = 0;
    simdjson::dom::parser parser;
    for (const auto& text : sidecars) {
        element root;
        simdjson::padded_string padded(text);
        if (parser.parse(padded).get(root)) continue;
        if (json::string(root, "status").value_or("") == "running") ++count;
    }
    return count;
}

namespace {

// The session's other agents and background tasks, from one listing of its
// "agents" folder.
struct AgentsFolder {
    std::vector<SubagentInfo> subagents;
    BackgroundTasks background;
};

AgentsFolder agentsFolder(const fs::path& sessionDir, Date now, const Config& config, bool wantSubagents) {
    AgentsFolder out;
    std::vector<std::string> sidecars;
    std::error_code ec;
    for (fs::directory_iterator agents(sessionDir / "agents", ec), end; !ec && agents != end; agents.increment(ec)) {
        auto name = agents->path().filename().string();
        std::error_code inner;
        for (fs::directory_iterator task(agents->path() / "tasks", inner), stop; !inner && task != stop;
             task.increment(inner)) {
            const auto& path = task->path();
            if (path.extension() != ".json") continue;
            auto read = RegularFile::read(path, kSmallFileLimit);
            if (!read.text) continue;
            sidecars.push_back(std::move(*read.text));
            out.background.newestActivity = newer(out.background.newestActivity, modificationDate(path));
            auto log = path.parent_path() / path.stem() / "output.log";
            out.background.newestActivity = newer(out.background.newestActivity, modificationDate(log));
        }
        if (!wantSubagents || name == "main") continue;
        auto wire = agents->path() / "wire.jsonl";
        auto wireStamp = stamp(wire);
        if (!wireStamp || now - stampDate(*wireStamp) > kLiveAgentWindow) continue;
        auto facts = wireFacts(wire, wireStamp);
        if (!facts.status || !facts.status->inProgress) continue;
        SubagentInfo sub;
        sub.id = name;
        sub.type = "agent";
        sub.task = oneLine(headPrompt(wire).value_or(""), kActivityChars);
        if (facts.status->model) sub.model = displayName(*facts.status->model, config);
        if (!facts.status->recentActivity.empty()) sub.action = facts.status->recentActivity.back().text;
        sub.isRunning = true;
        sub.tokens = facts.status->contextTokens;
        out.subagents.push_back(std::move(sub));
    }
    out.background.running = pendingBackgroundTaskCount(sidecars);
    std::sort(out.subagents.begin(), out.subagents.end(),
              [](const SubagentInfo& a, const SubagentInfo& b) { return a.id < b.id; });
    return out;
}

// When a journal was made never changes: asked once per file.
std::optional<Date> madeAt(const fs::path& file) {
    static std::mutex lock;
    static std::unordered_map<std::string, Date> known;
    {
        std::lock_guard guard(lock);
        if (auto it = known.find(file.string()); it != known.end()) return it->second;
    }
    auto made = creationDate(file);
    if (made) {
        std::lock_guard guard(lock);
        if (known.size() > 8192) known.clear();
        known[file.string()] = *made;
    }
    return made;
}

}  // namespace

BackgroundTasks backgroundTasks(const fs::path& sessionDir, Date now) {
    return agentsFolder(sessionDir, now, {}, false).background;
}

std::vector<SubagentInfo> runningSubagents(const fs::path& sessionDir, Date now, const Config& config) {
    return agentsFolder(sessionDir, now, config, true).subagents;
}

namespace {

std::optional<KimiSession> build(const std::string& sessionId, const fs::path& sessionDir, const fs::path& wire,
                                 const std::optional<State>& state, const std::optional<FileStamp>& wireStamp,
                                 Date now, const Config& cfg, const Note& note) {
    auto facts = wireFacts(wire, wireStamp);
    if (!facts.status) {
        if (note) note(wire.string() + ": " + facts.why);
        return std::nullopt;
    }
    const WireStatus& w = *facts.status;
    KimiSession s;
    s.sessionId = sessionId;
    s.sessionDir = sessionDir;
    s.cwd = state && state->workDir ? *state->workDir : std::string();
    s.projectName = folderName(s.cwd);
    auto modelId = w.model ? w.model : cfg.defaultModel;
    if (modelId) {
        s.model = displayName(*modelId, cfg);
        if (auto it = cfg.models.find(*modelId); it != cfg.models.end()) s.contextMax = it->second.maxContextSize;
    }
    s.contextTokens = w.contextTokens;
    s.question = w.question;

    TranscriptInfo& info = s.info;
    info.lastModified = wireStamp ? stampDate(*wireStamp) : now;
    info.summary = w.summary;
    info.sessionId = sessionId;
    info.model = s.model;
    info.contextTokens = s.contextTokens;
    info.contextMax = s.contextMax;
    info.inProgress = w.inProgress;
    info.pendingApproval = w.pendingApproval;
    info.endsWithQuestion = w.endsWithQuestion;
    info.awaitingFirstReply = w.awaitingFirstReply;
    info.recentActivity = w.recentActivity;
    info.hasRealTurn = w.hasRealTurn;
    if (!sessionDir.empty()) {
        auto folder = agentsFolder(sessionDir, now, cfg, true);
        info.subagents = std::move(folder.subagents);
        const auto& background = folder.background;
        info.pendingBackgroundAgents = background.running;
        // A running subagent wrote within the last two minutes.
        bool recent = background.newestActivity && now - *background.newestActivity <= kBackgroundActiveWindow;
        info.recentSubagentActivity = recent || !info.subagents.empty();
    }
    info.subagentCount = static_cast<int>(info.subagents.size());
    info.lastEntryDate = info.lastModified;
    info.created = madeAt(wire).value_or(info.lastModified);

    // The title unless it is still Kimi's default, else the first prompt.
    std::optional<std::string> title;
    if (state && state->title && trimmed(*state->title) != kDefaultTitle) title = state->title;
    auto prompt = headPrompt(wire);
    // Before the wire holds the first prompt, the state's (newest) prompt is that prompt.
    if (!prompt && state) prompt = state->lastPrompt;
    std::optional<std::string> id;
    if (!sessionId.empty()) id = sessionId;
    SessionTopic::fill(info, title, prompt, id);
    return s;
}

}  // namespace

std::optional<KimiSession> parse(const fs::path& sessionDir, Date now, const fs::path& configFile, const Note& note) {
    auto statePath = sessionDir / "state.json";
    auto state = stateFacts(statePath);
    if (!state.state || !state.state->workDir || state.state->workDir->empty()) {
        if (note) note(statePath.string() + ": " + state.why);
        return std::nullopt;
    }
    auto wire = sessionDir / "agents/main/wire.jsonl";
    return build(sessionDir.filename().string(), sessionDir, wire, state.state, stamp(wire), now, config(configFile),
                 note);
}

std::optional<KimiSession> parseWire(const fs::path& wireFile, const std::optional<fs::path>& stateFile, Date now,
                                     const fs::path& configFile, const Note& note) {
    std::optional<State> state;
    if (stateFile) state = stateFacts(*stateFile).state;
    // <session>/agents/<agent>/wire.jsonl names its session by the folder.
    fs::path sessionDir;
    auto agentDir = wireFile.parent_path();
    if (agentDir.parent_path().filename() == "agents") sessionDir = agentDir.parent_path().parent_path();
    std::string id = isSessionId(sessionDir.filename().string()) ? sessionDir.filename().string() : std::string();
    auto session = build(id, sessionDir, wireFile, state, stamp(wireFile), now, config(configFile), note);
    if (session && id.empty()) session->info.sessionId.reset();
    return session;
}

std::vector<KimiSession> runningSessions(const fs::path& root, const ScanOptions& options) {
    std::vector<KimiSession> out;
    const Config cfg = config(options.configFile);
    std::error_code ec;
    for (fs::directory_iterator wd(root, ec), end; !ec && wd != end; wd.increment(ec)) {
        std::error_code typeEc;
        if (!wd->is_directory(typeEc)) continue;
        std::error_code inner;
        for (fs::directory_iterator dir(wd->path(), inner), stop; !inner && dir != stop; dir.increment(inner)) {
            auto id = dir->path().filename().string();
            if (!isSessionId(id)) continue;
            // Where the session runs decides first: most folders belong to
            // directories without a Kimi process and cost no more than this.
            auto statePath = dir->path() / "state.json";
            std::string why;
            auto workDir = workDirOf(statePath, why);
            if (!workDir) {
                if (options.note) options.note(statePath.string() + ": " + why);
                continue;
            }
            if (options.cliRunning && !options.cliRunning(*workDir)) continue;
            auto wire = dir->path() / "agents/main/wire.jsonl";
            auto wireStamp = stamp(wire);
            bool kept = options.keepAlive.count(id) > 0;
            if (!wireStamp && !kept) continue;
            if (!kept && options.now - stampDate(*wireStamp) > options.maxAge) continue;
            auto state = stateFacts(statePath);
            if (!state.state || !state.state->workDir || state.state->workDir->empty()) {
                if (options.note) options.note(statePath.string() + ": " + state.why);
                continue;
            }
            if (auto s = build(id, dir->path(), wire, state.state, wireStamp, options.now, cfg, options.note))
                out.push_back(std::move(*s));
        }
    }
    std::sort(out.begin(), out.end(), [](const KimiSession& a, const KimiSession& b) {
        if (a.info.lastModified != b.info.lastModified) return a.info.lastModified > b.info.lastModified;
        return a.sessionId < b.sessionId;
    });
    return out;
}

std::optional<std::string> jumpTitleNeedle(const fs::path& root, const std::string& sessionId) {
    if (!isSessionId(sessionId)) return std::nullopt;
    std::error_code ec;
    for (fs::directory_iterator wd(root, ec), end; !ec && wd != end; wd.increment(ec)) {
        auto statePath = wd->path() / sessionId / "state.json";
        auto state = stateFacts(statePath);
        if (!state.state) continue;
        if (state.state->title && !trimmed(*state.state->title).empty()) return state.state->title;
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace scrivet::KimiTranscriptReader
