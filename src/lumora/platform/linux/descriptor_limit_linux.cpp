#include "lumora/platform/linux/descriptor_limit.hpp"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>

namespace lumora::DescriptorLimit {

namespace {
// The soft limit before we raised it; zero while it is untouched.
std::atomic<rlim_t> original{0};
}  // namespace

size_t raise() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1024;
    rlim_t wanted = std::min<rlim_t>(limit.rlim_max, 1 << 16);
    if (limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = wanted;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            original.store(limit.rlim_cur);
            limit = raised;
        }
    }
    return static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur, 1 << 20));
}

void restoreInChild() {
    rlim_t soft = original.load(std::memory_order_relaxed);
    if (soft == 0) return;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = soft;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace lumora::DescriptorLimit
