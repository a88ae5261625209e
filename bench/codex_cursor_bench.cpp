// The Codex and Cursor readers' costs: finding the running Codex sessions
// among 5,000 rollouts spread over 400 dated folders (warm, and cold: a fresh
// source with the rollouts' pages dropped from the cache); the tail of one
// 50 MB rollout; and one monitor tick with 10 Codex and 10 Cursor sessions
// beside 20 Claude Code ones.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/time.h>

#include <ctime>
#include <fstream>
#include <map>
#include <sstream>

#include "bench_support.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/log.hpp"
#include "lumora/monitor/claude_monitor.hpp"
#include "lumora/monitor/claude_session_source.hpp"
#include "lumora/monitor/codex_session_source.hpp"
#include "lumora/monitor/cursor_session_source.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/codex_transcript_reader.hpp"
#include "scrivet/cursor_transcript_reader.hpp"

using namespace lumora;
namespace Codex = scrivet::CodexTranscriptReader;
namespace Cursor = scrivet::CursorTranscriptReader;
using Json = nlohmann::json;
using Clock = std::chrono::system_clock;

namespace {

constexpr uint64_t kMB = 1000 * 1000;

double processCpuSeconds() {
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string threadId(int i) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "01a200b8-0000-7000-8000-%012d", i);
    return buf;
}

// A real rollout (the "bash" sample) as a thread of our own in `cwd`,
// begun at `start`.
std::string rolloutText(const std::string& id, const std::string& cwd, Clock::time_point start) {
    std::istringstream in(bench::readFile(bench::samples() / "codex/home/.codex/sessions/2026/11/22/"
                                                             "rollout-2026-11-22T00-46-30-01a200b8-08e9-7700-a95d-dc5d02af79ad.jsonl"));
    std::string line, out;
    bool first = true;
    while (std::getline(in, line)) {
        if (first) {
            auto meta = Json::parse(line);
            meta["payload"]["id"] = id;
            meta["payload"]["session_id"] = id;
            meta["payload"]["cwd"] = cwd;
            meta["payload"]["originator"] = "codex-tui";
            std::time_t t = Clock::to_time_t(start);
            std::tm tm{};
            ::gmtime_r(&t, &tm);
            char iso[32];
            std::strftime(iso, sizeof iso, "%Y-%m-%dT%H:%M:%S.000Z", &tm);
            meta["payload"]["timestamp"] = iso;
            line = meta.dump();
            first = false;
        }
        out += line + "\n";
    }
    return out;
}

fs::path rolloutPath(const fs::path& root, const std::string& id, Clock::time_point start) {
    std::time_t t = Clock::to_time_t(start);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    char day[16], stamp[32];
    std::strftime(day, sizeof day, "%Y/%m/%d", &tm);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H-%M-%S", &tm);
    return root / day / ("rollout-" + std::string(stamp) + "-" + id + ".jsonl");
}

void setMtime(const fs::path& file, Clock::time_point when) {
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
    timeval tv[2];
    tv[0].tv_sec = tv[1].tv_sec = us / 1000000;
    tv[0].tv_usec = tv[1].tv_usec = us % 1000000;
    ::utimes(file.c_str(), tv);
}

ProcessInfo process(int32_t pid, const std::string& command, const fs::path& cwd, Clock::time_point start) {
    ProcessInfo p;
    p.pid = pid;
    p.ppid = 1;
    p.command = command;
    p.name = command;
    p.cwd = cwd.string();
    p.start = start;
    p.startTicks = static_cast<uint64_t>(pid);
    p.cpuSeconds = 1;
    return p;
}

// ~/.codex/sessions with `folders` days of history ending today, `total`
// rollouts in all, and one live process (with today's rollout) per `live`.
struct CodexHistory {
    fs::path root, sessions;
    std::vector<ProcessInfo> processes;
    std::vector<fs::path> files;
};

