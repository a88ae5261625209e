#include "lumora/base/serial_queue.hpp"

#include <future>

#include "lumora/platform/threads.hpp"

namespace lumora {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
    worker_ = std::thread([this] {
        Threads::nameCurrent(label_);
        work();
    });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (worker_.joinable()) worker_.join();
}

void SerialQueue::async(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    cv_.notify_one();
}

void SerialQueue::sync(const Task& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&] {
        task();
        done.set_value();
    });
    finished.wait();
}

void SerialQueue::work() {
    for (;;) {
        Task task;
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) return;  // stopping, and everything queued has run
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
}

}  // namespace lumora
