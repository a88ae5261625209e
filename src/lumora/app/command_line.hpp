#pragma once

// The `lumora` command: parses the flags, runs the diagnostic or operational
// command they name, and returns the process's exit code. Misuse prints one
// clear message on standard error and exits non-zero.
namespace lumora::CommandLine {

int run(int argc, char** argv);

}  // namespace lumora::CommandLine
