// What the monitor reads from the hook bridge is taken in one piece: a held
// prompt never shows without its buttons, however fast prompts arrive.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "hooks/socket_client.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using Json = nlohmann::ordered_json;

TEST(HookSnapshot, AHeldPromptAlwaysComesWithItsButtons) {
    TempDir dir;
    DefaultsStore defaults(dir / "defaults.json");
    ApprovalRulesStore rules(defaults);
    HookBridgeOptions options;
    options.traceFile.reset();
    options.saveAfterChange = false;
    HookBridge bridge(dir / "s/notch.sock", dir / "s", rules, options);
    ASSERT_TRUE(bridge.start().ok);
    bridge.setGating(true);

    std::atomic<bool> done{false};
    std::vector<std::unique_ptr<SocketClient>> clients;
    std::thread prompts([&] {
        for (int i = 0; i < 200 && !done; ++i) {
            auto c = std::make_unique<SocketClient>(dir / "s/notch.sock");
            c->send(Json{{"session_id", "s" + std::to_string(i)}, {"action", "gate"}, {"tool_name", "Bash"},
                         {"detail", "make"}}
                        .dump() +
                    "\n");
            clients.push_back(std::move(c));
        }
    });
    size_t seen = 0, withoutButtons = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (seen < 200 && std::chrono::steady_clock::now() < deadline) {
        auto snap = LumoraApp::hookSnapshot(bridge.snapshot(std::chrono::system_clock::now()));
        seen = 0;
        for (const auto& [key, signals] : snap.signals) {
            if (!signals.marker || signals.marker->kind != HookSignals::MarkerKind::permission) continue;
            ++seen;
            if (!signals.gateHeld || signals.gateId == 0) ++withoutButtons;
        }
    }
    done = true;
    prompts.join();
    EXPECT_EQ(seen, 200u);
    EXPECT_EQ(withoutButtons, 0u);
    bridge.stop();
}
