#include "scrivet/prompt_text.hpp"

#include <vector>

#include "scrivet/transcript_records.hpp"

namespace scrivet::PromptText {

namespace {

bool isTagChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '/' || c == ':';
}

// Drops "<tag …>" and "</tag>" marks (the text between them stays) and
// fenced code blocks.
std::string stripMarkup(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        if (text.substr(i, 3) == "```") {
            auto close = text.find("```", i + 3);
            i = close == std::string_view::npos ? text.size() : close + 3;
            out += ' ';
            continue;
        }
        if (text[i] == '<' && i + 1 < text.size() && (isTagChar(text[i + 1]) && text[i + 1] != ':')) {
            size_t j = i + 1;
            while (j < text.size() && isTagChar(text[j])) ++j;
            auto close = text.find('>', j);
            if (close != std::string_view::npos && close - i < 200 && (j == close || text[j] == ' ')) {
                out += ' ';
                i = close + 1;
                continue;
            }
        }
        out += text[i++];
    }
    return out;
}

}  // namespace

std::string oneLine(std::string_view text) { return collapseWhitespace(stripMarkup(text)); }

namespace {
// A topic needs only the prompt's beginning.
constexpr size_t kLookedAt = 16 * 1024;
}  // namespace

std::optional<std::string> topic(std::string_view prompt) {
    auto line = oneLine(prompt.substr(0, kLookedAt));
    if (line.empty()) return std::nullopt;
    // Byte offsets of each character's start.
    std::vector<size_t> starts;
    for (size_t i = 0; i < line.size(); ++i)
        if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) starts.push_back(i);
    if (starts.size() <= kTopicLength) return line;
    // Keep at most kTopicLength - 1 characters and the ellipsis, ending on a
    // word when one ends in the second half.
    size_t cut = starts[kTopicLength - 1];
    auto space = line.rfind(' ', cut);
    size_t end = space != std::string::npos && space > cut / 2 ? space : cut;
    std::string out = line.substr(0, end);
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out + "…";
}

}  // namespace scrivet::PromptText
