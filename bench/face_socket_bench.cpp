// The service and its faces, over the real face socket: how long a change
// takes to reach every one of 20 attached faces (encoded, written, read and
// decoded by each), how long `lumora --status-line` takes as a whole process
// with a service running, and what a face that never reads costs the service.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <time.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.hpp"
#include "lumora/app/front_protocol.hpp"
#include "lumora/base/log.hpp"
#include "lumora/hooks/front_connection.hpp"
#include "lumora/hooks/front_socket_server.hpp"
#include "lumora/hooks/hook_client.hpp"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using namespace lumora;

// A busy afternoon: 30 sessions of every agent, with summaries, topics and an approval.
FrontProtocol::State busyState(int change) {
    FrontProtocol::State s;
    s.pid = ::getpid();
    const HarnessProvider providers[] = {HarnessProvider::claudeCode, HarnessProvider::codex, HarnessProvider::cursor,
                                         HarnessProvider::kimi, HarnessProvider::opencode};
    const AgentStatus statuses[] = {AgentStatus::working, AgentStatus::idle, AgentStatus::waiting, AgentStatus::attention};
    for (int i = 0; i < 30; ++i) {
        AgentInstance a;
        a.id = "8d3f2a10-4b5c-4d6e-8f70-" + std::to_string(100000000000 + i);
        a.provider = providers[i % 5];
        a.pid = 40000 + i;
        a.projectName = "project-" + std::to_string(i);
        a.cwd = "/home/dev/src/" + a.projectName;
        a.gitBranch = "feature/checkout-flow-" + std::to_string(i);
        a.status = statuses[(i + change) % 4];
        a.summary = "Refactoring the payment module and running the tests after change " + std::to_string(change);
        a.topic = "Checkout flow";
        a.lastActivity = std::chrono::system_clock::now();
        a.model = "claude-opus-5-5";
        a.contextTokens = 84000 + i;
        a.contextMax = 200000;
        a.subagentCount = i % 3;
        if (i == 0) {
            ApprovalRequest r;
            r.sessionId = a.id;
            r.toolName = "Bash";
            r.detail = "npm test -- --runInBand";
            r.approvable = true;
            r.gateId = static_cast<uint64_t>(change + 1);
            a.approval = r;
        }
        s.sessions.push_back(std::move(a));
    }
    return s;
}

class NoCommands : public FrontSocketServer::Handler {
    void onLines(FrontSocketServer::ClientId, std::vector<std::string>, std::function<void()> done) override { done(); }
    void onClosed(FrontSocketServer::ClientId) override {}
};

fs::path privateFolder(const std::string& name) {
    fs::path dir = bench::scratch(name) / "run";
    fs::create_directories(dir);
    ::chmod(dir.c_str(), 0700);
    return dir;
}

// A change to every client: the service encodes the state once and
// broadcasts it; each of 20 faces reads it on its own thread and decodes it,
// as an attached view does. Time from the change until the last face has it.
void BM_ChangeReachesTwentyFaces(benchmark::State& state) {
    Log::silence();
    constexpr int kFaces = 20;
    NoCommands handler;
    FrontSocketServer server(privateFolder("faces") / "notch.faces.sock", handler);
    if (!server.start()) {
        state.SkipWithError("the face socket did not start");
        return;
    }
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<int> seen(kFaces, -1);  // the change each face decoded last
    std::vector<std::unique_ptr<FrontConnection>> faces;
    for (int i = 0; i < kFaces; ++i) {
        auto c = FrontConnection::connect(server.socketPath());
        if (!c) {
            state.SkipWithError("a face could not connect");
            return;
        }
        c->start(
            [&, i](std::string line) {
                auto decoded = FrontProtocol::decodeState(line);
                if (!decoded || decoded->sessions.empty()) return;
                int change = static_cast<int>(decoded->sessions[0].approval->gateId) - 1;
                std::lock_guard lock(mutex);
                seen[i] = change;
                cv.notify_all();
            },
            [] {});
        faces.push_back(std::move(c));
    }
    while (server.clientCount() < kFaces) std::this_thread::sleep_for(1ms);
    int change = 0;
    size_t bytes = 0;
    std::vector<double> millis;
    for (auto _ : state) {
        ++change;
        auto start = Clock::now();
        std::string line = FrontProtocol::encodeState(busyState(change), std::chrono::system_clock::now());
        bytes = line.size();
        server.broadcast(std::move(line));
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] {
            for (int s : seen)
                if (s != change) return false;
            return true;
        });
        double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        millis.push_back(elapsed * 1000);
    }
    std::sort(millis.begin(), millis.end());
    state.counters["line_KiB"] = static_cast<double>(bytes) / 1024;
    state.counters["median_ms"] = millis[millis.size() / 2];
    state.counters["max_ms"] = millis.back();
    for (auto& f : faces) f->close();
    server.stop();
}
BENCHMARK(BM_ChangeReachesTwentyFaces)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(200);

