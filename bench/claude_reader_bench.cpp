// The Claude reader's costs on journals shaped like the real ones: one info
// read of a 500 MB journal (the newest conversation entry ~70 KB before the
// end), the first look at a 2 GB journal (caches cold: the ledger is seeded
// from the end only), the background ledger's seeding and its later
// advances, the newest sessions of a project folder holding 2,000 journals,
// and a week of sessions coming and going through the reader's caches.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <fstream>

#include "bench_support.hpp"
#include "scrivet/background_ledger.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_reader.hpp"

namespace CTR = scrivet::ClaudeTranscriptReader;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kMB = 1000 * 1000;
const std::string kCwd = "/home/dev/proj.app";

std::string sample(const std::string& name) {
    return bench::readFile(bench::samples() / "claude/home/.claude/projects/-home-dev-proj-app" / name);
}

// The "task" journal: an async subagent launched and reported back, so the
// ledger has real lines to parse.
std::string taskJournal() { return sample("cf9ff97d-2bbd-48a5-b3cd-df36264f26b9.jsonl"); }

CTR::ReadOptions options() { return {std::chrono::system_clock::now(), bench::scratch("claude-tmp")}; }

void BM_Info_500MB_Journal(benchmark::State& state) {
    auto file = bench::scratch("claude") / "-home-dev-proj-app" / "aaaaaaaa-0000-4000-8000-000000000500.jsonl";
    fs::create_directories(file.parent_path());
    if (!fs::exists(file)) bench::writeSparseJournal(file, 500 * kMB, bench::conversation() + bench::bookkeeping(70 * 1000));
    auto config = bench::scratch("claude") / "claude.json";
    auto opts = options();
    CTR::info(file, kCwd, config, opts);  // the ledger's one seeding pass happens here, not in the loop
    for (auto _ : state) {
        auto info = CTR::info(file, kCwd, config, opts);
        if (!info || !info->hasRealTurn) state.SkipWithError("no info");
        benchmark::DoNotOptimize(info);
    }
}

// A real (not sparse) journal of about 500 MB made of real turns.
fs::path bigJournal() {
    auto file = bench::scratch("claude") / "big.jsonl";
    if (fs::exists(file)) return file;
    auto turn = taskJournal() + bench::realJournal();
    std::ofstream out(file, std::ios::binary);
    for (uint64_t written = 0; written < 500 * kMB; written += turn.size()) out << turn;
    return file;
}

// The first scan that meets a 2 GB journal (sparse, with a real tail): every
// cache is cold, as at launch.
void BM_FirstInfo_2GB_Journal(benchmark::State& state) {
    auto file = bench::scratch("claude") / "-home-dev-proj-app" / "aaaaaaaa-0000-4000-8000-000000002000.jsonl";
    fs::create_directories(file.parent_path());
    if (!fs::exists(file))
        bench::writeSparseJournal(file, 2000 * kMB, taskJournal() + bench::conversation() + bench::bookkeeping(70 * 1000));
    auto config = bench::scratch("claude") / "claude.json";
    auto opts = options();
    for (auto _ : state) {
        CTR::resetBackgroundLedgers();
        scrivet::ClaudeSubagentReader::resetParentCache();
        auto info = CTR::info(file, kCwd, config, opts);
        if (!info || !info->hasRealTurn) state.SkipWithError("no info");
        benchmark::DoNotOptimize(info);
    }
}

// Seeding reads the journal's last kLedgerSeedBytes, whatever its size.
void BM_SeedLedger_500MB(benchmark::State& state) {
    auto file = bigJournal();
    for (auto _ : state) {
        auto ledger = CTR::seedBackgroundLedger(file);
        if (!ledger.pending.empty()) state.SkipWithError("every agent reported back");
        benchmark::DoNotOptimize(ledger);
    }
    state.SetBytesProcessed(static_cast<int64_t>(CTR::kLedgerSeedBytes) * state.iterations());
}

// After seeding, each call reads only what the journal grew by (~150 KB here).
void BM_Ledger_AfterAppend_500MB(benchmark::State& state) {
    auto source = bigJournal();
    auto file = bench::scratch("claude") / "growing.jsonl";
    fs::copy_file(source, file, fs::copy_options::overwrite_existing);
    CTR::outstandingBackgroundTasks(file);
    auto turn = taskJournal();
    for (auto _ : state) {
        state.PauseTiming();
        std::ofstream(file, std::ios::binary | std::ios::app) << turn;
        state.ResumeTiming();
        auto tasks = CTR::outstandingBackgroundTasks(file);
        benchmark::DoNotOptimize(tasks);
    }
    state.SetBytesProcessed(static_cast<int64_t>(turn.size()) * state.iterations());
    fs::remove(file);
}

