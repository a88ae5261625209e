#include <signal.h>
#include <sys/socket.h>

#include "lumora/platform/sockets.hpp"

namespace lumora::Sockets {

ssize_t sendNoSignal(int fd, const void* data, size_t size) { return ::send(fd, data, size, MSG_NOSIGNAL); }

void ignoreBrokenPipes() { ::signal(SIGPIPE, SIG_IGN); }

}  // namespace lumora::Sockets
