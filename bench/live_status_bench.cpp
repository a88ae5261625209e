// How fast a row follows its agent, and what following costs: the real
// `lumora --no-ui` beside real processes named like the Claude Code CLI, with
// the session index, journals and hook lines written the way Claude Code
// writes them, timed from the write to the status line on its standard output.
//
//   BM_IndexWaitingToNeedsYou    index -> "waiting" / "permission prompt" (a rename) to "Needs you"
//   BM_IndexBusyClearsNeedsYou   index -> "busy" after the dialog's approval (in place) to "Working"
//   BM_TurnEndToWaitingForYou    journal end_turn, index "idle", Stop hook line to "Waiting for you"
//   BM_Idle_20Sessions           context switches and processor use over a quiet minute
//   BM_Busy_100Sessions          processor use while 100 journals grow by 10 lines a second each
//   BM_OneJournal_10000LinesPerSecond   scans (in process) while one journal takes 10,000 lines a second
//
// LUMORA_BASELINE_BINARY names another build of `lumora` to run the idle
// figure against as well (say, one from before file watching).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "bench_support.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/log.hpp"
#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/platform/process_table.hpp"
#include "scrivet/claude_transcript_reader.hpp"

using namespace lumora;
using Json = nlohmann::json;
using Steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

std::string sessionId(int i) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "2ba08b56-cdd6-4cd6-a287-%012d", i);
    return buf;
}

std::string project(int i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "p%03d", i);
    return buf;
}

long long millisNow() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string isoNow() {
    auto ms = millisNow();
    std::time_t secs = ms / 1000;
    std::tm tm{};
    ::gmtime_r(&secs, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    char out[80];
    std::snprintf(out, sizeof out, "%s.%03lldZ", buf, ms % 1000);
    return out;
}

// Journal entries in Claude Code's shape.
std::string entry(const std::string& session, const std::string& type, const Json& message) {
    return Json{{"parentUuid", nullptr}, {"isSidechain", false}, {"type", type}, {"message", message},
                {"uuid", "u" + std::to_string(millisNow())}, {"timestamp", isoNow()}, {"sessionId", session},
                {"cwd", "/w"}, {"version", "2.1.330"}, {"gitBranch", "main"}}
               .dump() + "\n";
}
std::string prompt(const std::string& session, const std::string& text) {
    return entry(session, "user", {{"role", "user"}, {"content", text}});
}
std::string assistant(const std::string& session, const Json& block, const char* stop) {
    return entry(session, "assistant",
                 {{"id", "msg_" + std::to_string(millisNow())}, {"type", "message"}, {"role", "assistant"},
                  {"model", "claude-opus-5-5"}, {"content", Json::array({block})}, {"stop_reason", stop},
                  {"usage", {{"input_tokens", 900}, {"cache_read_input_tokens", 30000}, {"output_tokens", 80}}}});
}
std::string toolUse(const std::string& session, int n) {
    return assistant(session,
                     {{"type", "tool_use"}, {"id", "toolu_" + std::to_string(n)}, {"name", "Bash"},
                      {"input", {{"command", "npm test -- --shard " + std::to_string(n)}, {"description", "Run the tests"}}}},
                     "tool_use");
}
std::string toolResult(const std::string& session, int n) {
    return entry(session, "user",
                 {{"role", "user"},
                  {"content", Json::array({{{"type", "tool_result"}, {"tool_use_id", "toolu_" + std::to_string(n)},
                                            {"content", std::string(600, 'o')}}})}});
}

void append(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::app) << text; }

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

// What the Claude hook program writes for one event.
void hookLine(const fs::path& socket, const std::string& session, const std::string& action) {
    int fd = connectTo(socket);
    if (fd < 0) return;
    std::string line = Json{{"v", 1}, {"source", "claude"}, {"session_id", session}, {"action", action}}.dump() + "\n";
    ssize_t n = ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    (void)n;
    ::close(fd);
}

