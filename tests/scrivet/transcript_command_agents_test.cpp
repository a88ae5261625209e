// `lumora --transcript FILE` on a Codex rollout and a Cursor transcript.
#include <gtest/gtest.h>

#include "scrivet/cursor_transcript_reader.hpp"
#include "support/test_support.hpp"
#include "codex_cursor_builders.hpp"

using namespace lumora::test;
using Json = nlohmann::json;

namespace {

void expectLines(const CommandResult& result, std::initializer_list<const char*> lines) {
    EXPECT_EQ(result.status, 0) << result.output;
    for (auto line : lines) EXPECT_NE(result.output.find(line), std::string::npos) << line << "\n" << result.output;
}

}  // namespace

TEST(TranscriptCommand, PrintsACodexRolloutWithItsRateLimits) {
    TempHome home;
    auto bin = lumoraBinary().string();
    CodexRollout r("01a200f0-1111-7222-8333-944445555699", "/home/dev/proj", "codex_exec");
    r.turnStart().prompt("Is it green?").reply("Yes. Push now?");
    r.tokens(5000, 9000,
             {{"primary", {{"used_percent", 42.5}, {"window_minutes", 300}, {"resets_at", 1795320000}}},
              {"secondary", {{"used_percent", 7}, {"window_minutes", 10080}, {"resets_at", 1795900000}}}});
    r.complete("Yes. Push now?");
    auto file = r.writeIn(home / ".codex/sessions");
    expectLines(runCommand(bin + " --transcript '" + file.string() + "'"),
                {"agent: codex\n", "sessionId: 01a200f0-1111-7222-8333-944445555699\n", "cwd: /home/dev/proj\n",
                 "gitBranch: feature/harness\n", "model: GPT-5.5-Codex\n", "contextTokens: 5000\n",
                 "contextMax: 258400\n", "inProgress: false\n", "endsWithQuestion: true\n",
                 "summary: Yes. Push now?\n", "prompt: Is it green?\n", "topic: Is it green?\n", "hostKind: cli\n",
                 "totalUsageTokens: 9000\n", "rateLimit: 42.5% used, period 5 h, resets 2026-11-22T04:00:00.000Z\n",
                 "rateLimit: 7.0% used, period 7 d, resets 2026-11-28T21:06:40.000Z\n"});

    // A real rollout of Codex 0.169, when the samples are there.
    auto real = samplesDir() / "codex/home/.codex/sessions/2026/11/22/"
                               "rollout-2026-11-22T00-52-25-01a200bd-737b-7f81-9fb5-5701bec60b17.jsonl";
    if (fs::exists(real)) {
        expectLines(runCommand(bin + " --transcript '" + real.string() + "'"),
                    {"summary: Interrupted\n", "prompt: [[h:slow]] Harness TUI variant tui-interrupt.\n",
                     "rateLimits: -\n", "recentActivity: error Interrupted\n"});
    }
}

TEST(TranscriptCommand, PrintsACursorTranscript) {
    TempHome home;
    auto cwd = home / "web_app";
    fs::create_directories(cwd);
    auto folder = home / ".cursor/projects" / scrivet::CursorTranscriptReader::encodedDirName(cwd.string());
    writeFile(folder / "terminals/1.txt", "cwd: " + cwd.string() + "\n");
    auto file = folder / "agent-transcripts/c0ffee00-1111-4222-8333-944445555666.jsonl";
    CursorTranscript().prompt("add a footer").tool("Write", {{"path", "footer.html"}}).writeTo(file);
    expectLines(runCommand(lumoraBinary().string() + " --transcript '" + file.string() + "'"),
                {"agent: cursor\n", ("cwd: " + cwd.string() + "\n").c_str(),
                 "sessionId: c0ffee00-1111-4222-8333-944445555666\n", "inProgress: true\n",
                 "pendingApproval: edit (3 s)\n", "summary: Write: footer.html\n", "prompt: add a footer\n",
                 "model: -\n", "recentActivity: tool Write: footer.html\n"});
}
