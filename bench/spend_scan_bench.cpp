// The spend scanner against a generated corpus of about 1.1 GB in about 2,700
// journals over 40 days (bench/spend_corpus.hpp), warm page cache:
//   - the first scan, as a ratio to the time `cat` takes to read the same files;
//   - a rescan with nothing changed;
//   - a rescan after appending to 10 journals;
//   - the command line (`lumora --spend --json`) cold and from its cache, with
//     its peak memory.
// Every pass checks its totals against the corpus's own ground truth.
//
// The corpus is written once to $LUMORA_SPEND_CORPUS (default
// /tmp/lumora-spend-corpus) and reused; delete the folder to write it anew.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "lumora/base/log.hpp"
#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/spend_scanner.hpp"
#include "spend_corpus.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace lumora;
using Clock = std::chrono::steady_clock;

fs::path corpusHome() {
    const char* env = std::getenv("LUMORA_SPEND_CORPUS");
    return env && *env ? fs::path(env) : fs::path("/tmp/lumora-spend-corpus");
}

const spendcorpus::Truth& truth() {
    static spendcorpus::Truth t = [] {
        fs::path home = corpusHome();
        if (auto kept = spendcorpus::readTruth(home / "spend-truth.txt")) return *kept;
        fs::remove_all(home);
        auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
        std::cerr << "writing the spend corpus to " << home << " (once)...\n";
        auto generated = spendcorpus::generate(spendcorpus::Options::full(home, now));
        spendcorpus::writeTruth(home / "spend-truth.txt", generated);
        return generated;
    }();
    return t;
}

Date nowOf(const spendcorpus::Truth& t) {
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(t.nowMs)));
}

SpendScanner::Roots roots() {
    fs::path home = corpusHome();
    return {home / ".claude/projects", home / ".codex", home / ".kimi-code", std::nullopt};
}

ModelPricing& pricing() {
    // Only the rows compiled in: the corpus's prices are worked out from them.
    static ModelPricing p(fs::temp_directory_path() / "lumora-bench-no-pricing", {}, std::nullopt);
    return p;
}

// Totals must match the ground truth exactly (dollars to a millionth of a cent).
bool exact(const SpendScanner::Result& r, const spendcorpus::Truth& t, int64_t extraTokens, std::string& why) {
    int64_t tokens = 0;
    double cost = 0;
    for (const auto& e : r.entries) {
        tokens += e.tokens;
        cost += e.cost;
    }
    if (tokens != t.tokens() + extraTokens) {
        why = "tokens " + std::to_string(tokens) + " != truth " + std::to_string(t.tokens() + extraTokens);
        return false;
    }
    if (std::fabs(cost - t.cost()) > 1e-8 * std::max(1.0, t.cost()) + 1e-6 && extraTokens == 0) {
        why = "cost " + std::to_string(cost) + " != truth " + std::to_string(t.cost());
        return false;
    }
    return true;
}

// Runs a program to its end; its wall time and peak memory.
struct Run {
    double seconds = 0;
    long maxRssKb = 0;
    int status = -1;
};
Run runProgram(std::vector<std::string> args, const std::vector<std::string>& extraEnv, const std::string& output) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    for (const auto& e : extraEnv) env.push_back(e);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    Run run;
    auto start = Clock::now();
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) return run;
    int status = 0;
    struct rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    run.maxRssKb = usage.ru_maxrss;
    run.status = status;
    posix_spawn_file_actions_destroy(&actions);
    return run;
}

// `cat` over every journal of the corpus, as one process.
double catSeconds() {
    static double best = [] {
        fs::path list = fs::temp_directory_path() / "lumora-spend-bench-files";
        {
            std::ofstream out(list, std::ios::binary);
            for (const auto& p : truth().paths) out << p.string() << '\0';
        }
        double b = 1e9;
        for (int i = 0; i < 3; ++i) {
            auto r = runProgram({"/usr/bin/xargs", "-0", "-a", list.string(), "cat"}, {}, "/dev/null");
            b = std::min(b, r.seconds);
        }
        return b;
    }();
    return best;
}

