#include "scrivet/session_topic.hpp"

#include <cctype>
#include <vector>

#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/codex_transcript_reader.hpp"
#include "scrivet/cursor_transcript_reader.hpp"
#include "scrivet/file_stamp.hpp"
#include "scrivet/journal_tail.hpp"
#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/recent_cache.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/session_namer.hpp"
#include "scrivet/transcript_records.hpp"

namespace scrivet::SessionTopic {

namespace {

// A prompt is looked at only this far: a pasted megabyte costs no more than
// a page, and a topic never needs more.
constexpr size_t kLookedAt = 64 * 1024;

// The head of a journal that is searched for the first prompt. Claude Code
// writes some 60 KB of bookkeeping per turn, so half a megabyte spans several
// turns of commands and echoes before the first real prompt.
constexpr size_t kHeadBytes = 512 * 1024;
constexpr size_t kHeadLines = 400;
constexpr size_t kFirstLineMax = 1024 * 1024;

bool isAlpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

std::optional<std::string_view> between(std::string_view text, std::string_view open, std::string_view close) {
    auto a = text.find(open);
    if (a == std::string_view::npos) return std::nullopt;
    a += open.size();
    auto b = text.find(close, a);
    if (b == std::string_view::npos) return std::nullopt;
    return trimmed(text.substr(a, b - a));
}

// Texts that are never a topic, whatever is around them.
bool saysNothing(std::string_view raw) {
    auto t = trimmed(raw);
    return contains(raw, "<command-name>/clear</command-name>") || t == "/clear" ||
           contains(raw, "<task-notification>") ||
           t.starts_with("This session is being continued from a previous conversation") ||
           contains(raw, "user-prompt-submit-hook");
}

// Claude Code echoes a slash command as tags ("<command-message>…
// <command-name>/loop</command-name><command-args>…</command-args>"): the
// command is what the user typed.
std::optional<std::string> slashCommandEcho(std::string_view s) {
    auto name = between(s, "<command-name>", "</command-name>");
    if (!name) return std::nullopt;
    std::string out(*name);
    if (auto args = between(s, "<command-args>", "</command-args>"); args && !args->empty()) {
        out += ' ';
        out += *args;
    }
    return out;
}

// Removes markup tags (keeping their text) and whole reminder blocks; an
// unclosed tag or block ends the text there rather than leaking its content.
std::string withoutTags(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    size_t i = 0;
    while (i < s.size()) {
        char c = s[i];
        bool tag = c == '<' && i + 1 < s.size() && (isAlpha(s[i + 1]) || s[i + 1] == '/' || s[i + 1] == '!');
        if (!tag) {
            out += c;
            ++i;
            continue;
        }
        size_t close = s.find('>', i);
        if (close == std::string_view::npos) break;
        size_t nameStart = i + 1 + (s[i + 1] == '/' ? 1 : 0);
        size_t nameEnd = nameStart;
        while (nameEnd < close && !isBlank(s[nameEnd]) && s[nameEnd] != '/') ++nameEnd;
        std::string_view name = s.substr(nameStart, nameEnd - nameStart);
        if (name == "system-reminder" && s[i + 1] != '/') {
            size_t end = s.find("</system-reminder>", close);
            if (end == std::string_view::npos) break;
            i = end + std::string_view("</system-reminder>").size();
        } else {
            i = close + 1;
        }
        out += ' ';
    }
    return out;
}

// Drops fenced code blocks; an unclosed fence drops the rest.
std::string withoutFences(std::string_view s) {
    std::string out;
    size_t i = 0;
    while (i < s.size()) {
        size_t open = s.find("```", i);
        if (open == std::string_view::npos) {
            out.append(s.substr(i));
            break;
        }
        out.append(s.substr(i, open - i));
        out += ' ';
        size_t close = s.find("```", open + 3);
        if (close == std::string_view::npos) break;
        i = close + 3;
    }
    return out;
}

// Drops image paste markers: "[Image #2]", "[Image]", "[Image: source: …]".
std::string withoutImageMarkers(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    size_t i = 0;
    while (i < s.size()) {
        if (s[i] == '[' && (s.substr(i + 1).starts_with("Image") || s.substr(i + 1).starts_with("image"))) {
            size_t end = s.find(']', i);
            // Only a short bracket is a marker; "[Image" opening a long text is words.
            if (end != std::string_view::npos && end - i <= 256) {
                out += ' ';
                i = end + 1;
                continue;
            }
        }
        out += s[i++];
    }
    return out;
}

// Heading marks at line starts, emphasis and code marks anywhere; an
// underscore only where it wraps words (snake_case stays).
std::string withoutMarkdown(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    bool lineStart = true;
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (lineStart && c == '#') {
            size_t j = i;
            while (j < s.size() && s[j] == '#') ++j;
            if (j == s.size() || isBlank(s[j])) {
                i = j;
                continue;
            }
        }
        lineStart = c == '\n' || (lineStart && isBlank(c));
        if (c == '*' || c == '`') continue;
        if (c == '~' && i + 1 < s.size() && s[i + 1] == '~') {
            ++i;
            continue;
        }
        if (c == '_') {
            bool before = i == 0 || isBlank(s[i - 1]) || s[i - 1] == '_';
            bool after = i + 1 == s.size() || isBlank(s[i + 1]) || s[i + 1] == '_' ||
                         std::ispunct(static_cast<unsigned char>(s[i + 1]));
            if (before || after) continue;
        }
        out += c;
    }
    return out;
}

// A prompt cut at kLookedAt on a character boundary.
std::string_view lookedAt(std::string_view prompt) {
    if (prompt.size() <= kLookedAt) return prompt;
    size_t end = kLookedAt;
    while (end > 0 && isContinuation(prompt[end])) --end;
    return prompt.substr(0, end);
}

}  // namespace

