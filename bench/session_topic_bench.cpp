// A session's topic from the head of a 500 MB journal: the first read (the
// head only, up to the first prompt) and every later one (remembered).
// Target: under 1 ms, and cached.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "bench_support.hpp"
#include "scrivet/session_topic.hpp"

using scrivet::HarnessProvider;
namespace Topic = scrivet::SessionTopic;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t k500MB = 500ull * 1000 * 1000;

// The journal's real head, then a hole up to 500 MB (no disk, no time).
fs::path bigJournal(const std::string& name, const std::string& head) {
    auto file = bench::scratch("topic") / name;
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::pwrite(fd, head.data(), head.size(), 0) != static_cast<ssize_t>(head.size()) ||
        ::ftruncate(fd, static_cast<off_t>(k500MB)) != 0)
        throw std::runtime_error("cannot write " + file.string());
    ::close(fd);
    return file;
}

std::string claudeHead() { return bench::realJournal() + bench::bookkeeping(200 * 1000); }
std::string codexHead() {
    return bench::readFile(bench::samples() / "codex/home/.codex/sessions/2026/11/22/"
                                              "rollout-2026-11-22T00-46-25-01a200b7-f33b-7c13-aace-3190dfe8020d.jsonl");
}

void run(benchmark::State& state, HarnessProvider provider, const std::string& head, bool cached) {
    if (head.empty()) {
        state.SkipWithError("no agent samples");
        return;
    }
    auto file = bigJournal(std::string(scrivet::rawValue(provider)) + ".jsonl", head);
    Topic::clearCache();
    if (!Topic::topic(file, provider)) state.SkipWithError("no topic in the head");
    for (auto _ : state) {
        if (!cached) Topic::clearCache();
        benchmark::DoNotOptimize(Topic::topic(file, provider));
    }
}

void BM_Topic_500MBClaudeJournal_FirstRead(benchmark::State& s) { run(s, HarnessProvider::claudeCode, claudeHead(), false); }
void BM_Topic_500MBClaudeJournal_Cached(benchmark::State& s) { run(s, HarnessProvider::claudeCode, claudeHead(), true); }
void BM_Topic_500MBCodexRollout_FirstRead(benchmark::State& s) { run(s, HarnessProvider::codex, codexHead(), false); }
void BM_Topic_500MBCodexRollout_Cached(benchmark::State& s) { run(s, HarnessProvider::codex, codexHead(), true); }
BENCHMARK(BM_Topic_500MBClaudeJournal_FirstRead)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Topic_500MBClaudeJournal_Cached)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Topic_500MBCodexRollout_FirstRead)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Topic_500MBCodexRollout_Cached)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
