#include "lumora/app/command_line.hpp"

#include <CLI/CLI.hpp>
#include <iostream>

#include "lumora/app/approvals_command.hpp"
#include "lumora/app/desktop_wiring.hpp"
#include "lumora/app/face_commands.hpp"
#include "lumora/app/hooks_command.hpp"
#include "lumora/app/jump_command.hpp"
#include "lumora/app/login_item_command.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/base/log.hpp"
#include "lumora/app/processes_command.hpp"
#include "lumora/app/run_commands.hpp"
#include "lumora/app/spend_command.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/app/transcript_command.hpp"
#include "lumora/app/usage_command.hpp"
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
    app.add_flag("--demo", demo, "Open the view on scripted sessions (touches no agent or socket)");
    bool desktop = false, terminal = false;
    auto* desktopFlag = app.add_flag("--desktop", desktop,
                                     "Show the desktop pill (the default without a terminal when a display is there)");
    app.add_flag("--terminal", terminal, "Show the terminal view")->excludes(desktopFlag);
    bool approvals = false;
    std::string approvalToRemove;
    app.add_flag("--approvals", approvals, "List the always-allow approval rules with their ids");
    auto* removeApproval =
        app.add_option("--approvals-remove", approvalToRemove, "Remove the always-allow rule with this id");

    bool scan = false, json = false, noUI = false;
    app.add_flag("--scan", scan, "Scan once and print one line per session");
    bool spend = false, pricingRefresh = false;
    app.add_flag("--spend", spend, "Print today's, the week's and the month's token spend per agent");
    app.add_flag("--pricing-refresh", pricingRefresh, "Fetch the public model price lists now");
    app.add_flag("--json", json, "With --scan or --spend: print JSON");
    app.add_flag("--no-ui", noUI, "Run the monitor and the hook bridge without a screen, printing status changes");
    bool usageDoctor = false;
    app.add_flag("--usage-doctor", usageDoctor,
                 "Print the Claude logins found on this machine and one plan-usage line per provider");
    std::string transcript;
    app.add_option("--transcript", transcript,
                   "Print what the readers draw from one journal FILE (Claude Code, Codex, Cursor or a Kimi wire.jsonl)")
        ->option_text("FILE");
    std::string jumpTo;
    auto* jump = app.add_option("--jump", jumpTo, "Bring the terminal, pane or app of session ID to the front")
                     ->option_text("SESSION_ID");
    HooksCommand::Flags hookFlags;
    HooksCommand::addFlags(app, hookFlags);
    bool watch = false, statusLine = false, jumpNext = false;
    std::string format;
    app.add_flag("--watch", watch,
                 "Print the state as JSON lines, at once and on every change, until interrupted (from the running service if there is one)");
    app.add_flag("--status-line", statusLine, "Print one line for a status bar (tmux, polybar) and exit");
    app.add_option("--format", format, "With --watch or --status-line: json, waybar, plain or tmux")
        ->check(CLI::IsMember({"json", "waybar", "plain", "tmux"}))
        ->option_text("json|waybar|plain|tmux");
    app.add_flag("--jump-next", jumpNext, "Bring the session that most needs you to the front");
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
    if (json && !scan && !spend) {
        std::cerr << "lumora: --json goes with --scan or --spend\n";
        return 2;
    }

    if (!format.empty() && !watch && !statusLine) {
        std::cerr << "lumora: --format goes with --watch or --status-line\n";
        return 2;
    }
    if (watch && statusLine) {
        std::cerr << "lumora: --watch and --status-line do not go together\n";
        return 2;
    }

    if (paths) return printPaths();
    if (HooksCommand::requested(hookFlags)) return HooksCommand::run(hookFlags, std::cout, std::cerr);
    if (processes) return ProcessesCommand::run();
    if (demo && desktop) {
        Log::silence();
        return ui::runDesktopDemo(desktopOptions(SettingsStore::shared()));
    }
    if (demo) return ui::runDemo([] { return viewSettings(SettingsStore::shared()); });
    if (approvals) return ApprovalsCommand::list(ApprovalRulesStore::shared(), std::cout);
    if (removeApproval->count() > 0)
        return ApprovalsCommand::remove(ApprovalRulesStore::shared(), approvalToRemove, std::cout, std::cerr);
    if (!transcript.empty()) return TranscriptCommand::run(transcript, std::cout, std::cerr);
    if (usageDoctor) return UsageCommand::doctor(std::cout, SettingsStore::shared().openCodeGoCaps());
    if (jump->count() > 0) return JumpCommand::run(jumpTo, std::cout, std::cerr);
    if (!launchAtLogin.empty()) return LoginItemCommand::run(launchAtLogin, std::cout, std::cerr);

    if (pricingRefresh) return SpendCommand::refreshPricing(std::cout);
    if (spend) return SpendCommand::report(json, std::cout, std::cerr);
    if (scan) return RunCommands::scan(json);
    if (watch) return FaceCommands::watch(FaceCommands::formatNamed(format.empty() ? "json" : format).value());
    if (statusLine)
        return FaceCommands::statusLine(FaceCommands::formatNamed(format.empty() ? "plain" : format).value(), std::cout);
    if (jumpNext) return FaceCommands::jumpNext(std::cout, std::cerr);
    HooksCommand::refreshAtStart();
    if (noUI) return RunCommands::headless();
    return RunCommands::interactive(desktop    ? RunCommands::Face::desktop
                                    : terminal ? RunCommands::Face::terminal
                                               : RunCommands::Face::automatic);
}

}  // namespace lumora::CommandLine
