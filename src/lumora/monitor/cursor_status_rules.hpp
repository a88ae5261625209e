#pragma once

#include "lumora/monitor/status_rules.hpp"

// Cursor's own variant of the transcript heuristics. Cursor's transcript has
// no time stamps and is written a message at a time, so a dangling call is
// confirmed sooner (the reader's confirmation times: a question at once, an
// edit after 3 s, a run after 8 s; a run still visibly running has already
// been cleared by the source), and a turn that has written nothing for the
// reader's progress window is no longer counted as working.
namespace lumora::CursorStatusRules {

AgentStatus initialStatus(const StatusRules::TranscriptFacts& facts, int idleTimeoutMinutes);

}  // namespace lumora::CursorStatusRules
