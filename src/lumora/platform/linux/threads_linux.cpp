#include <pthread.h>

#include <string>

#include "lumora/platform/threads.hpp"

namespace lumora::Threads {

void nameCurrent(std::string_view name) {
    std::string cut(name.substr(0, 15));
    pthread_setname_np(pthread_self(), cut.c_str());
}

}  // namespace lumora::Threads
