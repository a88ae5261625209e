#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lumora/platform/paths.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using lumora::test::ScopedEnv;
using lumora::test::TempHome;

TEST(Paths, FollowHomeAndTheXdgFolders) {
    TempHome home;
    EXPECT_EQ(Paths::home(), home.path());
    EXPECT_EQ(Paths::supportFolder(), home / ".local/share/lumora");
    EXPECT_EQ(Paths::defaultsFile(), home / ".config/lumora/defaults.json");
    EXPECT_EQ(Paths::socketPath(), home / ".local/share/lumora/notch.sock");
    EXPECT_EQ(Paths::claudeProjects(), home / ".claude/projects");
    EXPECT_EQ(Paths::claudeConfigFile(), home / ".claude.json");
    EXPECT_EQ(Paths::kimiHome(), home / ".kimi-code");
    EXPECT_EQ(Paths::openCodeData(), home / ".local/share/opencode");

    {
        ScopedEnv data("XDG_DATA_HOME", "/srv/data");
        ScopedEnv relative("XDG_CONFIG_HOME", "not/absolute");  // ignored, as the XDG rules say
        EXPECT_EQ(Paths::supportFolder(), "/srv/data/lumora");
        EXPECT_EQ(Paths::defaultsFile(), home / ".config/lumora/defaults.json");
    }
    {
        ScopedEnv sock("LUMORA_SOCKET", "/tmp/private.sock");
        EXPECT_EQ(Paths::socketPath(), "/tmp/private.sock");
        ScopedEnv empty("LUMORA_SOCKET", "");
        EXPECT_EQ(Paths::socketPath(), home / ".local/share/lumora/notch.sock");
    }
}

TEST(Paths, SupportFolderIsCreatedPrivate) {
    TempHome home;
    auto dir = Paths::ensureSupportFolder();
    struct stat st{};
    ASSERT_EQ(::stat(dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    // Every named location is absolute and under the test's home or the temp folder.
    for (const auto& e : Paths::all()) EXPECT_TRUE(e.path.is_absolute()) << e.name;
}
