#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <deque>
#include <vector>

namespace lumora {

// The main thread's run loop: posted tasks and timers, run in order on the
// thread that drives the loop. A front end drives it (the terminal view waits
// on wakeFd() beside its input); headless runs and tests call run() or
// runUntil(). Everything that publishes to views happens here.
class RunLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using TimerId = uint64_t;

    // The process's main loop.
    static RunLoop& main();

    RunLoop();
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // Queues `task` to run on the loop's thread. Safe from any thread.
    void post(Task task);
    // Runs `task` once after `delay`.
    TimerId postAfter(Clock::duration delay, Task task);
    // A timer that fires every `interval` until cancelled. The first firing is
    // one interval from now.
    TimerId addTimer(Clock::duration interval, Task task);
    void cancelTimer(TimerId id);

    // Runs everything due now, then waits up to `maxWait` for more work and
    // runs that too. Returns how many tasks ran. Binds the loop to the
    // calling thread.
    size_t runOnce(Clock::duration maxWait = Clock::duration::zero());
    // Runs until stop().
    void run();
    void stop();
    // Runs until `done` returns true (checked after each batch) or `timeout`
    // passes; returns whether `done` became true.
    bool runUntil(const std::function<bool()>& done, Clock::duration timeout);

    // A descriptor that turns readable when work is posted, for front ends
    // that wait on several descriptors; runOnce() drains it.
    int wakeFd() const { return wakePipe_[0]; }
    // When the next timer is due, if any.
    std::optional<Clock::time_point> nextDeadline() const;
    // True on the thread that last drove the loop.
    bool isLoopThread() const;

private:
    struct Timer {
        Clock::time_point due;
        Clock::duration interval;  // zero for one-shot
        std::shared_ptr<Task> task;
        std::shared_ptr<std::atomic<bool>> alive;  // cleared by cancelTimer
    };

    void signal();
    void drainWakePipe();
    std::vector<Task> takeDue(Clock::time_point now);

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Task> tasks_;
    std::map<TimerId, Timer> timers_;
    TimerId nextId_ = 1;
    bool stopRequested_ = false;
    std::thread::id loopThread_;
    int wakePipe_[2] = {-1, -1};
};

}  // namespace lumora
