#include "lumora/approvals/command_parsing.hpp"

#include <algorithm>

namespace lumora::CommandParsing {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::vector<std::string_view> words(std::string_view s) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isBlank(s[i])) ++i;
        size_t start = i;
        while (i < s.size() && !isBlank(s[i])) ++i;
        if (i > start) out.push_back(s.substr(start, i - start));
    }
    return out;
}

// NAME=value with NAME made of letters, digits and "_" (and not empty).
bool isAssignment(std::string_view word) {
    size_t eq = word.find('=');
    if (eq == std::string_view::npos || eq == 0) return false;
    return std::all_of(word.begin(), word.begin() + static_cast<long>(eq), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
}

}  // namespace

bool isShellTool(std::string_view toolName) {
    return std::find(std::begin(shellToolNames), std::end(shellToolNames), toolName) != std::end(shellToolNames);
}

std::vector<std::string> splitSegments(std::string_view command) {
    std::vector<std::string> segments;
    std::string current;
    char quote = 0;
    for (size_t i = 0; i < command.size(); ++i) {
        char c = command[i];
        if (c == '\\' && i + 1 < command.size()) {
            // An escaped character never opens a string nor separates.
            current += c;
            current += command[++i];
            continue;
        }
        if (quote) {
            if (c == quote) quote = 0;
            current += c;
            continue;
        }
        if (c == '\'' || c == '"') {
            quote = c;
            current += c;
            continue;
        }
        bool twoChar = i + 1 < command.size() &&
                       ((c == '&' && command[i + 1] == '&') || (c == '|' && command[i + 1] == '|'));
        if (twoChar || c == '|' || c == ';' || c == '\n') {
            segments.push_back(std::move(current));
            current.clear();
            if (twoChar) ++i;
            continue;
        }
        current += c;
    }
    segments.push_back(std::move(current));
    return segments;
}

std::optional<std::string> headOfSegment(std::string_view segment) {
    auto w = words(segment);
    size_t i = 0;
    if (i < w.size() && w[i] == "env") ++i;
    while (i < w.size() && isAssignment(w[i])) ++i;
    if (i >= w.size()) return std::nullopt;
    if (w[i] == "sudo" && i + 1 < w.size()) return "sudo " + std::string(w[i + 1]);
    return std::string(w[i]);
}

std::optional<std::vector<std::string>> heads(std::string_view command) {
    for (std::string_view hidden : {"`", "$(", "<(", ">(", "<<"}) {
        if (command.find(hidden) != std::string_view::npos) return std::nullopt;
    }
    std::vector<std::string> out;
    for (const auto& segment : splitSegments(command)) {
        auto head = headOfSegment(segment);
        if (head && std::find(out.begin(), out.end(), *head) == out.end()) out.push_back(std::move(*head));
    }
    if (out.empty()) return std::nullopt;
    return out;
}

}  // namespace lumora::CommandParsing
