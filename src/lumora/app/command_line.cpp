#include "lumora/app/command_line.hpp"

#include <CLI/CLI.hpp>
#include <iostream>

#include "lumora/app/log.hpp"
#include "lumora/app/transcript_command.hpp"
#include "lumora/platform/paths.hpp"

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
    std::string transcript;
    app.add_option("--transcript", transcript, "Print what the Claude reader draws from one journal FILE")
        ->option_text("FILE");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    Log::toStderr();

    if (paths) return printPaths();
    if (!transcript.empty()) return TranscriptCommand::run(transcript, std::cout, std::cerr);

    std::cout << "lumora " << LUMORA_VERSION << ": nothing to do yet; try --help\n";
    return 0;
}

}  // namespace lumora::CommandLine