double cpuSecondsOf(pid_t pid) {
    double total = 0;
    std::error_code ec;
    for (fs::directory_iterator it("/proc/" + std::to_string(pid) + "/task", ec), end; !ec && it != end; it.increment(ec)) {
        std::ifstream in(it->path() / "schedstat");
        long long ns = 0;
        if (in >> ns) total += ns / 1e9;
    }
    return total;
}

// Every time one of the process's threads was switched out: each is a wake-up that ran.
long long contextSwitchesOf(pid_t pid) {
    long long total = 0;
    std::error_code ec;
    for (fs::directory_iterator it("/proc/" + std::to_string(pid) + "/task", ec), end; !ec && it != end; it.increment(ec)) {
        std::ifstream in(it->path() / "status");
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("voluntary_ctxt_switches:") || line.starts_with("nonvoluntary_ctxt_switches:"))
                total += std::stoll(line.substr(line.find(':') + 1));
        }
    }
    return total;
}

// A temporary home with `count` Claude Code sessions (each a real process,
// its session index file and its journal) and `lumora --no-ui` watching them.
class Machine {
public:
    fs::path home, socket;
    std::vector<pid_t> agents;
    std::vector<Json> records;
    pid_t lumora = -1;

    Machine(const std::string& name, int count, bool working, const std::string& binary = LUMORA_BINARY) {
        home = bench::scratch(name);
        fs::create_directories(home / "bin");
        fs::copy_file("/bin/sleep", home / "bin/claude", fs::copy_options::overwrite_existing);
        fs::create_directories(home / ".claude/sessions");
        for (int i = 0; i < count; ++i) {
            auto cwd = home / project(i);
            fs::create_directories(cwd);
            pid_t pid = spawn({(home / "bin/claude").string()}, {"claude", "3600"}, cwd);
            agents.push_back(pid);
            records.push_back({{"pid", pid}, {"sessionId", sessionId(i)}, {"cwd", cwd.string()},
                               {"startedAt", millisNow()}, {"kind", "interactive"}, {"entrypoint", "cli"},
                               {"version", "2.1.330"}});
            setStatus(i, working ? "busy" : "idle", std::nullopt, false);
            auto file = journal(i);
            fs::create_directories(file.parent_path());
            bench::writeSparseJournal(file, 8 * 1000 * 1000, bench::conversation() + bench::bookkeeping(60 * 1000));
            append(file, prompt(sessionId(i), "run the tests") +
                             (working ? toolUse(sessionId(i), 0)
                                      : assistant(sessionId(i), {{"type", "text"}, {"text", "Done."}}, "end_turn")));
        }
        fs::create_directories(home / ".config/lumora");
        std::ofstream(home / ".config/lumora/defaults.json") << R"({"hooksEnabled": true})";
        fs::create_directories(home / "run");
        ::chmod((home / "run").c_str(), 0700);
        socket = home / "run/notch.sock";
        int out[2];
        if (::pipe(out) != 0) throw std::runtime_error("pipe");
        lumora = spawn({binary}, {"lumora", "--no-ui"}, home,
                       {"HOME=" + home.string(), "XDG_DATA_HOME=" + (home / ".local/share").string(),
                        "XDG_CONFIG_HOME=" + (home / ".config").string(),
                        "XDG_CACHE_HOME=" + (home / ".cache").string(), "LUMORA_SOCKET=" + socket.string()},
                       out[1]);
        ::close(out[1]);
        output_ = out[0];
        ::fcntl(output_, F_SETFL, ::fcntl(output_, F_GETFL) | O_NONBLOCK);
    }

    ~Machine() {
        if (lumora > 0) {
            ::kill(lumora, SIGTERM);
            ::waitpid(lumora, nullptr, 0);
        }
        for (pid_t p : agents) {
            ::kill(-p, SIGKILL);
            ::waitpid(p, nullptr, 0);
        }
        if (output_ >= 0) ::close(output_);
        std::error_code ec;
        fs::remove_all(home, ec);
    }

