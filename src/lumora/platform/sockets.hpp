#pragma once

#include <sys/types.h>

#include <cstddef>

// Socket calls whose spelling differs between systems.
namespace lumora::Sockets {

// Writes to a connected stream socket without raising SIGPIPE when the peer
// has gone (the write fails with EPIPE instead). Returns what send() returns.
ssize_t sendNoSignal(int fd, const void* data, size_t size);

// The longest queue of pending connections a listening socket may have on
// this system (Linux: net.core.somaxconn), so a burst of clients waits in
// the queue instead of being turned away.
int maxListenBacklog();

// Ignores SIGPIPE for the whole process, so a write to a closed pipe or
// socket anywhere fails with EPIPE instead of killing us. Called once in main.
void ignoreBrokenPipes();

}  // namespace lumora::Sockets
