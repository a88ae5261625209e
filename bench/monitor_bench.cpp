// The monitor's costs: one full scan of 20 Claude Code sessions with 200 MB
// journals; the way from a hook line's arrival to the published list; and
// what the headless monitor costs while 20 idle sessions sit there.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "bench_support.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/log.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "scrivet/claude_transcript_reader.hpp"

using namespace lumora;
using Json = nlohmann::json;

namespace {

constexpr uint64_t kMB = 1000 * 1000;

std::string sessionId(int i) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "5f0c1b8e-3a2d-4c6e-9f10-%012d", i);
    return buf;
}

// A machine with `count` Claude Code processes, each with its session file and a journal of `journalBytes`.
struct Sessions {
    fs::path root, sessions, projects;
    FixedProcessTable table;
};

Sessions makeSessions(const std::string& name, int count, uint64_t journalBytes) {
    Sessions s;
    s.root = bench::scratch(name);
    s.sessions = s.root / "sessions";
    s.projects = s.root / "projects";
    fs::create_directories(s.sessions);
    auto start = std::chrono::system_clock::now() - std::chrono::hours(1);
    std::vector<ProcessInfo> ps;
    for (int i = 0; i < count; ++i) {
        auto cwd = s.root / ("proj" + std::to_string(i));
        fs::create_directories(cwd);
        ProcessInfo p;
        p.pid = 5000 + i;
        p.ppid = 1;
        p.command = "claude";
        p.name = "claude";
        p.cwd = cwd.string();
        p.start = start;
        p.startTicks = 1000 + i;
        p.cpuSeconds = 1;
        ps.push_back(p);
        Json record = {{"pid", p.pid}, {"sessionId", sessionId(i)}, {"cwd", cwd.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()}};
        std::ofstream(s.sessions / (std::to_string(p.pid) + ".json")) << record.dump();
        auto journal = scrivet::ClaudeTranscriptReader::transcriptURL(s.projects, cwd.string(), sessionId(i));
        fs::create_directories(journal.parent_path());
        if (!fs::exists(journal))
            bench::writeSparseJournal(journal, journalBytes, bench::conversation() + bench::bookkeeping(60 * 1000));
    }
    ProcessInfo init;
    init.pid = 1;
    init.command = "/sbin/init";
    init.name = "init";
    ps.push_back(init);
    s.table.setProcesses(std::move(ps));
    return s;
}

std::unique_ptr<ClaudeMonitor> makeMonitor(Sessions& s, ProcessDiscovery& discovery, RunLoop& loop,
                                           HookBridge* bridge = nullptr) {
    ClaudeMonitor::Dependencies deps;
    deps.discover = [&discovery] { return discovery.run(); };
    static SDKHostMemory* memory = nullptr;
    static DefaultsStore* defaults = nullptr;
    if (!memory) {
        defaults = new DefaultsStore(s.root / "defaults.json");
        memory = new SDKHostMemory(*defaults);
    }
    deps.sources.push_back(std::make_unique<ClaudeSessionSource>(
        ClaudeSessionSource::Paths{s.projects, s.root / "claude.json", s.root / "tmp"}, *memory,
        [](const std::string&, const ProcessSnapshot&) { return false; }));
    if (bridge) {
        deps.hooks = [bridge](Date now) { return LumoraApp::hookSnapshot(bridge->snapshot(now)); };
    }
    deps.loop = &loop;
    return std::make_unique<ClaudeMonitor>(std::move(deps));
}

void BM_FullScan_20Sessions_200MBJournals(benchmark::State& state) {
    Log::silence();
    auto s = makeSessions("scan", 20, 200 * kMB);
    ProcessDiscovery discovery(s.table, s.sessions, s.projects);
    RunLoop loop;
    auto monitor = makeMonitor(s, discovery, loop);
    // The first scan seeds each journal's background ledger from the whole
    // file (4 GB here, once); every later scan reads only tails and growth.
    auto seedStart = std::chrono::steady_clock::now();
    monitor->scanOnce();
    state.counters["first_scan_s"] = std::chrono::duration<double>(std::chrono::steady_clock::now() - seedStart).count();
    for (auto _ : state) {
        auto list = monitor->scanOnce();
        if (list.size() != 20 || !list[0].model) state.SkipWithError("wrong scan");
        benchmark::DoNotOptimize(list);
    }
}

