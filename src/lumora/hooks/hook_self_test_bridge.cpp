// The self-test's adapter over the app's hook bridge.
#include "lumora/hooks/hook_self_test.hpp"

#include "lumora/base/defaults_store.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"

namespace lumora::HookSelfTest {

namespace {

class AppBridge : public Bridge {
public:
    AppBridge(const fs::path& socket, const fs::path& folder)
        : defaults_(folder / "defaults.json"), rules_(defaults_), bridge_(socket, folder, rules_, options()) {}

    bool start() override { return bridge_.start().ok; }
    void stop() override { bridge_.stop(); }
    void setGating(bool enabled) override { bridge_.setGating(enabled); }
    // The self-test answers whichever prompt the session holds.
    void resolve(const std::string& sessionId, bool allow) override {
        auto snapshot = bridge_.snapshot(std::chrono::system_clock::now());
        const auto* gate = snapshot.gate(sessionId);
        bridge_.resolve(sessionId, gate ? gate->id : 0, allow);
    }
    bool hasMarker(const std::string& source, const std::string& sessionId) override {
        return bridge_.snapshot(std::chrono::system_clock::now()).marker(HookProtocol::providerNamed(source), sessionId);
    }
    bool hasHeldGate(const std::string& sessionId) override {
        return bridge_.snapshot(std::chrono::system_clock::now()).gate(sessionId) != nullptr;
    }
    bool hasCursorPending(const std::string& conversationId) override {
        return bridge_.snapshot(std::chrono::system_clock::now()).cursorPending.count(conversationId) > 0;
    }

private:
    static HookBridgeOptions options() {
        HookBridgeOptions o;
        o.traceFile = std::nullopt;
        o.saveAfterChange = false;
        return o;
    }

    DefaultsStore defaults_;
    ApprovalRulesStore rules_;
    HookBridge bridge_;
};

}  // namespace

std::unique_ptr<Bridge> makeBridge(const fs::path& socket, const fs::path& folder) {
    return std::make_unique<AppBridge>(socket, folder);
}

}  // namespace lumora::HookSelfTest
