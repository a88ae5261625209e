#include "lumora/ui/view_state.hpp"

#include <algorithm>

namespace lumora::ui {

ViewModel ViewModel::read(const ViewBackend& backend, const ViewSettings& settings, Date now) {
    ViewModel m;
    m.instances = backend.instances();
    m.unseen = backend.unseenCompletions();
    m.acknowledged = backend.acknowledgedAttention();
    m.peek = backend.peekEvent();
    m.quotas = backend.quotaReadings();
    m.usageAlert = backend.usageAlert();
    m.spend = backend.spendSummary();
    m.plans = backend.taskPlans();
    for (const auto& a : m.instances) {
        if (a.approval) m.choices[a.id] = backend.approvalChoices(*a.approval);
    }
    m.settings = settings;
    m.problem = backend.hooksProblem();
    m.now = now;
    return m;
}

namespace ViewNav {

std::vector<AgentInstance> rows(const ViewModel& model, const ViewState& state) {
    return AgentDisplay::visible(model.instances, model.settings.idlePolicy, model.unseen, model.now, state.frozen);
}

void reconcile(ViewState& state, const std::vector<AgentInstance>& rows) {
    if (rows.empty()) {
        state.selectedId.reset();
        state.selectedIndex = 0;
        state.scrollTop = 0;
        return;
    }
    if (state.selectedId) {
        auto it = std::find_if(rows.begin(), rows.end(), [&](const AgentInstance& a) { return a.id == *state.selectedId; });
        if (it != rows.end()) {
            state.selectedIndex = static_cast<int>(it - rows.begin());
            return;
        }
    }
    // The selected session went (or nothing was selected): take the row at its place.
    state.selectedIndex = std::clamp(state.selectedIndex, 0, static_cast<int>(rows.size()) - 1);
    state.selectedId = rows[static_cast<size_t>(state.selectedIndex)].id;
}

void freeze(ViewState& state, const ViewModel& model) {
    if (!state.frozen) {
        state.frozen = AgentDisplay::freeze(model.instances, model.settings.idlePolicy, model.unseen, model.now);
    }
    state.frozenUntil = model.now + kFreezeAfterKey;
}

void move(ViewState& state, const ViewModel& model, int delta) {
    freeze(state, model);
    auto list = rows(model, state);
    reconcile(state, list);
    if (list.empty()) return;
    int index = std::clamp(state.selectedIndex + delta, 0, static_cast<int>(list.size()) - 1);
    state.selectedIndex = index;
    state.selectedId = list[static_cast<size_t>(index)].id;
    state.navigated = true;
}

void moveToEnd(ViewState& state, const ViewModel& model, bool last) {
    move(state, model, last ? 1 << 20 : -(1 << 20));
}

void expire(ViewState& state, Date now) {
    if (state.frozen && now >= state.frozenUntil) state.frozen.reset();
    if (state.note && now >= state.note->until) state.note.reset();
    std::erase_if(state.confirmations, [&](const auto& entry) { return now >= entry.second.until; });
}

const AgentInstance* selected(const ViewState& state, const std::vector<AgentInstance>& rows) {
    if (!state.selectedId) return nullptr;
    for (const auto& a : rows) {
        if (a.id == *state.selectedId) return &a;
    }
    return nullptr;
}

std::optional<Date> nextDeadline(const ViewState& state) {
    std::optional<Date> next;
    auto consider = [&](Date d) {
        if (!next || d < *next) next = d;
    };
    if (state.frozen) consider(state.frozenUntil);
    if (state.note) consider(state.note->until);
    for (const auto& [id, c] : state.confirmations) consider(c.until);
    return next;
}

bool wholeCommandSeen(const ViewState& state, const std::string& rowId, const ApprovalRequest& request) {
    if (!request.detail || request.detail->empty()) return true;
    auto it = state.commandsSeen.find(rowId);
    return it != state.commandsSeen.end() && it->second.gateId == request.gateId &&
           it->second.detail == *request.detail && it->second.whole();
}

bool noteShown(ViewState& state, const Frame& frame, const std::vector<AgentInstance>& rows) {
    // Forget the commands of prompts that have gone.
    std::erase_if(state.commandsSeen, [&](const auto& entry) {
        auto row = std::find_if(rows.begin(), rows.end(), [&](const AgentInstance& a) { return a.id == entry.first; });
        return row == rows.end() || !row->approval || row->approval->gateId != entry.second.gateId ||
               row->approval->detail.value_or("") != entry.second.detail;
    });
    bool becameWhole = false;
    for (const auto& shown : frame.commands) {
        if (shown.parts.empty()) continue;
        auto& record = state.commandsSeen[shown.sessionId];
        if (record.gateId != shown.gateId || record.detail != shown.detail || record.length != shown.length)
            record = CommandSeen{shown.gateId, shown.detail, shown.length, {}};
        bool wasWhole = record.whole();
        auto& seen = record.seen;
        seen.insert(seen.end(), shown.parts.begin(), shown.parts.end());
        std::sort(seen.begin(), seen.end());
        std::vector<std::pair<size_t, size_t>> merged;
        for (const auto& part : seen) {
            if (!merged.empty() && part.first <= merged.back().second) merged.back().second = std::max(merged.back().second, part.second);
            else merged.push_back(part);
        }
        seen = std::move(merged);
        becameWhole = becameWhole || (!wasWhole && record.whole());
    }
    return becameWhole;
}

}  // namespace ViewNav

bool CommandSeen::whole() const {
    return length == 0 || (seen.size() == 1 && seen[0].first == 0 && seen[0].second >= length);
}

}  // namespace lumora::ui
