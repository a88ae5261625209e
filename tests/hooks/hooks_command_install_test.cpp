// The hook flags run through the real binary, including when the machine
// says no: a full disk, folders and files the user may not write or read.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lumora/hooks/attention_hooks.hpp"
#include "lumora/hooks/cursor_hooks.hpp"
#include "lumora/platform/paths.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using lumora::test::TempHome;

namespace {

// `lumora <flags>` with this home, through `prefix` (e.g. a lower file-size limit, another user).
test::CommandResult runLumora(const TempHome& home, const std::string& flags, const std::string& prefix = "") {
    std::string env = "env HOME='" + home.path().string() + "' XDG_DATA_HOME='" + (home / ".local/share").string() +
                      "' XDG_CONFIG_HOME='" + (home / ".config").string() + "' ASAN_OPTIONS=detect_leaks=0 ";
    return test::runCommand(prefix + env + "'" + test::lumoraBinary().string() + "' " + flags + " 2>&1");
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(HooksCommandLine, FlagsRunThroughTheBinary) {
    TempHome home;
    test::writeFile(home / ".claude/settings.json", "{}\n");
    auto r = runLumora(home, "--hooks-enable");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "Claude Code: installed\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "Codex: not found on this machine, skipped\n"));
    EXPECT_TRUE(contains(r.output, "Hooks enabled.\n"));
    EXPECT_TRUE(AttentionHooks::isInstalled());
    r = runLumora(home, "--hook-config-test");
    EXPECT_TRUE(contains(r.output, "Claude Code: present yes, installed yes, current yes")) << r.output;
    r = runLumora(home, "--dry-run");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.output, "lumora: --dry-run goes with --uninstall\n");
    r = runLumora(home, "--hooks-disable");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(AttentionHooks::hasOurEntries());

    // The uninstaller lists everything it made, lock file and backups included, and leaves none of it.
    r = runLumora(home, "--uninstall --dry-run");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.output, "  would remove  config backups (*.notch-backup)\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "  would remove  User defaults (~/.config/lumora/defaults.json and its lock file)\n"));
    EXPECT_TRUE(fs::exists(home / ".claude/settings.json.notch-backup"));
    r = runLumora(home, "--uninstall");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(fs::exists(home / ".claude/settings.json.notch-backup"));
    EXPECT_FALSE(fs::exists(home / ".config/lumora"));
    EXPECT_FALSE(fs::exists(home / ".claude/lumora"));
}

TEST(HooksCommandLine, AFullDiskSaysSoAndNoSuccessLineFollows) {
    TempHome home;
    fs::create_directories(home / ".claude");
    test::writeFile(home / ".claude/settings.json", "{\"model\": \"opus\"}\n");
    // A file-size limit of 1 KiB: the hook program cannot be written (EFBIG, as a full disk gives ENOSPC).
    auto r = runLumora(home, "--hooks-enable", "sh -c 'trap \"\" XFSZ; ulimit -f 2; exec \"$0\" \"$@\"' ");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "Claude Code: FAILED — can't write ~/.claude/lumora/notch-hook.py: File too large\n"))
        << r.output;
    EXPECT_FALSE(contains(r.output, "Hooks enabled."));
    EXPECT_TRUE(contains(r.output, "Hooks are on, but not installed for: Claude Code.\n"));
    EXPECT_EQ(test::readFile(home / ".claude/settings.json"), "{\"model\": \"opus\"}\n");
}

TEST(HooksCommandLine, WhatCannotBeReadOrWrittenIsLeftAsItWas) {
    TempHome home;
    const std::string settings = "{\n  \"soundEnabled\": false,\n  \"approvalRules.v1\": [{\"heads\": [\"git\"]}]\n}\n";
    const std::string cursorHooks = "{\"version\": 1, \"hooks\": {\"stop\": [{\"command\": \"./audit.sh\"}]}}";
    fs::path defaults = home / ".config/lumora/defaults.json";
    test::writeFile(defaults, settings);
    test::writeFile(home / ".cursor/hooks.json", cursorHooks);
    fs::create_directories(home / ".claude");
    std::string prefix = test::asOtherUser(home.path());  // permissions bind root only through another user
    fs::permissions(home / ".claude", fs::perms::owner_read | fs::perms::owner_exec);
    fs::permissions(home / ".cursor/hooks.json", fs::perms::none);

    auto r = runLumora(home, "--hooks-enable", prefix);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "Claude Code: FAILED — can't create ~/.claude/lumora: Permission denied\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "Cursor: FAILED — ~/.cursor/hooks.json can't be read (Permission denied) — left alone\n"));
    EXPECT_TRUE(contains(r.output, "Hooks are on, but not installed for: Claude Code, Cursor.\n"));
    EXPECT_FALSE(fs::exists(home / ".cursor/notch-cursor-hook.py"));
    fs::permissions(home / ".cursor/hooks.json", fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(test::readFile(home / ".cursor/hooks.json"), cursorHooks);

    // Unreadable defaults: never replaced by a file holding only our key, and no agent is touched.
    std::string stored = test::readFile(defaults);
    fs::permissions(defaults, fs::perms::none);
    r = runLumora(home, "--hooks-enable", prefix);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output, "lumora: hooks left off: can't read " + defaults.string() + ": Permission denied\n");
    EXPECT_FALSE(fs::exists(home / ".cursor/notch-cursor-hook.py"));
    fs::permissions(defaults, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(test::readFile(defaults), stored);
    fs::permissions(home / ".claude", fs::perms::owner_all);
}
