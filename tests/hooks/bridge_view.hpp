#pragma once

// Short reads of a hook bridge's snapshot for the tests.
#include <chrono>
#include <optional>
#include <string>

#include "lumora/hooks/hook_bridge.hpp"

namespace lumora::test {

inline HookBridgeSnapshot snap(const HookBridge& bridge) { return bridge.snapshot(std::chrono::system_clock::now()); }

inline std::optional<AttentionMarker> markerOf(const HookBridge& bridge, const std::string& sessionId,
                                               scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode) {
    auto s = snap(bridge);
    const auto* m = s.marker(provider, sessionId);
    return m ? std::optional<AttentionMarker>(*m) : std::nullopt;
}

inline size_t markerCount(const HookBridge& bridge,
                          scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode) {
    auto s = snap(bridge);
    auto it = s.markers.find(provider);
    return it == s.markers.end() ? 0 : it->second.size();
}

// The id of the session's held gate, if one is held.
inline std::optional<uint64_t> heldGate(const HookBridge& bridge, const std::string& sessionId) {
    auto s = snap(bridge);
    const auto* g = s.gate(sessionId);
    return g ? std::optional<uint64_t>(g->id) : std::nullopt;
}

// Answers whatever prompt the session holds, as a view showing it would.
inline bool resolveHeld(HookBridge& bridge, const std::string& sessionId, bool allow) {
    return bridge.resolve(sessionId, heldGate(bridge, sessionId).value_or(0), allow);
}

}  // namespace lumora::test
