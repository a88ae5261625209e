#include "scrivet/claude_transcript_derivation.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <set>

namespace scrivet::ClaudeTranscriptReader {

namespace {

using simdjson::dom::array;
using simdjson::dom::element;

constexpr size_t kSummaryChars = 160;
constexpr size_t kActivityChars = 100;

constexpr std::string_view kInterrupt = "[Request interrupted by user]";
constexpr std::string_view kInterruptForTool = "[Request interrupted by user for tool use]";

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\v'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }


std::optional<element> message(const JournalEntry& e) {
    auto m = e.field("message");
    if (!m || !m->is_object()) return std::nullopt;
    return m;
}

std::optional<array> contentBlocks(const JournalEntry& e) {
    auto m = message(e);
    return m ? json::array(*m, "content") : std::nullopt;
}

std::string_view blockType(element block) { return json::string(block, "type").value_or(std::string_view{}); }

bool hasBlock(const JournalEntry& e, std::string_view type) {
    auto blocks = contentBlocks(e);
    if (!blocks) return false;
    for (element b : *blocks)
        if (blockType(b) == type) return true;
    return false;
}

std::string_view messageId(const JournalEntry& e) {
    auto m = message(e);
    return m ? json::string(*m, "id").value_or(std::string_view{}) : std::string_view{};
}

std::string_view stopReason(const JournalEntry& e) {
    auto m = message(e);
    return m ? json::string(*m, "stop_reason").value_or(std::string_view{}) : std::string_view{};
}

std::string_view modelOf(const JournalEntry& e) {
    auto m = message(e);
    return m ? json::string(*m, "model").value_or(std::string_view{}) : std::string_view{};
}

bool isSynthetic(const JournalEntry& e) { return modelOf(e) == "<synthetic>"; }

// The last block of an entry that says something: text, thinking or a tool call.
std::optional<element> lastMeaningfulBlock(const JournalEntry& e) {
    auto blocks = contentBlocks(e);
    if (!blocks) return std::nullopt;
    std::optional<element> last;
    for (element b : *blocks) {
        auto t = blockType(b);
        if (t == "text" || t == "thinking" || t == "redacted_thinking" || t == "tool_use" || t == "server_tool_use")
            last = b;
    }
    return last;
}

// Index of the newest conversation entry that is not a local command, or -1.
long newestTurnEntry(const Entries& entries) {
    for (long i = static_cast<long>(entries.size()) - 1; i >= 0; --i) {
        const auto& e = entries[i];
        if (isConversation(e) && !isLocalCommand(e)) return i;
    }
    return -1;
}

// The content blocks of the assistant message whose newest entry is
// entries[index], oldest first, gathered across the entries that share its
// message id (one entry per block as Claude Code streams it).
std::vector<element> messageBlocks(const Entries& entries, long index) {
    std::vector<element> out;
    auto id = messageId(entries[index]);
    long first = index;
    if (!id.empty()) {
        for (long i = index - 1; i >= 0; --i) {
            const auto& e = entries[i];
            if (!isConversation(e)) continue;
            if (e.type() != "assistant" || messageId(e) != id) break;
            first = i;
        }
    }
    for (long i = first; i <= index; ++i) {
        const auto& e = entries[i];
        if (e.type() != "assistant") continue;
        if (auto blocks = contentBlocks(e))
            for (element b : *blocks) out.push_back(b);
    }
    return out;
}

std::string resultText(element block) {
    auto content = json::field(block, "content");
    if (!content) return {};
    if (auto s = json::string(*content)) return std::string(*s);
    std::string out;
    array items;
    if (content->get_array().get(items)) return out;
    for (element item : items) {
        if (blockType(item) != "text") continue;
        if (!out.empty()) out += '\n';
        out += json::string(item, "text").value_or("");
    }
    return out;
}

bool containsFailed(std::string_view text) {
    static constexpr std::string_view kWord = "failed";
    auto it = std::search(text.begin(), text.end(), kWord.begin(), kWord.end(),
                          [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b; });
    return it != text.end();
}

std::optional<std::string> between(std::string_view text, std::string_view open, std::string_view close) {
    auto a = text.find(open);
    if (a == std::string_view::npos) return std::nullopt;
    a += open.size();
    auto b = text.find(close, a);
    if (b == std::string_view::npos) return std::nullopt;
    return std::string(trim(text.substr(a, b - a)));
}

}  // namespace

// --- One entry ----------------------------------------------------------------

bool isConversation(const JournalEntry& e) {
    auto t = e.type();
    return t == "user" || t == "assistant";
}

std::string messageText(const JournalEntry& e) {
    auto m = message(e);
    if (!m) return {};
    if (auto s = json::string(*m, "content")) return std::string(*s);
    std::string out;
    if (auto blocks = json::array(*m, "content")) {
        for (element b : *blocks) {
            if (blockType(b) != "text") continue;
            if (!out.empty()) out += '\n';
            out += json::string(b, "text").value_or("");
        }
    }
    return out;
}

bool isLocalCommand(const JournalEntry& e) {
    if (e.type() != "user") return false;
    if (e.boolean("isMeta").value_or(false) || e.boolean("isCompactSummary").value_or(false)) return true;
    static constexpr std::array<std::string_view, 7> kEchoes = {
        "<command-name>",         "<command-message>", "<local-command-stdout>", "<local-command-stderr>",
        "<local-command-caveat>", "<bash-input>",      "<bash-stdout>"};
    auto text = messageText(e);
    auto t = trim(text);
    return std::any_of(kEchoes.begin(), kEchoes.end(), [&](auto p) { return startsWith(t, p); });
}

bool isInterrupt(const JournalEntry& e) {
    if (e.type() != "user") return false;
    auto text = messageText(e);
    auto t = trim(text);
    return t == kInterrupt || t == kInterruptForTool;
}

bool isTaskNotification(const JournalEntry& e) {
    if (e.type() != "user") return false;
    if (auto origin = e.field("origin"); origin && json::string(*origin, "kind") == "task-notification") return true;
    return messageText(e).find("<task-notification>") != std::string::npos;
}

std::optional<std::string> taskNotificationId(const JournalEntry& e) {
    if (!isTaskNotification(e)) return std::nullopt;
    auto id = between(messageText(e), "<task-id>", "</task-id>");
    if (!id || id->empty()) return std::nullopt;
    return id;
}

std::string taskNotificationSummary(const JournalEntry& e) {
    auto summary = between(messageText(e), "<summary>", "</summary>");
    if (!summary || summary->empty()) return "⚙ Background task completed";
    return "⚙ " + oneLine(*summary, kSummaryChars);
}

bool isRealPrompt(const JournalEntry& e) {
    if (e.type() != "user" || isLocalCommand(e) || isInterrupt(e) || isTaskNotification(e)) return false;
    if (hasBlock(e, "tool_result")) return false;
    return !trim(messageText(e)).empty() || hasBlock(e, "image");
}

std::optional<std::string> summarize(const JournalEntry& e) {
    if (e.type() == "user") {
        if (isLocalCommand(e)) return std::nullopt;
        if (isInterrupt(e)) return "Interrupted";
        if (isTaskNotification(e)) return taskNotificationSummary(e);
        if (!isRealPrompt(e)) return std::nullopt;
        auto text = messageText(e);
        if (trim(text).empty()) return "You: [image]";
        return "You: " + oneLine(text, kSummaryChars);
    }
    if (e.type() != "assistant") return std::nullopt;
    auto blocks = contentBlocks(e);
    if (!blocks) {
        auto text = messageText(e);
        if (trim(text).empty()) return std::nullopt;
        return oneLine(text, kSummaryChars);
    }
    std::optional<std::string> found;
    for (element b : *blocks) {
        auto t = blockType(b);
        if (t == "text") {
            auto text = json::string(b, "text").value_or("");
            if (!trim(text).empty()) found = oneLine(text, kSummaryChars);
        } else if (t == "tool_use") {
            auto input = json::field(b, "input");
            auto snippet = input ? toolSnippet(*input, kSummaryChars) : std::nullopt;
            found = snippet ? *snippet : shortToolName(json::string(b, "name").value_or("tool"));
        }
    }
    return found;
}

std::optional<std::string> unknownLeadingTag(const JournalEntry& e) {
    if (e.type() != "user") return std::nullopt;
    auto text = messageText(e);
    auto t = trim(text);
    if (t.size() < 3 || t[0] != '<') return std::nullopt;
    size_t n = 1;
    while (n < t.size() && (std::isalnum(static_cast<unsigned char>(t[n])) || t[n] == '-' || t[n] == '_')) ++n;
    if (n == 1 || n >= t.size() || (t[n] != '>' && t[n] != ' ')) return std::nullopt;
    std::string tag(t.substr(1, n - 1));
    static const std::set<std::string, std::less<>> kKnown = {
        "command-name",          "command-message",   "command-args",       "command-contents",
        "local-command-stdout",  "local-command-stderr", "local-command-caveat", "task-notification",
        "system-reminder",       "bash-input",        "bash-stdout",        "bash-stderr",
        "user-prompt-submit-hook", "ide_opened_file", "ide_selection",      "ide_diagnostics",
        "user-memory-input",     "session-start-hook", "tool_use_error",    "new-diagnostics"};
    if (kKnown.count(tag)) return std::nullopt;
    return tag;
}

// --- Names and snippets ---------------------------------------------------------

std::string cleanModelName(std::string_view id) {
    std::string s(id);
    if (auto bracket = s.find('['); bracket != std::string::npos) s.erase(bracket);
    if (auto at = s.find('@'); at != std::string::npos) s.erase(at);  // "…@20241022"
    if (auto pos = s.find("claude-"); pos != std::string::npos) s.erase(0, pos + 7);
    std::vector<std::string> parts;
    for (size_t start = 0;;) {
        auto dash = s.find('-', start);
        parts.push_back(s.substr(start, dash == std::string::npos ? std::string::npos : dash - start));
        if (dash == std::string::npos) break;
        start = dash + 1;
    }
    auto isDigits = [](const std::string& p) {
        return !p.empty() && std::all_of(p.begin(), p.end(), [](char c) { return c >= '0' && c <= '9'; });
    };
    if (parts.size() > 1 && parts.back().size() == 8 && isDigits(parts.back())) parts.pop_back();  // date stamp
    std::string joined;
    for (const auto& p : parts) joined += (joined.empty() ? "" : "-") + p;

    // "opus-4-5" and the older "3-5-sonnet" both read "Family 4.5".
    std::string family, version;
    for (const auto& p : parts) {
        if (p == "opus" || p == "sonnet" || p == "haiku") {
            if (!family.empty()) return joined;
            family = p;
        } else if (isDigits(p) && p.size() <= 2) {
            version += (version.empty() ? "" : ".") + p;
        } else {
            return joined;
        }
    }
    if (family.empty()) return joined;
    family[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(family[0])));
    return version.empty() ? family : family + " " + version;
}

