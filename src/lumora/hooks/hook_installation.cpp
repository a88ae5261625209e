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

}  // namespace

const std::vector<Installer>& installers() {
    static const std::vector<Installer> list = {
        {"Claude Code", AttentionHooks::agentPresent, AttentionHooks::isInstalled, AttentionHooks::hasOurEntries,
         AttentionHooks::install, AttentionHooks::uninstall, AttentionHooks::plannedChanges},
        {"Codex", CodexHooks::agentPresent, CodexHooks::isInstalled, CodexHooks::hasOurEntries, CodexHooks::install,
         CodexHooks::uninstall, CodexHooks::plannedChanges},
        {"Cursor", CursorHooks::agentPresent, CursorHooks::isInstalled, CursorHooks::hasOurEntries,
         CursorHooks::install, CursorHooks::uninstall, CursorHooks::plannedChanges},
        {"Kimi", KimiHooks::agentPresent, KimiHooks::isInstalled, KimiHooks::hasOurEntries, KimiHooks::install,
         KimiHooks::uninstall, KimiHooks::plannedChanges},
        {"OpenCode", OpenCodeHooks::agentPresent, OpenCodeHooks::isInstalled, OpenCodeHooks::hasOurEntries,
         OpenCodeHooks::install, OpenCodeHooks::uninstall, OpenCodeHooks::plannedChanges},
    };
    return list;
}

std::vector<Outcome> enable(DefaultsStore& defaults) {
    defaults.setBool("hooksEnabled", true);
    std::vector<Outcome> outcomes;
    for (const auto& installer : installers()) {
        Outcome o{installer.agent, Outcome::Result::skipped};
        if (installer.agentPresent()) o.result = installer.install() ? Outcome::Result::done : Outcome::Result::failed;
        outcomes.push_back(o);
    }
    return outcomes;
}

std::vector<Outcome> disable(DefaultsStore& defaults) {
    defaults.setBool("hooksEnabled", false);
    std::vector<Outcome> outcomes;
    for (const auto& installer : installers()) {
        Outcome o{installer.agent, Outcome::Result::skipped};
        if (installer.hasOurEntries()) o.result = installer.uninstall() ? Outcome::Result::done : Outcome::Result::failed;
        outcomes.push_back(o);
    }
    return outcomes;
}

std::vector<std::string> refreshAtStart(DefaultsStore& defaults) {
    std::vector<std::string> refreshed;
    if (!defaults.boolean("hooksEnabled").value_or(false)) return refreshed;
    for (const auto& installer : installers()) {
        if (!installer.agentPresent() || installer.isInstalled()) continue;
        if (installer.install()) {
            spdlog::info("Lumora: refreshed the {} hooks", installer.agent);
            refreshed.push_back(installer.agent);
        }
    }
    return refreshed;
}

void writeConfigTest(std::ostream& out) {
    for (const auto& installer : installers()) {
        bool present = installer.agentPresent();
        bool ours = installer.hasOurEntries();
        bool current = installer.isInstalled();
        out << installer.agent << ": present " << yesNo(present) << ", installed " << yesNo(ours || current)
            << ", current " << yesNo(current) << "\n";
        if (installer.agent == "Codex") {
            if (auto problem = CodexHooks::trustProblem()) out << "  " << *problem << "\n";
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
