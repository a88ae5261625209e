// The real hook programs, run with python3, against the app's real hook
// bridge: what the bridge ends up knowing, and what the agent is told.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "lumora/base/defaults_store.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "hooks/bridge_view.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/hooks/hook_self_test.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/python_locator.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using lumora::test::TempDir;
using lumora::test::TempHome;
using Json = nlohmann::ordered_json;

namespace {

Json sample(const std::string& agent, const std::string& scenario, const std::string& event) {
    std::ifstream in(test::agentSample(agent + "/hook-inputs.jsonl"));
    std::string line;
    while (std::getline(in, line)) {
        Json j = Json::parse(line);
        if (j["scenario"] == scenario && j["event"] == event) return j["input"];
    }
    ADD_FAILURE() << "no sample " << scenario << "/" << event;
    return Json::object();
}

bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 500; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return condition();
}

class RealBridge : public ::testing::Test {
protected:
    void SetUp() override {
        python_ = PythonLocator::interpreter().value_or("/usr/bin/python3");
        for (const char* name : {"notch-hook.py", "notch-codex-hook.py", "notch-cursor-hook.py", "notch-kimi-hook.py"}) {
            ASSERT_TRUE(FileUtil::writeAtomically(dir_ / name, *EmbeddedResources::text(name), 0755));
        }
        fs::create_directories(dir_ / "support");
        ::chmod((dir_ / "support").c_str(), 0700);
        socket_ = dir_ / "support/notch.sock";
        defaults_ = std::make_unique<DefaultsStore>(dir_ / "defaults.json");
        rules_ = std::make_unique<ApprovalRulesStore>(*defaults_);
        HookBridgeOptions options;
        options.traceFile = std::nullopt;
        bridge_ = std::make_unique<HookBridge>(socket_, dir_ / "support", *rules_, options);
        ASSERT_TRUE(bridge_->start().ok);
    }
    void TearDown() override {
        if (bridge_) bridge_->stop();
    }

    std::unique_ptr<ChildProcess> spawn(const std::string& program, const std::string& action, const Json& input) {
        std::vector<std::string> argv = {python_.string(), (dir_ / program).string()};
        if (!action.empty()) argv.push_back(action);
        return ChildProcess::spawn(argv, input.dump(), {{"LUMORA_SOCKET", socket_.string()}});
    }

    std::string run(const std::string& program, const std::string& action, const Json& input) {
        auto child = spawn(program, action, input);
        if (!child || !child->wait(20s)) return "<did not finish>";
        return child->output();
    }

    TempHome home_;
    TempDir dir_;
    fs::path python_, socket_;
    std::unique_ptr<DefaultsStore> defaults_;
    std::unique_ptr<ApprovalRulesStore> rules_;
    std::unique_ptr<HookBridge> bridge_;
};

}  // namespace

TEST_F(RealBridge, ClaudeTurnStateQuestionAndGate) {
    Json prompt = sample("claude", "tui-ask", "UserPromptSubmit");
    std::string sid = prompt["session_id"];
    EXPECT_EQ(run("notch-hook.py", "start", prompt), "");
    EXPECT_TRUE(eventually([&] { return test::snap(*bridge_).claudeBusy.count(sid); }));

    EXPECT_EQ(run("notch-hook.py", "ask", sample("claude", "tui-ask", "PreToolUse")), "");
    ASSERT_TRUE(eventually([&] { return test::markerCount(*bridge_) > 0; }));
    AttentionMarker marker = test::snap(*bridge_).markers[scrivet::HarnessProvider::claudeCode].begin()->second;
    EXPECT_EQ(marker.sessionId, sid);
    EXPECT_EQ(marker.kind, "question");
    EXPECT_EQ(marker.detail, "Which database should the service use?");
    EXPECT_EQ(marker.options, (std::vector<std::string>{"SQLite", "Postgres"}));
    EXPECT_EQ(marker.moreQuestions, 1);

    // Gating on: the permission prompt is held, shown, and answered from the notch.
    bridge_->setGating(true);
    Json permission = sample("claude", "bashwrite-hook-allow", "PermissionRequest");
    std::string gid = permission["session_id"];
    auto child = spawn("notch-hook.py", "gate", permission);
    ASSERT_TRUE(eventually([&] { return test::heldGate(*bridge_, gid).has_value(); }));
    auto held = test::markerOf(*bridge_, gid);
    ASSERT_TRUE(held);
    EXPECT_EQ(held->kind, "permission");
    EXPECT_EQ(held->detail, "touch harness-made.txt");
    EXPECT_EQ(held->reason, "Run touch harness-made.txt");
    test::resolveHeld(*bridge_, gid, true);
    ASSERT_TRUE(child->wait(10s));
    Json printed = Json::parse(child->output());
    EXPECT_EQ(printed["hookSpecificOutput"]["decision"]["behavior"], "allow");
    EXPECT_EQ(printed["hookSpecificOutput"]["decision"]["updatedInput"], permission["tool_input"]);

    // Gating off: passthrough at once, and the agent is told nothing.
    bridge_->setGating(false);
    EXPECT_EQ(run("notch-hook.py", "gate", permission), "");

    EXPECT_EQ(run("notch-hook.py", "done", sample("claude", "tui-ask", "Stop")), "");
    EXPECT_TRUE(eventually([&] { return test::snap(*bridge_).claudeBusy.count(sid) == 0; }));
}