    fs::path journal(int i) const {
        return scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", (home / project(i)).string(),
                                                               sessionId(i));
    }
    fs::path index(int i) const { return home / ".claude/sessions" / (std::to_string(agents[i]) + ".json"); }

    // Claude Code's own state in its session index file, replaced by a rename or rewritten in place.
    void setStatus(int i, const std::string& status, std::optional<std::string> waitingFor, bool inPlace) {
        Json& r = records[i];
        r["status"] = status;
        if (waitingFor) r["waitingFor"] = *waitingFor;
        else r.erase("waitingFor");
        r["updatedAt"] = r["statusUpdatedAt"] = millisNow();
        if (inPlace) {
            std::ofstream(index(i), std::ios::trunc) << r.dump(2);
        } else {
            std::ofstream(index(i).string() + ".tmp") << r.dump(2);
            fs::rename(index(i).string() + ".tmp", index(i));
        }
    }

    // Waits for the status line that shows session `i` with `label`; when it came.
    std::optional<Steady::time_point> waitFor(int i, const std::string& label, std::chrono::milliseconds timeout = 20s) {
        auto deadline = Steady::now() + timeout;
        std::string want = " " + project(i) + " ";
        for (;;) {
            for (size_t nl; (nl = buffer_.find('\n')) != std::string::npos;) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                // "yyyy-mm-dd hh:mm:ss  <label padded> <agent> <project> ..."
                if (line.size() > 21 && line.compare(21, label.size(), label) == 0 && line.find(want) != std::string::npos)
                    return lineAt_;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Steady::now()).count();
            if (left <= 0) return std::nullopt;
            pollfd p{output_, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left)) <= 0) continue;
            lineAt_ = Steady::now();
            char buf[65536];
            ssize_t n = ::read(output_, buf, sizeof buf);
            if (n == 0) return std::nullopt;  // it exited
            if (n > 0) buffer_.append(buf, static_cast<size_t>(n));
        }
    }

    bool waitForAll(const std::string& label, int count) {
        for (int i = 0; i < count; ++i)
            if (!waitFor(i, label, 60s)) return false;
        return true;
    }

    // Reads and forgets what the app printed so far.
    void drain() {
        char buf[65536];
        while (::read(output_, buf, sizeof buf) > 0) {
        }
        buffer_.clear();
    }

private:
    static pid_t spawn(const std::vector<std::string>& exe, const std::vector<std::string>& argv, const fs::path& cwd,
                       const std::vector<std::string>& env = {}, int out = -1) {
        std::vector<std::string> envCopy = env;
        pid_t pid = ::fork();
        if (pid == 0) {
            ::setpgid(0, 0);
            if (::chdir(cwd.c_str()) != 0) ::_exit(127);
            for (auto& e : envCopy) ::putenv(e.data());
            std::vector<char*> args;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(out >= 0 ? out : null, 1);
            ::dup2(null, 2);
            ::execv(exe[0].c_str(), args.data());
            ::_exit(127);
        }
        return pid;
    }

    int output_ = -1;
    std::string buffer_;
    Steady::time_point lineAt_{};
};

constexpr int kSessions = 20;
constexpr int kWatched = 7;  // the session whose row is timed

void BM_IndexWaitingToNeedsYou(benchmark::State& state) {
    Machine m("waiting", kSessions, true);
    if (!m.waitForAll("Working", kSessions)) return state.SkipWithError("never working");
    for (auto _ : state) {
        auto wrote = Steady::now();
        m.setStatus(kWatched, "waiting", "permission prompt", false);
        auto seen = m.waitFor(kWatched, "Needs you");
        if (!seen) return state.SkipWithError("never needs you");
        state.SetIterationTime(std::chrono::duration<double>(*seen - wrote).count());
        m.setStatus(kWatched, "busy", std::nullopt, true);
        if (!m.waitFor(kWatched, "Working")) return state.SkipWithError("never working again");
    }
}

