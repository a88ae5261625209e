#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "lumora/approvals/command_parsing.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using CommandParsing::heads;
using Heads = std::optional<std::vector<std::string>>;

TEST(CommandParsing, HeadsOfCommands) {
    EXPECT_EQ(heads("git status && npm test"), (Heads{{"git", "npm"}}));
    EXPECT_EQ(heads("cat a.txt | grep x"), (Heads{{"cat", "grep"}}));
    EXPECT_EQ(heads("sudo rm -rf /tmp/x"), (Heads{{"sudo rm"}}));
    EXPECT_EQ(heads(R"(git commit -m "fix; ship it")"), (Heads{{"git"}}));
    EXPECT_EQ(heads("grep -n 'a|b' file"), (Heads{{"grep"}}));
    EXPECT_EQ(heads("git log\nnpm test;;git diff"), (Heads{{"git", "npm"}}));
    for (const char* none : {"cat <<EOF\nhi\nEOF", "echo $(whoami)", "echo `whoami`", "diff <(ls a) <(ls b)", "",
                             "   \n  ", "a=1", R"(echo \"a; b\" ; ls)"})
        EXPECT_EQ(heads(none), std::nullopt) << none;

    // What runs inside subshells, groups, conditions and loops is read; writes
    // only to /dev/null or other descriptors; a plain env or exec is looked through.
    EXPECT_EQ(heads("(cd web && npm ci) > /dev/null 2>&1 || { echo failed; exit 1; }"),
              (Heads{{"cd", "npm", "echo", "exit"}}));
    EXPECT_EQ(heads("if git diff --quiet; then echo clean; fi"), (Heads{{"git", "echo"}}));
    EXPECT_EQ(heads("for f in *.txt; do wc -l \"$f\"; done"), (Heads{{"wc"}}));
    EXPECT_EQ(heads("env make -j4 &> /dev/null; exec ./build.sh"), (Heads{{"make", "./build.sh"}}));
    EXPECT_EQ(heads("set -euo pipefail; time make 2>&1 | tail -5"), (Heads{{"set", "make", "tail"}}));
    EXPECT_EQ(heads("sed -n '1,200p' src/main.cpp"), (Heads{{"sed"}}));
    EXPECT_EQ(heads("ssh -p 2222 build-box"), (Heads{{"ssh"}}));
    EXPECT_EQ(heads("python3 -m pytest -x -q tests/"), (Heads{{"python3"}}));

    EXPECT_EQ(CommandParsing::splitSegments("a && b || c | d ; e\nf & g"),
              (std::vector<std::string>{"a ", " b ", " c ", " d ", " e", "f ", " g"}));
    EXPECT_EQ(CommandParsing::headOfSegment("   "), std::nullopt);
    EXPECT_EQ(CommandParsing::headOfSegment(" sudo  apt install"), "sudo apt");
    EXPECT_EQ(CommandParsing::headOfSegment(" X=1 sudo apt install"), std::nullopt);
}

