#include <gtest/gtest.h>
#include <sys/resource.h>

#include "lumora/platform/child_process.hpp"
#include "lumora/platform/linux/descriptor_limit.hpp"

using namespace lumora;

// We raise our own soft limit for the process table's watches; the programs
// we start must still get the limit we were given.
TEST(DescriptorLimit, RaisedForUsAndPutBackForOurChildren) {
    rlimit start{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &start), 0);
    if (start.rlim_max <= 900) GTEST_SKIP() << "hard limit too low to raise";
    rlimit lowered = start;
    lowered.rlim_cur = 900;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);

    size_t inForce = DescriptorLimit::raise();
    rlimit now{};
    ::getrlimit(RLIMIT_NOFILE, &now);
    EXPECT_EQ(inForce, now.rlim_cur);
    EXPECT_GT(now.rlim_cur, 900u);

    auto child = ChildProcess::spawn({"/bin/sh", "-c", "ulimit -Sn"}, "");
    ASSERT_TRUE(child);
    ASSERT_TRUE(child->wait(std::chrono::seconds(10)));
    EXPECT_EQ(child->output(), "900\n");
    ::setrlimit(RLIMIT_NOFILE, &start);
}