std::string shortToolName(std::string_view name) {
    if (startsWith(name, "mcp__")) {
        auto last = name.rfind("__");
        if (last != std::string_view::npos && last + 2 < name.size()) return std::string(name.substr(last + 2));
    }
    return std::string(name);
}

std::optional<std::string> toolSnippet(element input, size_t maxChars) {
    static constexpr std::array<std::string_view, 10> kKeys = {
        "command", "file_path", "description", "text", "pattern", "path", "url", "query", "prompt", "notebook_path"};
    for (auto key : kKeys) {
        auto value = json::string(input, key);
        if (value && !trim(*value).empty()) return oneLine(*value, maxChars);
    }
    // AskUserQuestion: the first question.
    if (auto questions = json::array(input, "questions")) {
        for (element q : *questions) {
            auto text = json::string(q, "question");
            if (text && !trim(*text).empty()) return oneLine(*text, maxChars);
            break;
        }
    }
    return std::nullopt;
}

std::string toolLine(std::string_view name, element input, size_t maxChars) {
    auto shortName = shortToolName(name.empty() ? "tool" : name);
    auto snippet = toolSnippet(input, maxChars);
    return snippet ? shortName + ": " + *snippet : shortName;
}

std::optional<long long> contextTokens(element usage) {
    long long total = json::integer(usage, "input_tokens").value_or(0) +
                      json::integer(usage, "cache_read_input_tokens").value_or(0);
    if (auto creation = json::integer(usage, "cache_creation_input_tokens")) {
        total += *creation;
    } else if (auto cache = json::field(usage, "cache_creation")) {
        total += json::integer(*cache, "ephemeral_5m_input_tokens").value_or(0) +
                 json::integer(*cache, "ephemeral_1h_input_tokens").value_or(0);
    }
    if (total < 1) return std::nullopt;
    return total;
}

