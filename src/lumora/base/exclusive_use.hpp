#pragma once

#include <atomic>
#include <cassert>

namespace lumora {

// Checks a "one caller at a time" contract in debug builds: a Scope taken
// while another is open (two threads inside the object at once) asserts.
// Objects with caches and no lock of their own keep one and open a Scope in
// each public entry point.
class ExclusiveUse {
public:
    class Scope {
    public:
        explicit Scope(ExclusiveUse& use) : use_(use) {
            [[maybe_unused]] bool wasBusy = use_.busy_.exchange(true);
            assert(!wasBusy && "used from two threads at once");
        }
        ~Scope() { use_.busy_.store(false); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        ExclusiveUse& use_;
    };

private:
    std::atomic<bool> busy_{false};
};

}  // namespace lumora
