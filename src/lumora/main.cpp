#include "lumora/app/command_line.hpp"
#include "lumora/platform/process_memory.hpp"

int main(int argc, char** argv) {
    lumora::ProcessMemory::returnLargeBlocksPromptly();
    return lumora::CommandLine::run(argc, argv);
}
