// One discovery pass — listing, recognising, pairing and host resolution —
// on a machine of 1,000 processes of which 10 are agents, and the same pass
// over this machine's real process table.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "bench_support.hpp"
#include "lumora/monitor/process_discovery.hpp"
#include "scrivet/claude_transcript_reader.hpp"

using namespace lumora;

namespace {

void writeText(const fs::path& file, const std::string& text) { std::ofstream(file) << text; }

struct Machine {
    FixedProcessTable table;
    fs::path sessions, projects;
};

ProcessInfo process(int32_t pid, int32_t ppid, std::string command, std::vector<std::string> args = {}) {
    ProcessInfo p;
    p.pid = pid;
    p.ppid = ppid;
    p.command = std::move(command);
    p.arguments = std::move(args);
    p.name = p.command.substr(p.command.rfind('/') + 1).substr(0, 15);
    p.startTicks = 1000 + static_cast<uint64_t>(pid);
    p.start = std::chrono::system_clock::now() - std::chrono::hours(1);
    p.cwd = "/";
    p.cpuSeconds = 1.0;
    return p;
}

// 1,000 processes: system services, shells, editors and terminals, and ten
// agents (six Claude Code, four others) spread over terminals, an editor,
// tmux and an SDK host, with session files for four of the Claude ones and
// journals for all.
Machine& machine() {
    static Machine m = [] {
        Machine m;
        auto root = bench::scratch("discovery");
        m.sessions = root / "sessions";
        m.projects = root / "projects";
        fs::create_directories(m.sessions);
        std::vector<ProcessInfo> ps;
        ps.push_back(process(1, 0, "/sbin/init"));
        ps.push_back(process(2, 0, ""));  // kthreadd
        ps.push_back(process(900, 1, "/lib/systemd/systemd", {"--user"}));
        ps.push_back(process(1000, 900, "/usr/libexec/gnome-terminal-server"));
        ps.push_back(process(1100, 900, "kitty"));
        ps.push_back(process(1200, 900, "/usr/share/code/code"));
        ps.push_back(process(1201, 1200, "/usr/share/code/code", {"--type=utility"}));
        ps.push_back(process(1300, 1, "tmux", {"new-session", "-d"}));
        ps.back().name = "tmux: server";
        ps.push_back(process(1301, 1100, "tmux", {"attach"}));
        ps.back().name = "tmux: client";
        ps.back().tty = "pts/0";
        ps.push_back(process(1400, 900, "/opt/Talvik/talvik"));
        m.table.setLaunchUnit(1400, "app-gnome-org.example.Talvik-1400.scope");
        m.table.setLaunchUnit(900, "user@1000.service");
        struct Agent {
            int32_t parent;
            std::string command;
            std::vector<std::string> args;
        };
        std::vector<Agent> agents = {
            {1000, "claude", {}},
            {1000, "claude", {"--resume"}},
            {1100, "node", {"/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}},
            {1201, "claude", {}},
            {1300, "claude", {}},
            {1400, "/opt/Talvik/resources/claude", {"--output-format", "stream-json"}},
            {1000, "codex", {}},
            {1100, "cursor-agent", {}},
            {1201, "kimi", {}},
            {1300, "opencode", {}},
        };
        int32_t pid = 2000;
        int claudeCount = 0;
        for (const auto& a : agents) {
            int32_t shell = pid++;
            ps.push_back(process(shell, a.parent, "/bin/bash"));
            ps.back().cwd = (root / ("proj" + std::to_string(pid))).string();
            ProcessInfo agent = process(pid++, a.parent == 1400 ? a.parent : shell, a.command, a.args);
            auto cwd = root / ("proj" + std::to_string(agent.pid));
            fs::create_directories(cwd / ".git");
            writeText(cwd / ".git/HEAD", "ref: refs/heads/main\n");
            agent.cwd = cwd.string();
            if (a.parent == 1400) m.table.setLaunchUnit(agent.pid, "app-gnome-org.example.Talvik-1400.scope");
            if (a.parent == 1300) m.table.setEnvironment(agent.pid, {{"TMUX_PANE", "%1"}});
            ps.push_back(agent);
            if (a.command.find("claude") != std::string::npos || !a.args.empty()) {
                // Two journals per Claude folder; session files for the first four.
                auto folder = m.projects / scrivet::ClaudeTranscriptReader::encodedDirName(cwd.string());
                fs::create_directories(folder);
                char id[64];
                std::snprintf(id, sizeof id, "aaaaaaaa-0000-4000-8000-%012d", agent.pid);
                // Every journal line names its session, as Claude Code writes them.
                writeText(folder / (std::string(id) + ".jsonl"),
                          "{\"type\":\"user\",\"sessionId\":\"" + std::string(id) + "\"}\n");
                writeText(folder / ("cccccccc-0000-4000-8000-000000000000.jsonl"),
                          "{\"type\":\"user\",\"sessionId\":\"cccccccc-0000-4000-8000-000000000000\"}\n");
                if (claudeCount++ < 4) {
                    nlohmann::json r = {
                        {"pid", agent.pid}, {"sessionId", id}, {"cwd", cwd.string()},
                        {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(
                                          agent.start->time_since_epoch()).count()},
                        {"procStart", std::to_string(agent.startTicks)}, {"status", "idle"}};
                    writeText(m.sessions / (std::to_string(agent.pid) + ".json"), r.dump());
                }
            }
        }
        // The rest: ordinary processes with ordinary arguments.
        const char* names[] = {"/usr/bin/python3", "/usr/lib/firefox/firefox", "bash", "/usr/bin/rg",
                               "/usr/sbin/NetworkManager", "/usr/bin/pipewire", "node", "sshd"};
        while (ps.size() < 1000) {
            int32_t p = pid++;
            std::string cmd = names[p % 8];
            std::vector<std::string> args = {"--flag", "/home/dev/some/file.txt", "claude"};
            ps.push_back(process(p, p % 3 ? 900 : 1, cmd, args));
        }
        m.table.setProcesses(std::move(ps));
        return m;
    }();
    return m;
}

// Steady state: the caches of the previous tick are warm.
void BM_DiscoveryPass_1000Processes_10Agents(benchmark::State& state) {
    auto& m = machine();
    ProcessDiscovery discovery(m.table, m.sessions, m.projects);
    discovery.run();
    size_t agents = 0, paired = 0, hosted = 0;
    for (auto _ : state) {
        auto pass = discovery.run();
        agents = pass.agents.size();
        paired = hosted = 0;
        for (const auto& a : pass.agents) {
            paired += a.sessionId.has_value();
            hosted += a.host.has_value();
        }
        benchmark::DoNotOptimize(pass);
    }
    if (agents != 10 || paired != 6 || hosted != 10)
        state.SkipWithError(("wrong discovery: " + std::to_string(agents) + " " + std::to_string(paired) + " " + std::to_string(hosted)).c_str());
    state.counters["agents"] = static_cast<double>(agents);
    state.counters["paired"] = static_cast<double>(paired);
}

// The first tick: every cache empty.
void BM_DiscoveryPass_1000Processes_10Agents_Cold(benchmark::State& state) {
    auto& m = machine();
    for (auto _ : state) {
        ProcessDiscovery discovery(m.table, m.sessions, m.projects);
        auto pass = discovery.run();
        benchmark::DoNotOptimize(pass);
    }
}

void BM_RealProcessTable_Snapshot(benchmark::State& state) {
    size_t count = 0;
    for (auto _ : state) {
        auto snap = ProcessTable::system().snapshot();
        count = snap.size();
        benchmark::DoNotOptimize(snap);
    }
    state.counters["processes"] = static_cast<double>(count);
}

void BM_RealDiscoveryPass(benchmark::State& state) {
    auto root = bench::scratch("real");
    ProcessDiscovery discovery(ProcessTable::system(), root / "sessions", root / "projects");
    discovery.run();
    for (auto _ : state) benchmark::DoNotOptimize(discovery.run());
}

// This machine brought up to 1,000 processes with sleeping children, ten of
// them under agent names, all in one process group that is killed after.
void BM_RealDiscoveryPass_1000Processes(benchmark::State& state) {
    auto root = bench::scratch("real1000");
    auto bin = root / "bin";
    fs::create_directories(bin);
    const char* agentNames[] = {"claude", "codex", "cursor-agent", "kimi", "opencode"};
    for (auto n : agentNames) fs::copy_file("/bin/sleep", bin / n, fs::copy_options::overwrite_existing);
    size_t have = ProcessTable::system().snapshot().size();
    pid_t group = 0;
    std::vector<pid_t> children;
    for (size_t i = 0; have + i < 1000; ++i) {
        pid_t pid = ::fork();
        if (pid == 0) {
            ::setpgid(0, group);
            std::string name = i < 10 ? agentNames[i % 5] : "worker";
            std::string exe = i < 10 ? (bin / name).string() : "/bin/sleep";
            ::execl(exe.c_str(), name.c_str(), "120", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid < 0) break;
        if (group == 0) group = pid;
        ::setpgid(pid, group);
        children.push_back(pid);
    }
    // Past their first second: a machine's processes are mostly older than that.
    ::usleep(1200 * 1000);
    ProcessDiscovery discovery(ProcessTable::system(), root / "sessions", root / "projects");
    // The first pass reads every new process in full; later ones only watch them.
    auto firstStart = std::chrono::steady_clock::now();
    discovery.run();
    double firstPass = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - firstStart).count();
    size_t processes = 0, agents = 0;
    for (auto _ : state) {
        auto pass = discovery.run();
        processes = pass.snapshot.size();
        agents = pass.agents.size();
        benchmark::DoNotOptimize(pass);
    }
    if (group > 0) ::kill(-group, SIGKILL);
    for (pid_t c : children) ::waitpid(c, nullptr, 0);
    state.counters["processes"] = static_cast<double>(processes);
    state.counters["agents"] = static_cast<double>(agents);
    state.counters["first_pass_ms"] = firstPass;
}

}  // namespace

BENCHMARK(BM_RealDiscoveryPass_1000Processes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DiscoveryPass_1000Processes_10Agents)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DiscoveryPass_1000Processes_10Agents_Cold)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RealProcessTable_Snapshot)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RealDiscoveryPass)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
