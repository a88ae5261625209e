#include "lumora/ui/view_state.hpp"

#include <algorithm>

namespace lumora::ui {

ViewModel ViewModel::read(const ViewBackend& backend, const ViewSettings& settings, Date now) {
    ViewModel m;
    m.instances = backend.instances();
    m.unseen = backend.unseenCompletions();
    m.acknowledged = backend.acknowledgedAttention();
    m.peek = backend.peekEvent();
    m.spend = backend.spendSummary();
    for (const auto& a : m.instances) {
        if (a.approval) m.choices[a.id] = backend.approvalChoices(*a.approval);
    }
    m.settings = settings;
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

}  // namespace ViewNav

}  // namespace lumora::ui
