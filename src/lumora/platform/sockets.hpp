#pragma once

#include <sys/types.h>

#include <cstddef>

// Socket calls whose spelling differs between systems.
namespace lumora::Sockets {

// Writes to a connected stream socket without raising SIGPIPE when the peer
// has gone (the write fails with EPIPE instead). Returns what send() returns.
ssize_t sendNoSignal(int fd, const void* data, size_t size);

// Ignores SIGPIPE for the whole process, so a write to a closed pipe or
// socket anywhere fails with EPIPE instead of killing us. Called once in main.
void ignoreBrokenPipes();

}  // namespace lumora::Sockets