std::string truncated(std::string_view text, size_t limit) {
    if (limit == 0) return {};
    size_t chars = 0, cut = std::string_view::npos;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isContinuation(text[i])) continue;
        if (chars == limit - 1 && cut == std::string_view::npos) cut = i;
        if (++chars > limit) break;
    }
    if (chars <= limit) return std::string(text);
    // Room for the ellipsis; back to a word boundary unless that loses most of it.
    std::string_view head = text.substr(0, cut);
    size_t space = head.rfind(' ');
    if (space != std::string_view::npos && space >= head.size() / 2) head = head.substr(0, space);
    while (!head.empty() && (isBlank(head.back()) || head.back() == ',' || head.back() == ';' || head.back() == ':'))
        head.remove_suffix(1);
    return std::string(head) + "…";
}

std::optional<std::string> promptText(std::string_view raw) {
    std::string_view prompt = lookedAt(raw);
    if (saysNothing(prompt)) return std::nullopt;
    std::optional<std::string> echo = slashCommandEcho(prompt);
    std::string text = withoutFences(withoutTags(echo ? std::string_view(*echo) : prompt));
    std::string_view t = trimmed(text);
    // A slash command keeps its argument: "/loop watch the deploy" -> "watch the deploy".
    if (t.size() > 1 && t.front() == '/') {
        size_t end = 1;
        while (end < t.size() && !isBlank(t[end])) ++end;
        std::string_view name = t.substr(1, end - 1);
        bool command = name.find('/') == std::string_view::npos && name.find('.') == std::string_view::npos;
        if (command) {
            auto argument = trimmed(t.substr(end));
            if (argument.empty()) return std::nullopt;
            text = std::string(argument);
        }
    }
    auto line = collapseWhitespace(withoutMarkdown(withoutImageMarkers(text)));
    // Nothing but punctuation and digits says nothing either.
    bool words = false;
    for (char c : line) words = words || isAlpha(c) || (static_cast<unsigned char>(c) >= 0x80);
    if (line.empty() || !words) return std::nullopt;
    return truncated(line, kPromptLength);
}

