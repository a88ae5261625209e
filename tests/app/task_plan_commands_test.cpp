// `--scan --json` carries each row's task plan and topic: a Kimi session's
// TodoList and an OpenCode session's to-do table, read as the app reads them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "monitor/child_process.hpp"
#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/kimi_wire_builder.hpp"
#include "scrivet/opencode_database_builder.hpp"
#include "support/test_support.hpp"

using namespace lumora::test;
using namespace std::chrono_literals;
namespace W = lumora::test::KimiWire;
namespace Rows = lumora::test::OpenCodeRows;
using OcSession = lumora::test::OpenCodeDatabase::Session;
using Json = nlohmann::json;

TEST(TaskPlanCommands, ScanJsonCarriesTaskPlansAndTopics) {
    TempHome home;
    const std::string kimiId = "session_0c0c0c0c-1111-4222-8333-444455556666";
    auto kimiDir = home / "k", ocDir = home / "o";
    fs::create_directories(kimiDir);
    fs::create_directories(ocDir);
    writeFile(home / ".kimi-code/config.toml", W::config());
    Json todos = {{"todos", {{{"title", "Pick a database"}, {"status", "done"}},
                             {{"title", "Write the migration"}, {"status", "in_progress"}},
                             {{"title", "Run it"}, {"status", "pending"}}}}};
    W::write(scrivet::KimiTranscriptReader::sessionsRoot(home / ".kimi-code"), kimiId, kimiDir.string(),
             W::prompt("```\nlog\n```") + W::finishedTurn("set up the database", "Which one?") +
                 W::call("t1", "TodoList", todos) + W::result("t1", "ok") + W::prompt("and seed it"));

    auto database = home / ".local/share/opencode/opencode.db";
    {
        OpenCodeDatabase db(database);
        int64_t t0 = millisNow(-20s);
        db.session(OcSession("ses_plans", ocDir.string()).updatedAt(t0));
        db.message("m1", "ses_plans", t0, Rows::user("ses_plans", t0));
        db.part("p1", "m1", "ses_plans", t0, Rows::text("\"ship the release\""));
        db.message("m2", "ses_plans", t0 + 5, Rows::assistant("ses_plans", t0 + 5, std::nullopt, 4000, "stop"));
        db.todo("ses_plans", 0, "Tag", "completed", "high");
        db.todo("ses_plans", 1, "Publish", "pending", "high");
    }
    ChildProcess kimi(sleeperNamed(home / "bin", "kimi"), {"kimi", "60"}, kimiDir);
    ChildProcess opencode(sleeperNamed(home / "bin", "opencode"), {"opencode", "60"}, ocDir);

    auto result = runCommand(lumoraBinary().string() + " --scan --json");
    ASSERT_EQ(result.status, 0) << result.output;
    auto rows = Json::parse(result.output);
    Json k, o;
    for (const auto& r : rows) {
        if (r["id"] == kimiId) k = r;
        if (r["id"] == "ses_plans") o = r;
    }
    ASSERT_TRUE(k.is_object()) << result.output;
    EXPECT_EQ(k["topic"], "set up the database");  // the first prompt that says something, not a later one
    EXPECT_EQ(k["taskPlan"]["doneCount"], 1);
    EXPECT_EQ(k["taskPlan"]["totalCount"], 3);
    EXPECT_EQ(k["taskPlan"]["items"][1], (Json{{"id", "Write the migration"}, {"subject", "Write the migration"},
                                               {"activeForm", nullptr}, {"status", "inProgress"}}));
    ASSERT_TRUE(o.is_object()) << result.output;
    EXPECT_EQ(o["topic"], "ship the release");  // the literal quotes `opencode run` adds are gone
    EXPECT_EQ(o["taskPlan"]["items"][0]["subject"], "Tag");
    EXPECT_EQ(o["taskPlan"]["items"][0]["status"], "completed");
    EXPECT_EQ(o["taskPlan"]["items"][1]["status"], "pending");

    // Plans off: the rows say null.
    auto off = runCommand("mkdir -p '" + (home / ".config/lumora").string() + "' && echo '{\"taskPlanEnabled\": false}' > '" +
                          (home / ".config/lumora/defaults.json").string() + "' && " + lumoraBinary().string() +
                          " --scan --json");
    ASSERT_EQ(off.status, 0) << off.output;
    for (const auto& r : Json::parse(off.output))
        if (r["id"] == kimiId) EXPECT_TRUE(r["taskPlan"].is_null());
}