void BM_IndexBusyClearsNeedsYou(benchmark::State& state) {
    Machine m("busy", kSessions, true);
    if (!m.waitForAll("Working", kSessions)) return state.SkipWithError("never working");
    for (auto _ : state) {
        m.setStatus(kWatched, "waiting", "permission prompt", false);
        if (!m.waitFor(kWatched, "Needs you")) return state.SkipWithError("never needs you");
        // The dialog's approval: Claude Code rewrites its index as the command starts.
        auto wrote = Steady::now();
        m.setStatus(kWatched, "busy", std::nullopt, true);
        auto seen = m.waitFor(kWatched, "Working");
        if (!seen) return state.SkipWithError("needs you never went");
        state.SetIterationTime(std::chrono::duration<double>(*seen - wrote).count());
    }
}

void BM_TurnEndToWaitingForYou(benchmark::State& state) {
    Machine m("turn", kSessions, true);
    if (!m.waitForAll("Working", kSessions)) return state.SkipWithError("never working");
    const std::string sid = sessionId(kWatched);
    int n = 1;
    for (auto _ : state) {
        // The turn ends as Claude Code ends it: the reply, the Stop hook, the index.
        auto wrote = Steady::now();
        append(m.journal(kWatched), assistant(sid, {{"type", "text"}, {"text", "All tests pass."}}, "end_turn"));
        hookLine(m.socket, sid, "done");
        m.setStatus(kWatched, "idle", std::nullopt, false);
        auto seen = m.waitFor(kWatched, "Waiting for you");
        if (!seen) return state.SkipWithError("never waiting");
        state.SetIterationTime(std::chrono::duration<double>(*seen - wrote).count());
        // The next prompt, untimed.
        hookLine(m.socket, sid, "start");
        m.setStatus(kWatched, "busy", std::nullopt, false);
        append(m.journal(kWatched), prompt(sid, "again") + toolUse(sid, n++));
        if (!m.waitFor(kWatched, "Working")) return state.SkipWithError("never working again");
    }
}

// What the app does while nothing happens: 20 sessions at their prompt.
void runIdle(benchmark::State& state, const std::string& binary) {
    Machine m("idle", kSessions, false, binary);
    if (!m.waitForAll("Waiting for you", kSessions)) return state.SkipWithError("never settled");
    std::this_thread::sleep_for(3s);  // start-up is not the steady state
    double seconds = static_cast<double>(state.range(0));
    for (auto _ : state) {
        long long switches = contextSwitchesOf(m.lumora);
        double cpu = cpuSecondsOf(m.lumora);
        auto t0 = Steady::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        double wall = std::chrono::duration<double>(Steady::now() - t0).count();
        state.counters["wakeups_per_min"] = (contextSwitchesOf(m.lumora) - switches) * 60.0 / wall;
        state.counters["cpu_percent"] = 100.0 * (cpuSecondsOf(m.lumora) - cpu) / wall;
    }
}

void BM_Idle_20Sessions(benchmark::State& state) { runIdle(state, LUMORA_BINARY); }

void BM_Idle_20Sessions_Baseline(benchmark::State& state) {
    const char* baseline = std::getenv("LUMORA_BASELINE_BINARY");
    if (!baseline || !*baseline) return state.SkipWithError("LUMORA_BASELINE_BINARY not set");
    runIdle(state, baseline);
}

// 100 working sessions whose journals each grow by 10 lines a second.
void BM_Busy_100Sessions(benchmark::State& state) {
    constexpr int kCount = 100;
    Machine m("busy100", kCount, true);
    if (!m.waitForAll("Working", kCount)) return state.SkipWithError("never working");
    std::this_thread::sleep_for(3s);
    double seconds = static_cast<double>(state.range(0));
    for (auto _ : state) {
        std::atomic<bool> stop{false};
        std::atomic<long long> lines{0};
        // One writer, round robin: a line every 1 ms is 10 a second per journal.
        std::thread writer([&] {
            int n = 1;
            auto next = Steady::now();
            while (!stop) {
                int i = n % kCount, k = n / kCount;
                std::string sid = sessionId(i);
                append(m.journal(i), k % 2 ? toolResult(sid, k - 1) : toolUse(sid, k));
                ++lines;
                ++n;
                next += 1ms;
                std::this_thread::sleep_until(next);
            }
        });
        double cpu = cpuSecondsOf(m.lumora);
        long long switches = contextSwitchesOf(m.lumora);
        auto t0 = Steady::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        double wall = std::chrono::duration<double>(Steady::now() - t0).count();
        double used = cpuSecondsOf(m.lumora) - cpu;
        long long woke = contextSwitchesOf(m.lumora) - switches;
        stop = true;
        writer.join();
        state.counters["cpu_percent"] = 100.0 * used / wall;
        state.counters["lines_per_s"] = lines.load() / wall;
        state.counters["wakeups_per_s"] = woke / wall;
    }
}

