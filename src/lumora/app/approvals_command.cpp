#include "lumora/app/approvals_command.hpp"

#include <ostream>

#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/dates.hpp"

namespace lumora::ApprovalsCommand {

int list(ApprovalRulesStore& rules, std::ostream& out) {
    auto all = rules.alwaysRules();
    if (all.empty()) {
        out << "no always-rules\n";
        return 0;
    }
    for (const auto& r : all) {
        out << r.id << "  " << r.toolName << "  " << r.head.value_or("*") << "  "
            << Dates::format(r.createdAt) << "  " << scrivet::displayName(r.provider) << "\n";
    }
    return 0;
}

int remove(ApprovalRulesStore& rules, const std::string& id, std::ostream& out, std::ostream& err) {
    if (!rules.removeAlwaysRule(id)) {
        err << "lumora: no always-rule with id " << id << "\n";
        return 1;
    }
    out << "removed " << id << "\n";
    return 0;
}

}  // namespace lumora::ApprovalsCommand
