#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
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

// The part of an approval's command a line shows: bytes [begin, end) of the
// command's display text (ViewRenderer::commandText), for Frame::commands[index].
struct CommandPart {
    int index = -1;
    size_t begin = 0, end = 0;
    bool operator==(const CommandPart&) const = default;
};

struct Line {
    std::vector<Span> spans;
    bool selected = false;  // the whole line belongs to the selected row (its background fills)
    std::optional<CommandPart> command;  // set when the line shows part of an approval's command

    Line& add(std::string text, Style style = {});
    // The line's characters without styles.
    std::string text() const;
    int width() const;
    bool operator==(const Line&) const = default;
};

// An approval's command as one frame shows it.
struct ShownCommand {
    std::string sessionId;
    uint64_t gateId = 0;
    std::string detail;                              // the command as the request carries it
    size_t length = 0;                               // bytes of its display text
    std::vector<std::pair<size_t, size_t>> parts;    // the byte ranges of the display text on screen
    // For the selected row opened on a command longer than the screen: its
    // wrapped lines, how many are drawn and the first one drawn.
    int lines = 0, window = 0, top = 0;
    bool operator==(const ShownCommand&) const = default;
};

struct Frame {
    int width = 0;
    int height = 0;
    std::vector<Line> lines;  // exactly `height` lines, none wider than `width`
    int scrollTop = 0;        // the first row drawn (the renderer may move it to show the selection)
    std::vector<ShownCommand> commands;  // the approvals' commands drawn, and which parts are on screen

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
// Shows every character of a command for what it is, on one line: a newline
// as "↵" (so is a Unicode line separator), a tab as a blank, other control
// characters as their control pictures ("␍", "␛"), characters that are
// invisible or turn the text's direction as "�", broken UTF-8 as "?".
std::string visibleText(std::string_view text);
// The bytes of the UTF-8 character at `i` (1 for a broken byte).
size_t characterLength(std::string_view text, size_t i);

}  // namespace lumora::ui