std::optional<std::string> sanitize(std::string_view prompt) {
    auto text = promptText(prompt);
    if (!text) return std::nullopt;
    return truncated(*text, maxLength);
}

std::optional<std::string> label(const std::optional<std::string>& givenTitle,
                                 const std::optional<std::string>& rawPrompt,
                                 const std::optional<std::string>& sessionId) {
    if (givenTitle) {
        if (auto title = sanitize(*givenTitle)) return title;
    }
    if (!rawPrompt) return std::nullopt;
    auto text = promptText(*rawPrompt);
    if (!text) return std::nullopt;
    if (sessionId && !sessionId->empty()) {
        if (auto name = SessionNamer::shared().cachedName(*sessionId, *text)) return name;
    }
    return truncated(*text, maxLength);
}

void fill(TranscriptInfo& info, const std::optional<std::string>& givenTitle,
          const std::optional<std::string>& rawPrompt, const std::optional<std::string>& sessionId) {
    info.topic = label(givenTitle, rawPrompt, sessionId);
    info.firstPrompt.reset();
    bool titled = givenTitle && sanitize(*givenTitle);
    if (!titled && rawPrompt) info.firstPrompt = promptText(*rawPrompt);
}

// --- First prompts ------------------------------------------------------------------

namespace {

bool usable(std::string_view text) { return promptText(text).has_value(); }

// The prompt a Claude "user" entry carries, if it is one.
std::optional<std::string> claudePrompt(const JournalEntry& e) {
    namespace CTR = ClaudeTranscriptReader;
    if (e.type() != "user" || e.boolean("isSidechain").value_or(false)) return std::nullopt;
    if (e.boolean("isMeta").value_or(false) || e.boolean("isCompactSummary").value_or(false)) return std::nullopt;
    if (CTR::isInterrupt(e) || CTR::isTaskNotification(e)) return std::nullopt;
    std::string text = CTR::messageText(e);
    auto t = trimmed(text);
    // A slash command's echo is what the user typed; other local echoes
    // (command output, "!" shell input and output) are not prompts.
    bool command = t.starts_with("<command-message>") || t.starts_with("<command-name>");
    if (!command && CTR::isLocalCommand(e)) return std::nullopt;
    // A tool result is the agent's turn going on, whatever text rides with it.
    if (auto m = e.field("message")) {
        if (auto blocks = json::array(*m, "content")) {
            for (auto b : *blocks)
                if (json::string(b, "type") == "tool_result") return std::nullopt;
        }
    }
    if (!usable(text)) return std::nullopt;
    return text;
}

bool isCodexEvent(const JournalEntry& e) { return e.type() == "event_msg"; }

std::optional<std::string> cursorPrompt(const JournalEntry& e) {
    auto role = e.string("role");
    if (!role || *role != "user") return std::nullopt;
    auto m = e.field("message");
    auto content = m ? json::field(*m, "content") : e.field("content");
    if (!content) return std::nullopt;
    std::string text;
    if (auto s = json::string(*content)) {
        text = std::string(*s);
    } else if (simdjson::dom::array blocks; !content->get_array().get(blocks)) {
        for (auto b : blocks) {
            if (json::string(b, "type") != "text") continue;
            if (!text.empty()) text += '\n';
            text += json::string(b, "text").value_or("");
        }
    }
    auto query = CursorTranscriptReader::userQuery(text);
    if (!query || !usable(*query)) return std::nullopt;
    return query;
}

}  // namespace

std::optional<std::string> claudeFirstPrompt(const std::vector<JournalEntry>& head) {
    for (const auto& e : head)
        if (auto p = claudePrompt(e)) return p;
    return std::nullopt;
}

