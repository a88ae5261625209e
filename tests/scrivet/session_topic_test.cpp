#include <gtest/gtest.h>

#include <fstream>

#include "scrivet/codex_cursor_builders.hpp"
#include "scrivet/claude_journal_builder.hpp"
#include "scrivet/kimi_wire_builder.hpp"
#include "scrivet/session_topic.hpp"
#include "support/test_support.hpp"

using namespace scrivet::SessionTopic;
using scrivet::HarnessProvider;
using namespace lumora::test;
using Json = nlohmann::json;

TEST(SessionTopic, SanitisesTheFirstPrompt) {
    EXPECT_EQ(sanitize("Why does this crash?\n```\nSegfault at 0x0\n```"), "Why does this crash?");
    EXPECT_EQ(sanitize("/loop watch the deploy until it goes green"), "watch the deploy until it goes green");
    EXPECT_EQ(sanitize("<command-message>loop is running…</command-message>\n<command-name>/loop</command-name>\n"
                       "<command-args>watch the deploy</command-args>"),
              "watch the deploy");
    EXPECT_EQ(sanitize("<system-reminder>be brief</system-reminder>\n# Fix the **login** `bug`"), "Fix the login bug");
    EXPECT_EQ(sanitize("rename the snake_case helper"), "rename the snake_case helper");
    EXPECT_EQ(sanitize("look at this <unclosed tag that leaks"), "look at this");
    EXPECT_EQ(sanitize("/home/dev/notes.md needs a summary"), "/home/dev/notes.md needs a summary");
    EXPECT_EQ(sanitize("[Image #1] why is this layout off?"), "why is this layout off?");
    for (const char* nothing : {"/clear", "<command-name>/clear</command-name>", "/compact", "[Image #1]",
                                "This session is being continued from a previous conversation that ran out",
                                "<task-notification><task-id>1</task-id></task-notification>", "   ",
                                "<user-prompt-submit-hook>x</user-prompt-submit-hook>", "<b></b><i>", "``` only code",
                                "<command-name>/model</command-name><command-args></command-args>", "!!! ... 42"})
        EXPECT_FALSE(sanitize(nothing)) << nothing;

    auto cut = sanitize("please refactor the authentication middleware so that every route checks the session token");
    ASSERT_TRUE(cut);
    EXPECT_EQ(*cut, "please refactor the authentication middleware so that every…");
    EXPECT_EQ(truncated("short", 64), "short");

    // A megabyte of prompt costs a page and gives a line.
    std::string huge = "fix the flaky upload test " + std::string(1 << 20, 'x');
    auto big = sanitize(huge);
    ASSERT_TRUE(big);
    EXPECT_TRUE(big->starts_with("fix the flaky upload test"));
    EXPECT_FALSE(sanitize("<div class=" + std::string(1 << 20, 'y')));  // an unclosed tag ends the text at once

    EXPECT_EQ(label(std::string("Release checklist"), std::string("do it")), "Release checklist");
    EXPECT_EQ(label(std::string("<br>"), std::string("fix the build")), "fix the build");  // a junk title falls through
    EXPECT_FALSE(label(std::nullopt, std::nullopt));
}

