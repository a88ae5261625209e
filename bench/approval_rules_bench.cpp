// What a gate costs in the approval rules: matching from memory (one look at
// the defaults file's stamp), reading the programs of a long command, and the
// session rules of a process that has seen ten thousand sessions.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_support.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/approvals/command_parsing.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/log.hpp"

namespace {

using scrivet::HarnessProvider;

std::string longCommand(size_t bytes) {
    std::string command = "npm test";
    for (int i = 0; command.size() < bytes; ++i) command += " && npm run check:" + std::to_string(i) + " 2>&1 | tail -5";
    return command;
}

// A gate against 200 always rules, of which its five programs are the last.
void BM_MatchesACompoundCommand(benchmark::State& state) {
    lumora::Log::silence();
    auto dir = bench::scratch("rules-match");
    lumora::DefaultsStore defaults(dir / "defaults.json");
    lumora::ApprovalRulesStore rules(defaults);
    for (int i = 0; i < 195; ++i) rules.addAlwaysRule(HarnessProvider::claudeCode, "Bash", "tool" + std::to_string(i));
    for (const char* head : {"git", "npm", "make", "tail", "grep"})
        rules.addAlwaysRule(HarnessProvider::claudeCode, "Bash", head);
    rules.flush();
    const std::string command = "git status && npm test 2>&1 | tail -20; make -j4 | grep -v warning";
    for (auto _ : state) {
        bool allowed = rules.matches(HarnessProvider::claudeCode, "s", "Bash", command, false);
        benchmark::DoNotOptimize(allowed);
        if (!allowed) state.SkipWithError("no match");
    }
}
BENCHMARK(BM_MatchesACompoundCommand);

void BM_HeadsOfA4KCommand(benchmark::State& state) {
    const std::string command = longCommand(4096);
    for (auto _ : state) {
        auto heads = lumora::CommandParsing::heads(command);
        benchmark::DoNotOptimize(heads);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * command.size()));
}
BENCHMARK(BM_HeadsOfA4KCommand);

// A week of sessions: ten thousand, each approving two programs for itself.
// Reports how many keep rules afterwards (the cap) and the time per rule added.
void BM_TenThousandSessionsOfRules(benchmark::State& state) {
    lumora::Log::silence();
    auto dir = bench::scratch("rules-sessions");
    lumora::DefaultsStore defaults(dir / "defaults.json");
    size_t kept = 0;
    for (auto _ : state) {
        lumora::ApprovalRulesStore rules(defaults);
        for (int i = 0; i < 10000; ++i) {
            auto id = "0199a1c2-1111-7000-8000-" + std::to_string(100000000000 + i);
            rules.addSessionRule(HarnessProvider::claudeCode, id, "Bash", "make");
            rules.addSessionRule(HarnessProvider::claudeCode, id, "Bash", "npm");
        }
        kept = rules.sessionCount();
    }
    state.counters["sessionsKept"] = static_cast<double>(kept);
    state.counters["rulesPerSecond"] = benchmark::Counter(20000.0 * static_cast<double>(state.iterations()),
                                                          benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TenThousandSessionsOfRules)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