bool textEndsWithQuestion(std::string_view text) {
    // Markdown emphasis, code, brackets and quotes (also typographic ones and
    // guillemets) that may wrap the last sentence, and redaction markers.
    static constexpr std::array<std::string_view, 14> kWrapping = {
        "[REDACTED]", "*", "_", "`", "~", ")", "]", "}", "\"", "'", ">", "\u201D", "\u2019", "\u00BB"};
    auto stripOne = [&text] {
        for (auto w : kWrapping) {
            if (text.size() >= w.size() && text.substr(text.size() - w.size()) == w) {
                text.remove_suffix(w.size());
                return true;
            }
        }
        return false;
    };
    do {
        text = trim(text);
    } while (stripOne());
    if (text.empty()) return false;
    static constexpr std::string_view kFullWidth = "\uFF1F";
    return text.back() == '?' ||
           (text.size() >= kFullWidth.size() && text.substr(text.size() - kFullWidth.size()) == kFullWidth);
}

// --- The whole tail ---------------------------------------------------------------

Parsed derive(const Entries& entries) {
    Parsed p;
    bool turnSeen = false;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& e = *it;
        if (!p.gitBranch)
            if (auto b = e.string("gitBranch"); b && !b->empty() && *b != "HEAD") p.gitBranch = std::string(*b);
        if (!p.sessionId)
            if (auto s = e.string("sessionId"); s && !s->empty()) p.sessionId = std::string(*s);
        if (e.type() == "assistant" && !isSynthetic(e)) {
            if (!p.model)
                if (auto m = modelOf(e); !m.empty()) {
                    p.modelId = std::string(m);
                    p.model = cleanModelName(m);
                }
            if (!p.contextTokens)
                if (auto m = message(e))
                    if (auto usage = json::field(*m, "usage")) p.contextTokens = contextTokens(*usage);
        }
        if (isConversation(e) && !isLocalCommand(e)) {
            if (!turnSeen) {
                turnSeen = true;
                auto last = lastMeaningfulBlock(e);
                p.lastWasAssistantText = e.type() == "assistant" && last && blockType(*last) == "text";
            }
            if (!p.summary) p.summary = summarize(e);
        }
        if (p.gitBranch && p.sessionId && p.model && p.contextTokens && p.summary && turnSeen) break;
    }
    return p;
}