// In process, to count scans: one journal written 10,000 lines a second.
void BM_OneJournal_10000LinesPerSecond(benchmark::State& state) {
    Log::silence();
    auto root = bench::scratch("storm");
    fs::create_directories(root / "sessions");
    auto cwd = root / "proj";
    fs::create_directories(cwd);
    auto start = std::chrono::system_clock::now() - 1h;
    ProcessInfo p;
    p.pid = 5000;
    p.ppid = 1;
    p.command = p.name = "claude";
    p.cwd = cwd.string();
    p.start = start;
    p.startTicks = 1000;
    FixedProcessTable table({p});
    std::ofstream(root / "sessions/5000.json")
        << Json{{"pid", 5000}, {"sessionId", sessionId(0)}, {"cwd", cwd.string()},
                {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()}}
               .dump();
    auto journal = scrivet::ClaudeTranscriptReader::transcriptURL(root / "projects", cwd.string(), sessionId(0));
    fs::create_directories(journal.parent_path());
    std::ofstream(journal) << prompt(sessionId(0), "go") + toolUse(sessionId(0), 0);
    ProcessDiscovery discovery(table, root / "sessions", root / "projects");
    DefaultsStore defaults(root / "defaults.json");
    SDKHostMemory memory(defaults);
    auto files = FileWatcher::create();
    RunLoop loop;
    ClaudeMonitor::Dependencies deps;
    deps.discover = [&] { return discovery.run(); };
    deps.sources.push_back(std::make_unique<ClaudeSessionSource>(
        ClaudeSessionSource::Paths{root / "projects", root / "claude.json", root / "tmp", root / "sessions"}, memory,
        nullptr));
    deps.files = files.get();
    deps.loop = &loop;
    ClaudeMonitor monitor(std::move(deps));
    monitor.start();
    loop.runUntil([&] { return monitor.publishCount() >= 1; }, 10s);
    double seconds = static_cast<double>(state.range(0));
    for (auto _ : state) {
        std::atomic<bool> stop{false};
        std::atomic<long long> lines{0};
        std::thread writer([&] {
            std::ofstream out(journal, std::ios::app);
            std::string line = toolResult(sessionId(0), 0);
            auto next = Steady::now();
            while (!stop) {
                for (int k = 0; k < 10; ++k) out << line << std::flush;  // each line its own write
                lines += 10;
                next += 1ms;
                std::this_thread::sleep_until(next);
            }
        });
        auto scans = monitor.publishCount();
        auto t0 = Steady::now();
        loop.runUntil([] { return false; }, std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds)));
        double wall = std::chrono::duration<double>(Steady::now() - t0).count();
        stop = true;
        writer.join();
        state.counters["scans_per_s"] = (monitor.publishCount() - scans) / wall;
        state.counters["lines_per_s"] = lines.load() / wall;
    }
    monitor.stop();
}

}  // namespace

BENCHMARK(BM_IndexWaitingToNeedsYou)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK(BM_IndexBusyClearsNeedsYou)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK(BM_TurnEndToWaitingForYou)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK(BM_Idle_20Sessions)->Arg(60)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_Idle_20Sessions_Baseline)->Arg(60)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_Busy_100Sessions)->Arg(30)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_OneJournal_10000LinesPerSecond)->Arg(5)->Iterations(1)->Unit(benchmark::kSecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(bench::scratch("x").parent_path(), ec);
    return 0;
}
