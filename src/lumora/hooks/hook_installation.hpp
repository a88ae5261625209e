#pragma once

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "lumora/base/status.hpp"
#include "lumora/hooks/hook_providers.hpp"

namespace lumora {
class DefaultsStore;
}

// Every agent's hook installer behind one interface, and what the app and the
// command line do with them: install on enable, remove on disable, refresh
// stale installations at start-up, report on the configurations; the
// uninstaller walks the same list.
namespace lumora::HookInstallation {

namespace fs = std::filesystem;

// One agent's installer. Each agent's namespace (AttentionHooks, CursorHooks,
// CodexHooks, KimiHooks, OpenCodeHooks) provides these functions.
struct Installer {
    HookProviders::Agent agent;
    Status (*install)();       // writes the program and our entries; says why it failed
    Status (*uninstall)();     // takes our entries out of the agent's configuration (OpenCode: the plugin)
    bool (*isInstalled)();     // present and current
    bool (*agentPresent)();    // the agent's folder exists
    bool (*hasOurEntries)();   // anything of ours in its configuration, current or not
    std::vector<std::string> (*plannedChanges)();  // what an install would change
    std::optional<std::string> (*problem)();       // why the agent would not run an install; may be null
    std::vector<fs::path> (*backups)();            // the copies we keep of its files; may be null

    const HookProviders::Provider& provider() const { return HookProviders::of(agent); }
    std::string name() const { return std::string(provider().name); }
};

// The installers, in the order they are run and reported.
const std::vector<Installer>& installers();

struct Outcome {
    enum class Result { done, skipped, failed };
    std::string agent;
    Result result = Result::skipped;
    std::string why;  // when failed
    bool operator==(const Outcome&) const = default;
};

struct Report {
    // Saving "hooksEnabled"; when it failed, no agent was touched.
    Status setting;
    std::vector<Outcome> outcomes;
    bool ok() const;
};

// Turns hooks on ("hooksEnabled" set) and installs for every agent that is present.
Report enable(DefaultsStore& defaults);
// Turns hooks off and removes our entries from every agent's configuration.
Report disable(DefaultsStore& defaults);
// With hooks enabled, reinstalls every present agent whose installation is
// missing or stale; returns the agents it refreshed (a failure is logged with
// its reason). Does nothing when hooks are off.
std::vector<std::string> refreshAtStart(DefaultsStore& defaults);
// Per agent: present, installed, current, and what an install would change.
void writeConfigTest(std::ostream& out);

}  // namespace lumora::HookInstallation