bool isInProgress(const Entries& entries) {
    long i = newestTurnEntry(entries);
    if (i < 0) return false;
    const auto& e = entries[i];
    if (e.type() == "user") return !isInterrupt(e);
    if (isSynthetic(e)) return false;  // Claude Code's own note after an error or abort
    auto stop = stopReason(e);
    if (stop == "tool_use") return true;
    auto last = lastMeaningfulBlock(e);
    if (!last) return stop.empty();
    auto type = blockType(*last);
    if (type == "thinking" || type == "redacted_thinking" || type == "tool_use" || type == "server_tool_use")
        return true;
    if (!stop.empty()) return false;
    // Text with no stop reason yet is narration before a tool call, unless
    // the turn-end record already follows it.
    for (size_t j = static_cast<size_t>(i) + 1; j < entries.size(); ++j)
        if (entries[j].type() == "system" && entries[j].string("subtype") == "turn_duration") return false;
    return true;
}

std::optional<PendingApproval> pendingApproval(const Entries& entries) {
    long i = newestTurnEntry(entries);
    if (i < 0 || entries[i].type() != "assistant") return std::nullopt;
    std::optional<std::string_view> name;
    for (element b : messageBlocks(entries, i))
        if (blockType(b) == "tool_use") name = json::string(b, "name");
    if (!name) return std::nullopt;
    return pendingApprovalForTool(*name);
}

