#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora {

// One step of an agent's to-do list.
struct TaskPlanItem {
    enum class Status { pending, inProgress, completed };

    // Maps the words the agents use: "pending"; "in_progress" and
    // "inprogress"; "completed", "complete" and "done"; anything else is
    // pending. Case does not matter.
    static Status normalizing(std::string_view raw);

    std::string id;       // the row's identity: stays while the step's status moves
    std::string subject;  // the step's text
    std::optional<std::string> activeForm;  // present tense, shown while the step runs
    Status status = Status::pending;
    bool operator==(const TaskPlanItem&) const = default;
};

// "pending", "inProgress", "completed".
std::string_view rawValue(TaskPlanItem::Status status);

// A session's to-do list. An empty plan is no plan: it is never shown.
struct TaskPlan {
    std::vector<TaskPlanItem> items;

    int totalCount() const { return static_cast<int>(items.size()); }
    int doneCount() const;
    // Some step is in progress.
    bool hasActive() const;
    // The first step in progress, if any.
    const TaskPlanItem* activeItem() const;
    bool empty() const { return items.empty(); }
    // "3/5".
    std::string badge() const;

    // One line of a plan shown in a limited number of rows.
    struct Slot {
        enum class Kind { item, summary, overflow };
        Kind kind = Kind::item;
        std::string id;     // "item-<item id>", "summary" or "overflow"
        std::string text;   // the step's subject, "3 done" or "+2 more"
        std::optional<TaskPlanItem> item;  // for an item slot
        int count = 0;      // the steps a summary or overflow slot stands for
        bool operator==(const Slot&) const = default;
    };
    // At most `maxRows` slots: one per item when all fit; otherwise the
    // leading run of completed items collapses into one summary slot and the
    // tail is cut to a "+N more" slot. Every item is shown or counted.
    std::vector<Slot> rowSlots(int maxRows) const;

    bool operator==(const TaskPlan&) const = default;
};

// Gives items that share an id distinct ones: the second "x" becomes "x#2",
// the third "x#3", so identities stay stable while statuses move.
void giveOccurrenceIds(std::vector<TaskPlanItem>& items);

}  // namespace lumora
