#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace lumora {

// A serial queue: one worker thread that runs tasks in the order they were
// queued. Services with their own queue (the monitor's scans, the hook
// bridge) own one each. Destruction runs what is queued, then joins.
class SerialQueue {
public:
    using Task = std::function<void()>;

    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    // Queues `task` and returns at once.
    void async(Task task);
    // Queues `task` and waits for it; runs it inline when called on the queue itself.
    void sync(const Task& task);
    // True when called from the queue's worker.
    bool isCurrent() const { return std::this_thread::get_id() == worker_.get_id(); }

private:
    void work();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Task> tasks_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace lumora
