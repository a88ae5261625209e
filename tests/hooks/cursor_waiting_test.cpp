#include "lumora/hooks/cursor_waiting.hpp"

#include <gtest/gtest.h>

#include "lumora/base/dates.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;

TEST(CursorWaiting, ThresholdsTranscriptAndRunningShell) {
    TempDir dir;
    auto noteTime = std::chrono::system_clock::now() - 1h;
    double ts = Dates::toSeconds(noteTime);
    CursorPending shell{"cid", "/w", "npm test", "shell", "Shell", ts, ""};
    CursorPending tool{"cid", "/w", "", "tool", "Edit", ts, ""};
    CursorPending mcp{"cid", "/w", "", "mcp", "search", ts, ""};

    EXPECT_FALSE(CursorHooks::isWaiting(shell, noteTime + 7900ms));
    EXPECT_TRUE(CursorHooks::isWaiting(shell, noteTime + 8100ms));
    EXPECT_FALSE(CursorHooks::isWaiting(tool, noteTime + 2900ms));
    EXPECT_TRUE(CursorHooks::isWaiting(tool, noteTime + 3100ms));
    EXPECT_FALSE(CursorHooks::isWaiting(mcp, noteTime + 1h));

    // A shell command that visibly runs was approved.
    int asked = 0;
    auto running = [&](const CursorPending& p) {
        ++asked;
        return p.command == "npm test";
    };
    EXPECT_FALSE(CursorHooks::isWaiting(shell, noteTime + 10s, running));
    EXPECT_TRUE(CursorHooks::isWaiting(tool, noteTime + 10s, running));
    EXPECT_EQ(asked, 1);  // only shell notes ask the process table

    // A transcript written after the note means the agent moved on.
    auto transcript = dir / "t.jsonl";
    writeFile(transcript, "{}\n");
    tool.transcriptPath = transcript.string();
    setMtime(transcript, noteTime + 500ms);
    EXPECT_TRUE(CursorHooks::isWaiting(tool, noteTime + 10s));
    setMtime(transcript, noteTime + 1s);
    EXPECT_FALSE(CursorHooks::isWaiting(tool, noteTime + 10s));
    tool.transcriptPath = (dir / "missing.jsonl").string();
    EXPECT_TRUE(CursorHooks::isWaiting(tool, noteTime + 10s));

    EXPECT_EQ(CursorHooks::waitingSummary(tool), "Wants to use Edit");
    tool.toolName.clear();
    EXPECT_EQ(CursorHooks::waitingSummary(tool), "Cursor needs your approval");
}
