#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumora/monitor/agent_display.hpp"
#include "lumora/monitor/tab_layout.hpp"
#include "lumora/ui/frame.hpp"
#include "lumora/ui/view_backend.hpp"

// What the terminal view shows and where the user is in it, as plain data:
// the renderer draws from these, the controller changes them.
namespace lumora::ui {

// The settings the view draws with.
struct ViewSettings {
    TabMarks tabMarks = kDefaultTabMarks;
    IdleAgentPolicy idlePolicy = IdleAgentPolicy::shrink;
    int visibleRowLimit = AgentDisplay::kDefaultVisibleRowLimit;
    bool soundEnabled = true;
    bool operator==(const ViewSettings&) const = default;
};

// Everything drawn, read from the backend at one moment.
struct ViewModel {
    std::vector<AgentInstance> instances;  // the monitor's order
    AgentDisplay::IdSet unseen;            // completions not seen yet
    AgentDisplay::IdSet acknowledged;      // needs-you rows already looked at
    std::optional<PeekEvent> peek;
    std::map<std::string, std::vector<ApprovalChoice>> choices;  // an approval's buttons, by session id
    std::vector<QuotaReading> quotas;       // the quota strip, in provider order
    std::optional<UsageAlert> usageAlert;   // the latest quota alert
    std::optional<SpendSummary> spend;                             // today's tokens and dollars
    TaskPlans plans;                        // task plans by session id
    ViewSettings settings;
    std::optional<std::string> problem;  // shown in the status line when no note is
    Date now{};

    // Reads the backend; `now` is the wall-clock time the ages are drawn against.
    static ViewModel read(const ViewBackend& backend, const ViewSettings& settings, Date now);
};

// A line shown in place of a row's buttons after a decision.
struct Confirmation {
    std::string text;  // "Approved · this session"
    Date until{};
    bool operator==(const Confirmation&) const = default;
};

// A line shown for a few seconds in the status line.
struct StatusNote {
    std::string text;
    AgentStatus status = AgentStatus::waiting;  // its colour
    bool done = false;                           // a finished turn rather than a need
    Date until{};
    bool quota = false;                          // a quota alert (drawn in the alert colour)
    bool operator==(const StatusNote&) const = default;
};

// The key that picks each approval choice.
constexpr char keyFor(ApprovalChoice::Kind kind) {
    switch (kind) {
        case ApprovalChoice::Kind::approve: return 'a';
        case ApprovalChoice::Kind::deny: return 'd';
        case ApprovalChoice::Kind::allowSession: return 's';
        case ApprovalChoice::Kind::allowAlways: return 'A';
    }
    return 'a';
}

// How much of an approval's command has been on screen. Approve and the
// wider scopes are offered only once all of it has been (Deny at once).
struct CommandSeen {
    uint64_t gateId = 0;  // the prompt it belongs to, and its command: another prompt starts unseen
    std::string detail;
    size_t length = 0;                              // bytes of the command's display text
    std::vector<std::pair<size_t, size_t>> seen;    // byte ranges of it shown so far, merged
    bool whole() const;
    bool operator==(const CommandSeen&) const = default;
};

inline constexpr auto kFreezeAfterKey = std::chrono::seconds(6);  // the order holds this long after a key
inline constexpr auto kPeekShown = std::chrono::seconds(5);
inline constexpr auto kConfirmationShown = std::chrono::seconds(6);
inline constexpr auto kNoteShown = std::chrono::seconds(3);

struct ViewState {
    std::optional<std::string> selectedId;
    int selectedIndex = 0;  // where the selection was, for when its session ends
    int scrollTop = 0;      // the first row drawn
    bool navigated = false; // the user has moved the selection at least once
    std::optional<AgentDisplay::FrozenList> frozen;  // the order held while the user navigates
    Date frozenUntil{};
    bool expanded = false;  // the selected row shows its details
    bool helpShown = false;
    std::optional<StatusNote> note;  // a peek or a message
    std::map<std::string, Confirmation> confirmations;
    std::map<std::string, CommandSeen> commandsSeen;  // by row id
    int commandTop = 0;  // the first line drawn of the opened row's long command
    bool operator==(const ViewState&) const = default;
};

namespace ViewNav {

// The rows drawn, in order: the panel list, frozen while the user navigates.
std::vector<AgentInstance> rows(const ViewModel& model, const ViewState& state);
// Keeps the selection on its session when the rows change; when that session
// has gone, selects the row now at its place.
void reconcile(ViewState& state, const std::vector<AgentInstance>& rows);
// Moves the selection by `delta` rows (clamped), freezing the order first.
void move(ViewState& state, const ViewModel& model, int delta);
// Selects the first or the last row.
void moveToEnd(ViewState& state, const ViewModel& model, bool last);
// Holds the current order for a while (a navigation key was pressed).
void freeze(ViewState& state, const ViewModel& model);
// Drops what has timed out: the frozen order, the status note, confirmations.
void expire(ViewState& state, Date now);
// The selected row, if any.
const AgentInstance* selected(const ViewState& state, const std::vector<AgentInstance>& rows);
// When something shown times out next.
std::optional<Date> nextDeadline(const ViewState& state);
// Whether the whole of the command of `rowId`'s approval has been on screen
// (an approval without a command has nothing more to show).
bool wholeCommandSeen(const ViewState& state, const std::string& rowId, const ApprovalRequest& request);
// Records what a drawn frame showed of each approval's command, and forgets
// commands no longer asked about. True when a command became whole.
bool noteShown(ViewState& state, const Frame& frame, const std::vector<AgentInstance>& rows);

}  // namespace ViewNav

}  // namespace lumora::ui
