// The self-test's checks, run against a socket server.
#include <gtest/gtest.h>

#include <sstream>

#include "hooks/fake_hook_server.hpp"
#include "lumora/hooks/hook_self_test.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using lumora::test::FakeHookServer;
using lumora::test::TempDir;
using lumora::test::TempHome;

TEST(HookSelfTest, EveryCheckPassesAgainstAWorkingServer) {
    TempHome home;
    TempDir dir;
    auto socket = dir / "notch.sock";
    FakeHookServer server(socket);
    std::ostringstream out;
    auto checks = HookSelfTest::run(server, socket, out);
    ASSERT_GE(checks.size(), 14u) << out.str();
    for (const auto& c : checks) EXPECT_TRUE(c.passed) << c.name << ": " << c.detail;
    EXPECT_NE(out.str().find("  ok    Claude Code: a gate answered deny prints the decision\n"), std::string::npos)
        << out.str();
    EXPECT_NE(out.str().find("no installed program, using the built-in one"), std::string::npos);
}

TEST(HookSelfTest, AServerThatNeverListensFailsTheChecks) {
    TempHome home;
    TempDir dir;
    FakeHookServer server(dir / "no-such-dir" / "notch.sock");  // cannot bind
    std::ostringstream out;
    auto checks = HookSelfTest::run(server, dir / "no-such-dir" / "notch.sock", out);
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_FALSE(checks[0].passed);
    EXPECT_NE(out.str().find("  FAIL  the bridge listens on"), std::string::npos);
}
