#pragma once

#include <ostream>

namespace CLI {
class App;
}

// The command line's hook flags: --hooks-enable, --hooks-disable,
// --hooks-selftest, --hook-config-test, --uninstall [--dry-run].
namespace lumora::HooksCommand {

struct Flags {
    bool enable = false;
    bool disable = false;
    bool selfTest = false;
    bool configTest = false;
    bool uninstall = false;
    bool dryRun = false;
};

// Declares the flags on `app`, storing into `flags`.
void addFlags(CLI::App& app, Flags& flags);

// True when one of the flags asks for a hook command.
bool requested(const Flags& flags);

// Runs the requested command; returns the exit code. Misuse (e.g. --dry-run
// without --uninstall) prints one line on `err` and returns 2.
int run(const Flags& flags, std::ostream& out, std::ostream& err);

// Start-up: with hooks enabled, refreshes stale installations.
void refreshAtStart();

}  // namespace lumora::HooksCommand