// Every way a second program could hide behind the first makes the command
// unscopable (or names that program too): a rule for the first head alone
// must never cover it.
TEST(CommandParsing, NothingHidesASecondProgram) {
    EXPECT_EQ(heads("sleep 1 & rm -rf ~/x"), (Heads{{"sleep", "rm"}}));
    const char* unscopable[] = {
        // Characters that end a line for some readers, or that a screen does not show.
        "git status\r rm -rf ~", "git status\v rm -rf ~", "git status\f rm -rf ~", "git status\u2028rm -rf ~",
        "git status\u2029rm -rf ~", "git status\u202erm -rf ~", "git status\x1b[2K; rm -rf ~",
        // Quoting and separators that read differently from what they look like.
        "echo $'\\n'; git status", "git status |& rm -rf ~", "git status # rm -rf ~", "git status 'unclosed",
        "git status \\", "echo ${x:-$HOME}; git status", "echo $[1+1]",
        // Leading assignments change what runs.
        "PATH=/tmp/evil:$PATH git status", "GIT_SSH_COMMAND='sh -c x' git fetch", "LD_PRELOAD=/tmp/x.so git status",
        "X=1; git status",
        // Writes through redirections.
        "git log > ~/.bashrc", "git log >> ~/.profile", "git log &> out", "git log 2> err", "git log >& out",
        "cat x 1<> y", "cat < /dev/tcp/host/80", "git status; < ~/.ssh/config",
        // Words that run, define or re-read code.
        "eval git status", "source ./env.sh", ". ./env.sh", "sh -c 'git status'", "bash -c 'git status'",
        "bash build.sh", "/usr/local/bin/zsh-5.9 -c 'rm x'", "python3.12 -c 'import os'", "xargs rm < files", "nice make", "timeout 5 make", "watch ls", "env -i git status",
        "env FOO=1 git status", "sudo -u root rm x", "sudo env rm x", "command -p rm x", "export PATH=/tmp; git status",
        "alias git=rm; git status", "f() { rm -rf ~; }; f", "function f { rm; }", "case x in a) rm;; esac",
        "[[ -f x ]] && ls", "((n++))", "!(rm x)", "(ls) rm", "(ls", "ls)",
        // Options that run other programs.
        "git -c core.pager='sh -c x' log", "git --exec-path=/tmp/evil status", "git rebase -x 'make' main",
        "git clone -c core.fsmonitor=x repo", "git submodule foreach rm", "git config alias.st '!rm'",
        "find . -name '*.o' -exec rm {} \\;", "find . -execdir rm {} +", "find . -ok rm {} \\;", "find . -delete",
        "ssh host rm -rf /", "ssh -o ProxyCommand='rm x' host", "rsync -e 'sh -c x' a b", "tar -I 'rm x' -xf a.tar",
        "sed -i s/a/b/ f", "sed 's/.*/rm/e' f", "awk 'BEGIN { system(\"rm x\") }'", "make CC='rm -rf ~'",
        "python3 -c 'import os'", "perl -e 'unlink'", "node -e 'x'", "npx some-package", "docker run alpine rm",
        "printf -v PATH /tmp", "set -k", "git $OPTS status"};
    for (const char* command : unscopable) EXPECT_EQ(heads(command), std::nullopt) << command;
}

TEST(CommandParsing, ShellToolsOfEveryAgent) {
    for (const char* shell : {"Bash", "Shell", "shell", "local_shell", "exec_command", "shell_command", "bash"})
        EXPECT_TRUE(CommandParsing::isShellTool(shell)) << shell;
    for (const char* other : {"Edit", "Write", "KillShell", "BashOutput", "edit", "webfetch"})
        EXPECT_FALSE(CommandParsing::isShellTool(other)) << other;
    EXPECT_TRUE(CommandParsing::isPlausibleWord("./build.sh"));
    EXPECT_FALSE(CommandParsing::isPlausibleWord("[")) << "a glob or test bracket names no program";

    // Every permission prompt the real agents sent for a command names a shell tool.
    auto samples = test::samplesDir();
    if (!std::filesystem::exists(samples)) GTEST_SKIP() << "no agent samples at " << samples;
    int prompts = 0;
    for (const char* agent : {"claude", "codex"}) {
        std::ifstream in(samples / agent / "hook-inputs.jsonl");
        for (std::string line; std::getline(in, line);) {
            auto j = nlohmann::json::parse(line);
            const auto& input = j["input"];
            if (j["event"] != "PermissionRequest" || !input["tool_input"].contains("command")) continue;
            EXPECT_TRUE(CommandParsing::isShellTool(input["tool_name"].get<std::string>())) << agent << ": " << line;
            ++prompts;
        }
    }
    std::ifstream plugin(samples / "opencode/plugin.jsonl");
    for (std::string line; std::getline(plugin, line);) {
        auto j = nlohmann::json::parse(line);
        const auto& props = j["data"]["properties"];
        if (j["data"]["type"] != "permission.asked" || !props["metadata"].contains("command")) continue;
        EXPECT_TRUE(CommandParsing::isShellTool(props["permission"].get<std::string>())) << line;
        ++prompts;
    }
    EXPECT_GE(prompts, 3);
}