// Made once per name (a benchmark's function runs several times).
CodexHistory makeCodexHistory(const std::string& name, int folders, int total, int live) {
    static std::map<std::string, CodexHistory> made;
    if (auto it = made.find(name); it != made.end()) return it->second;
    CodexHistory& h = made[name];
    h.root = bench::scratch(name);
    h.sessions = h.root / "sessions";
    auto now = Clock::now();
    for (int i = 0; i < total; ++i) {
        int age = i % folders;  // days back
        auto start = now - std::chrono::hours(24) * age - std::chrono::minutes(30) - std::chrono::seconds(i);
        bool isLive = i < live;
        if (isLive) start = now - std::chrono::minutes(20);
        auto cwd = h.root / ("proj" + std::to_string(i % 50));
        auto file = rolloutPath(h.sessions, threadId(i), start);
        if (!fs::exists(file)) {
            fs::create_directories(file.parent_path());
            std::ofstream(file, std::ios::binary) << rolloutText(threadId(i), (isLive ? h.root / ("live" + std::to_string(i)) : cwd).string(), start);
        }
        setMtime(file, isLive ? now - std::chrono::seconds(10) : start + std::chrono::minutes(5));
        h.files.push_back(file);
        if (isLive) {
            auto liveCwd = h.root / ("live" + std::to_string(i));
            fs::create_directories(liveCwd);
            h.processes.push_back(process(7000 + i, "codex", liveCwd, now - std::chrono::minutes(25)));
        }
    }
    return h;
}

ScanContext contextFor(const std::vector<ProcessInfo>& processes) {
    ProcessDiscovery::Pass pass;
    pass.snapshot = ProcessSnapshot(processes);
    for (const auto& p : processes) {
        DiscoveredAgent a;
        a.provider = p.command == "codex" ? HarnessProvider::codex : HarnessProvider::cursor;
        a.pid = p.pid;
        a.cwd = *p.cwd;
        a.start = p.start;
        pass.agents.push_back(a);
    }
    return ScanContext{Clock::now(), std::make_shared<const ProcessDiscovery::Pass>(std::move(pass)), nullptr};
}

void BM_FindRunningCodex_5000Rollouts_400Folders_Warm(benchmark::State& state) {
    auto h = makeCodexHistory("codex-history", 400, 5000, 10);
    CodexSessionSource source({h.sessions, std::chrono::minutes(30), {}});
    auto ctx = contextFor(h.processes);
    source.observe(ctx);
    for (auto _ : state) {
        ctx.now = Clock::now();
        auto rows = source.observe(ctx);
        if (rows.size() != 10 || !rows[0].info || !rows[0].info->sessionId) state.SkipWithError("wrong sessions");
        benchmark::DoNotOptimize(rows);
    }
}

void BM_FindRunningCodex_5000Rollouts_400Folders_Cold(benchmark::State& state) {
    auto h = makeCodexHistory("codex-history", 400, 5000, 10);
    auto ctx = contextFor(h.processes);
    double cpu = 0;
    for (auto _ : state) {
        state.PauseTiming();
        // Drop the rollouts' pages: every read goes to the disk again.
        for (const auto& f : h.files) {
            int fd = ::open(f.c_str(), O_RDONLY);
            if (fd >= 0) {
                ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
                ::close(fd);
            }
        }
        CodexSessionSource source({h.sessions, std::chrono::minutes(30), {}});
        ctx.now = Clock::now();
        state.ResumeTiming();
        double before = processCpuSeconds();
        auto rows = source.observe(ctx);
        cpu += processCpuSeconds() - before;
        if (rows.size() != 10) state.SkipWithError("wrong sessions");
        benchmark::DoNotOptimize(rows);
    }
    state.counters["cpu_ms"] = cpu * 1000 / static_cast<double>(state.iterations());
}