void BM_SpendFirstScan(benchmark::State& state) {
    Log::silence();
    const auto& t = truth();
    double cat = catSeconds();  // also warms the page cache
    fs::path cache = fs::temp_directory_path() / "lumora-spend-bench-first.json";
    double total = 0;
    size_t runs = 0;
    SpendScanner::Stats stats;
    for (auto _ : state) {
        fs::remove(cache);
        SpendStore store(cache);
        SpendScanner scanner(store, pricing(), roots());
        auto start = Clock::now();
        auto result = scanner.scan(nowOf(t));
        total += std::chrono::duration<double>(Clock::now() - start).count();
        ++runs;
        stats = result.stats;
        std::string why;
        if (!exact(result, t, 0, why)) state.SkipWithError(why.c_str());
    }
    state.counters["GB"] = static_cast<double>(stats.bytesRead) / 1e9;
    state.counters["files"] = static_cast<double>(stats.filesRead);
    state.counters["events"] = static_cast<double>(stats.events);
    state.counters["cat_s"] = cat;
    state.counters["ratio_to_cat"] = total / static_cast<double>(runs) / cat;
}

// A scanner whose store holds the whole corpus.
struct Warm {
    SpendStore store{fs::temp_directory_path() / "lumora-spend-bench-warm.json"};
    SpendScanner scanner{store, pricing(), roots()};
    Warm() {
        fs::remove(store.cacheURL());
        scanner.scan(nowOf(truth()));
    }
};

void BM_SpendRescanUnchanged(benchmark::State& state) {
    Log::silence();
    Warm warm;
    for (auto _ : state) {
        auto result = warm.scanner.scan(nowOf(truth()));
        std::string why;
        if (result.stats.filesRead != 0 || !exact(result, truth(), 0, why)) state.SkipWithError("rescan read or miscounted");
    }
}

void BM_SpendRescanAfterAppendingTo10Files(benchmark::State& state) {
    Log::silence();
    // Appends to copies, so the corpus stays as its truth says.
    fs::path home = fs::temp_directory_path() / "lumora-spend-bench-append";
    fs::remove_all(home);
    fs::create_directories(home);
    fs::copy(corpusHome() / ".claude", home / ".claude", fs::copy_options::recursive);
    fs::copy(corpusHome() / ".codex", home / ".codex", fs::copy_options::recursive);
    fs::copy(corpusHome() / ".kimi-code", home / ".kimi-code", fs::copy_options::recursive);
    SpendStore store(home / "cache.json");
    SpendScanner scanner(store, pricing(), {home / ".claude/projects", home / ".codex", home / ".kimi-code", std::nullopt});
    Date now = nowOf(truth());
    scanner.scan(now);
    const auto& files = truth().claudeFiles;
    int64_t added = 0;
    uint64_t seed = 1;
    for (auto _ : state) {
        state.PauseTiming();
        for (size_t i = 0; i < 10; ++i) {
            fs::path original = files[(seed * 7919 + i * 104729) % files.size()];
            fs::path copy = home / fs::relative(original, corpusHome());
            added += spendcorpus::Generator::appendClaudeMessage(copy, truth().nowMs - 5'000, seed * 100 + i).tokens;
        }
        ++seed;
        state.ResumeTiming();
        auto result = scanner.scan(now);
        std::string why;
        if (result.stats.filesRead != 10 || !exact(result, truth(), added, why)) state.SkipWithError(why.c_str());
    }
    fs::remove_all(home);
}

// The command line, cold (no cache) and then from its cache, in a process of its own.
void BM_SpendCommandLine(benchmark::State& state) {
    truth();
    catSeconds();
    fs::path data = fs::temp_directory_path() / "lumora-spend-bench-xdg";
    std::vector<std::string> env = {"HOME=" + corpusHome().string(), "XDG_DATA_HOME=" + data.string(),
                                    "XDG_CONFIG_HOME=" + (data / "config").string(),
                                    "XDG_CACHE_HOME=" + (data / "cache").string()};
    Run cold, warm;
    for (auto _ : state) {
        fs::remove_all(data);
        cold = runProgram({LUMORA_BINARY, "--spend", "--json"}, env, "/dev/null");
        warm = runProgram({LUMORA_BINARY, "--spend", "--json"}, env, "/dev/null");
        if (cold.status != 0 || warm.status != 0) state.SkipWithError("lumora --spend failed");
    }
    state.counters["cold_s"] = cold.seconds;
    state.counters["cold_MB"] = static_cast<double>(cold.maxRssKb) / 1024;
    state.counters["cached_s"] = warm.seconds;
    state.counters["cached_MB"] = static_cast<double>(warm.maxRssKb) / 1024;
}

}  // namespace

BENCHMARK(BM_SpendFirstScan)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SpendRescanUnchanged)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SpendRescanAfterAppendingTo10Files)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_SpendCommandLine)->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
