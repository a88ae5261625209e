// Plan usage's cost and its isolation.
//
// PollCycle: one poll of every metered provider as the usage worker runs it
// — the Claude login read and the request to a local server that answers at
// once (so the time is ours, not the network's), the newest Codex rollout's
// rate limits, and OpenCode Go's charges from a database of 20,000 messages.
// The figure is the worker thread's processor time; the target is under 5 ms.
//
// WhileTheServerHangs: the usage worker is stuck on a server that never
// answers, and meanwhile the main loop runs posted work (a monitor publish, a
// keypress handled and a frame drawn with the quota strip) and a serial queue
// like the monitor's runs a task; the figures are how long each waited.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "bench_support.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/base/log.hpp"
#include "lumora/ui/view_controller.hpp"
#include "lumora/usage/codex_rate_limits.hpp"
#include "lumora/usage/quota_sources.hpp"
#include "lumora/usage/usage_poller.hpp"

using namespace lumora;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

// A loopback HTTP server: answers every request with `body`, or never.
class Server {
public:
    Server(std::string body, bool hang) : body_(std::move(body)), hang_(hang) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::listen(fd_, 64);
        socklen_t len = sizeof a;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        (void)!::pipe(stop_);
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() {
        (void)!::write(stop_[1], "x", 1);
        thread_.join();
        ::close(fd_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    void serve() {
        std::vector<int> held;
        for (;;) {
            pollfd p[2] = {{fd_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
            ::poll(p, 2, -1);
            if (p[1].revents) break;
            int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) continue;
            if (hang_) {
                held.push_back(c);
                continue;
            }
            char buf[4096];
            std::string in;
            while (in.find("\r\n\r\n") == std::string::npos) {
                ssize_t n = ::recv(c, buf, sizeof buf, 0);
                if (n <= 0) break;
                in.append(buf, static_cast<size_t>(n));
            }
            std::string out = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                              std::to_string(body_.size()) + "\r\nConnection: close\r\n\r\n" + body_;
            (void)!::send(c, out.data(), out.size(), MSG_NOSIGNAL);
            ::close(c);
        }
        for (int c : held) ::close(c);
    }
    std::string body_;
    bool hang_;
    int fd_ = -1, port_ = 0, stop_[2] = {-1, -1};
    std::thread thread_;
};

constexpr const char* kAnswer =
    R"({"five_hour":null,"seven_day":null,"limits":[{"kind":"session","percent":62,"resets_at":"2026-11-22T14:00:00.422373+00:00"},)"
    R"({"kind":"weekly_all","percent":19,"resets_at":"2026-11-28T09:00:00.422373+00:00"},)"
    R"({"kind":"weekly_scoped","percent":3,"resets_at":"2026-11-28T09:00:00.422373+00:00","scope":{"model":{"display_name":"Opus"}}}],)"
    R"("extra_usage":{"is_enabled":true,"used_credits":420,"monthly_limit":5000}})";

std::string dayFolder(Date when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y/%m/%d", &tm);
    return buf;
}

// A home with a Claude login, a week of Codex rollouts (the newest 2 MB,
// its last good rate limits 200 KB from its end) and an OpenCode database.
struct Home {
    fs::path root = bench::scratch("usage");
    fs::path codex = root / "codex-sessions";
    fs::path db = root / "opencode.db";
    Date now = std::chrono::system_clock::now();

    Home() {
        fs::create_directories(root / ".claude");
        std::ofstream(root / ".claude/.credentials.json")
            << R"({"claudeAiOauth":{"accessToken":"sk-ant-oat01-bench","expiresAt":1900000000000,"subscriptionType":"max","rateLimitTier":"default_claude_max_20x"}})";
        std::string filler = R"({"timestamp":"2026-11-22T00:46:25.357Z","type":"response_item","payload":{"type":"message","role":"assistant","content":[{"type":"output_text","text":")" +
                             std::string(900, 'w') + "\"}]}}\n";
        std::string good = R"({"timestamp":")" + Dates::format(now - 60s) +
                           R"(","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":{"total_tokens":7163}},"rate_limits":{"primary":{"used_percent":22.0,"window_minutes":300,"resets_at":)" +
                           std::to_string(static_cast<long long>(Dates::toSeconds(now + 2h))) +
                           R"(},"secondary":{"used_percent":9.0,"window_minutes":10080,"resets_at":)" +
                           std::to_string(static_cast<long long>(Dates::toSeconds(now + 100h))) + R"(},"plan_type":"plus"}}})" "\n";
        std::string nulls = R"({"timestamp":"2026-11-22T00:46:25.357Z","type":"event_msg","payload":{"type":"token_count","info":null,"rate_limits":{"primary":null,"secondary":null}}})" "\n";
        // Oldest first, so the newest rollout (day 0, number 0) is written last.
        for (int d = 6; d >= 0; --d) {
            fs::path folder = codex / dayFolder(now - 24h * d);
            fs::create_directories(folder);
            for (int i = 4; i >= 0; --i) {
                fs::path file = folder / ("rollout-" + std::to_string(d) + "-" + std::to_string(i) + ".jsonl");
                {
                    std::ofstream out(file);
                    size_t lines = d == 0 && i == 0 ? 2000 : 50;
                    for (size_t l = 0; l < lines; ++l) out << (l == lines - 200 ? good : l % 10 == 0 ? nulls : filler);
                }
                fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::minutes(d * 60 + i));
            }
        }
        fs::remove(db);
        sqlite3* h = nullptr;
        sqlite3_open(db.c_str(), &h);
        sqlite3_exec(h, "PRAGMA synchronous=OFF; CREATE TABLE message (id text PRIMARY KEY, session_id text NOT NULL, "
                        "time_created integer NOT NULL, time_updated integer NOT NULL, data text NOT NULL); "
                        "CREATE INDEX message_session_time_created_id_idx ON message (session_id, time_created, id); BEGIN",
                     nullptr, nullptr, nullptr);
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(h, "INSERT INTO message VALUES (?, 's', ?, ?, ?)", -1, &s, nullptr);
        long long nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
        for (int i = 19999; i >= 0; --i) {
            // Three months of finished messages, oldest first as OpenCode
            // writes them; every tenth billed to the Go plan.
            long long at = nowMs - static_cast<long long>(i) * 400000;
            std::string data = std::string(R"({"role":"assistant","providerID":")") + (i % 10 == 0 ? "opencode-go" : "anthropic") +
                               R"(","cost":0.0123,"tokens":{"total":1234},"time":{"created":)" + std::to_string(at) +
                               ",\"completed\":" + std::to_string(at + 20000) + "}}";
            std::string id = std::to_string(i);
            id.insert(id.begin(), 'm');
            sqlite3_bind_text(s, 1, id.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int64(s, 2, at);
            sqlite3_bind_int64(s, 3, at);
            sqlite3_bind_text(s, 4, data.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_step(s);
            sqlite3_reset(s);
        }
        sqlite3_finalize(s);
        sqlite3_exec(h, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(h);
    }
};

Home& home() {
    static Home h;
    return h;
}

UsageService::Environment environment(const std::string& api) {
    UsageService::Environment e;
    e.home = home().root;
    e.apiBase = api;
    return e;
}

void BM_PollCycle(benchmark::State& state) {
    Server server(kAnswer, false);
    UsageBackoff backoff;
    std::string api = server.url();
    std::vector<std::unique_ptr<QuotaSource>> sources;
    sources.push_back(std::make_unique<ClaudeQuotaSource>([api] { return environment(api); }, backoff));
    sources.push_back(std::make_unique<CodexQuotaSource>(home().codex));
    sources.push_back(std::make_unique<OpenCodeGoQuotaSource>(home().db));
    std::atomic<bool> cancel{false};
    std::string missing;
    for (auto _ : state) {
        for (auto& s : sources) {
            auto f = s->fetch(std::chrono::system_clock::now(), cancel);
            if (!f.probe.usage && missing.empty()) missing = f.probe.line();
        }
    }
    if (!missing.empty()) state.SkipWithError(("a provider gave no reading: " + missing).c_str());
}
BENCHMARK(BM_PollCycle)->Unit(benchmark::kMillisecond);

// Each local provider on its own, for the breakdown.
void BM_CodexNewestRollout(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(CodexRateLimits::newest(home().codex, std::chrono::system_clock::now()));
}
BENCHMARK(BM_CodexNewestRollout)->Unit(benchmark::kMicrosecond);

void BM_OpenCodeGoCharges(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(OpenCodeGoUsage::read(home().db, {}, std::chrono::system_clock::now()));
}
BENCHMARK(BM_OpenCodeGoCharges)->Unit(benchmark::kMicrosecond);

// OpenCode running: a new Go message lands between two polls, which read
// only the table's tail.
void BM_OpenCodeGoLedgerWhileActive(benchmark::State& state) {
    OpenCodeGoUsage::ChargeLedger ledger;
    sqlite3* h = nullptr;
    sqlite3_open(home().db.c_str(), &h);
    sqlite3_exec(h, "PRAGMA synchronous=OFF", nullptr, nullptr, nullptr);
    ledger.charges(home().db, std::chrono::system_clock::now() - 720h, std::chrono::system_clock::now());
    int n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        long long nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::system_clock::now().time_since_epoch()).count();
        std::string sql = "INSERT INTO message VALUES ('new" + std::to_string(n++) + "', 's', " + std::to_string(nowMs) +
                          ", " + std::to_string(nowMs) + R"(, '{"role":"assistant","providerID":"opencode-go","cost":0.01}'))";
        sqlite3_exec(h, sql.c_str(), nullptr, nullptr, nullptr);
        state.ResumeTiming();
        auto now = std::chrono::system_clock::now();
        benchmark::DoNotOptimize(ledger.charges(home().db, now - 720h, now));
    }
    sqlite3_exec(h, "DELETE FROM message WHERE id LIKE 'new%'", nullptr, nullptr, nullptr);
    sqlite3_close(h);
    state.counters["queries"] = static_cast<double>(ledger.reads());
}
BENCHMARK(BM_OpenCodeGoLedgerWhileActive)->Unit(benchmark::kMicrosecond);

class StripBackend : public ViewBackend {
public:
    explicit StripBackend(UsagePoller& poller) : poller_(poller) {}
    std::vector<AgentInstance> instances() const override { return {}; }
    std::set<std::string> unseenCompletions() const override { return {}; }
    std::set<std::string> acknowledgedAttention() const override { return {}; }
    std::optional<PeekEvent> peekEvent() const override { return std::nullopt; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest&) const override { return {}; }
    std::optional<std::string> choose(const ApprovalRequest&, ApprovalChoice::Kind) override { return std::nullopt; }
    void sawRow(const std::string&) override {}
    std::vector<QuotaReading> quotaReadings() const override { return poller_.readings(); }
    void setOnChange(std::function<void()>) override {}

private:
    UsagePoller& poller_;
};

// Arg 1: the usage worker is stuck on the hung server; arg 0: the same
// machine with no usage poll in flight, for comparison.
void BM_WhileTheServerHangs(benchmark::State& state) {
    bool hang = state.range(0) == 1;
    Server server("", true);
    std::string api = server.url();
    RunLoop loop;
    UsageBackoff backoff;
    UsagePoller::Dependencies deps;
    if (hang) deps.sources.push_back(std::make_unique<ClaudeQuotaSource>([api] { return environment(api); }, backoff));
    deps.sources.push_back(std::make_unique<CodexQuotaSource>(home().codex));
    deps.loop = &loop;
    auto owned = std::make_unique<UsagePoller>(std::move(deps));
    UsagePoller& poller = *owned;
    poller.start();
    // Wait until the Codex reading is in and the Claude request hangs.
    loop.runUntil([&] { return !poller.readings().empty(); }, 10s);
    SerialQueue monitorQueue("bench.monitor");
    StripBackend backend(poller);
    ui::ViewController view(backend, {});
    double worstLoop = 0, worstQueue = 0, sumLoop = 0;
    for (auto _ : state) {
        auto posted = std::chrono::steady_clock::now();
        std::chrono::steady_clock::time_point ran;
        loop.post([&] {
            view.handle(ui::Key::down);
            benchmark::DoNotOptimize(view.frame(120, 40));
            ran = std::chrono::steady_clock::now();
        });
        loop.runOnce(1s);
        double waited = std::chrono::duration<double, std::milli>(ran - posted).count();
        worstLoop = std::max(worstLoop, waited);
        sumLoop += waited;
        auto queued = std::chrono::steady_clock::now();
        monitorQueue.sync([] {});
        worstQueue = std::max(worstQueue, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - queued).count());
    }
    if (hang != poller.cycleInFlight()) state.SkipWithError("the request did not hang");
    state.counters["loop_mean_ms"] = sumLoop / static_cast<double>(state.iterations());
    state.counters["loop_worst_ms"] = worstLoop;
    state.counters["queue_worst_ms"] = worstQueue;
    auto stopping = std::chrono::steady_clock::now();
    owned.reset();  // cancels the hung request and joins the worker
    state.counters["stop_ms"] = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - stopping).count();
}
BENCHMARK(BM_WhileTheServerHangs)->Unit(benchmark::kMicrosecond)->Iterations(2000)->Arg(0)->Arg(1);

}  // namespace

int main(int argc, char** argv) {
    Log::silence();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