TEST(SessionTopic, TakesTheFirstHumanPromptOfEachAgent) {
    TempHome home;
    clearCache();

    // Claude: meta, a bare command, its output, a subagent's brief, a tool
    // result and a markup-only prompt are not the prompt; a pasted image
    // beside the text does not hide it.
    ClaudeJournal claude;
    claude.boot().slashCommand("model", "Set model to Opus");
    claude.entry("user", {{"role", "user"}, {"content", "Brief for the helper"}}, {{"isSidechain", true}});
    claude.toolResult("t0", "ok");
    claude.prompt("<b></b>");
    claude.entry("user", {{"role", "user"},
                          {"content", Json::array({{{"type", "image"}, {"source", {{"type", "base64"}, {"data", "iVBOR"}}}},
                                                   ClaudeJournal::textBlock("why is the header misaligned")})}});
    claude.reply("Looking.").prompt("now fix the footer too");
    auto claudeFile = home / "claude.jsonl";
    claude.writeTo(claudeFile);
    EXPECT_EQ(topic(claudeFile, HarnessProvider::claudeCode), "why is the header misaligned");

    // Codex: the injected context, AGENTS.md and skills are not the prompt;
    // the typed event wins over the model's copy.
    CodexRollout codex;
    codex.turnStart().injected("# AGENTS.md instructions for /home/dev/proj\n\nbe nice");
    codex.response({{"type", "message"}, {"role", "user"},
                    {"content", Json::array({{{"type", "input_text"}, {"text", "[image 1] the model's copy"}}})}});
    codex.event({{"type", "user_message"}, {"message", "what the user typed"}});
    codex.reply("Sure.").prompt("a later ask");
    auto codexFile = codex.writeIn(home / ".codex/sessions");
    EXPECT_EQ(topic(codexFile, HarnessProvider::codex), "what the user typed");
    CodexRollout newer("01a200b8-08e9-7700-a95d-dc5d02af79ae");
    newer.turnStart().prompt("build the site").reply("Built.").prompt("deploy it");
    EXPECT_EQ(topic(newer.writeIn(home / ".codex/sessions"), HarnessProvider::codex), "build the site");

    // Cursor: only the text inside <user_query>; no wrapper gives nothing.
    CursorTranscript cursor;
    cursor.user("no wrapper here").prompt("fix the login bug", "<attached_files>a.ts</attached_files>\n").prompt("and more");
    auto cursorFile = home / "cursor.jsonl";
    cursor.writeTo(cursorFile);
    EXPECT_EQ(topic(cursorFile, HarnessProvider::cursor), "fix the login bug");
    CursorTranscript bare;
    bare.user("no wrapper anywhere");
    bare.writeTo(home / "bare.jsonl");
    EXPECT_FALSE(topic(home / "bare.jsonl", HarnessProvider::cursor));

    // Kimi: the first "turn.prompt" that says something.
    writeFile(home / "wire.jsonl", KimiWire::metadata() + KimiWire::prompt("<system-reminder>x</system-reminder>") +
                                       KimiWire::finishedTurn("pick a database", "Postgres?") +
                                       KimiWire::prompt("later"));
    EXPECT_EQ(topic(home / "wire.jsonl", HarnessProvider::kimi), "pick a database");

    // The real agents' journals.
    auto samples = samplesDir();
    if (!fs::exists(samples / "claude")) GTEST_SKIP() << "no agent samples at " << samples;
    EXPECT_EQ(topic(samples / "claude/home/.claude/projects/-home-dev-proj-app/67393e0f-69a4-4967-bc00-67679219f04f.jsonl",
                    HarnessProvider::claudeCode),
              "[[h:text]] Say hello.");
    EXPECT_EQ(topic(samples / "codex/home/.codex/sessions/2026/11/22/"
                              "rollout-2026-11-22T00-46-25-01a200b7-f33b-7c13-aace-3190dfe8020d.jsonl",
                    HarnessProvider::codex),
              "[[h:text]] Say hello.");
}

TEST(SessionTopic, TheFirstPromptNeverChangesAndIsReadOnce) {
    TempHome home;
    clearCache();
    auto file = home / "s.jsonl";
    // A head with no prompt yet is read again once the file grows.
    ClaudeJournal start;
    start.boot();
    start.writeTo(file);
    EXPECT_FALSE(firstPrompt(file, HarnessProvider::claudeCode));
    ClaudeJournal first;
    first.prompt("add a dark mode toggle").reply("Done.").turnEnd().bookkeeping();
    first.appendTo(file);
    EXPECT_EQ(topic(file, HarnessProvider::claudeCode), "add a dark mode toggle");

    // Later prompts never replace it, and a found prompt is not read again
    // (the file rewritten under it still gives the first).
    ClaudeJournal later;
    later.prompt("now rename the settings pane");
    later.appendTo(file);
    EXPECT_EQ(topic(file, HarnessProvider::claudeCode), "add a dark mode toggle");
    ClaudeJournal other;
    other.prompt("something else entirely");
    other.writeTo(file);
    EXPECT_EQ(topic(file, HarnessProvider::claudeCode), "add a dark mode toggle");

    // The agent's own title wins over the prompt.
    auto titled = home / "t.jsonl";
    ClaudeJournal t;
    t.prompt("do the thing").reply("ok").aiTitle("Release binary compile");
    t.writeTo(titled);
    EXPECT_EQ(label(titled, HarnessProvider::claudeCode, std::nullopt), "Release binary compile");

    // Bad files give nothing and no crash.
    writeFile(home / "junk.jsonl", std::string(600 * 1024, '{'));
    EXPECT_FALSE(topic(home / "junk.jsonl", HarnessProvider::claudeCode));
    fs::create_directories(home / "dir.jsonl");
    EXPECT_FALSE(topic(home / "dir.jsonl", HarnessProvider::cursor));
    EXPECT_FALSE(topic(home / "missing.jsonl", HarnessProvider::kimi));
    EXPECT_FALSE(topic(file, HarnessProvider::opencode));
}
