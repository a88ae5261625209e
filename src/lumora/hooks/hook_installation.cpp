#include "lumora/hooks/hook_installation.hpp"

#include <spdlog/spdlog.h>

#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/attention_hooks.hpp"
#include "lumora/hooks/codex_hooks.hpp"
#include "lumora/hooks/cursor_hooks.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/opencode_hooks.hpp"

namespace lumora::HookInstallation {

namespace {

const char* yesNo(bool b) { return b ? "yes" : "no"; }

// Runs `step` for every installer that `applies`, after saving the setting.
Report forEach(DefaultsStore& defaults, bool enabled, bool (*Installer::*applies)(), Status (*Installer::*step)()) {
    Report report;
    report.setting = defaults.setBool("hooksEnabled", enabled);
    if (!report.setting) return report;
    for (const auto& installer : installers()) {
        Outcome o{installer.name(), Outcome::Result::skipped, {}};
        if ((installer.*applies)()) {
            Status s = (installer.*step)();
            o.result = s ? Outcome::Result::done : Outcome::Result::failed;
            o.why = s.why;
        }
        report.outcomes.push_back(std::move(o));
    }
    return report;
}

}  // namespace

const std::vector<Installer>& installers() {
    using HookProviders::Agent;
    static const std::vector<Installer> list = {
        {Agent::claudeCode, AttentionHooks::install, AttentionHooks::uninstall, AttentionHooks::isInstalled,
         AttentionHooks::agentPresent, AttentionHooks::hasOurEntries, AttentionHooks::plannedChanges, nullptr,
         AttentionHooks::backups},
        {Agent::cursor, CursorHooks::install, CursorHooks::uninstall, CursorHooks::isInstalled,
         CursorHooks::agentPresent, CursorHooks::hasOurEntries, CursorHooks::plannedChanges, nullptr,
         CursorHooks::backups},
        {Agent::codex, CodexHooks::install, CodexHooks::uninstall, CodexHooks::isInstalled, CodexHooks::agentPresent,
         CodexHooks::hasOurEntries, CodexHooks::plannedChanges, CodexHooks::trustProblem, CodexHooks::backups},
        {Agent::kimi, KimiHooks::install, KimiHooks::uninstall, KimiHooks::isInstalled, KimiHooks::agentPresent,
         KimiHooks::hasOurEntries, KimiHooks::plannedChanges, nullptr, KimiHooks::backups},
        {Agent::openCode, OpenCodeHooks::install, OpenCodeHooks::uninstall, OpenCodeHooks::isInstalled,
         OpenCodeHooks::agentPresent, OpenCodeHooks::hasOurEntries, OpenCodeHooks::plannedChanges, nullptr,
         nullptr},
    };
    return list;
}

bool Report::ok() const {
    if (!setting) return false;
    for (const auto& o : outcomes) {
        if (o.result == Outcome::Result::failed) return false;
    }
    return true;
}

Report enable(DefaultsStore& defaults) {
    return forEach(defaults, true, &Installer::agentPresent, &Installer::install);
}

Report disable(DefaultsStore& defaults) {
    return forEach(defaults, false, &Installer::hasOurEntries, &Installer::uninstall);
}

std::vector<std::string> refreshAtStart(DefaultsStore& defaults) {
    std::vector<std::string> refreshed;
    if (!defaults.boolean("hooksEnabled").value_or(false)) return refreshed;
    for (const auto& installer : installers()) {
        if (!installer.agentPresent() || installer.isInstalled()) continue;
        if (Status s = installer.install(); !s) {
            spdlog::warn("Lumora: couldn't refresh the {} hooks: {}", installer.name(), s.why);
            continue;
        }
        spdlog::info("Lumora: refreshed the {} hooks", installer.name());
        refreshed.push_back(installer.name());
    }
    return refreshed;
}

void writeConfigTest(std::ostream& out) {
    for (const auto& installer : installers()) {
        bool present = installer.agentPresent();
        bool ours = installer.hasOurEntries();
        bool current = installer.isInstalled();
        out << installer.name() << ": present " << yesNo(present) << ", installed " << yesNo(ours || current)
            << ", current " << yesNo(current) << "\n";
        if (installer.problem) {
            if (auto problem = installer.problem()) out << "  " << *problem << "\n";
        }
        auto changes = installer.plannedChanges();
        if (changes.empty()) out << "  an install would change nothing\n";
        for (const auto& change : changes) {
            if (change.rfind("none: ", 0) == 0) out << "  an install would change nothing: " << change.substr(6) << "\n";
            else out << "  an install would " << change << "\n";
        }
    }
}

}  // namespace lumora::HookInstallation
