// Arbitrary bytes as lines from hook clients: the line handler must drop what
// it cannot read, never crash or throw, and keep its maps consistent.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

#include "lumora/base/defaults_store.hpp"
#include "lumora/base/log.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"

namespace {

struct World {
    std::filesystem::path dir = std::filesystem::temp_directory_path() / ("lumora-fuzz-" + std::to_string(::getpid()));
    std::unique_ptr<lumora::DefaultsStore> defaults;
    std::unique_ptr<lumora::ApprovalRulesStore> rules;
    std::unique_ptr<lumora::HookBridge> bridge;
    size_t runs = 0;

    World() {
        lumora::Log::silence();
        std::filesystem::create_directories(dir);
        defaults = std::make_unique<lumora::DefaultsStore>(dir / "defaults.json");
        rules = std::make_unique<lumora::ApprovalRulesStore>(*defaults);
        if (rules->alwaysRules().empty()) rules->addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Bash", "git");
        fresh();
    }

    void fresh() {
        lumora::HookBridgeOptions options;
        options.traceFile.reset();
        options.saveAfterChange = false;
        bridge = std::make_unique<lumora::HookBridge>(dir / "notch.sock", dir, *rules, options);
        bridge->setGating(true);
    }
};

World& world() {
    static World w;
    return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World& w = world();
    // Keep memory bounded: the maps grow with every new session id.
    if (++w.runs % 5000 == 0) w.fresh();
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    lumora::HookBridge::ConnectionId connection = 1;
    size_t start = 0;
    while (start <= bytes.size()) {
        size_t nl = bytes.find('\n', start);
        std::string_view line = bytes.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start);
        w.bridge->handleLine(line, connection++);
        if (nl == std::string_view::npos) break;
        start = nl + 1;
    }
    auto now = std::chrono::system_clock::now();
    for (const auto& sid : w.bridge->heldGateSessions()) w.bridge->resolve(sid, sid.size() % 2 == 0);
    (void)w.bridge->claudeBusy(now);
    (void)w.bridge->cursorPending(now);
    (void)w.bridge->cursorActivity(now);
    return 0;
}
