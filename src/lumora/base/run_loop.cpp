#include "lumora/base/run_loop.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace lumora {

RunLoop& RunLoop::main() {
    // Never destroyed: a signal thread or a queue's last post may still reach
    // it while the process exits.
    static RunLoop* loop = new RunLoop;
    return *loop;
}

RunLoop::RunLoop() {
    if (::pipe(wakePipe_) == 0) {
        for (int fd : wakePipe_) {
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    loopThread_ = std::this_thread::get_id();
}

RunLoop::~RunLoop() {
    for (int fd : wakePipe_) {
        if (fd >= 0) ::close(fd);
    }
}

void RunLoop::signal() {
    cv_.notify_all();
    if (wakePipe_[1] >= 0) {
        char byte = 1;
        ssize_t n = ::write(wakePipe_[1], &byte, 1);  // a full pipe is already a wake-up
        (void)n;
    }
}

void RunLoop::drainWakePipe() {
    if (wakePipe_[0] < 0) return;
    char buf[256];
    while (::read(wakePipe_[0], buf, sizeof buf) > 0) {
    }
}

void RunLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    signal();
}

RunLoop::TimerId RunLoop::postAfter(Clock::duration delay, Task task) {
    TimerId id;
    {
        std::lock_guard lock(mutex_);
        id = nextId_++;
        timers_[id] = Timer{Clock::now() + delay, Clock::duration::zero(), std::make_shared<Task>(std::move(task)),
                            std::make_shared<std::atomic<bool>>(true)};
    }
    signal();
    return id;
}

RunLoop::TimerId RunLoop::addTimer(Clock::duration interval, Task task) {
    if (interval <= Clock::duration::zero()) interval = std::chrono::milliseconds(1);
    TimerId id;
    {
        std::lock_guard lock(mutex_);
        id = nextId_++;
        timers_[id] = Timer{Clock::now() + interval, interval, std::make_shared<Task>(std::move(task)),
                            std::make_shared<std::atomic<bool>>(true)};
    }
    signal();
    return id;
}

void RunLoop::cancelTimer(TimerId id) {
    std::lock_guard lock(mutex_);
    auto it = timers_.find(id);
    if (it == timers_.end()) return;
    it->second.alive->store(false);
    timers_.erase(it);
}

std::optional<RunLoop::Clock::time_point> RunLoop::nextDeadline() const {
    std::lock_guard lock(mutex_);
    std::optional<Clock::time_point> next;
    for (const auto& [id, t] : timers_) {
        if (!next || t.due < *next) next = t.due;
    }
    return next;
}

bool RunLoop::isLoopThread() const {
    std::lock_guard lock(mutex_);
    return loopThread_ == std::this_thread::get_id();
}

std::vector<RunLoop::Task> RunLoop::takeDue(Clock::time_point now) {
    // Empty the wake pipe while holding the lock, before taking the work it
    // announced: a post() that lands after the lock is released writes its
    // byte after this, so work left behind always leaves the pipe readable.
    drainWakePipe();
    std::vector<Task> due;
    while (!tasks_.empty()) {
        due.push_back(std::move(tasks_.front()));
        tasks_.pop_front();
    }
    // Timers in due order; a repeating timer is rescheduled from its due time
    // (skipping missed beats) before it runs, so it may cancel itself.
    std::vector<std::pair<Clock::time_point, TimerId>> fired;
    for (auto& [id, t] : timers_) {
        if (t.due <= now) fired.emplace_back(t.due, id);
    }
    std::sort(fired.begin(), fired.end());
    for (const auto& [when, id] : fired) {
        auto it = timers_.find(id);
        auto task = it->second.task;
        auto alive = it->second.alive;
        if (it->second.interval == Clock::duration::zero()) {
            timers_.erase(it);
        } else {
            auto& t = it->second;
            while (t.due <= now) t.due += t.interval;
        }
        // A timer cancelled by an earlier task in this batch must not run.
        due.push_back([task, alive] {
            if (alive->load()) (*task)();
        });
    }
    return due;
}

size_t RunLoop::runOnce(Clock::duration maxWait) {
    std::vector<Task> batch;
    {
        std::unique_lock lock(mutex_);
        loopThread_ = std::this_thread::get_id();
        auto deadline = Clock::now() + maxWait;
        for (;;) {
            batch = takeDue(Clock::now());
            if (!batch.empty() || stopRequested_) break;
            auto wakeAt = deadline;
            for (const auto& [id, t] : timers_) wakeAt = std::min(wakeAt, t.due);
            if (Clock::now() >= deadline) break;
            cv_.wait_until(lock, wakeAt);
            if (Clock::now() >= deadline && tasks_.empty()) {
                batch = takeDue(Clock::now());
                break;
            }
        }
    }
    for (auto& task : batch) task();
    return batch.size();
}

void RunLoop::run() {
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = false;
    }
    for (;;) {
        runOnce(std::chrono::seconds(1));
        std::lock_guard lock(mutex_);
        if (stopRequested_) {
            stopRequested_ = false;
            return;
        }
    }
}

void RunLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
    }
    signal();
}

bool RunLoop::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
    auto deadline = Clock::now() + timeout;
    while (!done()) {
        auto now = Clock::now();
        if (now >= deadline) return false;
        runOnce(std::min<Clock::duration>(deadline - now, std::chrono::milliseconds(20)));
    }
    return true;
}

}  // namespace lumora
