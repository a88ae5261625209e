#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// Running a helper program with its standard input fed from a string and its
// standard output captured (the hook self-test runs the hook programs this
// way). Standard error is discarded.
namespace lumora {

class ChildProcess {
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    // Starts `argv` (argv[0] found on PATH when not a path) with this
    // process's environment plus `overrides`; nothing when it cannot start.
    static std::unique_ptr<ChildProcess> spawn(const std::vector<std::string>& argv, std::string input,
                                               const Environment& overrides = {});

    virtual ~ChildProcess() = default;
    // Waits up to `timeout` for the process to end; true when it has.
    virtual bool wait(std::chrono::milliseconds timeout) = 0;
    // The exit code once ended normally, else -1.
    virtual int exitCode() const = 0;
    // Everything written to standard output (complete once `wait` returned true).
    virtual std::string output() const = 0;
    // Kills the process and reaps it.
    virtual void kill() = 0;
};

}  // namespace lumora
