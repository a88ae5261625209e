#pragma once

#include <string>

#include "scrivet/harness_provider.hpp"

namespace lumora {

// A short event the notch (or the terminal view's status line) shows for a
// moment: a session that needs the user, or a finished turn.
struct PeekEvent {
    long long token = 0;  // grows by one per event, so two equal events stay distinct
    std::string sessionId;
    std::string projectName;
    std::string ask;      // the line to show
    bool done = false;    // a finished turn rather than a need
    scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;
    int riseCount = 0;    // how many times this session has risen to needs-you
    bool chimes = true;   // rings its sound (a completion without a real turn stays quiet)
    bool operator==(const PeekEvent&) const = default;
};

}  // namespace lumora
