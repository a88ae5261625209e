// The hook bridge under load, over its real socket with real client
// connections: how fast a gate that a standing rule covers is answered,
// whether a burst of clients loses a line, whether 200 held gates each get
// their own answer, what a steady 500 lines a second over 10,000 sessions
// costs, and whether a week of sessions stays bounded.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <errno.h>

#include <algorithm>
#include <fstream>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/log.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/hooks/hook_protocol.hpp"
#include "lumora/hooks/hook_session_state.hpp"
#include "lumora/hooks/hook_state_file.hpp"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

struct Fixture {
    fs::path dir = bench::scratch("hook-" + std::to_string(counter++));
    lumora::DefaultsStore defaults{dir / "defaults.json"};
    lumora::ApprovalRulesStore rules{defaults};
    fs::path socket = dir / "support" / "notch.sock";
    std::unique_ptr<lumora::HookBridge> bridge;

    explicit Fixture(lumora::HookBridgeOptions options = {}) {
        lumora::Log::silence();
        options.traceFile.reset();
        bridge = std::make_unique<lumora::HookBridge>(socket, dir / "support", rules, options);
        if (!bridge->start().ok) throw std::runtime_error("bridge did not start");
        bridge->setGating(true);
    }
    ~Fixture() { bridge->stop(); }
    static inline int counter = 0;
};

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

bool sendAll(int fd, const std::string& bytes) {
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n <= 0) return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

// Everything until the server closes (or 10 s pass).
std::string readAll(int fd) {
    std::string out;
    char buf[256];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) return out;
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) return out;
        out.append(buf, static_cast<size_t>(n));
    }
}

std::string gateLine(const std::string& sid, const std::string& command) {
    return R"({"v":1,"source":"claude","session_id":")" + sid +
           R"(","action":"gate","tool_name":"Bash","detail":")" + command + R"(","cwd":"/home/dev/proj"})" "\n";
}

// From the gate line's send to its answer's arrival, at the client, for a
// gate that an always rule covers. Target: median under 1 ms.
void BM_AutoApprovedGate_Latency(benchmark::State& state) {
    Fixture f;
    f.rules.addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Bash", "git");
    f.rules.addAlwaysRule(scrivet::HarnessProvider::claudeCode, "Bash", "npm");
    std::string line = gateLine("80d8d2c1-2509-42b4-a779-139b17caf0ef", "git status && npm test");
    std::vector<double> micros;
    for (auto _ : state) {
        int fd = connectTo(f.socket);
        auto t0 = Clock::now();
        sendAll(fd, line);
        std::string reply = readAll(fd);
        auto elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
        ::close(fd);
        if (reply != "{\"v\":1,\"behavior\":\"allow\"}\n") state.SkipWithError("not allowed");
        state.SetIterationTime(elapsed);
        micros.push_back(elapsed * 1e6);
    }
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) {
        state.counters["median_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    }
}
BENCHMARK(BM_AutoApprovedGate_Latency)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Connects the way the hook programs do: a full listen queue (EAGAIN) is
// tried again until the 3-second connect deadline. Returns -1 when it never connects.
int connectLikeAHook(const fs::path& socket, bool retry) {
    auto deadline = Clock::now() + std::chrono::seconds(3);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
    for (;;) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
        int error = errno;
        ::close(fd);
        if (!retry || (error != EAGAIN && error != ECONNREFUSED) || Clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// 50 clients send 200 lines each as fast as they can, a fresh connection per
// line as the hooks do; the time runs until the bridge has handled all
// 10,000. Target: zero lost. range(0) == 1: clients retry a full listen
// queue as the hook programs do; 0: they give up at once (the server alone).
void BM_Burst_50Clients_200LinesEach(benchmark::State& state) {
    const bool retry = state.range(0) == 1;
    constexpr int kClients = 50, kLinesEach = 200;
    for (auto _ : state) {
        state.PauseTiming();
        auto f = std::make_unique<Fixture>();
        state.ResumeTiming();
        auto t0 = Clock::now();
        std::vector<std::thread> clients;
        std::atomic<int> failures{0};
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                for (int i = 0; i < kLinesEach; ++i) {
                    std::string line = R"({"v":1,"source":"claude","session_id":"s-)" + std::to_string(c) + "-" +
                                       std::to_string(i) + R"(","action":"busy","tool_name":"Bash"})" "\n";
                    int fd = connectLikeAHook(f->socket, retry);
                    if (fd < 0 || !sendAll(fd, line)) ++failures;
                    if (fd >= 0) ::close(fd);
                }
            });
        }
        for (auto& t : clients) t.join();
        while (f->bridge->linesHandled() < kClients * kLinesEach && Clock::now() - t0 < std::chrono::seconds(10)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        auto elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
        auto handled = f->bridge->linesHandled();
        state.SetIterationTime(elapsed);
        state.counters["handled"] = static_cast<double>(handled);
        state.counters["lost"] = static_cast<double>(kClients * kLinesEach - handled);
        state.counters["failed_connects"] = failures.load();
        if (retry && handled != kClients * kLinesEach) {
            state.SkipWithError("lines lost");
            break;
        }
        state.PauseTiming();
        f.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Burst_50Clients_200LinesEach)->Arg(1)->Arg(0)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// 200 gates held at once, then resolved in turn (allow for even sessions,
