#include <malloc.h>

#include "lumora/platform/process_memory.hpp"

namespace lumora::ProcessMemory {

void returnLargeBlocksPromptly() {
    // A fixed threshold keeps glibc from raising it after the first large
    // free (which would keep every later window buffer in the heap), and a
    // small trim threshold returns the heap's free top.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    mallopt(M_TRIM_THRESHOLD, 1024 * 1024);
    mallopt(M_ARENA_MAX, 2);
}

}  // namespace lumora::ProcessMemory
