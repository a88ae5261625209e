#include "lumora/app/hooks_command.hpp"

#include <CLI/CLI.hpp>

#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/hook_installation.hpp"
#include "lumora/hooks/hook_self_test.hpp"
#include "lumora/hooks/uninstaller.hpp"

namespace lumora::HooksCommand {

void addFlags(CLI::App& app, Flags& flags) {
    app.add_flag("--hooks-enable", flags.enable, "Install the hooks into every agent found and turn hooks on");
    app.add_flag("--hooks-disable", flags.disable, "Remove the hooks from every agent's configuration and turn hooks off");
    app.add_flag("--hooks-selftest", flags.selfTest, "Run each hook program against a private bridge and check it");
    app.add_flag("--hook-config-test", flags.configTest,
                 "Show per agent whether the hooks are present, installed and current");
    app.add_flag("--uninstall", flags.uninstall, "Remove everything Lumora put on this machine");
    app.add_flag("--dry-run", flags.dryRun, "With --uninstall: only show what would be removed");
}

bool requested(const Flags& f) { return f.enable || f.disable || f.selfTest || f.configTest || f.uninstall || f.dryRun; }

int run(const Flags& f, std::ostream& out, std::ostream& err) {
    int chosen = int(f.enable) + int(f.disable) + int(f.selfTest) + int(f.configTest) + int(f.uninstall);
    if (f.dryRun && !f.uninstall) {
        err << "lumora: --dry-run goes with --uninstall\n";
        return 2;
    }
    if (chosen > 1) {
        err << "lumora: choose one of --hooks-enable, --hooks-disable, --hooks-selftest, --hook-config-test, "
               "--uninstall\n";
        return 2;
    }
    if (f.uninstall) {
        auto steps = Uninstaller::run(f.dryRun, out);
        for (const auto& s : steps) {
            if (s.outcome == Uninstaller::Outcome::failed) return 1;
        }
        return 0;
    }
    if (f.configTest) {
        HookInstallation::writeConfigTest(out);
        return 0;
    }
    if (f.selfTest) return HookSelfTest::runCommand(out, err);

    auto report = f.enable ? HookInstallation::enable(DefaultsStore::shared())
                           : HookInstallation::disable(DefaultsStore::shared());
    if (!report.setting) {
        err << "lumora: hooks left " << (f.enable ? "off" : "on") << ": " << report.setting.why << "\n";
        return 1;
    }
    std::vector<std::string> failed;
    for (const auto& o : report.outcomes) {
        out << o.agent << ": ";
        switch (o.result) {
            case HookInstallation::Outcome::Result::done: out << (f.enable ? "installed" : "removed"); break;
            case HookInstallation::Outcome::Result::skipped:
                out << (f.enable ? "not found on this machine, skipped" : "nothing of ours, left as it is");
                break;
            case HookInstallation::Outcome::Result::failed:
                out << "FAILED — " << o.why;
                failed.push_back(o.agent);
                break;
        }
        out << "\n";
    }
    if (failed.empty()) {
        out << (f.enable ? "Hooks enabled." : "Hooks disabled.") << "\n";
        return 0;
    }
    std::string names;
    for (const auto& name : failed) names += (names.empty() ? "" : ", ") + name;
    out << (f.enable ? "Hooks are on, but not installed for: " : "Hooks are off, but our entries are still in: ")
        << names << ".\n";
    return 1;
}

void refreshAtStart() { HookInstallation::refreshAtStart(DefaultsStore::shared()); }

}  // namespace lumora::HooksCommand