std::optional<PendingToolCall> pendingToolCall(const Entries& entries, size_t maxChars) {
    long i = newestTurnEntry(entries);
    if (i < 0 || entries[i].type() != "assistant") return std::nullopt;
    std::optional<element> call;
    for (element b : messageBlocks(entries, i))
        if (blockType(b) == "tool_use") call = b;
    if (!call) return std::nullopt;
    auto name = json::string(*call, "name").value_or("");
    if (!pendingApprovalForTool(name)) return std::nullopt;
    PendingToolCall out{std::string(name), std::nullopt};
    if (auto input = json::field(*call, "input")) out.detail = toolSnippet(*input, maxChars);
    return out;
}

bool endsWithQuestion(const Entries& entries) {
    long i = newestTurnEntry(entries);
    if (i < 0 || entries[i].type() != "assistant" || stopReason(entries[i]) == "tool_use") return false;
    std::optional<element> last;
    for (element b : messageBlocks(entries, i)) {
        auto t = blockType(b);
        if (t == "text" || t == "tool_use" || t == "thinking" || t == "redacted_thinking") last = b;
    }
    if (!last || blockType(*last) != "text") return false;
    return textEndsWithQuestion(json::string(*last, "text").value_or(""));
}

bool awaitingFirstReply(const Entries& entries) {
    bool prompt = false;
    for (const auto& e : entries) {
        if (e.type() == "assistant") return false;
        if (isRealPrompt(e)) prompt = true;
    }
    return prompt;
}

bool hasRealTurn(const Entries& entries) {
    return std::any_of(entries.begin(), entries.end(), [](const JournalEntry& e) {
        return (e.type() == "assistant" && !isSynthetic(e)) || isRealPrompt(e);
    });
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
        if (!isConversation(e) || isLocalCommand(e)) continue;
        if (e.type() == "user") {
            if (isInterrupt(e)) {
                add(Kind::error, "Interrupted");
            } else if (isTaskNotification(e)) {
                add(Kind::ok, taskNotificationSummary(e));
            } else if (isRealPrompt(e)) {
                auto text = messageText(e);
                add(Kind::prompt, trim(text).empty() ? "[image]" : oneLine(text, kActivityChars));
            } else if (auto blocks = contentBlocks(e)) {
                for (element b : *blocks) {
                    if (blockType(b) != "tool_result") continue;
                    auto text = resultText(b);
                    bool failed = json::boolean(b, "is_error").value_or(false) || containsFailed(text);
                    auto line = oneLine(text, kActivityChars);
                    add(failed ? Kind::error : Kind::ok, line.empty() ? (failed ? "Failed" : "Done") : line);
                }
            }
            continue;
        }
        auto blocks = contentBlocks(e);
        if (!blocks) continue;
        for (element b : *blocks) {
            auto t = blockType(b);
            if (t == "text") {
                add(Kind::reply, oneLine(json::string(b, "text").value_or(""), kActivityChars));
            } else if (t == "thinking" || t == "redacted_thinking") {
                auto text = oneLine(json::string(b, "thinking").value_or(""), kActivityChars);
                add(Kind::thinking, text.empty() ? "Thinking…" : text);
            } else if (t == "tool_use") {
                auto input = json::field(b, "input");
                auto name = json::string(b, "name").value_or("tool");
                add(Kind::tool, input ? toolLine(name, *input, kActivityChars) : shortToolName(name));
            }
        }
    }
    if (lines.size() > limit) lines.erase(lines.begin(), lines.end() - static_cast<long>(limit));
    return lines;
}