pid_t spawn(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// `lumora --status-line` as tmux runs it, whole process, while `lumora
// --no-ui` serves (both in a scratch home).
void BM_StatusLineWithAServiceRunning(benchmark::State& state) {
    fs::path home = bench::scratch("status-line");
    fs::path run = privateFolder("status-line");
    fs::path socket = run / "notch.sock";
    ::setenv("HOME", home.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home / ".config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (home / ".local/share").c_str(), 1);
    ::setenv("LUMORA_SOCKET", socket.c_str(), 1);
    pid_t service = spawn({LUMORA_BINARY, "--no-ui"});
    auto deadline = Clock::now() + 20s;
    while (Clock::now() < deadline && !fs::exists(FrontSocketServer::pathBeside(socket))) std::this_thread::sleep_for(10ms);
    if (service < 0 || !fs::exists(FrontSocketServer::pathBeside(socket))) {
        state.SkipWithError("the service did not start");
        if (service > 0) ::kill(service, SIGKILL);
        return;
    }
    std::vector<double> millis;
    for (auto _ : state) {
        auto start = Clock::now();
        pid_t pid = spawn({LUMORA_BINARY, "--status-line", "--format", "tmux"});
        int status = 0;
        ::waitpid(pid, &status, 0);
        double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        millis.push_back(elapsed * 1000);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("--status-line failed");
    }
    std::sort(millis.begin(), millis.end());
    state.counters["median_ms"] = millis[millis.size() / 2];
    state.counters["max_ms"] = millis.back();
    ::kill(service, SIGTERM);
    ::waitpid(service, nullptr, 0);
}
BENCHMARK(BM_StatusLineWithAServiceRunning)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(50);

double cpuMs(clockid_t clock) {
    timespec t{};
    ::clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}
// The processor time of every thread but this one: the server's own.
double serverCpuMs() { return cpuMs(CLOCK_PROCESS_CPUTIME_ID) - cpuMs(CLOCK_THREAD_CPUTIME_ID); }

// The service's processor time per change with one reading face, beside 0
// or 1 faces that connected and never read (the stalled one is never dropped
// here: its timeout is an hour). The counter server_cpu_us_per_change (the
// server thread's time; this thread reads for the reading face) should not grow.
void BM_ServiceCpuWithAFaceThatNeverReads(benchmark::State& state) {
    Log::silence();
    NoCommands handler;
    FrontSocketServer::Limits limits;
    limits.stallTimeout = std::chrono::hours(1);
    FrontSocketServer server(privateFolder("stalled-" + std::to_string(state.range(0))) / "notch.faces.sock", handler,
                             limits);
    if (!server.start()) {
        state.SkipWithError("the face socket did not start");
        return;
    }
    std::vector<std::unique_ptr<FrontConnection>> sleepers;
    for (int i = 0; i < state.range(0); ++i) sleepers.push_back(FrontConnection::connect(server.socketPath()));
    auto reader = FrontConnection::connect(server.socketPath());
    while (server.clientCount() < static_cast<size_t>(state.range(0) + 1)) std::this_thread::sleep_for(1ms);
    // Lines as large as a busy state (the stalled face's socket fills after a few).
    std::string base = FrontProtocol::encodeState(busyState(0), std::chrono::system_clock::now());
    base.pop_back();
    std::string padding(200 * 1024 - std::min<size_t>(base.size(), 200 * 1024), ' ');
    int change = 0;
    double cpuBefore = serverCpuMs();
    for (auto _ : state) {
        ++change;
        std::string marker = "{\"v\":1,\"change\":" + std::to_string(change) + "}";
        server.broadcast(marker + padding + "\n");
        // The reading face takes it (and this thread's reading costs the same with or without a sleeper).
        for (;;) {
            auto line = reader->readLine(5s);
            if (!line) {
                state.SkipWithError("the reading face got nothing");
                return;
            }
            if (line->rfind(marker, 0) == 0) break;
        }
    }
    state.counters["server_cpu_us_per_change"] =
        (serverCpuMs() - cpuBefore) * 1000 / static_cast<double>(state.iterations());
    state.counters["clients_left"] = static_cast<double>(server.clientCount());
    server.stop();
}
BENCHMARK(BM_ServiceCpuWithAFaceThatNeverReads)->Arg(0)->Arg(1)->Iterations(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
