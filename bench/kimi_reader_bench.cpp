// One tick of the Kimi source: 200 session folders under ~/.kimi-code/sessions,
// 20 of them with a live `kimi` process in their working directory; once
// with nothing changed since the last tick, once with every live session's
// wire journal grown by a step.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include "bench_support.hpp"
#include "lumora/monitor/kimi_session_source.hpp"

using namespace lumora;
using Json = nlohmann::json;

namespace {

constexpr int kSessions = 200;
constexpr int kLive = 20;

std::string line(const Json& j) { return j.dump() + "\n"; }

std::string sessionId(int i) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "session_5f0c1b8e-3a2d-4c6e-9f10-%012d", i);
    return buf;
}

// A working session's journal: many finished turns, about 200 KB.
std::string wire(int turns) {
    std::string out = line({{"type", "metadata"}, {"protocol_version", "1.1"}});
    std::string reply(600, 'r');
    for (int t = 0; t < turns; ++t) {
        out += line({{"type", "turn.prompt"}, {"input", {{{"type", "text"}, {"text", "run the tests again"}}}}});
        out += line({{"type", "llm.request"}, {"model", "kimi-code/k3"}, {"modelAlias", "k3"}});
        out += line({{"type", "step.begin"}, {"step", 1}});
        out += line({{"type", "tool.call"}, {"toolCallId", "c" + std::to_string(t)}, {"name", "Shell"},
                     {"args", {{"command", "make test"}}}});
        out += line({{"type", "tool.result"}, {"toolCallId", "c" + std::to_string(t)}, {"result", {{"output", reply}}}});
        out += line({{"type", "step.end"}, {"step", 1}, {"finishReason", "tool_use"}});
        out += line({{"type", "content.part"}, {"step", 2}, {"part", {{"type", "text"}, {"text", "All green."}}}});
        out += line({{"type", "step.end"}, {"step", 2}, {"finishReason", "end_turn"}});
        out += line({{"type", "usage.record"}, {"usage", {{"input", 20000}, {"output", 300}}}, {"usageScope", "turn"}});
    }
    return out;
}

struct Machine {
    fs::path root;
    ScanContext context;
    std::vector<fs::path> liveWires;
};

Machine machine() {
    Machine m;
    auto base = bench::scratch("kimi");
    m.root = base / "sessions";
    auto journal = wire(150);
    auto pass = std::make_shared<ProcessDiscovery::Pass>();
    for (int i = 0; i < kSessions; ++i) {
        auto cwd = (base / ("proj" + std::to_string(i))).string();
        auto dir = m.root / ("wd_" + std::to_string(i % 40)) / sessionId(i);
        fs::create_directories(dir / "agents/main");
        std::ofstream(dir / "state.json") << Json{{"workDir", cwd}, {"title", "New Session"}}.dump();
        std::ofstream(dir / "agents/main/wire.jsonl") << journal;
        if (i < kLive) {
            DiscoveredAgent a;
            a.provider = HarnessProvider::kimi;
            a.pid = 7000 + i;
            a.cwd = cwd;
            pass->agents.push_back(a);
            m.liveWires.push_back(dir / "agents/main/wire.jsonl");
        }
    }
    std::ofstream(base / "config.toml") << "[models.\"k3\"]\nmax_context_size = 262144\ndisplay_name = \"Kimi K3\"\n";
    m.context.processes = pass;
    return m;
}

void BM_Kimi_Tick_200Sessions_20Live_Unchanged(benchmark::State& state) {
    auto m = machine();
    KimiSessionSource source({m.root, m.root.parent_path() / "config.toml"});
    for (auto _ : state) {
        m.context.now = std::chrono::system_clock::now();
        auto rows = source.observe(m.context);
        if (rows.size() != kLive) state.SkipWithError("wrong row count");
        benchmark::DoNotOptimize(rows);
    }
}
BENCHMARK(BM_Kimi_Tick_200Sessions_20Live_Unchanged)->Unit(benchmark::kMillisecond);

void BM_Kimi_Tick_200Sessions_20Live_AllWriting(benchmark::State& state) {
    auto m = machine();
    KimiSessionSource source({m.root, m.root.parent_path() / "config.toml"});
    auto step = line({{"type", "content.part"}, {"step", 3}, {"part", {{"type", "text"}, {"text", "more"}}}});
    for (auto _ : state) {
        state.PauseTiming();
        for (const auto& w : m.liveWires) std::ofstream(w, std::ios::app) << step;
        state.ResumeTiming();
        m.context.now = std::chrono::system_clock::now();
        auto rows = source.observe(m.context);
        if (rows.size() != kLive) state.SkipWithError("wrong row count");
        benchmark::DoNotOptimize(rows);
    }
}
BENCHMARK(BM_Kimi_Tick_200Sessions_20Live_AllWriting)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
