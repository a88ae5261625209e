#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/monitor/claude_session_index.hpp"
#include "monitor/child_process.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

constexpr const char* kSession = "2ba08b56-cdd6-4cd6-a287-5b0a4ea9a300";
constexpr const char* kOther = "56b4dab8-0cda-4952-abcc-acd583999d5c";

int64_t millis(std::chrono::system_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

Json record(int32_t pid, const std::string& session, std::chrono::system_clock::time_point started) {
    return Json{{"pid", pid}, {"sessionId", session}, {"cwd", "/home/dev/proj.app"}, {"startedAt", millis(started)},
                {"version", "2.1.330"}, {"kind", "interactive"}};
}

ClaudeSessionIndex::Record parsed(const Json& j) { return *ClaudeSessionIndex::parse(j.dump()); }

}  // namespace

TEST(ClaudeSessionIndex, ReadsTheRealFilesAndRejectsBrokenOnes) {
    auto snapshots = Json::parse(readFile(agentSample("claude/session-index-snapshots.json")));
    auto r = ClaudeSessionIndex::parse(snapshots["sessions_while_running"]["4788.json"].dump());
    ASSERT_TRUE(r);
    EXPECT_EQ(r->pid, 4788);
    EXPECT_EQ(r->sessionId, kSession);
    EXPECT_EQ(r->cwd, "/home/dev/proj.app");
    EXPECT_EQ(millis(r->startedAt), 1795308445670);
    EXPECT_EQ(r->procStart, 334822u);
    EXPECT_EQ(r->status, "waiting");
    EXPECT_EQ(r->waitingFor, "permission prompt");
    EXPECT_EQ(millis(*r->statusUpdatedAt), 1795308450329);
    EXPECT_EQ(r->tmux, "h:@0.%0");
    EXPECT_EQ(r->entrypoint, "cli");
    EXPECT_EQ(r->name, "proj-app-fe");
    auto after = ClaudeSessionIndex::parse(snapshots["sessions_after_turn"]["4788.json"].dump());
    EXPECT_EQ(after->status, "idle");
    EXPECT_FALSE(after->waitingFor);

    auto good = record(42, kSession, std::chrono::system_clock::now());
    EXPECT_TRUE(ClaudeSessionIndex::parse(good.dump()));
    EXPECT_FALSE(ClaudeSessionIndex::parse(good.dump().substr(0, 40)));  // torn
    for (auto change : {Json{{"cwd", "proj"}}, Json{{"cwd", nullptr}}, Json{{"sessionId", "not-a-uuid"}},
                        Json{{"pid", 0}}, Json{{"startedAt", nullptr}}, Json{{"startedAt", 14795308445670}},
                        Json{{"startedAt", 1e300}}, Json{{"startedAt", -5}}}) {
        auto bad = good;
        for (auto& [k, v] : change.items()) {
            if (v.is_null()) bad.erase(k);
            else bad[k] = v;
        }
        EXPECT_FALSE(ClaudeSessionIndex::parse(bad.dump())) << bad.dump();
    }

    // The folder: records, a key file and a broken file.
    TempDir dir;
    writeFile(dir / "4788.json", snapshots["sessions_while_running"]["4788.json"].dump());
    writeFile(dir / "4788.b0bc0697.key", snapshots["sessions_while_running"].begin()->dump());
    writeFile(dir / "7747.json", "{\"pid\": 7747, \"sessionId\"");
    auto all = ClaudeSessionIndex::read(dir.path());
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].pid, 4788);
    EXPECT_TRUE(ClaudeSessionIndex::read(dir / "missing").empty());
}

TEST(ClaudeSessionIndex, ValidatesAgainstTheLiveProcesses) {
    TempDir dir;
    auto claude = sleeperNamed(dir / "bin", "claude");
    ChildProcess live(claude, {"claude", "30"}, dir.path());
    sleepScript(dir / "other.js");
    ChildProcess node("/bin/sh", {"node", "other.js"}, dir.path());
    ChildProcess dead(claude, {"claude", "30"}, dir.path());
    int32_t deadPid = dead.pid();
    dead.stop();

    auto snap = ProcessTable::system().snapshot();
    const ProcessInfo* p = snap.find(live.pid());
    ASSERT_TRUE(p && p->start);
    auto start = *p->start;
    auto accepted = [&](const Json& j) { return ClaudeSessionIndex::validate({parsed(j)}, snap).size() == 1; };

    EXPECT_TRUE(accepted(record(live.pid(), kSession, start + 400ms)));
    EXPECT_TRUE(accepted(record(live.pid(), kSession, start + 30s)));
    EXPECT_TRUE(accepted(record(live.pid(), kSession, start - 30s)));
    EXPECT_FALSE(accepted(record(live.pid(), kSession, start - 3h)));
    EXPECT_FALSE(accepted(record(deadPid, kSession, start)));
    EXPECT_FALSE(accepted(record(node.pid(), kSession, snap.find(node.pid())->start.value())));

    // The start in clock ticks, when given, is compared exactly instead.
    auto exact = record(live.pid(), kSession, start - 3h);
    exact["procStart"] = std::to_string(p->startTicks);
    EXPECT_TRUE(accepted(exact));
    auto offByOne = record(live.pid(), kSession, start);
    offByOne["procStart"] = std::to_string(p->startTicks + 1);
    EXPECT_FALSE(accepted(offByOne));

    // A live claude whose start the table does not know is taken at its word.
    std::vector<ProcessInfo> facts = snap.processes();
    for (auto& f : facts)
        if (f.pid == live.pid()) f.start.reset(), f.startTicks = 0;
    ProcessSnapshot unknownStart(facts);
    EXPECT_EQ(ClaudeSessionIndex::validate({parsed(record(live.pid(), kSession, start - 3h))}, unknownStart).size(),
              1u);
}

TEST(ClaudeSessionIndex, OneRecordPerSessionTheNewestProcessWins) {
    TempDir dir;
    auto claude = sleeperNamed(dir / "bin", "claude");
    ChildProcess older(claude, {"claude", "30"}, dir.path());
    std::this_thread::sleep_for(30ms);  // a tick or more apart
    ChildProcess newer(claude, {"claude", "30"}, dir.path());
    ChildProcess third(claude, {"claude", "30"}, dir.path());
    auto snap = ProcessTable::system().snapshot();
    auto startOf = [&](const ChildProcess& c) { return *snap.find(c.pid())->start; };

    auto out = ClaudeSessionIndex::validate({parsed(record(newer.pid(), kSession, startOf(newer))),
                                             parsed(record(older.pid(), kSession, startOf(older))),
                                             parsed(record(third.pid(), kOther, startOf(third)))},
                                            snap);
    ASSERT_EQ(out.size(), 2u);
    for (const auto& r : out) {
        if (r.sessionId == kSession) EXPECT_EQ(r.pid, newer.pid());
        else EXPECT_EQ(r.pid, third.pid());
    }
}
