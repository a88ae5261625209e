#include "lumora/monitor/cursor_status_rules.hpp"

#include "scrivet/cursor_transcript_reader.hpp"

namespace lumora::CursorStatusRules {

namespace Reader = scrivet::CursorTranscriptReader;

AgentStatus initialStatus(const StatusRules::TranscriptFacts& f, int idleTimeoutMinutes) {
    if (f.pending && f.ageSeconds >= Reader::confirmationDelaySeconds(*f.pending)) return AgentStatus::attention;
    double idleAfter = (idleTimeoutMinutes > 0 ? idleTimeoutMinutes : 30) * 60.0;
    if (f.ageSeconds > idleAfter) return AgentStatus::idle;
    if (f.inProgress && f.ageSeconds <= static_cast<double>(Reader::kProgressWindow.count())) return AgentStatus::working;
    return f.endsWithQuestion ? AgentStatus::attention : AgentStatus::waiting;
}

}  // namespace lumora::CursorStatusRules
