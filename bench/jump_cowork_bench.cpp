// A jump's decision (the facts gathered from the real process table and the
// routes chosen, before any outside command runs), and the fold of a 50 MB
// Cowork audit log's tail. Targets: under 5 ms each.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "bench_support.hpp"
#include "lumora/hooks/jump_service.hpp"
#include "lumora/platform/applications.hpp"
#include "lumora/platform/desktop_focus.hpp"
#include "lumora/platform/process_table.hpp"
#include "scrivet/cowork_reader.hpp"

using namespace lumora;
namespace fs = std::filesystem;

namespace {

void BM_JumpDecision(benchmark::State& state) {
    JumpService::Target target;
    target.sessionId = "5f0c1b8e-3a2d-4c6e-9f10-000000000001";
    target.pid = static_cast<int32_t>(::getpid());  // a live process with a real ancestry
    target.cwd = fs::current_path().string();
    target.title = "webshop";
    target.activeTurn = true;
    target.hostKind = JumpService::HostKind::terminal;
    target.hostName = "xterm";
    auto& table = ProcessTable::system();
    auto& desktop = DesktopFocus::system();
    for (auto _ : state) {
        ApplicationIdentifier apps(table);
        auto facts = JumpService::gather(target, table, apps, desktop);
        auto plan = JumpService::plan(target, facts);
        benchmark::DoNotOptimize(plan);
    }
}

// The real shape of a Cowork turn, repeated to fill the log's tail; the rest
// of the 50 MB is a hole that is never read.
void BM_CoworkFold_50MBAuditLog(benchmark::State& state) {
    std::string turn = bench::readFile(fs::path(LUMORA_SOURCE_DIR) / "fuzz/seeds/cowork_audit_fuzz/turn.jsonl");
    if (turn.empty()) return state.SkipWithError("no Cowork seed");
    if (turn.back() != '\n') turn += '\n';
    std::string tail;
    while (tail.size() < 256 * 1024) tail += turn;
    auto log = bench::scratch("cowork") / "audit.jsonl";
    bench::writeSparseJournal(log, 50ull * 1000 * 1000, tail);
    for (auto _ : state) {
        auto folded = scrivet::CoworkReader::foldFile(log);
        if (!folded) return state.SkipWithError("nothing folded");
        benchmark::DoNotOptimize(folded);
    }
}

}  // namespace

BENCHMARK(BM_JumpDecision)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CoworkFold_50MBAuditLog)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
