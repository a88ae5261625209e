// The hook bridge under load, over its real socket with real client
// connections: how fast a gate that a standing rule covers is answered, how
// many marker lines it takes in from many clients at once, and whether 200
// held gates each get their own answer.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
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
#include "lumora/hooks/hook_bridge.hpp"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

struct Fixture {
    fs::path dir = bench::scratch("hook-" + std::to_string(counter++));
    lumora::DefaultsStore defaults{dir / "defaults.json"};
    lumora::ApprovalRulesStore rules{defaults};
    fs::path socket = dir / "support" / "notch.sock";
    std::unique_ptr<lumora::HookBridge> bridge;

    Fixture() {
        lumora::Log::silence();
        lumora::HookBridgeOptions options;
        options.traceFile.reset();
        bridge = std::make_unique<lumora::HookBridge>(socket, dir / "support", rules, options);
        if (!bridge->start()) throw std::runtime_error("bridge did not start");
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

// 50 clients send 10,000 marker lines in all, each for its own session; the
// time runs until the bridge holds all 10,000 markers. Target: under 1 s.
// range(0) == 1: a fresh connection per line, as the hooks do; 0: each client
// keeps one connection.
void BM_MarkerFlood_50Clients_10000Lines(benchmark::State& state) {
    const bool connectionPerLine = state.range(0) == 1;
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
                int fd = connectionPerLine ? -1 : connectTo(f->socket);
                for (int i = 0; i < kLinesEach; ++i) {
                    std::string line = R"({"v":1,"source":"claude","session_id":"s-)" + std::to_string(c) + "-" +
                                       std::to_string(i) +
                                       R"(","action":"marker","kind":"question","tool_name":"AskUserQuestion","detail":"Which one?","options":["A","B"],"more_questions":0})"
                                       "\n";
                    if (connectionPerLine) {
                        int one = connectTo(f->socket);
                        if (one < 0 || !sendAll(one, line)) ++failures;
                        if (one >= 0) ::close(one);
                    } else {
                        sendAll(fd, line);
                    }
                }
                if (fd >= 0) ::close(fd);
            });
        }
        for (auto& t : clients) t.join();
        while (f->bridge->claudeMarkers().size() < kClients * kLinesEach &&
               Clock::now() - t0 < std::chrono::seconds(10)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        auto elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
        size_t applied = f->bridge->claudeMarkers().size();
        state.SetIterationTime(elapsed);
        state.counters["applied"] = static_cast<double>(applied);
        if (applied != kClients * kLinesEach) {
            state.SkipWithError(("lines lost: applied " + std::to_string(applied) + ", failed sends " +
                                 std::to_string(failures.load())).c_str());
            break;
        }
        state.PauseTiming();
        f.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_MarkerFlood_50Clients_10000Lines)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

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
        while (f->bridge->heldGateSessions().size() < kGates && Clock::now() - t0 < std::chrono::seconds(10)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        for (int i = 0; i < kGates; ++i) f->bridge->resolve("gate-" + std::to_string(i), i % 2 == 0);
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

}  // namespace

BENCHMARK_MAIN();
