// The bridge's pure parts: the line protocol, the session state machine
// driven by a clock the test moves, the state file and the log lines.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "lumora/base/dates.hpp"
#include "lumora/hooks/auto_approver.hpp"
#include "lumora/hooks/hook_protocol.hpp"
#include "lumora/hooks/hook_session_state.hpp"
#include "lumora/hooks/hook_state_file.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using scrivet::HarnessProvider;
using Behavior = HookProtocol::Behavior;
using Reply = HookSessionState::Reply;

namespace {

const auto t0 = std::chrono::system_clock::time_point{} + std::chrono::hours(24 * 365 * 56);

HookProtocol::Request request(Json j) {
    auto parsed = HookProtocol::parse(j.dump());
    EXPECT_TRUE(parsed.request) << parsed.why;
    return parsed.request.value_or(HookProtocol::Request{});
}

HookProtocol::Request gate(const std::string& sid, const std::string& command, const std::string& source = "claude") {
    return request({{"source", source}, {"session_id", sid}, {"action", "gate"}, {"tool_name", "Bash"}, {"detail", command}});
}

}  // namespace

TEST(HookSessionState, GatesWaitForTheRulesAndTheirRowAndAnswerOnlyThePromptShown) {
    HookSessionState state;
    state.setGating(true);

    // A gate is asked about first; a rule that covers it answers "allow" with nothing shown.
    state.apply(gate("s1", "git status"), 1, t0);
    auto checks = state.takeRuleChecks();
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_TRUE(state.snapshot(t0).gates.empty());
    auto approved = state.ruleChecked(checks[0].gateId, true, t0);
    ASSERT_TRUE(approved);
    EXPECT_EQ(approved->detail, "git status");
    EXPECT_EQ(state.takeReplies(), (std::vector<Reply>{{1, Behavior::allow}}));
    EXPECT_FALSE(state.snapshot(t0).marker(HarnessProvider::claudeCode, "s1"));

    // Not covered: held, marked, and let go when no view shows it within the grace.
    state.apply(gate("cx", "make", "codex"), 2, t0);
    state.ruleChecked(state.takeRuleChecks()[0].gateId, false, t0);
    ASSERT_TRUE(state.snapshot(t0).gate("cx"));
    EXPECT_FALSE(state.snapshot(t0).gate("cx")->shown);
    state.tick(t0 + 2900ms);
    EXPECT_TRUE(state.takeReplies().empty());
    state.tick(t0 + 3s);
    EXPECT_EQ(state.takeReplies(), (std::vector<Reply>{{2, Behavior::passthrough}}));
    EXPECT_FALSE(state.snapshot(t0).gate("cx"));
    // The agent asks in its own prompt, so the row still says it needs the user.
    EXPECT_TRUE(state.snapshot(t0).marker(HarnessProvider::codex, "cx"));

    // Shown in time: held for as long as the hook waits.
    state.apply(gate("s2", "npm test"), 3, t0);
    uint64_t first = state.takeRuleChecks()[0].gateId;
    state.ruleChecked(first, false, t0);
    state.rowShown(first);
    state.tick(t0 + 600s);
    EXPECT_TRUE(state.takeReplies().empty());
    EXPECT_TRUE(state.snapshot(t0).gate("s2")->shown);

    // A newer prompt of the session arrives before the redraw: a decision on
    // the one shown answers nothing, and the newer one keeps its own command.
    state.apply(gate("s2", "rm -rf build"), 4, t0);
    uint64_t second = state.takeRuleChecks()[0].gateId;
    state.ruleChecked(second, false, t0);
    EXPECT_EQ(state.takeReplies(), (std::vector<Reply>{{3, Behavior::passthrough}}));
    EXPECT_FALSE(state.resolve("s2", first, true, t0));
    EXPECT_TRUE(state.takeReplies().empty());
    EXPECT_EQ(state.snapshot(t0).marker(HarnessProvider::claudeCode, "s2")->detail, "rm -rf build");
    EXPECT_TRUE(state.resolve("s2", second, false, t0));
    EXPECT_EQ(state.takeReplies(), (std::vector<Reply>{{4, Behavior::deny}}));

    // Rules that take too long are not waited for: the user is asked, and a
    // late "allow" answers nothing.
    state.apply(gate("s3", "git push"), 5, t0);
    uint64_t slow = state.takeRuleChecks()[0].gateId;
    state.tick(t0 + 1s);
    ASSERT_TRUE(state.snapshot(t0).gate("s3"));
    EXPECT_FALSE(state.ruleChecked(slow, true, t0 + 2s));
    EXPECT_TRUE(state.takeReplies().empty());

    // Gating off: "passthrough" once the rules said no, and nothing shown;
    // the monitor is woken all the same (the agent now shows its own prompt).
    state.setGating(false);
    state.apply(gate("s4", "make"), 6, t0);
    state.takeChanged();
    state.ruleChecked(state.takeRuleChecks()[0].gateId, false, t0);
    EXPECT_EQ(state.takeReplies(), (std::vector<Reply>{{6, Behavior::passthrough}}));
    EXPECT_FALSE(state.snapshot(t0).marker(HarnessProvider::claudeCode, "s4"));
    EXPECT_TRUE(state.takeChanged());
}