std::optional<std::string> aiTitle(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (it->type() != "ai-title") continue;
        if (auto title = it->string("aiTitle"); title && !trim(*title).empty())
            return collapseWhitespace(*title);
    }
    return std::nullopt;
}

std::optional<Date> lastEntryDate(const Entries& entries) {
    std::optional<Date> newest;
    for (const auto& e : entries)
        if (auto ts = e.string("timestamp"))
            if (auto d = parseIsoDate(*ts); d && (!newest || *d > *newest)) newest = d;
    return newest;
}

std::optional<Date> firstEntryDate(const Entries& entries) {
    for (const auto& e : entries)
        if (auto ts = e.string("timestamp"))
            if (auto d = parseIsoDate(*ts)) return d;
    return std::nullopt;
}

std::optional<std::string> recordedCwd(const Entries& entries) {
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        if (auto cwd = it->string("cwd"); cwd && !cwd->empty()) return std::string(*cwd);
    return std::nullopt;
}

int turnDurationBackgroundAgents(const Entries& entries) {
    long i = static_cast<long>(entries.size()) - 1;
    for (; i >= 0; --i)
        if (entries[i].type() == "system" && entries[i].string("subtype") == "turn_duration") break;
    if (i < 0) return 0;
    long long count = std::max<int64_t>(0, entries[i].integer("pendingBackgroundAgentCount").value_or(0)) +
                      std::max<int64_t>(0, entries[i].integer("pendingWorkflowCount").value_or(0));
    for (size_t j = static_cast<size_t>(i) + 1; j < entries.size(); ++j) {
        const auto& e = entries[j];
        if (e.type() == "system" && e.string("subtype") == "agents_killed") return 0;
        if (isTaskNotification(e)) --count;
    }
    return static_cast<int>(std::clamp<long long>(count, 0, 1'000'000));
}

std::vector<SubagentLaunch> runningSubagentLaunches(const Entries& entries) {
    std::vector<SubagentLaunch> launches;
    std::set<std::string, std::less<>> resolved, seen;
    for (const auto& e : entries) {
        auto blocks = contentBlocks(e);
        if (!blocks) continue;
        for (element b : *blocks) {
            auto t = blockType(b);
            if (t == "tool_result" && e.type() == "user") {
                if (auto id = json::string(b, "tool_use_id")) resolved.emplace(*id);
            } else if (t == "tool_use" && e.type() == "assistant") {
                auto name = json::string(b, "name");
                auto id = json::string(b, "id");
                if (!name || (*name != "Task" && *name != "Agent") || !id || !seen.emplace(*id).second) continue;
                SubagentLaunch launch{std::string(*id), "Subagent", ""};
                if (auto input = json::field(b, "input")) {
                    if (auto type = json::string(*input, "subagent_type"); type && !type->empty())
                        launch.type = std::string(*type);
                    launch.task = std::string(json::string(*input, "description").value_or(""));
                }
                launches.push_back(std::move(launch));
            }
        }
    }
    std::erase_if(launches, [&](const SubagentLaunch& l) { return resolved.count(l.id) > 0; });
    return launches;
}

}  // namespace scrivet::ClaudeTranscriptReader
