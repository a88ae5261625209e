#include "lumora/app/command_line.hpp"

#include <CLI/CLI.hpp>
#include <iostream>

#include "lumora/app/approvals_command.hpp"
#include "lumora/app/hooks_command.hpp"
#include "lumora/app/login_item_command.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/base/log.hpp"
#include "lumora/app/processes_command.hpp"
#include "lumora/app/run_commands.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/app/transcript_command.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/ui/terminal_app.hpp"

namespace lumora::CommandLine {

namespace {

int printPaths() {
    size_t width = 0;
    for (const auto& e : Paths::all()) width = std::max(width, e.name.size());
    for (const auto& e : Paths::all()) {
        std::cout << e.name << std::string(width - e.name.size() + 2, ' ') << e.path.string() << "\n";
    }
    return 0;
}

}  // namespace

int run(int argc, char** argv) {
    CLI::App app{"Lumora watches the AI coding agents running on this machine.", "lumora"};
    app.set_version_flag("--version", std::string("lumora ") + LUMORA_VERSION);
    bool paths = false;
    app.add_flag("--paths", paths, "Print every folder and file Lumora uses");
    bool processes = false;
    app.add_flag("--processes", processes, "Print every agent process with its session, host and repository");
    bool demo = false;
    app.add_flag("--demo", demo, "Open the terminal view on scripted sessions (touches no agent or socket)");
    bool approvals = false;
    std::string approvalToRemove;
    app.add_flag("--approvals", approvals, "List the always-allow approval rules with their ids");
    auto* removeApproval =
        app.add_option("--approvals-remove", approvalToRemove, "Remove the always-allow rule with this id");

    bool scan = false, json = false, noUI = false;
    app.add_flag("--scan", scan, "Scan once and print one line per session");
    app.add_flag("--json", json, "With --scan: print the sessions as JSON")->needs("--scan");
    app.add_flag("--no-ui", noUI, "Run the monitor and the hook bridge without a screen, printing status changes");
    std::string transcript;
    app.add_option("--transcript", transcript, "Print what the Claude reader draws from one journal FILE")
        ->option_text("FILE");
    HooksCommand::Flags hookFlags;
    HooksCommand::addFlags(app, hookFlags);
    std::string launchAtLogin;
    app.add_option("--launch-at-login", launchAtLogin, "Start Lumora when you log in (on) or not (off)")
        ->check(CLI::IsMember({"on", "off"}))
        ->option_text("on|off");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    Log::toStderr();

    if (paths) return printPaths();
    if (HooksCommand::requested(hookFlags)) return HooksCommand::run(hookFlags, std::cout, std::cerr);
    if (processes) return ProcessesCommand::run();
    if (demo) return ui::runDemo([] { return viewSettings(SettingsStore::shared()); });
    if (approvals) return ApprovalsCommand::list(ApprovalRulesStore::shared(), std::cout);
    if (removeApproval->count() > 0)
        return ApprovalsCommand::remove(ApprovalRulesStore::shared(), approvalToRemove, std::cout, std::cerr);
    if (!transcript.empty()) return TranscriptCommand::run(transcript, std::cout, std::cerr);
    if (!launchAtLogin.empty()) return LoginItemCommand::run(launchAtLogin, std::cout, std::cerr);

    if (scan) return RunCommands::scan(json);
    HooksCommand::refreshAtStart();
    if (noUI) return RunCommands::headless();
    return RunCommands::interactive();
}

}  // namespace lumora::CommandLine
