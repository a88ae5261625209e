#include "lumora/app/command_line.hpp"
#include "lumora/platform/process_memory.hpp"
#include "lumora/platform/sockets.hpp"

int main(int argc, char** argv) {
    lumora::ProcessMemory::returnLargeBlocksPromptly();
    // A hook that hangs up before its answer is written must not kill us: every
    // write to a pipe or socket reports EPIPE instead.
    lumora::Sockets::ignoreBrokenPipes();
    return lumora::CommandLine::run(argc, argv);
}
