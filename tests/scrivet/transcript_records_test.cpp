#include <gtest/gtest.h>

#include "scrivet/harness_provider.hpp"
#include "scrivet/transcript_records.hpp"

using namespace scrivet;

TEST(PendingApprovalKinds, ToolNamesAndDelays) {
    for (auto name : {"AskUserQuestion", "ExitPlanMode"}) EXPECT_EQ(pendingApprovalForTool(name), PendingApproval::question);
    for (auto name : {"Edit", "Write", "MultiEdit", "NotebookEdit", "StrReplace", "Delete"})
        EXPECT_EQ(pendingApprovalForTool(name), PendingApproval::edit);
    EXPECT_EQ(pendingApprovalForTool("Bash"), PendingApproval::run);
    EXPECT_EQ(pendingApprovalForTool("Shell"), PendingApproval::run);
    EXPECT_FALSE(pendingApprovalForTool("Read"));
    EXPECT_FALSE(pendingApprovalForTool("bash"));  // case matters
    EXPECT_EQ(delaySeconds(PendingApproval::question), 0);
    EXPECT_EQ(delaySeconds(PendingApproval::edit), 6);
    EXPECT_EQ(delaySeconds(PendingApproval::run), 20);
}

TEST(PendingQuestionLine, NumbersOptionsAndCountsFurtherQuestions) {
    PendingQuestion q{"Which database?", {"SQLite", "Postgres"}, 1};
    EXPECT_EQ(q.optionsLine(), "1 SQLite   2 Postgres   +1 more");
    q.moreCount = 0;
    EXPECT_EQ(q.optionsLine(), "1 SQLite   2 Postgres");
    EXPECT_EQ((PendingQuestion{"Free text?", {}, 2}).optionsLine(), "+2 more");
}

TEST(ActivityLines, IdentityIsKindAndText) {
    ActivityLine a{ActivityLine::Kind::tool, "Bash: ls"};
    EXPECT_EQ(a.id(), "tool|Bash: ls");
    EXPECT_EQ((ActivityLine{ActivityLine::Kind::prompt, "x"}).id(), "prompt|x");
    EXPECT_NE(a.id(), (ActivityLine{ActivityLine::Kind::ok, "Bash: ls"}).id());
}

TEST(Providers, RawValuesAreExact) {
    EXPECT_EQ(providerFromRaw("codex"), HarnessProvider::codex);
    EXPECT_FALSE(providerFromRaw("Codex"));
    EXPECT_FALSE(providerFromRaw(""));
    for (auto p : kAllProviders) EXPECT_EQ(providerFromRaw(rawValue(p)), p);
    EXPECT_EQ(displayName(HarnessProvider::claudeCode), "Claude Code");
    EXPECT_EQ(shortName(HarnessProvider::claudeCode), "Claude");
    EXPECT_EQ(planName(HarnessProvider::opencode), "OpenCode Go");
    EXPECT_EQ(accent(HarnessProvider::opencode), (Rgb{0.78, 0.78, 0.80}));
    // Every provider has its own accent.
    for (auto a : kAllProviders) {
        for (auto b : kAllProviders) {
            if (a != b) {
                EXPECT_NE(accent(a), accent(b));
            }
        }
    }
}

TEST(TextHelpers, CollapseAndTruncate) {
    EXPECT_EQ(collapseWhitespace("  Which\n\n  database   now? \n"), "Which database now?");
    EXPECT_EQ(truncateText("short", 10), "short");
    EXPECT_EQ(truncateText("abcdefghijkl", 5), "abcd…");
    EXPECT_EQ(truncateText("ééééééé", 4), "ééé…");
}
