#pragma once

// How the process hands memory back. The monitor reads journal windows of up
// to 4 MiB every few seconds and lives for days, so a large buffer freed
// after a scan should go back to the system rather than stay in the heap.
namespace lumora::ProcessMemory {

// Asks the allocator to return large freed blocks at once. Call early in main.
void returnLargeBlocksPromptly();

}  // namespace lumora::ProcessMemory
