// Arbitrary bytes as the plan sources see them: a Claude task file, the
// arguments of a Codex update_plan call, and journal windows of Claude,
// Codex, Cursor and Kimi; every plan that comes out is fitted to row slots.
// Nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lumora/hooks/plan_sources.hpp"

using namespace lumora;

namespace {

void fit(const std::optional<TaskPlan>& plan) {
    if (!plan) return;
    (void)plan->badge();
    (void)plan->activeItem();
    for (int rows : {0, 1, 2, 3, 6, 50}) (void)plan->rowSlots(rows);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (auto task = ClaudePlanSource::taskFromFile(bytes, "1")) fit(ClaudePlanSource::planFromTasks({*task, *task}));
    fit(CodexPlanSource::planFromArguments(bytes));
    fit(CodexPlanSource::plan(bytes));
    fit(ClaudePlanSource::plan(bytes));
    fit(KimiPlanSource::plan(bytes));
    auto cursor = CursorPlanSource::plan(bytes, std::nullopt);
    fit(cursor);
    fit(CursorPlanSource::plan(bytes, cursor));
    fit(CodexPlanSource::goalPlan(std::string(bytes.substr(0, 256)), bytes.substr(0, 16)));
    (void)TaskPlanItem::normalizing(bytes.substr(0, 32));
    return 0;
}