TEST(HookSessionState, HostileFieldsAreCutAndACutCommandIsNeverHeldOrRuled) {
    std::string huge = "git status && " + std::string(100000, 'x');
    auto r = gate("s", huge);
    EXPECT_TRUE(r.detailCut);
    EXPECT_LE(r.detail->size(), HookProtocol::kMaxDetailBytes);
    auto q = request({{"session_id", "q"}, {"kind", "question"}, {"detail", std::string(50000, 'q')},
                      {"options", std::vector<std::string>(1000, std::string(100, 'o'))}});
    auto longOption = request({{"session_id", "q"}, {"options", {std::string(5000, 'o')}}});
    EXPECT_EQ(q.options->size(), HookProtocol::kMaxOptions);
    EXPECT_LE(longOption.options->front().size(), HookProtocol::kMaxOptionBytes);
    EXPECT_LE(q.detail->size(), HookProtocol::kMaxDetailBytes);
    EXPECT_FALSE(HookProtocol::parse(Json{{"session_id", std::string(300, 's')}}.dump()).request);
    // Thousands of keys are refused before parsing, which would search them one by one.
    std::string keys = R"({"session_id":"s")";
    for (int i = 0; i < 20000; ++i) keys += ",\"k" + std::to_string(i) + "\":1";
    keys += "}";
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(HookProtocol::parse(keys).why, "too many keys");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
    // A cut in the middle of a character keeps the text valid UTF-8.
    EXPECT_EQ(HookProtocol::cut("aééé", 5), "a…");

    // The user could not see all of a cut command: it is never auto-approved
    // nor held, only shown as "needs you" while the agent asks in its own prompt.
    HookSessionState state;
    state.setGating(true);
    state.apply(r, 1, t0);
    EXPECT_TRUE(state.takeRuleChecks().empty());
    EXPECT_EQ(state.takeReplies(), (std::vector<Reply>{{1, Behavior::passthrough}}));
    EXPECT_TRUE(state.snapshot(t0).marker(HarnessProvider::claudeCode, "s"));
    EXPECT_FALSE(state.snapshot(t0).gate("s"));
}

TEST(HookSessionState, AWeekOfSessionsStaysBounded) {
    HookSessionState state;
    state.setGating(true);
    size_t most = 0;
    // 10,000 sessions of every agent, one a minute: about a week.
    std::vector<HookProtocol::Request> lines = {
        request({{"session_id", "x"}, {"action", "start"}}),
        request({{"session_id", "x"}, {"kind", "question"}, {"detail", std::string(2000, 'd')}}),
        request({{"source", "codex"}, {"session_id", "x"}, {"action", "marker"}, {"kind", "idle"}}),
        request({{"source", "kimi"}, {"session_id", "x"}, {"action", "marker"}, {"kind", "idle"}}),
        request({{"source", "opencode"}, {"session_id", "x"}, {"action", "marker"}, {"kind", "idle"}}),
        request({{"source", "cursor"}, {"session_id", "x"}, {"action", "pending"}, {"kind", "shell"}, {"model", "gpt-5"}}),
        request({{"source", "cursor"}, {"session_id", "x"}, {"action", "activity"}}),
    };
    for (int i = 0; i < 10000; ++i) {
        auto now = t0 + std::chrono::minutes(i);
        for (auto r : lines) {
            r.sessionId = "session-" + std::to_string(i);
            state.apply(r, 0, now);
        }
        if (i % 10 == 0) state.tick(now);
        most = std::max(most, state.entryCount());
    }
    HookSessionLimits limits;
    size_t bound = 4 * limits.maxMarkersPerAgent + limits.maxBusy + 2 * limits.maxCursorNotes + limits.maxCursorModels;
    EXPECT_LE(most, bound);
    auto saved = HookStateFile::encode(state.snapshot(t0 + std::chrono::minutes(10000)), t0);
    EXPECT_LE(saved.size(), HookStateFile::kWriteBudget + 4096);
}

