#include "scrivet/cowork_reader.hpp"

#include <gtest/gtest.h>

#include "scrivet/claude_desktop_session_index.hpp"
#include "scrivet/tail_reader.hpp"
#include "support/test_support.hpp"

namespace scrivet {
namespace {

using namespace lumora::test;
using CoworkReader::Folded;

std::string user(const std::string& text, const std::string& at = "2026-11-22T10:00:00Z") {
    return R"({"type":"user","_audit_timestamp":")" + at + R"(","message":{"role":"user","content":")" + text + "\"}}\n";
}
std::string assistantText(const std::string& text, long long input = 1000, const std::string& model = "claude-sonnet-4-5-20250929") {
    return R"({"type":"assistant","_audit_timestamp":"2026-11-22T10:00:05Z","message":{"model":")" + model +
           R"(","content":[{"type":"text","text":")" + text + R"("}],"usage":{"input_tokens":)" + std::to_string(input) +
           R"(,"cache_read_input_tokens":500,"cache_creation_input_tokens":200}}})" "\n";
}
std::string toolUse(const std::string& name) {
    return R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"t1","name":")" + name +
           R"(","input":{"path":"/tmp/a"}}]}})" "\n";
}
std::string toolResult() {
    return R"({"type":"user","message":{"content":[{"type":"tool_result","tool_use_id":"t1","content":"lots of output"}]}})" "\n";
}
std::string result(const std::string& usage = "") {
    return R"({"type":"result","subtype":"success","is_error":false,"num_turns":1,"result":"done")" +
           (usage.empty() ? std::string() : R"(,"modelUsage":)" + usage) + "}\n";
}
std::string request(const std::string& uuid, const std::string& tool, const std::string& input = "{}") {
    return R"({"type":"permission_request","uuid":")" + uuid + R"(","tool_name":")" + tool + R"(","tool_input":)" + input +
           "}\n";
}
std::string response(const std::string& uuid) {
    return R"({"type":"permission_response","uuid":")" + uuid + R"(","decision":"allow","granted":true})" "\n";
}
const std::string kHeartbeat = R"({"type":"tool_progress","tool_name":"Bash","elapsed_time_seconds":3,"heartbeat":true})" "\n";

Folded foldText(const std::string& text) {
    return CoworkReader::fold(TailReader::parseWindow(text, 0, SIZE_MAX).entries);
}

TEST(CoworkReader, TurnsSummariesAndHeartbeats) {
    auto working = foldText(user("Tidy the folder") + assistantText("Looking at the files") + toolUse("mcp__fs__list_dir") +
                            toolResult());
    EXPECT_TRUE(working.inProgress);
    EXPECT_TRUE(working.hasRealTurn);
    EXPECT_EQ(working.summary, "list_dir: /tmp/a");  // the tool's leaf, never its result
    EXPECT_EQ(working.contextTokens, 1700);          // input and both cache lanes

    auto done = foldText(user("Tidy the folder") + assistantText("Shall I delete the old ones?") + result());
    EXPECT_FALSE(done.inProgress);
    EXPECT_TRUE(done.endsWithQuestion);
    EXPECT_EQ(done.summary, "Shall I delete the old ones?");

    // A heartbeat after the result: working again, but never the summary.
    auto rearmed = foldText(user("go") + assistantText("Done.") + result() + kHeartbeat);
    EXPECT_TRUE(rearmed.inProgress);
    EXPECT_EQ(rearmed.summary, "Done.");
    auto status = foldText(user("go") + assistantText("Done.") + result() +
                           R"({"type":"system","subtype":"status","status":"requesting"})" "\n");
    EXPECT_TRUE(status.inProgress);
    EXPECT_EQ(foldText("").hasRealTurn, false);
}

