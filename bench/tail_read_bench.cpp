// The tail window's cost: it must not depend on the journal's size, and the
// real shape of Claude Code journals (57-69 KB of bookkeeping after the newest
// conversation entry) makes the 512 KiB window the normal case.
#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "scrivet/tail_reader.hpp"

using scrivet::TailReader::read;

namespace {

constexpr uint64_t kMB = 1000 * 1000;

// A journal of `size` bytes whose newest conversation entry starts `gap`
// bytes before the end.
std::filesystem::path journal(const std::string& name, uint64_t size, size_t gap) {
    auto file = bench::scratch("tail") / name;
    if (!std::filesystem::exists(file)) bench::writeSparseJournal(file, size, bench::conversation() + bench::bookkeeping(gap));
    return file;
}

void readTail(benchmark::State& state, const std::filesystem::path& file, uint64_t expectWindow) {
    for (auto _ : state) {
        auto w = read(file, 2000);
        if (!w.hasConversation || w.fileSize - w.start != expectWindow) state.SkipWithError("wrong window");
        benchmark::DoNotOptimize(w);
    }
}

void BM_TailRead_1MB_Journal(benchmark::State& state) {
    readTail(state, journal("1mb.jsonl", 1 * kMB, 70 * 1000), 512 * 1024);
}
void BM_TailRead_500MB_Journal(benchmark::State& state) {
    readTail(state, journal("500mb.jsonl", 500 * kMB, 70 * 1000), 512 * 1024);
}
// The newest conversation entry sits inside the first 64 KiB window.
void BM_TailRead_64KiB_Window(benchmark::State& state) {
    readTail(state, journal("near.jsonl", 500 * kMB, 30 * 1000), 64 * 1024);
}
// One 3 MB tool result followed by bookkeeping: only the 4 MiB window sees the turn.
void BM_TailRead_3MB_ToolResult_500MB(benchmark::State& state) {
    auto file = bench::scratch("tail") / "giant.jsonl";
    if (!std::filesystem::exists(file)) {
        std::string tail = bench::conversation();
        tail += R"({"type":"user","message":{"role":"user","content":[{"type":"tool_result","tool_use_id":"toolu_1","content":")" +
                std::string(3 * kMB, 'x') + "\"}]}}\n";
        tail += bench::bookkeeping(60 * 1000);
        bench::writeSparseJournal(file, 500 * kMB, tail);
    }
    readTail(state, file, 4 * 1024 * 1024);
}

}  // namespace

BENCHMARK(BM_TailRead_1MB_Journal)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TailRead_500MB_Journal)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TailRead_64KiB_Window)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TailRead_3MB_ToolResult_500MB)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(bench::scratch("tail").parent_path());
    return 0;
}
