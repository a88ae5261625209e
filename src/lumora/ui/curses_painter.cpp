#include "lumora/ui/curses_painter.hpp"

#include <curses.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

namespace lumora::ui {

bool noColourRequested() {
    const char* v = std::getenv("NO_COLOR");
    return v && *v;
}

namespace {

// The nearest of the terminal's colours to an sRGB colour: the 6×6×6 cube or
// the grey ramp with 256 colours, the eight basic ones otherwise.
short nearestColour(Rgb c, int colours) {
    auto sq = [](double x) { return x * x; };
    if (colours >= 256) {
        auto level = [](double v) {
            int x = static_cast<int>(v * 255 + 0.5);
            return x < 48 ? 0 : x < 115 ? 1 : std::min(5, (x - 35) / 40);
        };
        static constexpr int kSteps[] = {0, 95, 135, 175, 215, 255};
        int r = level(c.r), g = level(c.g), b = level(c.b);
        double cubeDist = sq(kSteps[r] / 255.0 - c.r) + sq(kSteps[g] / 255.0 - c.g) + sq(kSteps[b] / 255.0 - c.b);
        double mean = (c.r + c.g + c.b) / 3;
        int grey = std::clamp(static_cast<int>((mean * 255 - 8) / 10 + 0.5), 0, 23);
        double gv = (8 + grey * 10) / 255.0;
        double greyDist = sq(gv - c.r) + sq(gv - c.g) + sq(gv - c.b);
        return static_cast<short>(greyDist < cubeDist ? 232 + grey : 16 + 36 * r + 6 * g + b);
    }
    struct Basic { short index; Rgb rgb; };
    static const Basic basics[] = {{COLOR_RED, {1, 0, 0}},    {COLOR_GREEN, {0, 1, 0}}, {COLOR_YELLOW, {1, 1, 0}},
                                   {COLOR_BLUE, {0, 0, 1}},   {COLOR_MAGENTA, {1, 0, 1}}, {COLOR_CYAN, {0, 1, 1}},
                                   {COLOR_WHITE, {1, 1, 1}}};
    short best = COLOR_WHITE;
    double bestDist = 1e9;
    for (const auto& b : basics) {
        double d = sq(b.rgb.r - c.r) + sq(b.rgb.g - c.g) + sq(b.rgb.b - c.b);
        if (d < bestDist) bestDist = d, best = b.index;
    }
    return best;
}

// The colour a role draws in; nothing for the terminal's own colour.
std::optional<Rgb> roleColour(Role r) {
    switch (r) {
        case Role::normal: case Role::keyName: return std::nullopt;
        case Role::muted: return colour(AgentStatus::idle);
        case Role::title: return Rgb{0.35, 0.78, 0.98};
        case Role::attention: case Role::badge: return colour(AgentStatus::attention);
        case Role::working: case Role::header: return colour(AgentStatus::working);
        case Role::waiting: return colour(AgentStatus::waiting);
        case Role::idle: return colour(AgentStatus::idle);
        case Role::alert: return Rgb{0.93, 0.16, 0.16};
        case Role::keyLabel: return Rgb{0.35, 0.78, 0.98};
        case Role::claudeCode: return scrivet::accent(scrivet::HarnessProvider::claudeCode);
        case Role::cursor: return scrivet::accent(scrivet::HarnessProvider::cursor);
        case Role::codex: return scrivet::accent(scrivet::HarnessProvider::codex);
        case Role::kimi: return scrivet::accent(scrivet::HarnessProvider::kimi);
        case Role::opencode: return scrivet::accent(scrivet::HarnessProvider::opencode);
    }
    return std::nullopt;
}

int pairFor(Role r, bool selected) { return 1 + static_cast<int>(r) * 2 + (selected ? 1 : 0); }

}  // namespace

void CursesPainter::setUp() {
    colours_ = has_colors() && !noColourRequested();
    if (!colours_) return;
    start_color();
    use_default_colors();
    int n = COLORS;
    selectionBg_ = n >= 256 ? 237 : -1;
    for (int r = 0; r < kRoleCount; ++r) {
        auto rgb = roleColour(static_cast<Role>(r));
        short fg = rgb ? nearestColour(*rgb, n) : -1;
        init_pair(static_cast<short>(pairFor(static_cast<Role>(r), false)), fg, -1);
        if (selectionBg_ >= 0) init_pair(static_cast<short>(pairFor(static_cast<Role>(r), true)), fg, selectionBg_);
    }
}

void CursesPainter::paint(const Frame& f) {
    erase();
    for (int y = 0; y < static_cast<int>(f.lines.size()) && y < f.height; ++y) {
        const Line& line = f.lines[static_cast<size_t>(y)];
        move(y, 0);
        for (const auto& span : line.spans) {
            attrset(static_cast<attr_t>(attributes(span.style, line.selected)));
            addstr(span.text.c_str());
        }
    }
    attrset(A_NORMAL);
    refresh();
}

int CursesPainter::attributes(const Style& s, bool selectedLine) const {
    attr_t a = A_NORMAL;
    if (s.bold) a |= A_BOLD;
    if (s.reverse) a |= A_REVERSE;
    if (colours_) {
        bool sel = selectedLine && selectionBg_ >= 0;
        a |= COLOR_PAIR(pairFor(s.role, sel));
        if (selectedLine && selectionBg_ < 0) a |= A_REVERSE;
        if (s.dim) a |= A_DIM;
    } else {
        // No colours: the labels carry the meaning; attributes keep the emphasis.
        if (s.role == Role::muted || s.role == Role::idle || s.dim) a |= A_DIM;
        if (s.role == Role::attention || s.role == Role::alert || s.role == Role::title) a |= A_BOLD;
        if (s.role == Role::header) a |= A_REVERSE;
        if (selectedLine) a |= A_REVERSE;
    }
    return static_cast<int>(a);
}

}  // namespace lumora::ui