TEST(CoworkReader, PermissionRequestsBlockAtOnce) {
    // An Edit request blocks immediately: blocked is not working.
    auto blocked = foldText(user("Fix it") + request("u1", "Edit"));
    EXPECT_FALSE(blocked.inProgress);
    EXPECT_EQ(blocked.pendingTool, "Edit");
    EXPECT_EQ(blocked.pendingApproval, PendingApproval::edit);
    EXPECT_EQ(CoworkReader::statusLabel(blocked), "Waiting on your approval");
    // Its response clears it; a clean turn shows no phantom approval.
    auto cleared = foldText(user("Fix it") + request("u1", "Edit") + response("u1") + assistantText("Fixed") + result());
    EXPECT_FALSE(cleared.pendingTool);
    EXPECT_FALSE(cleared.pendingApproval);
    EXPECT_FALSE(CoworkReader::statusLabel(cleared));
    // An unknown tool blocks at once too, and reads as English.
    auto unknown = foldText(user("Ship") + request("u2", "mcp__github__create_pull_request"));
    EXPECT_EQ(unknown.summary, "Wants to create pull request — approve?");
    EXPECT_EQ(foldText(user("x") + request("u3", "mcp__cowork__allow_cowork_file_delete")).summary,
              "Wants to delete files — approve?");
    EXPECT_EQ(CoworkReader::approvalLine("mcp__cowork__save_skill"), "Wants to save a skill — approve?");
    EXPECT_EQ(CoworkReader::approvalLine("mcp__cowork__share_document"), "Wants to share document — approve?");
    EXPECT_EQ(CoworkReader::approvalLine("mcp__drive__Thumbnail"), "Wants to use thumbnail — approve?");

    // A question shows its own text, with its options and the count of the rest.
    auto asked = foldText(user("Plan") + request("q1", "AskUserQuestion",
                                                 R"({"questions":[{"question":"Which database?","options":[{"label":"SQLite"},{"label":"Postgres"}]},{"question":"Name?"}]})"));
    ASSERT_TRUE(asked.question);
    EXPECT_EQ(asked.question->text, "Which database?");
    EXPECT_EQ(asked.question->options, (std::vector<std::string>{"SQLite", "Postgres"}));
    EXPECT_EQ(asked.question->moreCount, 1);
    EXPECT_EQ(asked.summary, "Which database?");
    EXPECT_EQ(CoworkReader::statusLabel(asked), "Waiting on your answer");
}

TEST(CoworkReader, ContextWindows) {
    // The reported window of the named model wins and is not estimated.
    auto named = foldText(user("x") + assistantText("y") +
                          result(R"({"claude-sonnet-4-5-20250929":{"contextWindow":200000,"maxOutputTokens":64000},"claude-haiku-4-5":{"contextWindow":1000000}})"));
    EXPECT_EQ(CoworkReader::contextWindow(named), (CoworkReader::ContextWindow{200000, false}));
    // No model named: the largest reported window, never a helper's.
    std::string unnamed = user("x") + R"({"type":"assistant","message":{"content":[{"type":"text","text":"y"}],"usage":{"input_tokens":10}}})" "\n" +
                          result(R"({"a":{"contextWindow":1000000},"b":{"contextWindow":200000}})");
    EXPECT_EQ(CoworkReader::contextWindow(foldText(unnamed)), (CoworkReader::ContextWindow{1000000, false}));
    // A "[1m]" model is one million, known; a context above 200,000 settles at one million.
    EXPECT_EQ(CoworkReader::contextWindow(foldText(user("x") + assistantText("y", 10, "claude-opus-4-5[1m]"))),
              (CoworkReader::ContextWindow{1000000, false}));
    EXPECT_EQ(CoworkReader::contextWindow(foldText(user("x") + assistantText("y", 250000)))->tokens, 1000000);
    // No report and no marker: no window, so no wrong percentage.
    EXPECT_FALSE(CoworkReader::contextWindow(foldText(user("x") + assistantText("y", 1000))));
}