// The stateless reader alone, as the plan-usage side calls it: every fresh
// rollout parsed, subagents folded.
void BM_CodexRunningSessions_Reader(benchmark::State& state) {
    auto h = makeCodexHistory("codex-history", 400, 5000, 10);
    for (auto _ : state) {
        auto sessions = Codex::runningSessions(h.sessions, std::chrono::minutes(30), {}, Clock::now(), false, true);
        if (sessions.size() != 10) state.SkipWithError(("wrong sessions: " + std::to_string(sessions.size())).c_str());
        benchmark::DoNotOptimize(sessions);
    }
}

void BM_CodexRolloutTail_50MB(benchmark::State& state) {
    auto dir = bench::scratch("codex-big");
    auto file = dir / "rollout-2026-11-22T00-46-30-01a200b8-0000-7000-8000-000000000050.jsonl";
    if (!fs::exists(file)) {
        auto text = rolloutText(threadId(50), "/home/dev/proj", Clock::now());
        // The real head, 50 MB of earlier turns (a hole), and the real turns at the end.
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (::pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) state.SkipWithError("write");
        auto tail = text.substr(text.find('\n') + 1);
        uint64_t end = 50 * kMB;
        if (::pwrite(fd, "\n", 1, static_cast<off_t>(end - tail.size() - 1)) != 1 ||
            ::pwrite(fd, tail.data(), tail.size(), static_cast<off_t>(end - tail.size())) != static_cast<ssize_t>(tail.size()))
            state.SkipWithError("write");
        ::close(fd);
    }
    for (auto _ : state) {
        auto s = Codex::session(file);
        if (!s || !s->info.hasRealTurn) state.SkipWithError("no session");
        benchmark::DoNotOptimize(s);
    }
    state.counters["file_MB"] = static_cast<double>(fs::file_size(file)) / kMB;
}

std::string claudeSessionId(int i) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "5f0c1b8e-3a2d-4c6e-9f10-%012d", i);
    return buf;
}

