#include "lumora/ui/frame.hpp"

#include <cstdint>

namespace lumora::ui {

Role statusRole(AgentStatus s) {
    switch (s) {
        case AgentStatus::attention: return Role::attention;
        case AgentStatus::working: return Role::working;
        case AgentStatus::waiting: return Role::waiting;
        case AgentStatus::idle: return Role::idle;
    }
    return Role::normal;
}

Role providerRole(scrivet::HarnessProvider p) {
    switch (p) {
        case scrivet::HarnessProvider::claudeCode: return Role::claudeCode;
        case scrivet::HarnessProvider::cursor: return Role::cursor;
        case scrivet::HarnessProvider::codex: return Role::codex;
        case scrivet::HarnessProvider::kimi: return Role::kimi;
        case scrivet::HarnessProvider::opencode: return Role::opencode;
    }
    return Role::normal;
}

Line& Line::add(std::string text, Style style) {
    if (!text.empty()) spans.push_back(Span{std::move(text), style});
    return *this;
}

std::string Line::text() const {
    std::string out;
    for (const auto& s : spans) out += s.text;
    return out;
}

int Line::width() const {
    int w = 0;
    for (const auto& s : spans) w += displayWidth(s.text);
    return w;
}

std::string Frame::text() const {
    std::string out;
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string t = lines[i].text();
        while (!t.empty() && t.back() == ' ') t.pop_back();
        out += t;
        if (i + 1 < lines.size()) out += '\n';
    }
    return out;
}

namespace {

// Decodes one UTF-8 character at `i`, advancing `i`; a malformed byte reads
// as itself so nothing loops forever.
char32_t decode(std::string_view s, size_t& i) {
    auto b = static_cast<unsigned char>(s[i]);
    int len = b < 0x80 ? 1 : (b >> 5) == 0x6 ? 2 : (b >> 4) == 0xE ? 3 : (b >> 3) == 0x1E ? 4 : 1;
    if (i + len > s.size()) len = 1;
    char32_t c = len == 1 ? b : len == 2 ? (b & 0x1F) : len == 3 ? (b & 0x0F) : (b & 0x07);
    for (int k = 1; k < len; ++k) c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    i += len;
    return c;
}

int charWidth(char32_t c) {
    if (c == 0) return 0;
    if ((c >= 0x300 && c <= 0x36F) || (c >= 0x200B && c <= 0x200F) || (c >= 0x20D0 && c <= 0x20FF) ||
        (c >= 0xFE00 && c <= 0xFE0F))
        return 0;
    if ((c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0x303E) || (c >= 0x3041 && c <= 0xA4CF) ||
        (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) ||
        (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
        (c >= 0x1F900 && c <= 0x1F9FF) || (c >= 0x20000 && c <= 0x3FFFD))
        return 2;
    return 1;
}

}  // namespace

int displayWidth(std::string_view text) {
    int w = 0;
    for (size_t i = 0; i < text.size();) w += charWidth(decode(text, i));
    return w;
}

std::string fitText(std::string_view text, int width) {
    if (width <= 0) return {};
    if (displayWidth(text) <= width) return std::string(text);
    // Keep characters while they and the ellipsis fit.
    std::string out;
    int w = 0;
    for (size_t i = 0; i < text.size();) {
        size_t start = i;
        int cw = charWidth(decode(text, i));
        if (w + cw > width - 1) break;
        out.append(text.substr(start, i - start));
        w += cw;
    }
    return out + "…";
}

std::string padText(std::string_view text, int width) {
    std::string out = fitText(text, width);
    int w = displayWidth(out);
    if (w < width) out.append(static_cast<size_t>(width - w), ' ');
    return out;
}

std::string sanitize(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        size_t start = i;
        char32_t c = decode(text, i);
        if (i - start == 1 && c >= 0x80) out += '?';  // a stray byte of broken UTF-8
        else if (c < 0x20 || c == 0x7F || (c >= 0x80 && c < 0xA0)) out += ' ';
        else out.append(text.substr(start, i - start));
    }
    return out;
}

std::string visibleText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        size_t start = i;
        char32_t c = decode(text, i);
        if (i - start == 1 && c >= 0x80) out += '?';
        else if (c == '\n' || c == 0x2028) out += "↵";
        else if (c == '\t') out += ' ';
        else if (c < 0x20) {
            char32_t picture = 0x2400 + c;
            out += static_cast<char>(0xE0 | (picture >> 12));
            out += static_cast<char>(0x80 | ((picture >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (picture & 0x3F));
        } else if (c == 0x7F) out += "␡";
        else if ((c >= 0x80 && c < 0xA0) || c == 0x180E || (c >= 0x200B && c <= 0x200F) ||
                 (c >= 0x2029 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF)
            out += "�";
        else out.append(text.substr(start, i - start));
    }
    return out;
}

size_t characterLength(std::string_view text, size_t i) {
    size_t start = i;
    decode(text, i);
    return i - start;
}

}  // namespace lumora::ui
