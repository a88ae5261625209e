#include <gtest/gtest.h>

#include "support/test_support.hpp"

using namespace lumora::test;

TEST(TranscriptCommand, PrintsTheFactsOfOneJournal) {
    LUMORA_REQUIRE_SAMPLES();
    TempHome home;
    auto sample = samplesDir() / "claude/home/.claude/projects/-home-dev-proj-app/56b4dab8-0cda-4952-abcc-acd583999d5c.jsonl";
    auto bin = lumoraBinary().string();
    auto result = runCommand(bin + " --transcript '" + sample.string() + "'");
    EXPECT_EQ(result.status, 0);
    for (auto line : {"sessionId: 56b4dab8-0cda-4952-abcc-acd583999d5c\n", "cwd: /home/dev/proj.app\n",
                      "gitBranch: feature/harness\n", "model: Opus 5.5\n", "inProgress: false\n",
                      "summary: Thanks for answering.\n", "pendingApproval: -\n", "hasRealTurn: true\n",
                      "recentActivity: reply Thanks for answering.\n", "subagentCount: 0\n",
                      "topic: [[h:ask]] Harness TUI variant tui-ask.\n"})
        EXPECT_NE(result.output.find(line), std::string::npos) << line << "\n" << result.output;

    auto missing = runCommand(bin + " --transcript /no/such/file.jsonl 2>&1");
    EXPECT_NE(missing.status, 0);
    EXPECT_EQ(missing.output, "lumora: --transcript: no such journal: /no/such/file.jsonl\n");

    writeFile(home / "junk.jsonl", "not a journal\n");
    auto junk = runCommand(bin + " --transcript '" + (home / "junk.jsonl").string() + "' 2>&1");
    EXPECT_NE(junk.status, 0);
    EXPECT_NE(junk.output.find("no journal entries"), std::string::npos);
}
