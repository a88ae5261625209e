#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace lumora {
class DefaultsStore;
}

// Every agent's hook installer behind one list, and what the app and the
// command line do with them: install on enable, remove on disable, refresh
// stale installations at start-up, and report on the configurations.
namespace lumora::HookInstallation {

struct Installer {
    std::string agent;  // "Claude Code", "Codex", "Cursor", "Kimi", "OpenCode"
    std::function<bool()> agentPresent;
    std::function<bool()> isInstalled;   // present and current
    std::function<bool()> hasOurEntries; // anything of ours in its configuration, current or not
    std::function<bool()> install;
    std::function<bool()> uninstall;
    std::function<std::vector<std::string>()> plannedChanges;
};

// The installers, in the order they are run and reported.
const std::vector<Installer>& installers();

struct Outcome {
    enum class Result { done, skipped, failed };
    std::string agent;
    Result result = Result::skipped;
    bool operator==(const Outcome&) const = default;
};

// Turns hooks on ("hooksEnabled" set) and installs for every agent that is present.
std::vector<Outcome> enable(DefaultsStore& defaults);
// Turns hooks off and removes our entries from every agent's configuration.
std::vector<Outcome> disable(DefaultsStore& defaults);
// With hooks enabled, reinstalls every present agent whose installation is
// missing or stale; returns the agents it refreshed. Does nothing when hooks are off.
std::vector<std::string> refreshAtStart(DefaultsStore& defaults);
// Per agent: present, installed, current, and what an install would change.
void writeConfigTest(std::ostream& out);

}  // namespace lumora::HookInstallation
