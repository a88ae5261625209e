// The command line on Kimi and OpenCode sessions: `--scan --json` rows from
// live processes, Kimi's session folders and OpenCode's database, and
// `--transcript` on a Kimi wire journal.
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

namespace {

const std::string kKimi = "session_0b0b0b0b-1111-4222-8333-444455556666";

nlohmann::json rowWithId(const nlohmann::json& rows, const std::string& id) {
    for (const auto& r : rows)
        if (r["id"] == id) return r;
    return nullptr;
}

}  // namespace

TEST(KimiOpenCodeCommands, ScanJsonCarriesTheirRows) {
    TempHome home;
    auto kimiDir = home / "k", ocDir = home / "o";
    fs::create_directories(kimiDir);
    fs::create_directories(ocDir);
    writeFile(home / ".kimi-code/config.toml", W::config());
    W::write(scrivet::KimiTranscriptReader::sessionsRoot(home / ".kimi-code"), kKimi, kimiDir.string(),
             W::finishedTurn("tidy the imports", "Done. Anything else?"));

    // OpenCode's database where LUMORA_OPENCODE_DB says, and its model catalogue.
    auto database = home / "elsewhere/oc.db";
    ScopedEnv dbEnv("LUMORA_OPENCODE_DB", database.string());
    writeFile(home / ".cache/opencode/models.json",
              R"({"harness":{"models":{"harness-model":{"name":"Harness","limit":{"context":128000}}}}})");
    {
        OpenCodeDatabase db(database);
        int64_t t0 = millisNow(-20s);
        db.session(OcSession("ses_scan", ocDir.string()).titled("Release checklist").updatedAt(t0));
        db.message("m1", "ses_scan", t0, Rows::user("ses_scan", t0));
        db.message("m2", "ses_scan", t0 + 5, Rows::assistant("ses_scan", t0 + 5, std::nullopt, 4000, "stop"));
    }
    ChildProcess kimi(sleeperNamed(home / "bin", "kimi"), {"kimi", "60"}, kimiDir);
    ChildProcess opencode(sleeperNamed(home / "bin", "opencode"), {"opencode", "60"}, ocDir);

    auto result = runCommand(lumoraBinary().string() + " --scan --json");
    ASSERT_EQ(result.status, 0) << result.output;
    auto rows = nlohmann::json::parse(result.output);

    auto k = rowWithId(rows, kKimi);
    ASSERT_TRUE(k.is_object()) << result.output;
    EXPECT_EQ(k["provider"], "kimi");
    EXPECT_EQ(k["pid"], kimi.pid());
    EXPECT_EQ(k["model"], "Kimi K3");
    EXPECT_EQ(k["contextTokens"], 23551);
    EXPECT_EQ(k["contextMax"], 262144);
    EXPECT_EQ(k["topic"], "tidy the imports");
    EXPECT_EQ(k["status"], "attention");  // the finished turn asks the user something
    EXPECT_EQ(k["subagentCount"], 0);

    auto o = rowWithId(rows, "ses_scan");
    ASSERT_TRUE(o.is_object()) << result.output;
    EXPECT_EQ(o["provider"], "opencode");
    EXPECT_EQ(o["model"], "Harness");
    EXPECT_EQ(o["contextTokens"], 4000);
    EXPECT_EQ(o["contextMax"], 128000);
    EXPECT_EQ(o["topic"], "Release checklist");
    EXPECT_EQ(o["status"], "working");
    EXPECT_EQ(o["subagentCount"], 0);
}

TEST(KimiOpenCodeCommands, TranscriptReadsAKimiWire) {
    TempHome home;
    writeFile(home / ".kimi-code/config.toml", W::config());
    auto s = W::write(home / "sessions", kKimi, "/work/k",
                      W::finishedTurn("tidy the imports", "Done.") + W::prompt("now the tests") + W::request("k3") +
                          W::call("q1", "AskUserQuestion", W::questions({{"Which suite?", {"unit", "e2e"}}})));
    auto result = runCommand(lumoraBinary().string() + " --transcript '" + s.wire.string() + "'");
    ASSERT_EQ(result.status, 0) << result.output;
    for (auto line : {"sessionId: " + kKimi + "\n", std::string("cwd: /work/k\n"), std::string("model: Kimi K3\n"),
                      std::string("inProgress: true\n"), std::string("pendingApproval: question (0 s)\n"),
                      std::string("topic: tidy the imports\n"), std::string("question: Which suite?\n"),
                      std::string("questionOptions: 1 unit   2 e2e\n")})
        EXPECT_NE(result.output.find(line), std::string::npos) << line << "\n" << result.output;

    writeFile(home / "empty/wire.jsonl", "");
    auto empty = runCommand(lumoraBinary().string() + " --transcript '" + (home / "empty/wire.jsonl").string() + "' 2>&1");
    EXPECT_NE(empty.status, 0);
    EXPECT_NE(empty.output.find("no journal entries"), std::string::npos);
}
