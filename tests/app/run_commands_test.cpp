// The command line's ways to run the monitor, as the real binary with real
// session files and processes in a temporary home: `--scan`, `--scan --json`
// and `--no-ui`, including the files and names that used to hang or abort
// them, a stop signal while running, and settings changed by another process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "lumora/app/lumora_app.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/platform/paths.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

const std::string kSession = "7c1d2e3f-4a5b-4c6d-8e7f-901234567890";
const std::string kOddSession = "7c1d2e3f-4a5b-4c6d-8e7f-901234567891";

std::string isoAgo(std::chrono::seconds ago) {
    auto t = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() - ago);
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S.000Z", &tm);
    return buf;
}

std::string journal(const std::string& session, const std::string& prompt, const std::string& reply) {
    return Json{{"type", "user"}, {"sessionId", session}, {"timestamp", isoAgo(20s)},
                {"message", {{"role", "user"}, {"content", prompt}}}}
               .dump() + "\n" +
           Json{{"type", "assistant"}, {"sessionId", session}, {"timestamp", isoAgo(10s)},
                {"message", {{"role", "assistant"}, {"model", "claude-opus-5-5"}, {"stop_reason", "end_turn"},
                             {"content", {{{"type", "text"}, {"text", reply}}}},
                             {"usage", {{"input_tokens", 1000}, {"cache_read_input_tokens", 41000}}}}}}
               .dump() + "\n";
}

// A temporary home with two Claude Code sessions, each a real process named
// `claude`: one paired through the session index in "proj" on branch "main",
// one paired by recency in a folder whose name is not UTF-8, on a branch whose
// name is not either. FIFOs stand where a journal and a session file could be.
struct Machine {
    TempHome home;
    fs::path project = home / "proj";
    fs::path odd = home / "caf\xe9";
    std::unique_ptr<ChildProcess> claude, oddClaude;

    Machine() {
        auto program = sleeperNamed(home / "bin", "claude");
        for (const auto& dir : {project, odd}) {
            fs::create_directories(dir / ".git/refs/heads");
            writeFile(dir / ".git/HEAD", dir == project ? "ref: refs/heads/main\n" : "ref: refs/heads/feat-\xe9t\xe9\n");
        }
        claude = std::make_unique<ChildProcess>(program, std::vector<std::string>{"claude", "120"}, project);
        oddClaude = std::make_unique<ChildProcess>(program, std::vector<std::string>{"claude", "120"}, odd);
        auto start = ProcessTable::system().snapshot().find(claude->pid())->start.value();
        Json record = {{"pid", claude->pid()}, {"sessionId", kSession}, {"cwd", project.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()},
                       {"status", "idle"}};
        auto projects = home / ".claude/projects";
        writeFile(home / ".claude/sessions" / (std::to_string(claude->pid()) + ".json"), record.dump());
        writeFile(scrivet::ClaudeTranscriptReader::transcriptURL(projects, project.string(), kSession),
                  journal(kSession, "tidy the readme", "Tidied. Anything else?"));
        writeFile(scrivet::ClaudeTranscriptReader::transcriptURL(projects, odd.string(), kOddSession),
                  journal(kOddSession, "fix the caf\xc3\xa9 menu", "Fixed."));
        // Hostile shapes: a FIFO named like a journal, and one like a session file.
        fs::create_directories(projects / "-tmp-elsewhere");
        EXPECT_EQ(::mkfifo((projects / "-tmp-elsewhere/0bad0bad-0000-4000-8000-000000000000.jsonl").c_str(), 0600), 0);
        EXPECT_EQ(::mkfifo((home / ".claude/sessions/1.json").c_str(), 0600), 0);
    }
};

// Runs the binary with a time limit: a hang shows as exit status 124.
CommandResult runLumora(const std::string& args) {
    return runCommand("timeout 30 '" + lumoraBinary().string() + "' " + args + " 2>/dev/null");
}

// A child `lumora` writing its output to a file.
struct Running {
    pid_t pid = -1;
    fs::path output;
    Running(const std::string& args, const fs::path& out) : output(out) {
        const std::string binary = lumoraBinary().string();  // nothing is allocated after fork
        pid = ::fork();
        if (pid == 0) {
            int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(fd, STDERR_FILENO);
            ::execl(binary.c_str(), "lumora", args.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~Running() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    bool waitForOutput(const std::string& text, std::chrono::seconds timeout = 20s) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (readFile(output).find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(20ms);  // polling the file for the condition
        }
        return false;
    }
    // Waits for the process to end; its exit status, or nothing past `timeout`.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return status;
            }
            std::this_thread::sleep_for(5ms);
        }
        return std::nullopt;
    }
};

}  // namespace

