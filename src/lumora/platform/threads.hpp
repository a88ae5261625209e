#pragma once

#include <chrono>
#include <string_view>

// Thread facilities that differ between systems.
namespace lumora::Threads {

// Names the calling thread for debuggers and process listings (cut to what
// the system allows: 15 bytes on Linux).
void nameCurrent(std::string_view name);

// The processor time the calling thread has used so far.
std::chrono::nanoseconds cpuTimeOfCurrent();

}  // namespace lumora::Threads