TEST(HookStateFile, ReadsWhatItWroteAndSetsAsideWhatItCannot) {
    TempDir dir;
    HookBridgeSnapshot state;
    AttentionMarker m{"s1", "AskUserQuestion", "Ship it?", "question", std::nullopt, false,
                      std::vector<std::string>{"Yes", "No"}, 1};
    state.markers[HarnessProvider::claudeCode]["s1"] = m;
    state.claudeMarkerCreatedAt["s1"] = t0;
    state.cursorModels["c1"] = "gpt-5";
    auto back = HookStateFile::decode(HookStateFile::encode(state, t0 + 1s));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->savedAt, t0 + 1s);
    EXPECT_EQ(*back->state.marker(HarnessProvider::claudeCode, "s1"), m);
    EXPECT_EQ(back->state.cursorModels, state.cursorModels);

    // More than the budget: the newest entries are kept.
    HookBridgeSnapshot big;
    for (int i = 0; i < 3000; ++i) {
        std::string sid = "s" + std::to_string(i);
        big.markers[HarnessProvider::claudeCode][sid] = AttentionMarker{sid, "Bash", std::string(4000, 'x'), "permission"};
        big.claudeMarkerCreatedAt[sid] = t0 + std::chrono::seconds(i);
    }
    auto text = HookStateFile::encode(big, t0);
    EXPECT_LE(text.size(), HookStateFile::kWriteBudget + 4096);
    auto kept = HookStateFile::decode(text)->state.markers[HarnessProvider::claudeCode];
    EXPECT_TRUE(kept.count("s2999"));
    EXPECT_FALSE(kept.count("s0"));

    // What cannot be read is set aside at once, never waited on: a FIFO, a
    // file too large, one that is not a state file.
    auto file = dir / "hook-state.json";
    auto setAside = [&] {
        auto started = std::chrono::steady_clock::now();
        bool none = !HookStateFile::load(file);
        bool quick = std::chrono::steady_clock::now() - started < 2s;
        struct stat st{};
        bool moved = ::lstat((dir / "hook-state.json.bad").c_str(), &st) == 0 && !std::filesystem::exists(file);
        return none && quick && moved;
    };
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    EXPECT_TRUE(setAside());
    writeFile(file, "");
    ASSERT_EQ(::truncate(file.c_str(), 100 << 20), 0);
    EXPECT_TRUE(setAside());
    nlohmann::json many = {{"savedAt", Dates::format(t0)}, {"claudeMarkers", nlohmann::json::object()}};
    for (int i = 0; i < 200000; ++i) many["claudeMarkers"]["s" + std::to_string(i)] = {{"kind", "idle"}};
    writeFile(file, many.dump());
    EXPECT_TRUE(setAside());
    writeFile(file, "{not json");
    EXPECT_TRUE(setAside());
    EXPECT_FALSE(HookStateFile::load(dir / "missing.json"));

    // A file within the size limit but with thousands of markers restores within the caps.
    many["claudeMarkers"] = nlohmann::json::object();
    for (int i = 0; i < 5000; ++i) many["claudeMarkers"]["s" + std::to_string(i)] = {{"kind", "idle"}};
    writeFile(file, many.dump());
    auto loaded = HookStateFile::load(file);
    ASSERT_TRUE(loaded);
    HookSessionState restored;
    restored.restore(loaded->state, loaded->savedAt, t0 + 10s);
    EXPECT_EQ(restored.snapshot(t0).markers[HarnessProvider::claudeCode].size(), HookSessionLimits{}.maxMarkersPerAgent);
}

TEST(ApprovalsLog, EveryFieldStaysOnItsLine) {
    HookSessionState::RuleCheck check;
    check.toolName = "Bash\r";
    check.sessionId = "s1\n2026-01-01T00:00:00.000Z  auto-approve tool=Bash session=forged head=rm -rf /";
    check.detail = "git status \x1b[2J\xe2\x80\xa8next";
    std::string line = AutoApprover::logLine(check, t0);
    EXPECT_EQ(line.find_first_of("\n\r\x1b"), std::string::npos) << line;
    EXPECT_EQ(line.find("\xe2\x80\xa8"), std::string::npos) << line;
    EXPECT_NE(line.find("session=s1\\n2026-01-01"), std::string::npos) << line;
    EXPECT_NE(line.find("tool=Bash\\r"), std::string::npos) << line;
    EXPECT_NE(line.find("\\x1b[2J\\u2028next"), std::string::npos) << line;
}
