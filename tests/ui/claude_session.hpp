#pragma once

// A live Claude Code session for the terminal view's end-to-end tests: a
// process named claude with its session file and journal (mid-turn, a
// command waiting), the hooks installed by `lumora --hooks-enable`, and the
// real Claude Code hook program run on a permission prompt.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <future>
#include <nlohmann/json.hpp>

#include "lumora/platform/process_table.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "hooks/socket_client.hpp"
#include "support/test_support.hpp"

namespace lumora::test {

using Json = nlohmann::json;
using namespace std::chrono_literals;

inline const std::string kSession = "8d3f2a10-4b5c-4d6e-8f70-112233445566";

inline std::string isoAgo(std::chrono::seconds ago) {
    auto t = std::chrono::system_clock::now() - ago;
    std::time_t secs = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    ::gmtime_r(&secs, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S.000Z", &tm);
    return buf;
}

struct App {
    TempHome home;
    fs::path project = home / "webshop";
    fs::path socket = home / "run/notch.sock";
    std::string env;
    std::unique_ptr<ChildProcess> claude;

    App() {
        fs::create_directories(project);
        runCommand("cd '" + project.string() + "' && git init -q -b checkout-flow");
        fs::create_directories(home / "run");
        ::chmod((home / "run").c_str(), 0700);
        env = "env HOME=" + home.path().string() + " XDG_CONFIG_HOME=" + (home / ".config").string() +
              " XDG_DATA_HOME=" + (home / ".local/share").string() + " LUMORA_SOCKET=" + socket.string() +
              " TERM=xterm-256color LANG=C.UTF-8 ";
        fs::create_directories(home / "bin");
        fs::copy_file("/bin/sleep", home / "bin/claude");
        claude = std::make_unique<ChildProcess>(home / "bin/claude", std::vector<std::string>{"claude", "300"}, project);
        Json record = {{"pid", claude->pid()}, {"sessionId", kSession}, {"cwd", project.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(
                                         ProcessTable::system().snapshot().find(claude->pid())->start->time_since_epoch())
                                         .count()}};
        writeFile(home / ".claude/sessions" / (std::to_string(claude->pid()) + ".json"), record.dump());
        // Mid-turn: the model asked to run a command and waits for it.
        Json prompt = {{"type", "user"}, {"message", {{"role", "user"}, {"content", "Run the checks"}}},
                       {"timestamp", isoAgo(std::chrono::seconds(3))}, {"sessionId", kSession}};
        Json call = {{"type", "assistant"},
                     {"message",
                      {{"id", "msg_1"}, {"role", "assistant"}, {"model", "claude-opus-5-5"},
                       {"content", Json::array({{{"type", "tool_use"}, {"id", "toolu_1"}, {"name", "Bash"},
                                                 {"input", {{"command", "git status && npm test"}}}}})},
                       {"stop_reason", "tool_use"},
                       {"usage", {{"input_tokens", 900}, {"cache_read_input_tokens", 20000}}}}},
                     {"timestamp", isoAgo(std::chrono::seconds(2))}, {"sessionId", kSession}};
        writeFile(scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", project.string(), kSession),
                  prompt.dump() + "\n" + call.dump() + "\n");
        auto enable = runCommand(env + lumoraBinary().string() + " --hooks-enable 2>&1");
        EXPECT_EQ(enable.status, 0) << enable.output;
    }

    // The gate command Claude Code would run, as --hooks-enable wrote it.
    std::string gateCommand() const {
        auto settings = Json::parse(readFile(home / ".claude/settings.json"));
        return settings["hooks"]["PermissionRequest"][0]["hooks"][0]["command"].get<std::string>();
    }

    // Runs the real hook program on a permission prompt, the way Claude Code does.
    std::future<CommandResult> permission(const std::string& command) const {
        Json input = {{"session_id", kSession},
                      {"transcript_path", "/dev/null"},
                      {"cwd", project.string()},
                      {"hook_event_name", "PermissionRequest"},
                      {"tool_name", "Bash"},
                      {"tool_input", {{"command", command}, {"description", "Run the checks"}}}};
        auto file = home / ("input-" + std::to_string(std::rand()) + ".json");
        writeFile(file, input.dump());
        // A hook that never hears back must not outlive the test.
        std::string cmd = env + "timeout 30 " + gateCommand() + " < '" + file.string() + "'";
        return std::async(std::launch::async, [cmd] { return runCommand(cmd); });
    }
};

inline std::string behaviorOf(std::future<CommandResult>& f) {
    if (f.wait_for(30s) != std::future_status::ready) return "(no answer)";
    auto r = f.get();
    auto printed = Json::parse(r.output, nullptr, false);
    if (r.status != 0) return "(exit " + std::to_string(r.status) + ")";
    if (printed.is_discarded()) return "(no decision: " + r.output + ")";
    return printed["hookSpecificOutput"]["decision"]["behavior"].get<std::string>();
}

}  // namespace lumora::test
