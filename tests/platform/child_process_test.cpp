#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "lumora/platform/child_process.hpp"

using namespace lumora;
using namespace std::chrono_literals;

// A program we start may leave its pipes with someone who outlives it: here a
// background sleep keeps standard output and input open. Waiting for the
// program, or killing it, ends with its own output and returns at once.
TEST(ChildProcess, ItsOutputEndsWithItWhoeverElseHoldsThePipes) {
    auto started = std::chrono::steady_clock::now();
    auto child = ChildProcess::spawn({"/bin/sh", "-c", "sleep 20 & echo done"}, std::string(1 << 20, 'x'));
    ASSERT_TRUE(child);
    ASSERT_TRUE(child->wait(10s));
    EXPECT_EQ(child->output(), "done\n");
    EXPECT_EQ(child->exitCode(), 0);

    auto hung = ChildProcess::spawn({"/bin/sh", "-c", "sleep 20 & echo partial; exec sleep 30"}, "");
    ASSERT_TRUE(hung);
    EXPECT_FALSE(hung->wait(300ms));
    hung->kill();
    EXPECT_EQ(hung->output(), "partial\n");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
}