// deny for odd); every client must receive its own answer.
void BM_200HeldGates_EachGetsItsAnswer(benchmark::State& state) {
    constexpr int kGates = 200;
    for (auto _ : state) {
        state.PauseTiming();
        auto f = std::make_unique<Fixture>();
        state.ResumeTiming();
        auto t0 = Clock::now();
        std::vector<int> fds(kGates);
        for (int i = 0; i < kGates; ++i) {
            fds[i] = connectTo(f->socket);
            sendAll(fds[i], gateLine("gate-" + std::to_string(i), "make"));
        }
        auto now = std::chrono::system_clock::now;
        while (f->bridge->snapshot(now()).gates.size() < kGates && Clock::now() - t0 < std::chrono::seconds(10)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        auto held = f->bridge->snapshot(now()).gates;
        for (int i = 0; i < kGates; ++i) {
            std::string sid = "gate-" + std::to_string(i);
            f->bridge->resolve(sid, held.count(sid) ? held.at(sid).id : 0, i % 2 == 0);
        }
        int right = 0;
        for (int i = 0; i < kGates; ++i) {
            std::string expect = i % 2 == 0 ? "{\"v\":1,\"behavior\":\"allow\"}\n" : "{\"v\":1,\"behavior\":\"deny\"}\n";
            if (readAll(fds[i]) == expect) ++right;
            ::close(fds[i]);
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
        state.counters["right_answers"] = right;
        if (right != kGates) {
            state.SkipWithError("a client got a wrong or no answer");
            break;
        }
        state.PauseTiming();
        f.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_200HeldGates_EachGetsItsAnswer)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

// Processor time of the bridge's own threads (the socket, the rules, the
// logs, the saves: all named "lumora.hookbridge…"), from the scheduler's account.
double bridgeCpuSeconds() {
    double total = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string comm = bench::readFile(task.path() / "comm");
        if (comm.rfind("lumora.hookbri", 0) != 0) continue;
        std::ifstream in(task.path() / "schedstat");
        long long ns = 0;
        if (in >> ns) total += ns / 1e9;
    }
    return total;
}

long rssKiB() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

// A steady 500 lines a second from 50 clients for 20 s, every line naming
// one of 10,000 sessions in turn (markers, busy flags, Cursor notes), with
// hook-state.json saved as it changes. Target: the bridge's threads under 5%
// of a core, resident memory flat between the first and the second half.
void BM_Steady_500LinesPerSecond_10000Sessions(benchmark::State& state) {
    constexpr int kClients = 50, kRate = 500, kSeconds = 20, kSessions = 10000;
    for (auto _ : state) {
        Fixture f;
        std::atomic<int> next{0};
        auto t0 = Clock::now();
        double cpuStart = bridgeCpuSeconds();
        long rssHalf = 0;
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                const int perClient = kRate / kClients;
                for (int i = 0; i < perClient * kSeconds; ++i) {
                    std::this_thread::sleep_until(t0 + std::chrono::microseconds(1000000LL * i / perClient + c * 1000));
                    int n = next++;
                    std::string sid = "00000000-0000-4000-8000-" + std::to_string(100000000000LL + n % kSessions);
                    std::string line;
                    switch (n % 3) {
                        case 0:
                            line = R"({"v":1,"session_id":")" + sid +
                                   R"(","action":"marker","kind":"question","tool_name":"AskUserQuestion","detail":"Which one?","options":["A","B"]})";
                            break;
                        case 1: line = R"({"v":1,"session_id":")" + sid + R"(","action":"busy","tool_name":"Bash"})"; break;
                        default:
                            line = R"({"v":1,"source":"cursor","session_id":")" + sid +
                                   R"(","action":"activity","status":"shell","title":"make","model":"gpt-5"})";
                    }
                    int fd = connectLikeAHook(f.socket, true);
                    if (fd >= 0) {
                        sendAll(fd, line + "\n");
                        ::close(fd);
                    }
                }
            });
        }
        std::this_thread::sleep_until(t0 + std::chrono::seconds(kSeconds / 2));
        rssHalf = rssKiB();
        for (auto& t : clients) t.join();
        double cpu = bridgeCpuSeconds() - cpuStart;
        double wall = std::chrono::duration<double>(Clock::now() - t0).count();
        state.counters["bridge_cpu_percent"] = 100.0 * cpu / wall;
        state.counters["lines"] = static_cast<double>(f.bridge->linesHandled());
        state.counters["rss_half_MiB"] = rssHalf / 1024.0;
        state.counters["rss_end_MiB"] = rssKiB() / 1024.0;
        auto snap = f.bridge->snapshot(std::chrono::system_clock::now());
        size_t entries = snap.claudeBusy.size() + snap.cursorActivity.size() + snap.cursorModels.size();
        for (const auto& [_, markers] : snap.markers) entries += markers.size();
        state.counters["entries"] = static_cast<double>(entries);
        state.counters["state_file_KiB"] = static_cast<double>(fs::file_size(f.dir / "support/hook-state.json")) / 1024.0;
    }
}
BENCHMARK(BM_Steady_500LinesPerSecond_10000Sessions)->Unit(benchmark::kSecond)->Iterations(1);

