// Arbitrary bytes as lines from hook clients, straight into the pure line
// parser and the session state machine: the parser must drop what it cannot
// read and keep every field within its limit; the state machine must stay
// bounded and consistent; the state file codec must read back what it wrote.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "lumora/hooks/hook_protocol.hpp"
#include "lumora/hooks/hook_session_state.hpp"
#include "lumora/hooks/hook_state_file.hpp"

namespace {

using namespace lumora;

void check(bool ok) {
    if (!ok) std::abort();
}

void checkLimits(const HookProtocol::Request& r) {
    using namespace HookProtocol;
    check(r.sessionId.size() <= kMaxSessionIdBytes);
    check(!r.detail || r.detail->size() <= kMaxDetailBytes);
    check(!r.reason || r.reason->size() <= kMaxReasonBytes);
    check(r.cwd.size() <= kMaxPathBytes && r.toolName.size() <= kMaxNameBytes);
    check(!r.options || r.options->size() <= kMaxOptions);
    if (r.options) {
        for (const auto& o : *r.options) check(o.size() <= kMaxOptionBytes);
    }
}

struct World {
    HookSessionState state;
    HookSessionState::TimePoint now = std::chrono::system_clock::now();
    size_t runs = 0;
};

World& world() {
    static World w;
    return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World& w = world();
    // Keep the maps from growing across runs beyond what one run could reach.
    if (++w.runs % 5000 == 0) w.state = HookSessionState{};
    w.state.setGating(size % 2 == 0);
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    HookSessionState::ConnectionId connection = 1;
    size_t start = 0;
    while (start <= bytes.size()) {
        size_t nl = bytes.find('\n', start);
        auto line = bytes.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start);
        auto parsed = HookProtocol::parse(line);
        check(parsed.request.has_value() != !parsed.why.empty());
        if (parsed.request) {
            checkLimits(*parsed.request);
            w.state.apply(*parsed.request, connection++, w.now);
        }
        if (nl == std::string_view::npos) break;
        start = nl + 1;
    }
    // The rules answer every check, alternately; every held gate is then shown and answered.
    bool match = false;
    for (const auto& c : w.state.takeRuleChecks()) w.state.ruleChecked(c.gateId, match = !match, w.now);
    for (const auto& a : w.state.gatesAwaitingRows()) w.state.rowShown(a.gateId);
    auto snap = w.state.snapshot(w.now);
    for (const auto& [sid, gate] : snap.gates) w.state.resolve(sid, gate.id, sid.size() % 2 == 0, w.now);
    w.state.tick(w.now + std::chrono::seconds(5));
    (void)w.state.takeReplies();
    (void)w.state.takeChanged();
    check(w.state.entryCount() < 10000);

    // What is saved reads back the same.
    auto text = HookStateFile::encode(snap, w.now);
    auto back = HookStateFile::decode(text);
    check(back.has_value());
    check(back->state.markers == snap.markers && back->state.cursorModels == snap.cursorModels);
    // And the raw bytes as a state file never crash the reader.
    (void)HookStateFile::decode(bytes);
    return 0;
}
