#pragma once

#include <iosfwd>
#include <string>

namespace lumora {
class ApprovalRulesStore;
}

// The command line's view of the standing approval rules.
namespace lumora::ApprovalsCommand {

// Prints one line per always rule: its id, tool, head ("*" for the whole
// tool) and creation time; "no always-rules" when there are none. Returns 0.
int list(ApprovalRulesStore& rules, std::ostream& out);

// Removes the always rule with this id. Returns 0, or prints one line on
// `err` and returns 1 when there is no such rule.
int remove(ApprovalRulesStore& rules, const std::string& id, std::ostream& out, std::ostream& err);

}  // namespace lumora::ApprovalsCommand
