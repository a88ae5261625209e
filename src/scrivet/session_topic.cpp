#include "scrivet/session_topic.hpp"

#include <cctype>
#include <vector>

#include "scrivet/transcript_records.hpp"

namespace scrivet::SessionTopic {

namespace {

bool isAlpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// Texts that are never a topic, whatever is around them.
bool saysNothing(std::string_view raw) {
    auto t = trimmed(raw);
    return contains(raw, "<command-name>/clear") || t == "/clear" || contains(raw, "<task-notification>") ||
           t.starts_with("This session is being continued from a previous conversation") ||
           contains(raw, "user-prompt-submit-hook");
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

std::optional<std::string> sanitize(std::string_view prompt) {
    if (saysNothing(prompt)) return std::nullopt;
    std::string text = withoutFences(withoutTags(prompt));
    std::string_view t = trimmed(text);
    // A slash command keeps its argument: "/loop watch the deploy" -> "watch the deploy".
    if (t.size() > 1 && t.front() == '/') {
        size_t end = 1;
        while (end < t.size() && !isBlank(t[end])) ++end;
        std::string_view name = t.substr(1, end - 1);
        bool command = name.find('/') == std::string_view::npos;
        if (command) {
            auto argument = trimmed(t.substr(end));
            if (argument.empty()) return std::nullopt;
            text = std::string(argument);
        }
    }
    auto line = collapseWhitespace(withoutMarkdown(text));
    if (line.empty() || line.starts_with("[Image")) return std::nullopt;
    return truncated(line, maxLength);
}

std::optional<std::string> label(const std::optional<std::string>& givenTitle,
                                 const std::optional<std::string>& rawPrompt) {
    if (givenTitle) {
        if (auto title = sanitize(*givenTitle)) return title;
    }
    if (rawPrompt) return sanitize(*rawPrompt);
    return std::nullopt;
}

}  // namespace scrivet::SessionTopic
