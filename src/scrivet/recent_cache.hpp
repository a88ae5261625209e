#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace scrivet {

// A small process-wide cache keyed by file path, for facts worth keeping
// between scans of the same journal. A process that runs for weeks sees
// thousands of journals come and go, so the cache forgets: an entry unused
// for `idleLife` goes, and past `capacity` entries the least recently used
// one goes. Values are copied in and out under the cache's own lock, which
// is never held while anything else runs.
template <typename Value>
class RecentCache {
public:
    using Clock = std::chrono::steady_clock;

    RecentCache(size_t capacity, Clock::duration idleLife) : capacity_(capacity), idleLife_(idleLife) {}

    // A copy of the entry, marking it used.
    std::optional<Value> get(const std::string& key, Clock::time_point now = Clock::now()) {
        std::lock_guard lock(mutex_);
        auto it = slots_.find(key);
        if (it == slots_.end()) return std::nullopt;
        it->second.used = now;
        return it->second.value;
    }

    void put(const std::string& key, Value value, Clock::time_point now = Clock::now()) {
        std::lock_guard lock(mutex_);
        slots_.insert_or_assign(key, Slot{std::move(value), now});
        // Forget what has not been asked for in a while; sweeping at most
        // once per tenth of the idle life keeps a busy cache cheap.
        if (now - lastSweep_ >= idleLife_ / 10) {
            lastSweep_ = now;
            std::erase_if(slots_, [&](const auto& kv) { return now - kv.second.used > idleLife_; });
        }
        while (slots_.size() > capacity_) {
            auto oldest = slots_.begin();
            for (auto it = slots_.begin(); it != slots_.end(); ++it)
                if (it->second.used < oldest->second.used) oldest = it;
            slots_.erase(oldest);
        }
    }

    void erase(const std::string& key) {
        std::lock_guard lock(mutex_);
        slots_.erase(key);
    }

    void clear() {
        std::lock_guard lock(mutex_);
        slots_.clear();
    }

    size_t size() const {
        std::lock_guard lock(mutex_);
        return slots_.size();
    }

private:
    struct Slot {
        Value value;
        Clock::time_point used;
    };

    const size_t capacity_;
    const Clock::duration idleLife_;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, Slot> slots_;
    Clock::time_point lastSweep_{};
};

}  // namespace scrivet
