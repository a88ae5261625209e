#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/monitor/agent_status.hpp"
#include "scrivet/harness_provider.hpp"

// A drawn screen as plain data: lines of styled spans. The renderer makes
// one, the ncurses front end paints it, and tests read its text.
namespace lumora::ui {

// What a span's colour means; the front end maps each role to a colour pair
// (or to nothing at all without colours).
enum class Role {
    normal,
    muted,      // secondary text: branches, ages, hints
    title,      // the program's name in the header
    attention,  // the status colours
    working,
    waiting,
    idle,
    alert,      // a full context gauge
    badge,      // "Outside sandbox"
    keyName,    // a key in the key bar or help
    keyLabel,   // what the key does
    header,     // the column header line
    claudeCode,  // provider accents
    cursor,
    codex,
    kimi,
    opencode,
};
inline constexpr int kRoleCount = static_cast<int>(Role::opencode) + 1;

Role statusRole(AgentStatus s);
Role providerRole(scrivet::HarnessProvider p);

struct Style {
    Role role = Role::normal;
    bool bold = false;
    bool dim = false;
    bool reverse = false;
    bool selected = false;  // part of the selected row
    bool operator==(const Style&) const = default;
};

struct Span {
    std::string text;  // UTF-8, one line, no control characters
    Style style;
    bool operator==(const Span&) const = default;
};

struct Line {
    std::vector<Span> spans;
    bool selected = false;  // the whole line belongs to the selected row (its background fills)

    Line& add(std::string text, Style style = {});
    // The line's characters without styles.
    std::string text() const;
    int width() const;
    bool operator==(const Line&) const = default;
};

struct Frame {
    int width = 0;
    int height = 0;
    std::vector<Line> lines;  // exactly `height` lines, none wider than `width`
    int scrollTop = 0;        // the first row drawn (the renderer may move it to show the selection)

    // Every line's text, trailing blanks trimmed, joined with newlines.
    std::string text() const;
    bool operator==(const Frame&) const = default;
};

// Terminal columns taken by UTF-8 text: one per character, none for
// combining marks, two for wide East Asian characters and emoji.
int displayWidth(std::string_view text);
// Cuts text to at most `width` columns, ending in "…" when it was cut.
std::string fitText(std::string_view text, int width);
// Fits text to exactly `width` columns: cut with "…" or padded with blanks.
std::string padText(std::string_view text, int width);
// Replaces control characters (newlines, tabs, escapes) with blanks, so a
// journal's text can never move the cursor.
std::string sanitize(std::string_view text);

}  // namespace lumora::ui
