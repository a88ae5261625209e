#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "lumora/hooks/hook_session_state.hpp"
#include "lumora/hooks/log_lines.hpp"

namespace lumora {

class ApprovalRulesStore;
class SerialQueue;

// Asks the standing approval rules about gates, and keeps approvals.log.
// The rules may wait on their file (another process edits the defaults), so
// they are asked on the approver's own thread, never on the socket's.
class AutoApprover {
public:
    using Check = HookSessionState::RuleCheck;
    using TimePoint = std::chrono::system_clock::time_point;
    // Receives the rules' answer for a gate, on the approver's thread.
    using Done = std::function<void(uint64_t gateId, bool matched)>;

    AutoApprover(ApprovalRulesStore& rules, std::filesystem::path log);
    // Finishes what is queued (checks and log lines), then returns.
    ~AutoApprover();
    AutoApprover(const AutoApprover&) = delete;
    AutoApprover& operator=(const AutoApprover&) = delete;

    // Queues a check; `done` runs on the approver's thread when the rules answer.
    void check(Check check, Done done);
    // Asks the rules on the caller's thread.
    bool matches(const Check& check) const;
    // Appends the line of a gate a rule answered.
    void logApproved(const Check& check, TimePoint when);
    // Waits until everything queued has run (tests).
    void flush();

    // "<time>  auto-approve tool=<tool> session=<id> head=<start of the
    // detail>", each field escaped so it stays on its line.
    static std::string logLine(const Check& check, TimePoint when);

private:
    ApprovalRulesStore& rules_;
    LogLines log_;
    std::unique_ptr<SerialQueue> queue_;
};

}  // namespace lumora
