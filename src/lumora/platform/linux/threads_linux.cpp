#include <pthread.h>
#include <time.h>

#include <string>

#include "lumora/platform/threads.hpp"

namespace lumora::Threads {

void nameCurrent(std::string_view name) {
    std::string cut(name.substr(0, 15));
    pthread_setname_np(pthread_self(), cut.c_str());
}

std::chrono::nanoseconds cpuTimeOfCurrent() {
    timespec ts{};
    if (::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts) != 0) return {};
    return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

}  // namespace lumora::Threads
