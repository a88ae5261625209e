#include "lumora/hooks/task_plan.hpp"

#include <algorithm>
#include <cctype>
#include <map>

namespace lumora {

TaskPlanItem::Status TaskPlanItem::normalizing(std::string_view raw) {
    std::string s;
    for (char c : raw) s += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (s == "in_progress" || s == "inprogress") return Status::inProgress;
    if (s == "completed" || s == "complete" || s == "done") return Status::completed;
    return Status::pending;
}

std::string_view rawValue(TaskPlanItem::Status status) {
    switch (status) {
        case TaskPlanItem::Status::pending: return "pending";
        case TaskPlanItem::Status::inProgress: return "inProgress";
        case TaskPlanItem::Status::completed: return "completed";
    }
    return "pending";
}

int TaskPlan::doneCount() const {
    return static_cast<int>(std::count_if(items.begin(), items.end(), [](const TaskPlanItem& i) {
        return i.status == TaskPlanItem::Status::completed;
    }));
}

bool TaskPlan::hasActive() const { return activeItem() != nullptr; }

const TaskPlanItem* TaskPlan::activeItem() const {
    for (const auto& i : items)
        if (i.status == TaskPlanItem::Status::inProgress) return &i;
    return nullptr;
}

std::string TaskPlan::badge() const { return std::to_string(doneCount()) + "/" + std::to_string(totalCount()); }

std::vector<TaskPlan::Slot> TaskPlan::rowSlots(int maxRows) const {
    std::vector<Slot> out;
    if (maxRows <= 0 || items.empty()) return out;
    auto itemSlot = [](const TaskPlanItem& i) { return Slot{Slot::Kind::item, "item-" + i.id, i.subject, i, 1}; };
    auto overflow = [](int n) { return Slot{Slot::Kind::overflow, "overflow", "+" + std::to_string(n) + " more", {}, n}; };
    size_t budget = static_cast<size_t>(maxRows);
    if (items.size() <= budget) {
        for (const auto& i : items) out.push_back(itemSlot(i));
        return out;
    }
    // The finished head of the list says least: it goes first, into one line
    // (only worth it for two or more).
    size_t done = 0;
    while (done < items.size() && items[done].status == TaskPlanItem::Status::completed) ++done;
    size_t next = 0;
    if (done >= 2 && budget >= 2) {
        out.push_back(Slot{Slot::Kind::summary, "summary", std::to_string(done) + " done", {}, static_cast<int>(done)});
        next = done;
    }
    size_t left = items.size() - next;
    size_t room = budget - out.size();
    if (left <= room) {
        for (size_t k = next; k < items.size(); ++k) out.push_back(itemSlot(items[k]));
        return out;
    }
    // One line for "+N more"; the items before it as they come.
    size_t shown = room - 1;
    for (size_t k = next; k < next + shown; ++k) out.push_back(itemSlot(items[k]));
    out.push_back(overflow(static_cast<int>(left - shown)));
    return out;
}

void giveOccurrenceIds(std::vector<TaskPlanItem>& items) {
    std::map<std::string, int> seen;
    for (auto& i : items) {
        int n = ++seen[i.id];
        if (n > 1) i.id += "#" + std::to_string(n);
    }
}

}  // namespace lumora
