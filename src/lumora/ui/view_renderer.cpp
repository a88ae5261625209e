#include "lumora/ui/view_renderer.hpp"

#include <algorithm>
#include <cmath>

namespace lumora::ui::ViewRenderer {

namespace {

constexpr int kStatusWidth = 15;  // "Waiting for you"
constexpr int kIndent = 6;        // where a row's second and later lines start
constexpr int kMaxActivityLines = 6;
constexpr int kMaxSubagentLines = 4;
constexpr int kMaxPlanLines = 6;  // an opened row's plan steps, summary and overflow included

// Joins pieces into one string (also sidesteps a false overflow warning of
// GCC 12 on `"literal" + std::string` in optimised builds).
std::string concat(std::initializer_list<std::string_view> parts) {
    std::string out;
    for (auto p : parts) out.append(p.data(), p.size());
    return out;
}

Style muted() { return Style{Role::muted}; }
Style role(Role r, bool bold = false) { return Style{r, bold}; }

// The widths of the main line's columns for a screen `width` wide.
struct Columns {
    int provider = 8;
    int model = 10;
    int gaugeCells = 6;
    int context = 11;  // gauge, blank, "42k~"
    int age = 4;
    int middle = 0;    // project and branch take what is left

    explicit Columns(int width) {
        if (width >= 110) model = 18;
        else if (width >= 96) model = 14;
        int left = 4 + kStatusWidth + 1;
        int right = provider + 1 + model + 1 + context + 1 + age;
        middle = std::max(8, width - left - right - 1);
    }
};

bool compact(const AgentInstance& a, const ViewModel& m) {
    return m.settings.idlePolicy != IdleAgentPolicy::keepFull && a.isDormant(m.now);
}

std::string branchText(const AgentInstance& a) {
    if (a.isWorktree && a.worktreeName && !a.worktreeName->empty()) return "wt:" + sanitize(*a.worktreeName);
    if (a.gitBranch && !a.gitBranch->empty()) return sanitize(*a.gitBranch);
    return {};
}

std::string oneLine(const std::string& text) { return scrivet::collapseWhitespace(sanitize(text)); }

// The topic, else the summary: what the row is about.
std::string aboutText(const AgentInstance& a) {
    if (a.topic && !a.topic->empty()) return oneLine(*a.topic);
    if (a.summary && !a.summary->empty()) return oneLine(*a.summary);
    return {};
}

// Adds `text` fitted to `width` columns and padded to it.
void addPadded(Line& line, const std::string& text, int width, Style style) {
    line.add(padText(text, width), style);
}

void addRightAligned(Line& line, const std::string& text, int width, Style style) {
    std::string t = fitText(text, width);
    int pad = width - displayWidth(t);
    if (pad > 0) line.add(std::string(static_cast<size_t>(pad), ' '));
    line.add(t, style);
}

// Pads a line with blanks to `width` (so a selected line's background fills it).
void finish(Line& line, int width) {
    int w = line.width();
    if (w < width) line.add(std::string(static_cast<size_t>(width - w), ' '));
}

// Cuts spans so the line is at most `width` columns.
void clip(Line& line, int width) {
    int used = 0;
    std::vector<Span> kept;
    for (auto& s : line.spans) {
        int w = displayWidth(s.text);
        if (used + w <= width) {
            kept.push_back(s);
            used += w;
            continue;
        }
        if (width - used > 0) kept.push_back(Span{fitText(s.text, width - used), s.style});
        line.command.reset();  // a cut line does not show its part of a command whole
        break;
    }
    line.spans = std::move(kept);
}

Line indented(int extra = 0) {
    Line l;
    l.add(std::string(static_cast<size_t>(kIndent + extra), ' '));
    return l;
}

// The project and its branch or worktree, fitted together into `width`.
void addProject(Line& line, const AgentInstance& a, int width, bool dim) {
    std::string project = oneLine(a.projectName.empty() ? a.cwd : a.projectName);
    std::string branch = branchText(a);
    std::string p = fitText(project, branch.empty() ? width : std::max(width * 3 / 5, width - 3 - displayWidth(branch)));
    int left = width - displayWidth(p);
    line.add(p, Style{dim ? Role::muted : Role::normal, !dim});
    if (!branch.empty() && left > 4) {
        std::string b = fitText(" · " + branch, left);
        line.add(b, muted());
        left -= displayWidth(b);
    }
    if (left > 0) line.add(std::string(static_cast<size_t>(left), ' '));
}

std::vector<Line> mainLine(const AgentInstance& a, const ViewModel& m, bool isSelected, const Columns& c, int width) {
    Line line;
    line.selected = isSelected;
    bool small = compact(a, m);
    bool loud = a.status == AgentStatus::attention && !m.acknowledged.count(a.id);
    line.add(isSelected ? "▸ " : "  ");
    line.add(small ? "◦ " : "● ", role(statusRole(a.status), loud));
    addPadded(line, std::string(label(a.status)), kStatusWidth, role(small ? Role::muted : statusRole(a.status), loud));
    line.add(" ");
    if (small) {
        // The compact one-liner: the same columns, with the topic where the
        // model and the gauge would be.
        addProject(line, a, c.middle, true);
        line.add(" ");
        addPadded(line, std::string(scrivet::shortName(a.provider)), c.provider, muted());
        line.add(" ");
        addPadded(line, aboutText(a), c.model + 1 + c.context, muted());
        line.add(" ");
        addRightAligned(line, ageText(a.lastActivity, m.now), c.age, muted());
    } else {
        addProject(line, a, c.middle, false);
        line.add(" ");
        addPadded(line, std::string(scrivet::shortName(a.provider)), c.provider, role(providerRole(a.provider)));
        line.add(" ");
        addPadded(line, a.model ? oneLine(*a.model) : "", c.model, Style{});
        line.add(" ");
        std::string ctx = contextText(a, c.gaugeCells);
        auto fraction = a.contextFraction();
        Role gauge = !fraction ? Role::muted : *fraction >= 0.9 ? Role::alert : *fraction >= 0.7 ? Role::waiting : Role::working;
        addPadded(line, ctx, c.context, role(gauge));
        line.add(" ");
        addRightAligned(line, ageText(a.lastActivity, m.now), c.age, muted());
    }
    clip(line, width);
    finish(line, width);
    return {line};
}

// Wraps labelled buttons ("[a] Approve") over as many lines as they need;
// `hint` (a key and what it does) follows them, muted.
std::vector<Line> buttonLines(const std::vector<ApprovalChoice>& choices, int width,
                              std::optional<std::pair<std::string, std::string>> hint = std::nullopt) {
    std::vector<Line> out;
    Line line = indented();
    auto place = [&](const std::string& key, const std::string& text, Style style) {
        int need = displayWidth(key) + 1 + displayWidth(text) + 2;
        if (line.width() > kIndent && line.width() + need > width) {
            out.push_back(line);
            line = indented();
        }
        line.add(key, role(Role::keyName, true)).add(" ").add(text, style).add("  ");
    };
    for (const auto& ch : choices) {
        Role r = ch.kind == ApprovalChoice::Kind::deny ? Role::attention : Role::working;
        place(std::string("[") + keyFor(ch.kind) + "]", sanitize(ch.label), role(r));
    }
    if (hint) place("[" + hint->first + "]", hint->second, muted());
    out.push_back(line);
    return out;
}

// The bytes of `text` from `from` whose characters fit `cols` columns.
size_t fittingBytes(std::string_view text, size_t from, int cols) {
    size_t i = from;
    int used = 0;
    while (i < text.size()) {
        size_t len = characterLength(text, i);
        int w = displayWidth(text.substr(i, len));
        if (used + w > cols) break;
        used += w;
        i += len;
    }
    return i - from;
}

// Cuts a command's display text into lines of at most `cols` columns,
// breaking after each newline mark; byte ranges of the text.
std::vector<std::pair<size_t, size_t>> wrapCommand(std::string_view text, int cols) {
    std::vector<std::pair<size_t, size_t>> lines;
    static const std::string_view newline = "↵";
    size_t start = 0;
    while (start < text.size()) {
        size_t end = start + std::max<size_t>(1, fittingBytes(text, start, std::max(1, cols)));
        end = std::min(end, text.size());
        size_t mark = text.substr(start, end - start).find(newline);
        if (mark != std::string_view::npos) {
            end = start + mark + newline.size();
        } else if (end < text.size() && text[end] != ' ') {
            // Break after a blank in the line's second half rather than inside a word.
            size_t blank = text.substr(start, end - start).rfind(' ');
            if (blank != std::string_view::npos && blank >= (end - start) / 2) end = start + blank + 1;
        }
        lines.emplace_back(start, end);
        start = end;
    }
    return lines;
}

constexpr int kCommandIndent = 2;  // a wrapped command's lines, beyond the row's indent

// The approval of a row: its tool and command (the whole command, wrapped
// and scrolled, when the row is opened on one too long for a line), the
// reason, and the buttons or the confirmation. Approve and the wider scopes
// show only once the whole command has been on screen.
void approvalLines(std::vector<Line>& out, const AgentInstance& a, const ViewModel& m, const ViewState& s,
                   bool isSelected, int width, int listLines, std::vector<ShownCommand>& shown) {
    const auto& r = *a.approval;
    std::string tool = r.toolName.empty() ? "Tool" : sanitize(r.toolName);
    std::string text = r.detail ? visibleText(*r.detail) : std::string();
    int index = static_cast<int>(shown.size());
    if (!text.empty()) shown.push_back(ShownCommand{a.id, r.gateId, *r.detail, text.size(), {}});

    Line head = indented();
    if (r.leavesSandbox()) head.add(" Outside sandbox ", Style{Role::badge, true, false, true}).add(" ");
    std::string label = text.empty() ? tool : tool + ": ";
    int room = width - head.width() - displayWidth(label);
    bool opened = isSelected && s.expanded;
    if (text.empty() || displayWidth(text) <= room) {
        head.add(label + text, role(Role::normal, true));
        if (!text.empty()) head.command = CommandPart{index, 0, text.size()};
        out.push_back(head);
    } else if (!opened) {
        // One line, cut: "…" says there is more.
        size_t shownBytes = fittingBytes(text, 0, std::max(0, room - 1));
        head.add(label + text.substr(0, shownBytes) + "…", role(Role::normal, true));
        head.command = CommandPart{index, 0, shownBytes};
        out.push_back(head);
    } else {
        auto wrapped = wrapCommand(text, width - kIndent - kCommandIndent);
        int total = static_cast<int>(wrapped.size());
        // Room for the row's first lines, this heading, the reason, two lines
        // of buttons and the markers above and below the row and the command.
        int window = std::max(1, listLines - (2 + 1 + (r.hasContext() ? 1 : 0) + 2 + 2 + 2));
        int top = 0;
        if (total > window) top = std::clamp(s.commandTop, 0, total - window);
        else window = total;
        shown[static_cast<size_t>(index)].lines = total;
        shown[static_cast<size_t>(index)].window = window;
        shown[static_cast<size_t>(index)].top = top;
        head.add(tool, role(Role::normal, true));
        head.add(concat({" · ", std::to_string(total), total == 1 ? " line" : " lines"}), muted());
        out.push_back(head);
        if (top > 0) out.push_back(indented(kCommandIndent).add("↑ " + std::to_string(top) + " more lines", muted()));
        for (int k = top; k < top + window; ++k) {
            auto [begin, end] = wrapped[static_cast<size_t>(k)];
            Line l = indented(kCommandIndent);
            l.add(text.substr(begin, end - begin));
            l.command = CommandPart{index, begin, end};
            out.push_back(l);
        }
        if (int below = total - top - window; below > 0)
            out.push_back(indented(kCommandIndent).add(concat({"↓ ", std::to_string(below), " more lines"}), muted()));
    }
    if (r.hasContext()) out.push_back(indented().add(oneLine(*r.reason), muted()));

    auto conf = s.confirmations.find(a.id);
    auto choices = m.choices.find(a.id);
    if (conf != s.confirmations.end()) {
        out.push_back(indented().add("✓ " + conf->second.text, role(Role::working, true)));
    } else if (isSelected && choices != m.choices.end() && !choices->second.empty()) {
        if (ViewNav::wholeCommandSeen(s, a.id, r)) {
            for (auto& b : buttonLines(choices->second, width)) out.push_back(b);
        } else {
            std::vector<ApprovalChoice> deny;
            for (const auto& c : choices->second)
                if (c.kind == ApprovalChoice::Kind::deny) deny.push_back(c);
            auto hint = opened ? std::make_pair(std::string("↓"), std::string("Read to the end to approve"))
                               : std::make_pair(std::string("⏎"), std::string("Show the whole command to approve"));
            for (auto& b : buttonLines(deny, width, hint)) out.push_back(b);
        }
    }
}

std::vector<Line> rowLines(const AgentInstance& a, const ViewModel& m, const ViewState& s, bool isSelected,
                           int width, const Columns& c, int listLines, std::vector<ShownCommand>& shown) {
    std::vector<Line> out = mainLine(a, m, isSelected, c, width);
    if (compact(a, m)) return out;

    const TaskPlan* plan = nullptr;
    if (auto it = m.plans.find(a.id); it != m.plans.end() && !it->second.empty()) plan = &it->second;

    // The second line: what the row is about, its plan's badge (done/total
    // and the step at work) and its subagents.
    {
        Line l = indented(-2);
        if (m.unseen.count(a.id)) l.add("✓ Done · ", role(Role::working, true));
        std::string sub = a.subagentCount > 0
                              ? std::to_string(a.subagentCount) + (a.subagentCount == 1 ? " subagent" : " subagents")
                              : "";
        std::string badge, step;
        if (plan) {
            badge = "☰ " + plan->badge();
            if (const auto* active = plan->activeItem()) step = oneLine(active->activeForm.value_or(active->subject));
        }
        int right = (sub.empty() ? 0 : displayWidth(sub) + 2) + (badge.empty() ? 0 : displayWidth(badge) + 2);
        std::string about = aboutText(a);
        // The step at work takes what the topic leaves, and the topic keeps at least a third.
        int stepRoom = 0;
        if (!step.empty()) {
            int left = width - l.width() - right;
            int aboutNeeds = std::min(displayWidth(about), std::max(left / 3, 16));
            stepRoom = std::max(0, left - aboutNeeds - 3);
            if (stepRoom < 6) stepRoom = 0;
            stepRoom = std::min(stepRoom, displayWidth(step));
        }
        int room = width - l.width() - right - (stepRoom > 0 ? stepRoom + 3 : 0);
        addPadded(l, about, std::max(0, room), Style{});
        if (!badge.empty()) {
            l.add("  ").add(badge, role(plan->hasActive() ? Role::working : Role::muted, plan->hasActive()));
            if (stepRoom > 0) l.add(" · ", muted()).add(fitText(step, stepRoom), muted());
        }
        if (!sub.empty()) l.add("  ").add(sub, muted());
        out.push_back(l);
    }

    if (a.approval) {
        approvalLines(out, a, m, s, isSelected, width, listLines, shown);
    } else if (auto conf = s.confirmations.find(a.id); conf != s.confirmations.end()) {
        out.push_back(indented().add("✓ " + conf->second.text, role(Role::working, true)));
    }

    if (a.question) {
        const auto& q = *a.question;
        out.push_back(indented().add("? ", role(Role::attention, true)).add(oneLine(q.text), role(Role::normal, true)));
        std::string options = q.optionsLine();
        if (!options.empty()) out.push_back(indented(2).add(sanitize(options), role(Role::waiting)));
    }

    if (isSelected && s.expanded) {
        std::string where = a.host ? oneLine(a.host->appName) + " · " : "";
        where += oneLine(a.cwd);
        if (a.pid) where += " · pid " + std::to_string(*a.pid);
        out.push_back(indented().add(where, muted()));
        if (a.topic && a.summary && !a.summary->empty()) out.push_back(indented().add(oneLine(*a.summary)));
        if (plan) {
            // The plan's steps: finished ones first folded into one line and
            // the tail cut to "+N more" when they do not all fit.
            for (const auto& slot : plan->rowSlots(kMaxPlanLines)) {
                Line l = indented();
                if (slot.kind != TaskPlan::Slot::Kind::item) {
                    l.add(slot.kind == TaskPlan::Slot::Kind::summary ? "✓ " : "  ", muted()).add(slot.text, muted());
                } else if (slot.item->status == TaskPlanItem::Status::completed) {
                    l.add("✓ ", role(Role::working)).add(oneLine(slot.text), muted());
                } else if (slot.item->status == TaskPlanItem::Status::inProgress) {
                    l.add("▸ ", role(Role::working, true))
                        .add(oneLine(slot.item->activeForm.value_or(slot.text)), role(Role::normal, true));
                } else {
                    l.add("◦ ", muted()).add(oneLine(slot.text));
                }
                out.push_back(l);
            }
        }
        size_t first = a.recentActivity.size() > kMaxActivityLines ? a.recentActivity.size() - kMaxActivityLines : 0;
        for (size_t i = first; i < a.recentActivity.size(); ++i) {
            const auto& act = a.recentActivity[i];
            using K = ActivityLine::Kind;
            std::string glyph = act.kind == K::prompt ? "› " : act.kind == K::tool ? "$ " : act.kind == K::ok ? "✓ "
                              : act.kind == K::error ? "✗ " : act.kind == K::thinking ? "… " : "  ";
            Role r = act.kind == K::error ? Role::attention : act.kind == K::ok ? Role::working
                   : act.kind == K::prompt ? Role::waiting : Role::normal;
            out.push_back(indented().add(glyph, role(r)).add(oneLine(act.text), act.kind == K::thinking ? muted() : Style{}));
        }
        int shown = 0;
        for (const auto& sa : a.subagents) {
            if (shown++ == kMaxSubagentLines) {
                out.push_back(indented().add(concat({"+", std::to_string(a.subagents.size() - kMaxSubagentLines), " more subagents"}), muted()));
                break;
            }
            Line l = indented();
            l.add(sa.isRunning ? "⑂ " : "· ", role(sa.isRunning ? Role::working : Role::muted));
            l.add(oneLine(sa.type.empty() ? "agent" : sa.type), role(Role::normal, true));
            if (!sa.task.empty()) l.add(concat({" ", oneLine(sa.task)}));
            if (sa.action && !sa.action->empty()) l.add(concat({" — ", oneLine(*sa.action)}), muted());
            out.push_back(l);
        }
        if (a.recentActivity.empty() && a.subagents.empty() && !plan) out.push_back(indented().add("No recent activity", muted()));
    }

    for (auto& l : out) clip(l, width);
    return out;
}

// One window of the quota strip, as pieces that can be dropped when the line is short.
struct WindowPieces {
    std::vector<Span> core;     // label, gauge and what is left
    std::vector<Span> reset;    // "↻2h 10m"
    std::vector<Span> verdict;  // "runs out in 1h 30m", "on pace"
    bool behind = false;
    bool modelScoped = false;
};

Role quotaRole(const PlanUsage::Window& w) {
    double left = w.percentLeft();
    if (w.isDepleted() || left <= 10 || w.isCritical) return Role::alert;
    if (left <= 25) return Role::waiting;
    return Role::working;
}

WindowPieces windowPieces(const QuotaReading& r, const PlanUsage::Window& raw, Date now, bool stale) {
    WindowPieces p;
    auto w = r.shown(raw, now);
    p.modelScoped = w.isModelScoped;
    Style plain = stale ? muted() : Style{};
    Style hue = stale ? muted() : role(quotaRole(w));
    p.core.push_back({concat({sanitize(w.label), " "}), plain});
    p.core.push_back({concat({quotaGauge(w.percentLeft(), kQuotaGaugeCells), " "}), hue});
    p.core.push_back({percentLeftText(w), hue});
    if (w.resetsAt) {
        double in = std::chrono::duration<double>(*w.resetsAt - now).count();
        p.reset.push_back({concat({" ↻", Pace::compact(in)}), muted()});
    }
    if (w.isDepleted()) {
        p.behind = true;
        p.verdict.push_back({" used up", stale ? muted() : role(Role::alert, true)});
    } else if (auto pace = r.pace(raw, now)) {
        p.behind = pace->verdict.kind == PaceEstimate::Kind::behind;
        Style st = p.behind ? role(Role::alert, true) : pace->verdict.kind == PaceEstimate::Kind::onTrack ? role(Role::waiting) : muted();
        p.verdict.push_back({concat({" ", pace->label()}), st});
    }
    return p;
}

// One provider's line of the quota strip: its plan label, then each window's
// gauge and what is left, its reset and its pace, fitted to `width` by
// dropping the least useful pieces first.
Line quotaLine(const QuotaReading& r, const ViewModel& m, int labelWidth, int width) {
    bool stale = r.isStale(m.now);
    Line head;
    head.add(" ");
    head.add(padText(sanitize(r.label()), labelWidth), stale ? muted() : role(providerRole(r.provider), true));
    std::vector<WindowPieces> windows;
    for (const auto& w : r.usage.windows) windows.push_back(windowPieces(r, w, m.now, stale));
    std::vector<Span> tail;
    if (stale) {
        double age = std::chrono::duration<double>(m.now - r.fetchedAt).count();
        tail.push_back({concat({"  · ", Pace::compact(age), " ago"}), muted()});
    }
    // Pieces go, least useful first, until the line fits: calm verdicts,
    // resets, model-scoped windows, all but the first overrun, the gauges,
    // the age of a stale reading; what still does not fit is cut.
    for (int level = 0; level <= 6; ++level) {
        Line l = head;
        bool firstBehind = true;
        for (const auto& p : windows) {
            if (level >= 3 && p.modelScoped) continue;
            l.add("  ");
            for (size_t i = 0; i < p.core.size(); ++i) {
                if (i == 1 && level >= 5) continue;  // the gauge
                l.spans.push_back(p.core[i]);
            }
            if (level < 2)
                for (const auto& s : p.reset) l.spans.push_back(s);
            bool verdict = level < 1 || (p.behind && (level < 4 || firstBehind));
            if (p.behind && !p.verdict.empty()) firstBehind = false;
            if (verdict)
                for (const auto& s : p.verdict) l.spans.push_back(s);
        }
        if (level < 6)
            for (const auto& s : tail) l.spans.push_back(s);
        if (l.width() <= width || level == 6) {
            if (stale)
                for (auto& s : l.spans) s.style.dim = true;
            clip(l, width);
            return l;
        }
    }
    return head;
}

Line headerLine(const ViewModel& m, const std::vector<AgentInstance>& rows, int width) {
    Line l;
    l.add(" lumora ", role(Role::title, true)).add(" ");
    bool initials = m.settings.tabMarks == TabMarks::harness;
    auto tab = AgentDisplay::tabClusters(m.instances, initials);
    for (const auto& cl : tab.clusters) {
        std::string mark = initials && cl.provider ? providerInitials(*cl.provider) : "●";
        if (cl.count >= 2) mark += std::to_string(cl.count);
        l.add(mark, role(statusRole(cl.status), cl.status == AgentStatus::attention)).add(" ");
    }
    if (tab.hidden > 0) l.add(concat({"+", std::to_string(tab.hidden)}), muted()).add(" ");
    std::string sessions = AgentDisplay::sessionsLabel(m.instances, rows);
    // Today's spend sits before the session count, when there is room for both.
    std::string spend = m.spend ? spendText(*m.spend) : std::string();
    int room = width - l.width() - 1;
    if (!spend.empty() && room >= displayWidth(spend) + 3 + displayWidth(sessions)) {
        int spendRoom = room - displayWidth(sessions) - 3;
        addRightAligned(l, spend, spendRoom, muted());
        l.add("   ");
        room = width - l.width() - 1;
    }
    if (room > 0) addRightAligned(l, sessions, room, role(Role::normal, true));
    clip(l, width);
    finish(l, width);
    return l;
}

Line columnHeader(int width, const Columns& c) {
    Line l;
    l.add("    ");
    l.add(padText("STATUS", kStatusWidth + 1));
    l.add(padText("PROJECT · BRANCH", c.middle + 1));
    l.add(padText("AGENT", c.provider + 1));
    l.add(padText("MODEL", c.model + 1));
    l.add(padText("CONTEXT", c.context + 1));
    l.add(padText("AGE", c.age));
    clip(l, width);
    finish(l, width);
    for (auto& s : l.spans) s.style = Style{Role::header, true, false, true};
    return l;
}

Line keyBar(int width) {
    static const std::pair<const char*, const char*> keys[] = {
        {"↑↓", "Move"}, {"⏎", "Expand"}, {"o", "Open"}, {"a", "Approve"}, {"d", "Deny"},
        {"s", "Session"}, {"A", "Always"}, {"?", "Help"}, {"q", "Quit"}};
    Line l;
    for (const auto& [k, what] : keys) {
        int need = displayWidth(k) + displayWidth(what) + 2;
        bool last = std::string_view(k) == "q";
        if (!last && l.width() + need + 8 > width) continue;  // keep room for "q Quit"
        l.add(k, role(Role::keyName, true)).add(" ").add(what, Style{Role::keyLabel}).add("  ");
    }
    clip(l, width);
    finish(l, width);
    return l;
}

Line statusLine(const ViewModel& m, const ViewState& s, int width) {
    Line l;
    if (s.note) {
        l.add(" ");
        Role r = s.note->quota ? Role::alert : statusRole(s.note->status);
        l.add(s.note->done ? "✓ " : s.note->quota ? "◔ " : "● ", role(r, true));
        l.add(oneLine(s.note->text), role(r));
    } else if (m.problem) {
        l.add(" ");
        l.add("! ", role(statusRole(AgentStatus::waiting), true));
        l.add(oneLine(*m.problem), role(statusRole(AgentStatus::waiting)));
    }
    clip(l, width);
    finish(l, width);
    return l;
}

std::vector<Line> helpLines() {
    std::vector<Line> out;
    auto key = [&](const char* k, const char* what) {
        Line l;
        l.add("   ").add(padText(k, 14), role(Role::keyName, true)).add(what);
        out.push_back(l);
    };
    out.push_back(Line{}.add(" Keys", role(Role::title, true)));
    key("↑ ↓  k j", "move the selection");
    key("PgUp PgDn", "move a page");
    key("Home End  g G", "first or last row");
    key("Enter", "expand or fold the selected row (a long command shows whole)");
    key("o", "open: jump to the session's terminal, pane or app");
    key("a", "Approve the selected request");
    key("d", "Deny it");
    key("s", "Allow its commands for this session");
    key("A", "Always allow its commands");
    key("?", "show or hide this help");
    key("q", "quit");
    out.push_back(Line{});
    out.push_back(Line{}.add(" Statuses", role(Role::title, true)));
    for (auto st : kStatusesWorstFirst) {
        Line l;
        l.add("   ● ", role(statusRole(st), true)).add(padText(label(st), kStatusWidth + 1), role(statusRole(st)));
        l.add(std::string(explanation(st)), muted());
        out.push_back(l);
    }
    out.push_back(Line{}.add("   ~ after a context size: the window was guessed from the model name", muted()));
    out.push_back(Line{}.add("   Quota strip: what is left of each plan window, ↻ the time to its reset, and the pace;", muted()));
    out.push_back(Line{}.add("   a reading older than 30 minutes is dimmed and never projects an overrun", muted()));
    return out;
}

// Heights of the rows' drawings, in lines.
struct Window {
    int top = 0;
    int end = 0;  // one past the last row drawn
};

// The rows from `top` that fit `lines` lines and the row limit, reserving the
// "more above" and "more below" lines where they are needed.
int fittingEnd(const std::vector<int>& heights, int top, int lines, int limit) {
    int n = static_cast<int>(heights.size());
    int avail = lines - (top > 0 ? 1 : 0);
    int used = 0, end = top;
    while (end < n && end - top < limit && (end == top || used + heights[end] <= avail)) used += heights[end++];
    if (end < n) {
        // A "more below" line is needed too.
        while (end - top > 1 && used + 1 > avail) used -= heights[--end];
    }
    return end;
}

Window scrollWindow(const std::vector<int>& heights, int top, int selected, int lines, int limit) {
    int n = static_cast<int>(heights.size());
    if (n == 0) return {};
    top = std::clamp(top, 0, n - 1);
    selected = std::clamp(selected, 0, n - 1);
    if (selected < top) top = selected;
    while (top < selected && fittingEnd(heights, top, lines, limit) <= selected) ++top;
    // Pull the window back up when rows above would fit too.
    while (top > 0) {
        int end = fittingEnd(heights, top, lines, limit);
        int before = fittingEnd(heights, top - 1, lines, limit);
        if (before < end || before <= selected) break;
        --top;
    }
    return {top, fittingEnd(heights, top, lines, limit)};
}

Line centred(const std::string& text, int width, Style style) {
    Line l;
    std::string t = fitText(text, width);
    int pad = (width - displayWidth(t)) / 2;
    if (pad > 0) l.add(std::string(static_cast<size_t>(pad), ' '));
    l.add(t, style);
    return l;
}

}  // namespace

std::vector<Line> quotaStrip(const ViewModel& m, int width, int maxLines) {
    std::vector<Line> out;
    int labelWidth = 0;
    for (const auto& r : m.quotas) labelWidth = std::max(labelWidth, displayWidth(sanitize(r.label())));
    labelWidth = std::min(labelWidth, 20);
    for (const auto& r : m.quotas) {
        if (static_cast<int>(out.size()) >= maxLines) break;
        if (r.usage.windows.empty()) continue;
        out.push_back(quotaLine(r, m, labelWidth, width));
    }
    return out;
}

std::string ageText(Date lastActivity, Date now) {
    auto secs = std::chrono::duration_cast<std::chrono::seconds>(now - lastActivity).count();
    if (secs < 60) return "now";
    if (secs < 3600) return std::to_string(secs / 60) + "m";
    if (secs < 86400) return std::to_string(secs / 3600) + "h";
    return std::to_string(secs / 86400) + "d";
}

std::string spendText(const SpendSummary& s) {
    std::string cost = SpendText::dollars(s.todayCost);
    if (!s.unpricedModels.empty()) cost = "≥" + cost;  // some tokens had no price
    return "today " + SpendText::compactTokens(s.todayTokens) + " tok · " + cost;
}

std::string providerInitials(HarnessProvider p) {
    switch (p) {
        case HarnessProvider::claudeCode: return "CC";
        case HarnessProvider::cursor: return "Cu";
        case HarnessProvider::codex: return "Cx";
        case HarnessProvider::kimi: return "Ki";
        case HarnessProvider::opencode: return "OC";
    }
    return "??";
}

std::string contextText(const AgentInstance& a, int cells) {
    auto label = a.contextLabel();
    if (!label) return {};
    std::string count = label->substr(0, label->size() - std::string(" ctx").size());
    if (a.contextMaxEstimated) count += "~";
    auto fraction = a.contextFraction();
    if (!fraction) return std::string(static_cast<size_t>(cells + 1), ' ') + count;
    int filled = std::clamp(static_cast<int>(std::lround(*fraction * cells)), 0, cells);
    if (filled == 0 && *fraction > 0) filled = 1;
    std::string bar;
    for (int i = 0; i < cells; ++i) bar += i < filled ? "█" : "░";
    return bar + " " + count;
}

std::string quotaGauge(double percentLeft, int cells) {
    double fraction = std::clamp(std::isfinite(percentLeft) ? percentLeft / 100.0 : 0.0, 0.0, 1.0);
    int filled = std::clamp(static_cast<int>(std::lround(fraction * cells)), 0, cells);
    if (filled == 0 && fraction > 0) filled = 1;
    std::string bar;
    for (int i = 0; i < cells; ++i) bar += i < filled ? "█" : "░";
    return bar;
}

std::string approvalLine(const ApprovalRequest& request) {
    std::string tool = request.toolName.empty() ? "Tool" : sanitize(request.toolName);
    if (!request.detail || request.detail->empty()) return tool;
    return tool + ": " + visibleText(*request.detail);
}

Frame render(const ViewModel& model, const ViewState& state, int width, int height) {
    Frame f;
    f.width = std::max(0, width);
    f.height = std::max(0, height);
    if (width < kMinWidth || height < kMinHeight) {
        f.lines.resize(static_cast<size_t>(f.height));
        if (f.height > 0) {
            Line l;
            l.add(fitText("lumora: the terminal is too small", f.width));
            f.lines[static_cast<size_t>(f.height / 2)] = l;
        }
        return f;
    }

    Columns cols(width);
    auto rows = ViewNav::rows(model, state);
    f.lines.push_back(headerLine(model, rows, width));
    // The quota strip never squeezes the list below three lines.
    auto strip = quotaStrip(model, width, std::max(0, height - 4 - 3));
    for (auto& l : strip) f.lines.push_back(std::move(l));
    f.lines.push_back(columnHeader(width, cols));
    int listLines = height - 4 - static_cast<int>(strip.size());

    std::vector<Line> list;
    if (state.helpShown) {
        list = helpLines();
    } else if (auto empty = AgentDisplay::emptyCopy(model.instances, rows)) {
        for (int i = 0; i < listLines / 2 - 1; ++i) list.push_back(Line{});
        list.push_back(centred(empty->title, width, role(Role::normal, true)));
        list.push_back(centred(empty->subtitle, width, muted()));
    } else {
        // Draw every row once to know its height; 50 rows cost well under a millisecond.
        std::vector<std::vector<Line>> drawn;
        std::vector<int> heights;
        int selectedIndex = 0;
        for (size_t i = 0; i < rows.size(); ++i) {
            bool isSelected = state.selectedId && rows[i].id == *state.selectedId;
            if (isSelected) selectedIndex = static_cast<int>(i);
            drawn.push_back(rowLines(rows[i], model, state, isSelected, width, cols, listLines, f.commands));
            heights.push_back(static_cast<int>(drawn.back().size()));
        }
        int limit = std::max(1, model.settings.visibleRowLimit);
        auto win = scrollWindow(heights, state.scrollTop, selectedIndex, listLines, limit);
        f.scrollTop = win.top;
        if (win.top > 0) list.push_back(Line{}.add("  ↑ " + std::to_string(win.top) + " more", muted()));
        for (int i = win.top; i < win.end; ++i) {
            for (auto& l : drawn[static_cast<size_t>(i)]) list.push_back(std::move(l));
        }
        int below = static_cast<int>(rows.size()) - win.end;
        if (below > 0) {
            // A tall selected row may overflow: keep its first lines and the marker.
            if (static_cast<int>(list.size()) > listLines - 1) list.resize(static_cast<size_t>(listLines - 1));
            list.push_back(Line{}.add("  ↓ " + std::to_string(below) + " more", muted()));
        }
    }
    list.resize(static_cast<size_t>(listLines));
    for (auto& l : list) {
        clip(l, width);
        if (l.selected) finish(l, width);
        // Only what reaches the screen counts as shown.
        if (l.command) f.commands[static_cast<size_t>(l.command->index)].parts.emplace_back(l.command->begin, l.command->end);
        f.lines.push_back(std::move(l));
    }
    f.lines.push_back(statusLine(model, state, width));
    f.lines.push_back(keyBar(width));
    return f;
}

}  // namespace lumora::ui::ViewRenderer
