#include "lumora/hooks/auto_approver.hpp"

#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/base/serial_queue.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora {

namespace {
constexpr size_t kLogHeadChars = 80;
}

AutoApprover::AutoApprover(ApprovalRulesStore& rules, std::filesystem::path log)
    : rules_(rules), log_(std::move(log), "lumora.hookbridge.log"),
      queue_(std::make_unique<SerialQueue>("lumora.hookbridge.rules")) {}

AutoApprover::~AutoApprover() { queue_.reset(); }

void AutoApprover::check(Check check, Done done) {
    queue_->async([this, check = std::move(check), done = std::move(done)] { done(check.gateId, matches(check)); });
}

bool AutoApprover::matches(const Check& c) const {
    return rules_.matches(c.provider, c.sessionId, c.toolName, c.detail, c.escalated);
}

void AutoApprover::logApproved(const Check& check, TimePoint when) { log_.append(logLine(check, when)); }

void AutoApprover::flush() {
    queue_->sync([] {});
    log_.flush();
}

std::string AutoApprover::logLine(const Check& c, TimePoint when) {
    std::string head = scrivet::truncateText(scrivet::collapseWhitespace(c.detail.value_or("")), kLogHeadChars);
    return Dates::format(when) + "  auto-approve tool=" + LogLines::escape(c.toolName) +
           " session=" + LogLines::escape(c.sessionId) + " head=" + LogLines::escape(head);
}

}  // namespace lumora