TEST_F(RealBridge, CodexGateDeniedFromTheNotch) {
    bridge_->setGating(true);
    Json permission = sample("codex", "tui-escalate-manual", "PermissionRequest");
    std::string sid = permission["session_id"];
    auto child = spawn("notch-codex-hook.py", "gate", permission);
    ASSERT_TRUE(eventually([&] { return test::heldGate(*bridge_, sid).has_value(); }));
    auto codex = test::markerOf(*bridge_, sid, scrivet::HarnessProvider::codex);
    ASSERT_TRUE(codex);
    EXPECT_EQ(codex->detail, "touch /home/dev/agents/outside-sandbox.txt");
    EXPECT_EQ(codex->reason, "The harness needs to write outside the sandbox.");
    test::resolveHeld(*bridge_, sid, false);
    ASSERT_TRUE(child->wait(10s));
    Json printed = Json::parse(child->output());
    EXPECT_EQ(printed["continue"], true);
    EXPECT_EQ(printed["hookSpecificOutput"]["decision"], Json({{"behavior", "deny"}, {"message", "Denied from Lumora"}}));
    EXPECT_TRUE(test::markerCount(*bridge_, scrivet::HarnessProvider::codex) == 0);

    // The program giving up (the agent interrupted) removes the marker.
    child = spawn("notch-codex-hook.py", "gate", permission);
    ASSERT_TRUE(eventually([&] { return test::heldGate(*bridge_, sid).has_value(); }));
    child->kill();
    EXPECT_TRUE(eventually([&] { return test::markerCount(*bridge_, scrivet::HarnessProvider::codex) == 0 && !test::heldGate(*bridge_, sid).has_value(); }));
}

TEST_F(RealBridge, CursorNotesAndKimiMarkers) {
    Json shell = {{"conversation_id", "conv-9"}, {"hook_event_name", "beforeShellExecution"}, {"command", "make deploy"},
                  {"workspace_roots", {"/w/site"}}, {"model", "claude-4.5-sonnet"}};
    EXPECT_EQ(run("notch-cursor-hook.py", "", shell), "");
    // The note, the model and the activity come as lines of their own: the
    // bridge may still be reading the later ones when the program has exited.
    ASSERT_TRUE(eventually([&] {
        auto s = test::snap(*bridge_);
        return s.cursorPending.count("conv-9") && s.cursorModels.count("conv-9") && s.cursorActivity.count("conv-9");
    }));
    auto note = test::snap(*bridge_).cursorPending.at("conv-9");
    EXPECT_EQ(note.kind, "shell");
    EXPECT_EQ(note.command, "make deploy");
    EXPECT_EQ(note.cwd, "/w/site");
    EXPECT_EQ(test::snap(*bridge_).cursorModels.at("conv-9"), "claude-4.5-sonnet");
    EXPECT_EQ(test::snap(*bridge_).cursorActivity.at("conv-9").title, "Running: make deploy");

    Json notify = {{"session_id", "session_0b5c"}, {"message", "Approve running `rm -rf dist`?"}};
    EXPECT_EQ(run("notch-kimi-hook.py", "notify", notify), "");
    ASSERT_TRUE(eventually([&] { return test::markerCount(*bridge_, scrivet::HarnessProvider::kimi) > 0; }));
    auto kimi = test::snap(*bridge_).markers[scrivet::HarnessProvider::kimi].begin()->second;
    EXPECT_EQ(kimi.kind, "permission");
    EXPECT_EQ(kimi.detail, "Approve running `rm -rf dist`?");
    EXPECT_EQ(run("notch-kimi-hook.py", "clear", notify), "");
    EXPECT_TRUE(eventually([&] { return test::markerCount(*bridge_, scrivet::HarnessProvider::kimi) == 0; }));
}

TEST(HookSelfTestCommand, PassesOnTheRealBridge) {
    TempHome home;
    std::ostringstream out, err;
    EXPECT_EQ(HookSelfTest::runCommand(out, err), 0) << out.str() << err.str();
    EXPECT_NE(out.str().find("All 14 checks passed."), std::string::npos) << out.str();
}
