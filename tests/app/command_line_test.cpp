#include <gtest/gtest.h>

#include "support/test_support.hpp"

using namespace lumora::test;

TEST(CommandLine, VersionPathsAndMisuse) {
    TempHome home;
    auto bin = lumoraBinary().string();
    auto version = runCommand(bin + " --version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "lumora " LUMORA_VERSION "\n");

    auto paths = runCommand(bin + " --paths");
    EXPECT_EQ(paths.status, 0);
    EXPECT_NE(paths.output.find((home / ".local/share/lumora/notch.sock").string()), std::string::npos);
    EXPECT_NE(paths.output.find((home / ".config/lumora/defaults.json").string()), std::string::npos);

    auto bad = runCommand(bin + " --no-such-flag 2>&1");
    EXPECT_NE(bad.status, 0);
    EXPECT_NE(bad.output.find("--no-such-flag"), std::string::npos);
}