// A week of sessions, one a minute (10,000 session ids), each sending what
// a session of every agent sends, through the session state with the
// clock moved forward. Target: entries, hook-state.json and resident memory
// stay bounded (the same at the end of the week as after its first day).
void BM_AWeekOfSessions_10000Ids(benchmark::State& state) {
    using namespace lumora;
    auto parse = [](const std::string& line) { return *HookProtocol::parse(line).request; };
    std::vector<HookProtocol::Request> lines = {
        parse(R"({"session_id":"x","action":"start"})"),
        parse(R"({"session_id":"x","kind":"question","detail":")" + std::string(2000, 'd') + R"("})"),
        parse(R"({"source":"codex","session_id":"x","action":"marker","kind":"idle"})"),
        parse(R"({"source":"kimi","session_id":"x","action":"marker","kind":"idle"})"),
        parse(R"({"source":"opencode","session_id":"x","action":"marker","kind":"idle"})"),
        parse(R"({"source":"cursor","session_id":"x","action":"pending","kind":"shell","model":"gpt-5"})"),
        parse(R"({"source":"cursor","session_id":"x","action":"activity","status":"shell"})"),
    };
    for (auto _ : state) {
        HookSessionState sessions;
        auto start = std::chrono::system_clock::now();
        size_t afterDay = 0, most = 0, fileAfterDay = 0, fileMost = 0;
        long rssAfterDay = 0;
        for (int i = 0; i < 10000; ++i) {
            auto now = start + std::chrono::minutes(i);
            for (auto r : lines) {
                r.sessionId = "00000000-0000-4000-8000-" + std::to_string(100000000000LL + i);
                if (r.provider == scrivet::HarnessProvider::cursor) r.ts = Dates::toSeconds(now);
                sessions.apply(r, 0, now);
            }
            sessions.tick(now);
            most = std::max(most, sessions.entryCount());
            if (i % 60 == 0) {
                size_t file = HookStateFile::encode(sessions.snapshot(now), now).size();
                fileMost = std::max(fileMost, file);
                if (i == 1440) {
                    afterDay = sessions.entryCount();
                    fileAfterDay = file;
                    rssAfterDay = rssKiB();
                }
            }
        }
        state.counters["entries_after_day"] = static_cast<double>(afterDay);
        state.counters["entries_most"] = static_cast<double>(most);
        state.counters["state_file_KiB_after_day"] = fileAfterDay / 1024.0;
        state.counters["state_file_KiB_most"] = fileMost / 1024.0;
        state.counters["rss_MiB_after_day"] = rssAfterDay / 1024.0;
        state.counters["rss_MiB_end"] = rssKiB() / 1024.0;
    }
}
BENCHMARK(BM_AWeekOfSessions_10000Ids)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