TEST(RunCommands, ScanPrintsEverySessionWhateverTheFilesAndNames) {
    Machine m;
    auto plain = runLumora("--scan");
    ASSERT_EQ(plain.status, 0) << plain.output;
    EXPECT_NE(plain.output.find("Needs you       Claude Code proj"), std::string::npos) << plain.output;
    EXPECT_NE(plain.output.find("main"), std::string::npos) << plain.output;
    EXPECT_NE(plain.output.find("Opus 5.5       42k ctx"), std::string::npos) << plain.output;
    EXPECT_NE(plain.output.find("caf\xef\xbf\xbd"), std::string::npos) << "the folder's name, repaired: " << plain.output;
    // A row is about its topic, the user's own words, once it has one.
    EXPECT_NE(plain.output.find("fix the caf\xc3\xa9 menu"), std::string::npos) << plain.output;

    auto json = runLumora("--scan --json");
    ASSERT_EQ(json.status, 0) << json.output;
    auto rows = JsonText::parse(json.output);
    ASSERT_TRUE(rows && rows->is_array()) << json.output;  // other tests' processes may show too
    std::map<std::string, nlohmann::ordered_json> byId;
    for (const auto& r : *rows) byId[r["id"].get<std::string>()] = r;
    ASSERT_TRUE(byId.count(kSession) && byId.count(kOddSession)) << json.output;
    EXPECT_EQ(byId[kSession]["status"], "attention");  // the finished turn ends on a question
    EXPECT_EQ(byId[kSession]["pid"], m.claude->pid());
    EXPECT_EQ(byId[kSession]["gitBranch"], "main");
    EXPECT_EQ(byId[kSession]["contextTokens"], 42000);
    EXPECT_EQ(byId[kOddSession]["status"], "waiting");
    EXPECT_EQ(byId[kOddSession]["gitBranch"], "feat-\xef\xbf\xbdt\xef\xbf\xbd");
    EXPECT_EQ(byId[kOddSession]["summary"], "Fixed.");
}

TEST(RunCommands, NoUiPrintsStatusChangesAndEndsPromptlyOnAStopSignal) {
    Machine m;
    Running run("--no-ui", m.home / "no-ui.out");
    EXPECT_TRUE(run.waitForOutput("Needs you")) << readFile(run.output);
    EXPECT_TRUE(run.waitForOutput("fix the caf\xc3\xa9 menu")) << readFile(run.output);
    auto out = readFile(run.output);
    EXPECT_NE(out.find("caf\xef\xbf\xbd"), std::string::npos) << out;
    auto sent = std::chrono::steady_clock::now();
    ::kill(run.pid, SIGTERM);
    auto status = run.waitForExit(2s);
    ASSERT_TRUE(status) << "still running 2 s after SIGTERM";
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 2s);
    EXPECT_TRUE(WIFEXITED(*status)) << *status;
}

TEST(RunCommands, SettingsChangedByAnotherProcessReachTheRunningApp) {
    TempHome home;
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    ScopedEnv socket("LUMORA_SOCKET", (home / "run/notch.sock").string());
    LumoraApp app;
    app.start(false);
    auto& loop = RunLoop::main();
    ASSERT_TRUE(loop.runUntil([&] { return app.monitor().publishCount() >= 1; }, 10s));
    EXPECT_NE(app.monitor().scheduledRefreshInterval()->count(), 10);  // hooks off: the 2 or 8 s poll

    // `--hooks-enable` in a second terminal.
    auto enabled = runCommand("'" + lumoraBinary().string() + "' --hooks-enable 2>&1");
    ASSERT_EQ(enabled.status, 0) << enabled.output;
    EXPECT_TRUE(loop.runUntil([&] { return app.monitor().settings().hooksEnabled; }, 10s));
    EXPECT_EQ(app.monitor().scheduledRefreshInterval()->count(), 10);

    // A hand edit of the defaults file.
    auto file = Paths::defaultsFile();
    auto stored = JsonText::parse(readFile(file));
    ASSERT_TRUE(stored);
    (*stored)["hooksEnabled"] = false;
    (*stored)["idleTimeoutMinutes"] = 5;
    writeFile(file, JsonText::dump(*stored, 2));
    EXPECT_TRUE(loop.runUntil([&] { return !app.monitor().settings().hooksEnabled; }, 10s));
    EXPECT_EQ(app.monitor().settings().idleTimeoutMinutes, 5);
    EXPECT_NE(app.monitor().scheduledRefreshInterval()->count(), 10);
    app.stop();
}
