#include "scrivet/cowork_reader.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <sstream>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/file_stamp.hpp"
#include "scrivet/tail_reader.hpp"

namespace scrivet::CoworkReader {

namespace {

using simdjson::dom::element;
namespace Claude = ClaudeTranscriptReader;

constexpr size_t kTailLines = 2000;
constexpr size_t kActivityLines = 8;
constexpr size_t kLineChars = 160;
constexpr long long kOneMillion = 1'000'000;
constexpr long long kStandardWindow = 200'000;

std::optional<element> messageOf(const JournalEntry& e) { return e.field("message"); }

std::optional<Date> stampOf(const JournalEntry& e) {
    auto f = e.field("_audit_timestamp");
    if (!f) return std::nullopt;
    if (auto s = json::string(*f)) return parseIsoDate(*s);
    if (auto n = json::integer(*f)) {
        // Seconds or milliseconds since 1970, whichever the number looks like.
        long long v = *n;
        auto since = v > 100'000'000'000LL ? std::chrono::milliseconds(v) : std::chrono::milliseconds(v * 1000);
        return Date(std::chrono::duration_cast<Date::duration>(since));
    }
    return std::nullopt;
}

std::string oneLine(std::string_view text) { return scrivet::oneLine(text, kLineChars); }

void addActivity(Folded& f, ActivityLine::Kind kind, std::string text) {
    if (text.empty()) return;
    f.recentActivity.push_back({kind, std::move(text)});
    if (f.recentActivity.size() > kActivityLines) f.recentActivity.erase(f.recentActivity.begin());
}

// A user entry's text, and whether it held anything but tool results.
struct UserContent {
    std::string text;
    bool prompt = false;
    int results = 0;
    int errors = 0;
};

UserContent userContent(const JournalEntry& e) {
    UserContent out;
    auto m = messageOf(e);
    if (!m) return out;
    if (auto s = json::string(*m, "content")) {
        out.text = std::string(*s);
        out.prompt = true;
        return out;
    }
    if (auto blocks = json::array(*m, "content")) {
        for (element b : *blocks) {
            auto type = json::string(b, "type").value_or("");
            if (type == "tool_result") {
                ++out.results;
                if (json::boolean(b, "is_error").value_or(false)) ++out.errors;
            } else if (type == "text") {
                if (!out.text.empty()) out.text += '\n';
                out.text += json::string(b, "text").value_or("");
                out.prompt = true;
            } else if (type == "image" || type == "document") {
                out.prompt = true;
            }
        }
    }
    return out;
}

std::optional<PendingQuestion> questionOf(element input) {
    auto questions = json::array(input, "questions");
    if (!questions) return std::nullopt;
    std::optional<PendingQuestion> out;
    int count = 0;
    for (element q : *questions) {
        ++count;
        if (out) continue;
        auto text = json::string(q, "question");
        if (!text) continue;
        PendingQuestion p;
        p.text = collapseWhitespace(*text);
        if (auto options = json::array(q, "options")) {
            for (element o : *options) {
                if (auto label = json::string(o, "label")) p.options.push_back(collapseWhitespace(*label));
                else if (auto plain = json::string(o)) p.options.push_back(collapseWhitespace(*plain));
            }
        }
        out = std::move(p);
    }
    if (out) out->moreCount = std::max(0, count - 1);
    return out;
}

// Splits a tool's leaf name into lower-case words: "save_skill", "saveSkill" -> "save skill".
std::vector<std::string> nameWords(std::string_view name) {
    std::vector<std::string> words;
    std::string cur;
    auto flush = [&] {
        if (!cur.empty()) words.push_back(cur);
        cur.clear();
    };
    for (size_t i = 0; i < name.size(); ++i) {
        char c = name[i];
        if (c == '_' || c == '-' || c == ' ' || c == '.') {
            flush();
            continue;
        }
        if (std::isupper(static_cast<unsigned char>(c)) && !cur.empty() &&
            !std::isupper(static_cast<unsigned char>(cur.back())))
            flush();
        cur += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    flush();
    return words;
}

bool isVerb(const std::string& w) {
    static constexpr std::array<std::string_view, 30> kVerbs = {
        "add",    "allow",  "apply",  "archive", "create", "delete", "download", "edit",  "fetch",  "get",
        "install", "list",  "move",   "open",    "post",   "publish", "read",    "remove", "rename", "run",
        "save",   "search", "send",   "set",     "share",  "start",  "stop",     "update", "upload", "write"};
    return std::find(kVerbs.begin(), kVerbs.end(), w) != kVerbs.end();
}

std::string joinWords(const std::vector<std::string>& words, size_t from = 0) {
    std::string out;
    for (size_t i = from; i < words.size(); ++i) {
        if (!out.empty()) out += ' ';
        out += words[i];
    }
    return out;
}

}  // namespace

std::string approvalLine(std::string_view toolName) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kKnown = {{
        {"mcp__cowork__allow_cowork_file_delete", "Wants to delete files — approve?"},
        {"mcp__cowork__save_skill", "Wants to save a skill — approve?"},
        {"mcp__cowork__share_document", "Wants to share document — approve?"},
    }};
    for (const auto& [name, line] : kKnown) {
        if (name == toolName) return std::string(line);
    }
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 12> kCommon = {{
        {"Bash", "Wants to run a command — approve?"},
        {"Edit", "Wants to edit a file — approve?"},
        {"MultiEdit", "Wants to edit a file — approve?"},
        {"Write", "Wants to write a file — approve?"},
        {"NotebookEdit", "Wants to edit a notebook — approve?"},
        {"Read", "Wants to read a file — approve?"},
        {"WebFetch", "Wants to fetch a web page — approve?"},
        {"WebSearch", "Wants to search the web — approve?"},
        {"Glob", "Wants to look through files — approve?"},
        {"Grep", "Wants to search files — approve?"},
        {"Task", "Wants to start a subagent — approve?"},
        {"Agent", "Wants to start a subagent — approve?"},
    }};
    std::string leaf = Claude::shortToolName(toolName);
    for (const auto& [name, line] : kCommon) {
        if (name == leaf) return std::string(line);
    }
    auto words = nameWords(leaf);
    if (words.empty()) return "Wants your approval";
    if (isVerb(words[0])) return "Wants to " + joinWords(words) + " — approve?";
    return "Wants to use " + joinWords(words) + " — approve?";
}

std::optional<std::string> statusLabel(const Folded& f) {
    if (!f.pendingTool) return std::nullopt;
    return f.question ? "Waiting on your answer" : "Waiting on your approval";
}

Folded fold(const std::vector<JournalEntry>& entries) {
    Folded f;
    struct Request {
        std::string uuid;
        std::string tool;
        std::optional<PendingQuestion> question;
    };
    std::vector<Request> pending;  // unanswered, oldest first
    std::map<std::string, long long> windows;  // model id -> reported context window
    std::string lastText;
    bool afterResult = false;

    for (const auto& e : entries) {
        if (auto at = stampOf(e); at && (!f.lastEventAt || *at > *f.lastEventAt)) f.lastEventAt = at;
        std::string_view type = e.type();
        if (type == "user") {
            auto content = userContent(e);
            if (content.prompt) {
                f.inProgress = true;
                f.hasRealTurn = true;
                f.endsWithQuestion = false;
                afterResult = false;
                lastText.clear();
                addActivity(f, ActivityLine::Kind::prompt, oneLine(content.text));
            } else if (content.results > 0) {
                addActivity(f, content.errors ? ActivityLine::Kind::error : ActivityLine::Kind::ok,
                            content.errors ? "Tool failed" : "Tool done");
            }
        } else if (type == "assistant") {
            auto m = messageOf(e);
            if (!m) continue;
            f.hasRealTurn = true;
            if (auto model = json::string(*m, "model"); model && !model->empty() && *model != "<synthetic>")
                f.modelId = std::string(*model);
            if (auto usage = json::field(*m, "usage")) {
                if (auto tokens = Claude::contextTokens(*usage); tokens && *tokens > 0) f.contextTokens = tokens;
            }
            if (auto blocks = json::array(*m, "content")) {
                for (element b : *blocks) {
                    auto blockType = json::string(b, "type").value_or("");
                    if (blockType == "text") {
                        auto text = json::string(b, "text").value_or("");
                        if (collapseWhitespace(text).empty()) continue;
                        lastText = std::string(text);
                        f.summary = oneLine(text);
                        addActivity(f, ActivityLine::Kind::reply, oneLine(text));
                    } else if (blockType == "tool_use") {
                        auto name = json::string(b, "name").value_or("tool");
                        auto input = json::field(b, "input");
                        std::string line = input ? Claude::toolLine(name, *input, kLineChars) : Claude::shortToolName(name);
                        f.summary = line;
                        addActivity(f, ActivityLine::Kind::tool, line);
                    } else if (blockType == "thinking") {
                        addActivity(f, ActivityLine::Kind::thinking, "Thinking");
                    }
                }
            } else if (auto s = json::string(*m, "content"); s && !collapseWhitespace(*s).empty()) {
                lastText = std::string(*s);
                f.summary = oneLine(*s);
                addActivity(f, ActivityLine::Kind::reply, oneLine(*s));
            }
        } else if (type == "result") {
            f.inProgress = false;
            afterResult = true;
            if (lastText.empty()) {
                if (auto r = e.string("result"); r && !collapseWhitespace(*r).empty()) {
                    lastText = std::string(*r);
                    f.summary = oneLine(*r);
                }
            }
            f.endsWithQuestion = !lastText.empty() && Claude::textEndsWithQuestion(lastText);
            if (e.boolean("is_error").value_or(false)) addActivity(f, ActivityLine::Kind::error, "Turn failed");
            if (auto usage = e.field("modelUsage")) {
                simdjson::dom::object models;
                if (!usage->get_object().get(models)) {
                    for (auto [key, value] : models) {
                        if (auto window = json::integer(value, "contextWindow"); window && *window > 0)
                            windows[std::string(key)] = *window;
                    }
                }
            }
        } else if (type == "tool_progress" || (type == "system" && e.string("subtype") == "status")) {
            // Work after a result (a background step, a new request) re-arms the turn.
            bool arms = type == "tool_progress" || !e.string("status").value_or("").empty();
            if (arms && afterResult) {
                f.inProgress = true;
                afterResult = false;
            }
        } else if (type == "permission_request") {
            Request r;
            r.uuid = std::string(e.string("uuid").value_or(""));
            r.tool = std::string(e.string("tool_name").value_or(""));
            if (r.tool == "AskUserQuestion") {
                if (auto input = e.field("tool_input")) r.question = questionOf(*input);
            }
            std::erase_if(pending, [&](const Request& p) { return p.uuid == r.uuid; });
            pending.push_back(std::move(r));
        } else if (type == "permission_response") {
            auto uuid = e.string("uuid").value_or("");
            std::erase_if(pending, [&](const Request& p) { return p.uuid == uuid; });
        }
    }

    if (!windows.empty()) {
        std::optional<long long> chosen;
        if (f.modelId) {
            if (auto it = windows.find(*f.modelId); it != windows.end()) chosen = it->second;
            for (const auto& [id, w] : windows) {
                if (!chosen && Claude::cleanModelName(id) == Claude::cleanModelName(*f.modelId)) chosen = w;
            }
        }
        // No named model: the largest window, so a small helper model never sets it.
        if (!chosen) {
            for (const auto& [id, w] : windows) chosen = std::max(chosen.value_or(0), w);
        }
        f.reportedContextWindow = chosen;
    }

    if (!pending.empty()) {
        const Request& r = pending.back();
        // Blocked on the user is not working, whatever the tool.
        f.inProgress = false;
        f.pendingTool = r.tool;
        f.question = r.question;
        if (r.tool == "AskUserQuestion") f.pendingApproval = PendingApproval::question;
        else f.pendingApproval = pendingApprovalForTool(r.tool).value_or(PendingApproval::run);
        f.summary = r.question ? r.question->text : approvalLine(r.tool);
    }
    return f;
}

std::optional<Folded> foldFile(const fs::path& auditLog) {
    std::error_code ec;
    if (!fs::is_regular_file(auditLog, ec)) return std::nullopt;
    auto window = TailReader::read(auditLog, kTailLines);
    if (window.fileSize == 0 && window.entries.empty()) {
        if (fs::file_size(auditLog, ec) != 0 || ec) return std::nullopt;
    }
    return fold(window.entries);
}

std::optional<ContextWindow> contextWindow(const Folded& f) {
    if (f.reportedContextWindow) return ContextWindow{*f.reportedContextWindow, false};
    if (f.modelId && f.modelId->find("[1m]") != std::string::npos) return ContextWindow{kOneMillion, false};
    if (f.contextTokens && *f.contextTokens > kStandardWindow) return ContextWindow{kOneMillion, true};
    return std::nullopt;
}

namespace {

struct Sidecar {
    std::string sessionId;
    std::optional<std::string> cliSessionId;
    std::string title;
    std::vector<std::string> folders;
    bool isArchived = false;
    bool hostLoop = false;
};

std::optional<Sidecar> readSidecar(const fs::path& file) {
    std::error_code ec;
    if (!fs::is_regular_file(file, ec) || fs::file_size(file, ec) > (4 << 20)) return std::nullopt;
    std::ifstream in(file, std::ios::binary);
    std::stringstream buf;
    buf << in.rdbuf();
    std::string text = buf.str();
    simdjson::dom::parser parser;
    element root;
    if (parser.parse(text).get(root)) return std::nullopt;
    if (!root.is_object()) return std::nullopt;
    Sidecar s;
    auto id = json::string(root, "sessionId");
    if (!id || id->empty()) return std::nullopt;
    s.sessionId = std::string(*id);
    if (auto cli = json::string(root, "cliSessionId"); cli && !cli->empty()) s.cliSessionId = std::string(*cli);
    s.title = collapseWhitespace(json::string(root, "title").value_or(""));
    if (auto folders = json::array(root, "folders")) {
        for (element f : *folders) {
            if (auto path = json::string(f)) s.folders.emplace_back(*path);
            else if (auto p = json::string(f, "path")) s.folders.emplace_back(*p);
        }
    }
    s.isArchived = json::boolean(root, "isArchived").value_or(false) || json::boolean(root, "archived").value_or(false);
    s.hostLoop = json::boolean(root, "hostLoop").value_or(false);
    return s;
}

}  // namespace

std::vector<CoworkSession> sessions(const fs::path& store, Date now, std::chrono::seconds staleAfter) {
    std::vector<CoworkSession> out;
    std::error_code ec;
    for (fs::directory_iterator it(store, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& file = it->path();
        std::string name = file.filename().string();
        if (!name.starts_with("local_") || file.extension() != ".json") continue;
        fs::path audit = store / file.stem() / "audit.jsonl";
        if (!fs::is_regular_file(audit, ec)) continue;  // a sidecar without its log
        auto sidecar = readSidecar(file);
        if (!sidecar || sidecar->isArchived) continue;
        auto folded = foldFile(audit);
        if (!folded) continue;
        Date modified = modificationDate(audit).value_or(Date{});
        Date last = folded->lastEventAt.value_or(modified);
        bool blocked = folded->pendingTool.has_value();
        if (!blocked && now - last > staleAfter) continue;

        CoworkSession s;
        s.sessionId = sidecar->sessionId;
        s.cliSessionId = sidecar->cliSessionId;
        s.title = sidecar->title;
        s.folders = sidecar->folders;
        s.hostLoop = sidecar->hostLoop;
        if (folded->modelId) s.model = Claude::cleanModelName(*folded->modelId);
        s.contextTokens = folded->contextTokens;
        if (folded->contextTokens) {
            if (auto window = contextWindow(*folded)) {
                s.contextMax = window->tokens;
                s.contextMaxEstimated = window->estimated;
            }
        }
        s.question = folded->question;
        s.promptSummary = statusLabel(*folded);

        TranscriptInfo& info = s.info;
        info.lastModified = modified;
        info.summary = folded->summary;
        info.sessionId = sidecar->sessionId;
        info.model = s.model;
        info.contextTokens = s.contextTokens;
        info.contextMax = s.contextMax;
        info.contextMaxEstimated = s.contextMaxEstimated;
        info.inProgress = folded->inProgress;
        info.pendingApproval = folded->pendingApproval;
        info.endsWithQuestion = folded->endsWithQuestion;
        info.recentActivity = folded->recentActivity;
        info.hasRealTurn = folded->hasRealTurn;
        info.lastEntryDate = folded->lastEventAt.value_or(Date{});
        if (!s.title.empty()) info.topic = s.title;
        out.push_back(std::move(s));
    }
    std::sort(out.begin(), out.end(), [](const CoworkSession& a, const CoworkSession& b) {
        return a.info.lastEntryDate > b.info.lastEntryDate;
    });
    return out;
}

}  // namespace scrivet::CoworkReader
