#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>

#include "lumora/base/run_loop.hpp"
#include "lumora/base/serial_queue.hpp"

using namespace lumora;
using namespace std::chrono_literals;

TEST(RunLoop, RunsPostedTasksInOrderOnTheLoopThread) {
    RunLoop loop;
    std::vector<int> seen;
    std::thread::id ranOn;
    std::thread poster([&] {
        for (int i = 0; i < 5; ++i) loop.post([&, i] {
            seen.push_back(i);
            ranOn = std::this_thread::get_id();
        });
    });
    poster.join();
    EXPECT_TRUE(loop.runUntil([&] { return seen.size() == 5; }, 2s));
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(loop.isLoopThread());
}

TEST(RunLoop, TimersRepeatUntilCancelledAndOneShotsFireOnce) {
    RunLoop loop;
    int ticks = 0, once = 0;
    RunLoop::TimerId timer = loop.addTimer(5ms, [&] {
        if (++ticks == 3) loop.cancelTimer(timer);
    });
    loop.postAfter(10ms, [&] { ++once; });
    auto cancelled = loop.addTimer(1ms, [&] { FAIL() << "a cancelled timer fired"; });
    loop.cancelTimer(cancelled);
    EXPECT_TRUE(loop.runUntil([&] { return ticks == 3 && once == 1; }, 2s));
    loop.runOnce(30ms);
    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(once, 1);
    EXPECT_FALSE(loop.nextDeadline());
}

TEST(RunLoop, WakeDescriptorTurnsReadableWhenWorkArrives) {
    RunLoop loop;
    loop.runOnce();
    pollfd p{loop.wakeFd(), POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 0), 0);
    std::thread([&] { loop.post([] {}); }).join();
    EXPECT_EQ(::poll(&p, 1, 1000), 1);
    EXPECT_EQ(loop.runOnce(), 1u);
    EXPECT_EQ(::poll(&p, 1, 0), 0);
}

// A front end sleeps on wakeFd() between batches, so work still queued when
// runOnce() returns must leave the descriptor readable. The wake-up that got
// lost was a post landing while runOnce() emptied the pipe after taking its
// batch. A long batch provokes it: the post waits on the loop's lock while
// the batch is taken and goes in the moment it is released, while a pipe
// full of the batch's wake-ups is still being read.
TEST(RunLoop, WorkPostedWhileABatchIsTakenStillWakesTheFrontEnd) {
    RunLoop loop;
    std::atomic<int> go{0}, posted{0};
    int ran = 0;
    constexpr int kRounds = 20;
    std::thread poster([&] {
        for (int round = 1; round <= kRounds; ++round) {
            while (go.load() < round) std::this_thread::yield();
            loop.post([&] { ++ran; });
            posted.store(round);
        }
    });
    int lost = 0;
    for (int round = 1; round <= kRounds; ++round) {
        for (int i = 0; i < 20000; ++i) loop.post([] {});
        go.store(round);
        loop.runOnce();
        while (posted.load() < round) std::this_thread::yield();
        pollfd p{loop.wakeFd(), POLLIN, 0};
        if (ran < round && ::poll(&p, 1, 0) != 1) ++lost;
        while (ran < round) loop.runOnce();
    }
    poster.join();
    EXPECT_EQ(lost, 0) << "rounds whose posted work left no wake-up";
}

TEST(RunLoop, StopEndsRun) {
    RunLoop loop;
    int n = 0;
    loop.addTimer(2ms, [&] {
        if (++n == 4) loop.stop();
    });
    loop.run();
    EXPECT_EQ(n, 4);
}

TEST(SerialQueue, RunsTasksOneAtATimeInOrder) {
    std::vector<int> order;
    std::atomic<int> running{0}, maxRunning{0};
    {
        SerialQueue queue("test.queue");
        for (int i = 0; i < 50; ++i) {
            queue.async([&, i] {
                int now = ++running;
                maxRunning = std::max(maxRunning.load(), now);
                order.push_back(i);
                --running;
            });
        }
        bool onQueue = false;
        queue.sync([&] { onQueue = queue.isCurrent(); });
        EXPECT_TRUE(onQueue);
        EXPECT_FALSE(queue.isCurrent());
        EXPECT_EQ(order.size(), 50u);
        // sync from the queue itself runs inline instead of deadlocking.
        queue.sync([&] { queue.sync([&] { order.push_back(99); }); });
    }
    EXPECT_EQ(maxRunning.load(), 1);
    EXPECT_EQ(order.back(), 99);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);
}