void BM_RecentInfos_2000_Journals(benchmark::State& state) {
    auto projects = bench::scratch("projects");
    auto folder = projects / CTR::encodedDirName(kCwd);
    if (!fs::exists(folder)) {
        fs::create_directories(folder);
        auto text = bench::conversation() + bench::bookkeeping(20 * 1000);
        auto now = std::chrono::system_clock::now();
        for (int i = 0; i < 2000; ++i) {
            char name[64];
            std::snprintf(name, sizeof name, "%08d-0000-4000-8000-000000000000.jsonl", i);
            auto file = folder / name;
            std::ofstream(file, std::ios::binary) << text;
            auto when = std::chrono::system_clock::to_time_t(now) - (2000 - i) * 60;
            struct timeval times[2] = {{when, 0}, {when, 0}};
            ::utimes(file.c_str(), times);
        }
    }
    auto config = projects / "claude.json";
    auto opts = options();
    for (auto _ : state) {
        auto infos = CTR::recentInfos(projects, kCwd, 5, {}, config, opts);
        if (infos.size() != 5) state.SkipWithError("expected five");
        benchmark::DoNotOptimize(infos);
    }
}

long residentKiB() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

// A week of sessions: 10,000 session journals, each with a background agent
// and a live subagent journal, read once or twice while they run and then
// never again. The reader's per-journal caches must stay bounded: the
// counters show how many ledgers and parent journals they hold at the end,
// and how much resident memory grew.
void BM_WeekOfSessions_10000(benchmark::State& state) {
    auto folder = bench::scratch("week") / "-home-dev-proj-app";
    fs::create_directories(folder);
    auto opts = options();
    auto config = folder / "claude.json";
    CTR::resetBackgroundLedgers();
    scrivet::ClaudeSubagentReader::resetParentCache();
    long before = residentKiB();
    for (auto _ : state) {
        for (int i = 0; i < 10000; ++i) {
            char id[64];
            std::snprintf(id, sizeof id, "%08d-0000-4000-8000-000000000000", i);
            auto journal = folder / (std::string(id) + ".jsonl");
            using Json = nlohmann::json;
            std::string session(id);
            std::string launch =
                Json{{"type", "user"}, {"message", {{"role", "user"}, {"content", "audit session " + session}}}}.dump() +
                "\n" +
                Json{{"type", "assistant"},
                     {"message", {{"role", "assistant"}, {"stop_reason", "tool_use"},
                                  {"content", {{{"type", "tool_use"}, {"id", "toolu_" + session}, {"name", "Agent"},
                                                {"input", {{"description", "Audit"}, {"prompt", "Audit part " + session},
                                                           {"subagent_type", "general-purpose"}}}}}}}}}
                    .dump() +
                "\n" +
                Json{{"type", "user"}, {"toolUseResult", {{"isAsync", true}, {"agentId", "a" + session}}},
                     {"message", {{"role", "user"}, {"content", "launched"}}}}
                    .dump() +
                "\n";
            std::ofstream(journal, std::ios::binary) << launch;
            auto agents = folder / id / "subagents";
            fs::create_directories(agents);
            std::ofstream(agents / "agent-a1.jsonl", std::ios::binary)
                << Json{{"type", "user"}, {"message", {{"role", "user"}, {"content", "Audit part " + session}}}}.dump()
                << "\n";
            for (int look = 0; look < 2; ++look) benchmark::DoNotOptimize(CTR::info(journal, kCwd, config, opts));
            fs::remove_all(folder / id);
            fs::remove(journal);
        }
    }
    state.counters["ledgers"] = static_cast<double>(CTR::cachedBackgroundLedgers());
    state.counters["parents"] = static_cast<double>(scrivet::ClaudeSubagentReader::cachedParents());
    state.counters["rss_growth_MiB"] = static_cast<double>(residentKiB() - before) / 1024.0;
}

}  // namespace

BENCHMARK(BM_FirstInfo_2GB_Journal)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_WeekOfSessions_10000)->Unit(benchmark::kSecond)->Iterations(1);
BENCHMARK(BM_Info_500MB_Journal)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SeedLedger_500MB)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Ledger_AfterAppend_500MB)->Unit(benchmark::kMicrosecond)->Iterations(50);
BENCHMARK(BM_RecentInfos_2000_Journals)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(bench::scratch("claude").parent_path());
    return 0;
}