TEST(CoworkReader, SessionStoreAndDesktopIndex) {
    TempHome home;
    fs::path store = home / "Claude/local-agent-mode-sessions";
    auto now = std::chrono::system_clock::now();
    auto iso = [](std::chrono::system_clock::time_point t) {
        std::time_t s = std::chrono::system_clock::to_time_t(t);
        char buf[32];
        std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&s));
        return std::string(buf);
    };
    std::string fresh = iso(now - std::chrono::minutes(2)), old = iso(now - std::chrono::hours(48));
    writeFile(store / "local_a.json", R"({"sessionId":"local_a","title":"Sort invoices","folders":["/home/u/Invoices"]})");
    writeFile(store / "local_a/audit.jsonl", user("Sort these", fresh) + assistantText("Sorting", 300000, "claude-opus-4-5[1m]"));
    writeFile(store / "local_b.json", R"({"sessionId":"local_b","title":"Old","folders":[]})");
    writeFile(store / "local_b/audit.jsonl", user("Long ago", old) + assistantText("ok") + result());
    writeFile(store / "local_c.json", R"({"sessionId":"local_c","title":"Waiting","folders":[]})");
    writeFile(store / "local_c/audit.jsonl", user("Delete", old) + request("p", "mcp__cowork__allow_cowork_file_delete"));
    writeFile(store / "local_d.json", R"({"sessionId":"local_d","title":"No log"})");
    writeFile(store / "local_e.json", R"({"sessionId":"local_e","title":"Archived","isArchived":true})");
    writeFile(store / "local_e/audit.jsonl", user("x", fresh));
    writeFile(store / "local_f.json", "{ torn");
    writeFile(store / "local_f/audit.jsonl", user("x", fresh));
    writeFile(store / "local_g.json", R"({"sessionId":"local_g","title":"Garbage log"})");
    writeFile(store / "local_g/audit.jsonl", "\x01\xff not json\n{]\n" + user("Still here", fresh));

    auto sessions = CoworkReader::sessions(store, now);
    std::vector<std::string> ids;
    for (const auto& s : sessions) ids.push_back(s.sessionId);
    std::sort(ids.begin(), ids.end());
    // b is stale, c is stale but waits on a prompt, d has no log, e is archived, f is torn.
    EXPECT_EQ(ids, (std::vector<std::string>{"local_a", "local_c", "local_g"}));
    auto a = std::find_if(sessions.begin(), sessions.end(), [](const auto& s) { return s.sessionId == "local_a"; });
    EXPECT_EQ(a->title, "Sort invoices");
    EXPECT_EQ(a->folders, std::vector<std::string>{"/home/u/Invoices"});
    EXPECT_EQ(a->model, "Opus 4.5");
    EXPECT_EQ(a->contextMax, 1000000);
    EXPECT_FALSE(a->contextMaxEstimated);
    EXPECT_TRUE(a->info.inProgress);
    EXPECT_FALSE(a->info.gitBranch);
    auto c = std::find_if(sessions.begin(), sessions.end(), [](const auto& s) { return s.sessionId == "local_c"; });
    EXPECT_EQ(c->promptSummary, "Waiting on your approval");
    EXPECT_EQ(c->info.summary, "Wants to delete files — approve?");
    EXPECT_TRUE(CoworkReader::sessions(home / "missing", now).empty());

    fs::path index = home / "Claude/claude-code-sessions";
    writeFile(index / "one.json", R"({"cliSessionId":"11111111-1111-4111-8111-111111111111","title":"Refactor  the\nparser","isArchived":false,"lastActivityAt":")" + fresh + "\"}");
    writeFile(index / "two.json", R"({"cliSessionId":"22222222-2222-4222-8222-222222222222","title":"Shelved","isArchived":true,"lastActivityAt":1767225600000})");
    writeFile(index / "three.json", "not json");
    writeFile(index / "four.json", R"({"title":"no id"})");
    auto entries = ClaudeDesktopSessionIndex::read(index);
    ASSERT_EQ(entries.size(), 2u);
    auto shown = ClaudeDesktopSessionIndex::visible(entries);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].title, "Refactor the parser");
    EXPECT_TRUE(entries[1].lastActivityAt);  // epoch milliseconds read too
    EXPECT_TRUE(ClaudeDesktopSessionIndex::read(home / "nowhere").empty());
}

}  // namespace
}  // namespace scrivet