// One monitor tick: 20 Claude Code sessions (20 MB journals), 10 Codex
// threads among 2,000 older rollouts, 10 Cursor conversations.
void BM_MonitorTick_10Codex_10Cursor_20Claude(benchmark::State& state) {
    Log::silence();
    auto root = bench::scratch("tick");
    auto now = Clock::now();
    auto start = now - std::chrono::hours(1);
    std::vector<ProcessInfo> ps;
    fs::create_directories(root / "claude-sessions");
    for (int i = 0; i < 20; ++i) {
        auto cwd = root / ("claude" + std::to_string(i));
        fs::create_directories(cwd);
        ps.push_back(process(5000 + i, "claude", cwd, start));
        Json record = {{"pid", 5000 + i}, {"sessionId", claudeSessionId(i)}, {"cwd", cwd.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()}};
        std::ofstream(root / "claude-sessions" / (std::to_string(5000 + i) + ".json")) << record.dump();
        auto journal = scrivet::ClaudeTranscriptReader::transcriptURL(root / "projects", cwd.string(), claudeSessionId(i));
        fs::create_directories(journal.parent_path());
        if (!fs::exists(journal)) bench::writeSparseJournal(journal, 20 * kMB, bench::conversation() + bench::bookkeeping(60 * 1000));
    }
    auto history = makeCodexHistory("tick-codex", 60, 2000, 10);
    for (auto p : history.processes) ps.push_back(p);
    for (int i = 0; i < 10; ++i) {
        auto cwd = root / ("cursor" + std::to_string(i));
        fs::create_directories(cwd);
        ps.push_back(process(9000 + i, "cursor-agent", cwd, start));
        auto file = root / "cursor-projects" / Cursor::encodedDirName(cwd.string()) / "agent-transcripts" /
                    ("c0ffee00-0000-4000-8000-" + std::string(12 - std::to_string(i).size(), '0') + std::to_string(i) + ".jsonl");
        fs::create_directories(file.parent_path());
        std::ofstream out(file);
        for (int turn = 0; turn < 40; ++turn) {
            out << Json{{"role", "user"}, {"message", {{"content", {{{"type", "text"}, {"text", "<user_query>\nfix test " + std::to_string(turn) + "\n</user_query>"}}}}}}}.dump() << "\n";
            out << Json{{"role", "assistant"}, {"message", {{"content", {{{"type", "text"}, {"text", std::string(800, 'r')}}, {{"type", "tool_use"}, {"name", "Read"}, {"input", {{"path", "src/a.ts"}}}}}}}}}.dump() << "\n";
            out << Json{{"type", "turn_ended"}}.dump() << "\n";
        }
    }
    ProcessInfo init;
    init.pid = 1;
    init.command = "/sbin/init";
    init.name = "init";
    ps.push_back(init);
    FixedProcessTable table(ps);
    ProcessDiscovery discovery(table, root / "claude-sessions", root / "projects");
    DefaultsStore defaults(root / "defaults.json");
    SDKHostMemory memory(defaults);
    RunLoop loop;
    ClaudeMonitor::Dependencies deps;
    deps.discover = [&discovery] { return discovery.run(); };
    deps.sources.push_back(std::make_unique<ClaudeSessionSource>(
        ClaudeSessionSource::Paths{root / "projects", root / "claude.json", root / "tmp"}, memory,
        [](const std::string&, const ProcessSnapshot&) { return false; }));
    deps.sources.push_back(std::make_unique<CodexSessionSource>(
        CodexSessionSource::Options{history.sessions, std::chrono::minutes(30), {}}));
    deps.sources.push_back(std::make_unique<CursorSessionSource>(
        CursorSessionSource::Options{root / "cursor-projects", std::chrono::minutes(30)}));
    deps.hooks = [](Date) { return HookSnapshot{}; };
    deps.loop = &loop;
    ClaudeMonitor monitor(std::move(deps));
    monitor.scanOnce();
    // The scan runs on the monitor's own thread: count the whole process's
    // processor time too, which the machine's load does not inflate.
    double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        auto list = monitor.scanOnce();
        if (list.size() != 40) state.SkipWithError(("wrong scan: " + std::to_string(list.size())).c_str());
        benchmark::DoNotOptimize(list);
    }
    state.counters["cpu_ms_per_tick"] = (processCpuSeconds() - cpuBefore) * 1000 / static_cast<double>(state.iterations());
}

// The two new sources alone, on the same machine as the tick above.
void BM_Tick_CodexAndCursorSourcesOnly(benchmark::State& state) {
    auto root = bench::scratch("tick");
    auto history = makeCodexHistory("tick-codex", 60, 2000, 10);
    std::vector<ProcessInfo> ps = history.processes;
    auto start = Clock::now() - std::chrono::hours(1);
    for (int i = 0; i < 10; ++i) ps.push_back(process(9000 + i, "cursor-agent", root / ("cursor" + std::to_string(i)), start));
    auto ctx = contextFor(ps);
    CodexSessionSource codex({history.sessions, std::chrono::minutes(30), {}});
    CursorSessionSource cursor({root / "cursor-projects", std::chrono::minutes(30)});
    HookSnapshot hooks;
    ctx.hooks = &hooks;
    for (auto _ : state) {
        ctx.now = Clock::now();
        auto a = codex.observe(ctx);
        auto b = cursor.observe(ctx);
        if (a.size() != 10 || b.size() != 10) state.SkipWithError("wrong sessions");
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
    }
}

}  // namespace

BENCHMARK(BM_FindRunningCodex_5000Rollouts_400Folders_Warm)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindRunningCodex_5000Rollouts_400Folders_Cold)->Unit(benchmark::kMillisecond)->Iterations(50);
BENCHMARK(BM_CodexRunningSessions_Reader)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CodexRolloutTail_50MB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MonitorTick_10Codex_10Cursor_20Claude)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tick_CodexAndCursorSourcesOnly)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(bench::scratch("codex-history").parent_path());
    return 0;
}
