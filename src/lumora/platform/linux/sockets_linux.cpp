#include <signal.h>
#include <sys/socket.h>

#include <cstdio>

#include "lumora/platform/sockets.hpp"

namespace lumora::Sockets {

ssize_t sendNoSignal(int fd, const void* data, size_t size) { return ::send(fd, data, size, MSG_NOSIGNAL); }

int maxListenBacklog() {
    int value = 0;
    if (FILE* f = std::fopen("/proc/sys/net/core/somaxconn", "re")) {
        if (std::fscanf(f, "%d", &value) != 1) value = 0;
        std::fclose(f);
    }
    return value > 0 ? value : SOMAXCONN;
}

void ignoreBrokenPipes() { ::signal(SIGPIPE, SIG_IGN); }

}  // namespace lumora::Sockets