std::optional<std::string> codexFirstPrompt(const std::vector<JournalEntry>& head) {
    // The event holds what the user typed; the model's copy may carry images
    // or wrappers, so it is used only when no event says it.
    std::optional<std::string> fromItem;
    for (const auto& e : head) {
        auto p = CodexTranscriptReader::userPromptText(e);
        if (!p || !usable(*p)) continue;
        if (isCodexEvent(e)) return p;
        if (!fromItem) fromItem = std::move(p);
    }
    return fromItem;
}

std::optional<std::string> cursorFirstPrompt(const std::vector<JournalEntry>& head) {
    for (const auto& e : head)
        if (auto p = cursorPrompt(e)) return p;
    return std::nullopt;
}

// --- The first prompt of a file, remembered -------------------------------------------

namespace {

struct Remembered {
    std::optional<std::string> prompt;
    uint64_t size = 0;     // of the file when its head held no prompt
    bool settled = false;  // the prompt was found, or the head was read whole
};

RecentCache<Remembered>& remembered() {
    static RecentCache<Remembered> cache(8192, std::chrono::hours(24 * 7));
    return cache;
}

Remembered readHead(const std::filesystem::path& file, HarnessProvider provider, uint64_t size) {
    Remembered r;
    r.size = size;
    switch (provider) {
        case HarnessProvider::claudeCode:
            r.prompt = claudeFirstPrompt(JournalTail::head(file, kHeadBytes, kHeadLines, kFirstLineMax,
                                                           [](const std::vector<JournalEntry>& read) {
                                                               return claudePrompt(read.back()).has_value();
                                                           }));
            break;
        case HarnessProvider::codex:
            // The rollout's head reader knows its long first line.
            if (auto h = CodexTranscriptReader::header(file)) r.prompt = h->firstPrompt;
            break;
        case HarnessProvider::cursor:
            r.prompt = cursorFirstPrompt(JournalTail::head(file, kHeadBytes, kHeadLines, kFirstLineMax,
                                                           [](const std::vector<JournalEntry>& read) {
                                                               return cursorPrompt(read.back()).has_value();
                                                           }));
            break;
        case HarnessProvider::kimi: {
            auto head = RegularFile::head(file, kHeadBytes);
            if (!head.text) break;
            std::string_view text = *head.text;
            // Only the lines before the head's last newline are whole.
            auto nl = text.rfind('\n');
            text = nl == std::string_view::npos ? std::string_view{} : text.substr(0, nl + 1);
            r.prompt = KimiTranscriptReader::firstPrompt(text);
            break;
        }
        case HarnessProvider::opencode: break;
    }
    r.settled = r.prompt.has_value() || size >= kHeadBytes;
    return r;
}

}  // namespace

std::optional<std::string> firstPrompt(const std::filesystem::path& transcript, HarnessProvider provider) {
    if (provider == HarnessProvider::opencode) return std::nullopt;
    std::string key = std::string(rawValue(provider)) + "|" + transcript.string();
    auto& cache = remembered();
    auto known = cache.get(key);
    if (known && known->settled) return known->prompt;
    auto st = stamp(transcript);
    if (!st) return std::nullopt;
    // A head without a prompt is read again only once the file has grown.
    if (known && known->size == st->size) return std::nullopt;
    auto r = readHead(transcript, provider, st->size);
    cache.put(key, r);
    return r.prompt;
}

std::optional<std::string> topic(const std::filesystem::path& transcript, HarnessProvider provider) {
    auto prompt = firstPrompt(transcript, provider);
    return prompt ? sanitize(*prompt) : std::nullopt;
}

std::optional<std::string> label(const std::filesystem::path& transcript, HarnessProvider provider,
                                 const std::optional<std::string>& sessionId) {
    std::optional<std::string> title;
    if (provider == HarnessProvider::claudeCode) title = ClaudeTranscriptReader::aiTitle(transcript);
    return label(title, firstPrompt(transcript, provider), sessionId);
}

void clearCache() { remembered().clear(); }

}  // namespace scrivet::SessionTopic
