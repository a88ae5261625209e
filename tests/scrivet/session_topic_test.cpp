#include <gtest/gtest.h>

#include "scrivet/session_topic.hpp"

using namespace scrivet::SessionTopic;

TEST(SessionTopic, SanitisesTheFirstPrompt) {
    EXPECT_EQ(sanitize("Why does this crash?\n```\nSegfault at 0x0\n```"), "Why does this crash?");
    EXPECT_EQ(sanitize("/loop watch the deploy until it goes green"), "watch the deploy until it goes green");
    EXPECT_EQ(sanitize("<system-reminder>be brief</system-reminder>\n# Fix the **login** `bug`"), "Fix the login bug");
    EXPECT_EQ(sanitize("rename the snake_case helper"), "rename the snake_case helper");
    EXPECT_EQ(sanitize("look at this <unclosed tag that leaks"), "look at this");
    EXPECT_EQ(sanitize("/home/dev/notes.md needs a summary"), "/home/dev/notes.md needs a summary");
    for (const char* nothing : {"/clear", "<command-name>/clear</command-name>", "/compact", "[Image #1]",
                                "This session is being continued from a previous conversation that ran out",
                                "<task-notification><task-id>1</task-id></task-notification>", "   ",
                                "<user-prompt-submit-hook>x</user-prompt-submit-hook>"})
        EXPECT_FALSE(sanitize(nothing)) << nothing;

    auto cut = sanitize("please refactor the authentication middleware so that every route checks the session token");
    ASSERT_TRUE(cut);
    EXPECT_EQ(*cut, "please refactor the authentication middleware so that every…");
    EXPECT_EQ(truncated("short", 64), "short");

    EXPECT_EQ(label(std::string("Release checklist"), std::string("do it")), "Release checklist");
    EXPECT_EQ(label(std::string("<br>"), std::string("fix the build")), "fix the build");  // a junk title falls through
    EXPECT_FALSE(label(std::nullopt, std::nullopt));
}
