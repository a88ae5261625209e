#include <gtest/gtest.h>

#include <algorithm>

#include "lumora/monitor/agent_process_finder.hpp"
#include "monitor/child_process.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using scrivet::HarnessProvider;

namespace {

std::optional<HarnessProvider> providerOfChild(const ChildProcess& child) {
    auto snap = ProcessTable::system().snapshot();
    const ProcessInfo* p = snap.find(child.pid());
    if (!p) return std::nullopt;
    return AgentProcessFinder::provider(*p);
}

}  // namespace

TEST(AgentProcessFinder, RecognisesClaudeInItsInstalledForms) {
    TempDir dir;
    auto sleeper = sleeperNamed(dir / "bin", "claude");
    ChildProcess bare(sleeper, {"claude", "30"}, dir.path());
    ChildProcess byPath(sleeper, {sleeper.string(), "30"}, dir.path());
    auto versioned = sleeperNamed(dir / ".local/share/claude/versions", "2.1.330");
    ChildProcess version(versioned, {versioned.string(), "30"}, dir.path());
    auto hostCopy = sleeperNamed(dir / ".config/com.conductor.app/bin", "claude");
    ChildProcess sdkCopy(hostCopy, {hostCopy.string(), "30"}, dir.path());
    auto cli = sleepScript(dir / "lib/node_modules/@anthropic-ai/claude-code/cli.js");
    ChildProcess node("/bin/sh", {"node", cli.string()}, dir.path());
    ChildProcess nodeWithFlags("/bin/sh", {"node", cli.string(), "--dangerously-skip-permissions"}, dir.path());
    // A session whose subject is this very program is still a session.
    auto script = sleepScript(dir / "session");
    ChildProcess aboutUs("/bin/sh", {"claude", script.string(), "--add-dir", "/src/lumora", "-p", "fix lumora --claude"},
                         dir.path());

    for (auto* c : {&bare, &byPath, &version, &sdkCopy, &node, &nodeWithFlags, &aboutUs})
        EXPECT_EQ(providerOfChild(*c), HarnessProvider::claudeCode) << c->pid();
}

TEST(AgentProcessFinder, LeavesOutLookalikesAndHelperModes) {
    TempDir dir;
    // Scripts named after the arguments these commands would take.
    for (auto name : {"claude", "claude.md", "bg-pty-host", "bg-spare", "daemon", "script"})
        sleepScript(dir / name);
    std::vector<std::unique_ptr<ChildProcess>> children;
    auto run = [&](std::vector<std::string> argv) {
        children.push_back(std::make_unique<ChildProcess>("/bin/sh", argv, dir.path()));
        return children.back().get();
    };
    std::vector<ChildProcess*> notAgents = {
        run({"rg", "claude"}),
        run({"ugrep", "claude"}),
        run({"grep", "claude"}),
        run({"cat", "claude.md"}),
        run({"claude", "bg-pty-host"}),
        run({"claude", "bg-spare"}),
        run({"claude", "daemon", "run"}),
        run({"claude", "script", "--chrome-native-host"}),
        run({"/Applications/Claude.app/Contents/MacOS/Claude", "script"}),
        run({"lumora", "script", "--claude"}),
        run({"node", "script", "claude"}),
    };
    for (auto* c : notAgents) {
        auto snap = ProcessTable::system().snapshot();
        const ProcessInfo* p = snap.find(c->pid());
        ASSERT_NE(p, nullptr);
        EXPECT_FALSE(AgentProcessFinder::provider(*p)) << p->command << " " << p->arguments[0];
    }
    // "claude daemon" without "run" is not the helper.
    EXPECT_EQ(providerOfChild(*run({"claude", "daemon"})), HarnessProvider::claudeCode);
}

TEST(AgentProcessFinder, FindsTheOtherAgentsByTheirExecutables) {
    TempDir dir;
    auto bin = dir / "bin";
    ChildProcess codex(sleeperNamed(bin, "codex"), {"codex", "30"}, dir.path());
    ChildProcess cursor(sleeperNamed(bin, "cursor-agent"), {"cursor-agent", "30"}, dir.path());
    ChildProcess kimi(sleeperNamed(bin, "kimi"), {"kimi", "30"}, dir.path());
    ChildProcess opencode(sleeperNamed(bin, "opencode"), {"opencode", "30"}, dir.path());
    auto kimiScript = sleepScript(dir / ".local/bin/kimi");
    ChildProcess kimiPython("/bin/sh", {"python3.12", kimiScript.string()}, dir.path());
    auto cursorIndex = sleepScript(dir / ".local/share/cursor-agent/versions/2025.11/index.js");
    ChildProcess cursorNode("/bin/sh", {"node", cursorIndex.string()}, dir.path());
    auto openScript = sleepScript(dir / "node_modules/opencode-ai/bin/opencode");
    sleepScript(dir / "run");  // the shell standing in for bun runs this file
    ChildProcess openBun("/bin/sh", {"bun", "run", openScript.string()}, dir.path());
    sleepScript(dir / "login");
    ChildProcess codexLogin("/bin/sh", {"codex", "login"}, dir.path());

    EXPECT_EQ(providerOfChild(codex), HarnessProvider::codex);
    EXPECT_EQ(providerOfChild(cursor), HarnessProvider::cursor);
    EXPECT_EQ(providerOfChild(kimi), HarnessProvider::kimi);
    EXPECT_EQ(providerOfChild(opencode), HarnessProvider::opencode);
    EXPECT_EQ(providerOfChild(kimiPython), HarnessProvider::kimi);
    EXPECT_EQ(providerOfChild(cursorNode), HarnessProvider::cursor);
    EXPECT_EQ(providerOfChild(openBun), HarnessProvider::opencode);
    EXPECT_FALSE(providerOfChild(codexLogin));
}

TEST(AgentProcessFinder, KeepsTheNativeChildOfAWrapper) {
    TempDir dir;
    auto native = sleeperNamed(dir / "node_modules/@openai/codex/vendor/x86_64/codex", "codex");
    // The npm wrapper: node running codex.js, which starts the native binary.
    auto wrapper = sleepScript(dir / "node_modules/@openai/codex/bin/codex.js",
                               "'" + native.string() + "' 30 &\n");
    ChildProcess node("/bin/sh", {"node", wrapper.string()}, dir.path());
    // Wait for the native child to show.
    std::optional<int32_t> childPid;
    for (int i = 0; i < 200 && !childPid; ++i) {
        auto snap = ProcessTable::system().snapshot();
        for (const auto& p : snap.processes())
            if (p.ppid == node.pid() && p.command == native.string()) childPid = p.pid;
        if (!childPid) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(childPid);
    auto snap = ProcessTable::system().snapshot();
    auto found = AgentProcessFinder::find(snap, ::getpid());
    auto has = [&](int32_t pid) {
        return std::any_of(found.begin(), found.end(), [&](const auto& a) { return a.pid == pid; });
    };
    EXPECT_TRUE(has(*childPid));
    EXPECT_FALSE(has(node.pid()));
    // Our own process is never an agent, whatever its name.
    EXPECT_TRUE(AgentProcessFinder::find(snap, node.pid()).size() <= found.size());
}