int connectTo(const fs::path& socket) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// From a gate line's arrival to the published list that shows the session
// needing the user: the bridge wakes the monitor, which scans and publishes.
void BM_HookLineToPublishedList(benchmark::State& state) {
    Log::silence();
    auto s = makeSessions("hook", 20, 2 * kMB);
    fs::create_directories(s.root / "run");
    ::chmod((s.root / "run").c_str(), 0700);
    DefaultsStore rulesDefaults(s.root / "rules.json");
    ApprovalRulesStore rules(rulesDefaults);
    HookBridge bridge(s.root / "run/notch.sock", s.root / "run", rules);
    ProcessDiscovery discovery(s.table, s.sessions, s.projects);
    RunLoop loop;
    auto monitor = makeMonitor(s, discovery, loop, &bridge);
    bridge.setOnEvent([&] { monitor->refreshNow(); });
    bridge.setGating(true);
    if (!bridge.start().ok) {
        state.SkipWithError("no socket");
        return;
    }
    auto needs = [&](bool want) {
        for (const auto& a : monitor->instances()) {
            if (a.id == sessionId(7)) return (a.status == AgentStatus::attention) == want;
        }
        return false;
    };
    monitor->refreshNow();
    loop.runUntil([&] { return monitor->instances().size() == 20; }, std::chrono::seconds(5));
    std::string gate = Json{{"v", 1}, {"session_id", sessionId(7)}, {"action", "gate"}, {"tool_name", "Bash"},
                            {"detail", "make deploy"}}.dump() + "\n";
    for (auto _ : state) {
        int fd = connectTo(bridge.socketPath());
        auto sent = std::chrono::steady_clock::now();
        if (fd < 0 || ::send(fd, gate.data(), gate.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(gate.size())) {
            state.SkipWithError("send failed");
            break;
        }
        if (!loop.runUntil([&] { return needs(true); }, std::chrono::seconds(5))) {
            state.SkipWithError("never published");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - sent).count());
        ::close(fd);  // the hook gives up: its marker goes
        loop.runUntil([&] { return needs(false); }, std::chrono::seconds(5));
    }
    bridge.stop();
}

// Processor time a process has used, in seconds, to the nanosecond (the
// scheduler's own account; the clock-tick counters in /proc/<pid>/stat are
// too coarse for a process that runs a few milliseconds a minute).
double cpuSecondsOf(pid_t pid) {
    double total = 0;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream in(task.path() / "schedstat");
        long long ns = 0;
        if (in >> ns) total += ns / 1e9;
    }
    return total;
}

long rssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

pid_t spawn(const std::vector<std::string>& argv, const fs::path& cwd, const std::vector<std::string>& env = {}) {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        if (::chdir(cwd.c_str()) != 0) ::_exit(127);
        for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execv(argv[0] == "claude" ? (cwd.parent_path() / "bin/claude").c_str() : argv[0].c_str(), args.data());
        ::_exit(127);
    }
    return pid;
}

// The headless monitor beside 20 idle sessions, hooks on (10 s cadence), for a minute.
void BM_HeadlessMonitor_20IdleSessions(benchmark::State& state) {
    auto home = bench::scratch("headless");
    fs::create_directories(home / "bin");
    fs::copy_file("/bin/sleep", home / "bin/claude", fs::copy_options::overwrite_existing);
    std::vector<pid_t> agents;
    auto old = std::chrono::system_clock::now() - std::chrono::hours(2);
    for (int i = 0; i < 20; ++i) {
        auto cwd = home / ("proj" + std::to_string(i));
        fs::create_directories(cwd);
        agents.push_back(spawn({"claude", "600"}, cwd));
        auto journal =
            scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", cwd.string(), sessionId(i));
        fs::create_directories(journal.parent_path());
        bench::writeSparseJournal(journal, 20 * kMB, bench::conversation() + bench::bookkeeping(60 * 1000));
        (void)old;
    }
    fs::create_directories(home / ".config/lumora");
    std::ofstream(home / ".config/lumora/defaults.json") << R"({"hooksEnabled": true})";
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    std::string h = "HOME=" + home.string(), d = "XDG_DATA_HOME=" + (home / ".local/share").string(),
                c = "XDG_CONFIG_HOME=" + (home / ".config").string(), s = "LUMORA_SOCKET=" + (home / "run/s").string();
    double seconds = state.range(0);
    for (auto _ : state) {
        pid_t monitor = spawn({LUMORA_BINARY, "--no-ui"}, home, {h, d, c, s});
        std::this_thread::sleep_for(std::chrono::seconds(3));  // start-up is not the steady state
        double before = cpuSecondsOf(monitor);
        auto t0 = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        double after = cpuSecondsOf(monitor);
        double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        state.counters["cpu_percent"] = 100.0 * (after - before) / wall;
        state.counters["rss_MiB"] = rssKiB(monitor) / 1024.0;
        ::kill(monitor, SIGTERM);
        ::waitpid(monitor, nullptr, 0);
    }
    for (pid_t p : agents) {
        ::kill(-p, SIGKILL);
        ::waitpid(p, nullptr, 0);
    }
}

}  // namespace

BENCHMARK(BM_FullScan_20Sessions_200MBJournals)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HookLineToPublishedList)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(200);
BENCHMARK(BM_HeadlessMonitor_20IdleSessions)->Arg(60)->Arg(15)->Iterations(1)->Unit(benchmark::kSecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(bench::scratch("scan").parent_path());
    return 0;
}
