// What a Claude Code hook event that expects no answer costs the agent: the
// wall time from starting python3 with the installed program to its exit,
// interpreter start included, with a server listening on the socket and with
// none (fail open). The target is under 60 ms for both.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_support.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/base/log.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/hooks/hook_bridge.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/python_locator.hpp"

namespace {

using Json = nlohmann::ordered_json;

// The app's own socket server, in a private folder.
class RunningBridge {
public:
    explicit RunningBridge(const std::filesystem::path& socket)
        : defaults_(socket.parent_path() / "defaults.json"), rules_(defaults_),
          bridge_(socket, socket.parent_path(), rules_, options()) {
        if (!bridge_.start().ok) throw std::runtime_error("the bridge did not start");
    }
    ~RunningBridge() { bridge_.stop(); }

private:
    static lumora::HookBridgeOptions options() {
        lumora::HookBridgeOptions o;
        o.traceFile = std::nullopt;
        return o;
    }
    lumora::DefaultsStore defaults_;
    lumora::ApprovalRulesStore rules_;
    lumora::HookBridge bridge_;
};

struct Setup {
    std::filesystem::path python, program, socket;
    std::map<std::string, std::string> inputs;  // action → a real hook input
};

const Setup& setup() {
    static Setup s = [] {
        Setup s;
        lumora::Log::silence();
        s.python = lumora::PythonLocator::interpreter().value_or("/usr/bin/python3");
        auto dir = bench::scratch("hooks");
        ::chmod(dir.c_str(), 0700);  // the bridge wants a private folder
        s.program = dir / "notch-hook.py";
        lumora::FileUtil::writeAtomically(s.program, *lumora::EmbeddedResources::text("notch-hook.py"), 0755);
        s.socket = dir / "notch.sock";
        const std::map<std::string, std::string> actions = {
            {"UserPromptSubmit", "start"}, {"PreToolUse", "busy"}, {"PostToolUse", "busydone"}, {"Stop", "done"}};
        std::ifstream in(std::filesystem::path(LUMORA_SAMPLES_DIR) / "claude/hook-inputs.jsonl");
        std::string line;
        while (std::getline(in, line)) {
            Json j = Json::parse(line);
            if (j["scenario"] != "bash") continue;
            auto it = actions.find(j["event"]);
            if (it != actions.end()) s.inputs[it->second] = j["input"].dump();
        }
        return s;
    }();
    return s;
}

void runEvent(benchmark::State& state, const std::string& action, bool serverUp) {
    const Setup& s = setup();
    std::unique_ptr<RunningBridge> server;
    if (serverUp) server = std::make_unique<RunningBridge>(s.socket);
    else ::unlink(s.socket.c_str());
    for (auto _ : state) {
        auto child = lumora::ChildProcess::spawn({s.python.string(), s.program.string(), action}, s.inputs.at(action),
                                                 {{"LUMORA_SOCKET", s.socket.string()}});
        if (!child || !child->wait(std::chrono::seconds(10)) || child->exitCode() != 0 || !child->output().empty()) {
            state.SkipWithError("the hook program failed");
            break;
        }
    }
}

void BM_ClaudeEventAppRunning(benchmark::State& state, std::string action) { runEvent(state, action, true); }
void BM_ClaudeEventAppNotRunning(benchmark::State& state, std::string action) { runEvent(state, action, false); }

}  // namespace

BENCHMARK_CAPTURE(BM_ClaudeEventAppRunning, start, std::string("start"))->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ClaudeEventAppRunning, busy, std::string("busy"))->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ClaudeEventAppRunning, busydone, std::string("busydone"))->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ClaudeEventAppRunning, done, std::string("done"))->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ClaudeEventAppNotRunning, start, std::string("start"))->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ClaudeEventAppNotRunning, busy, std::string("busy"))->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ClaudeEventAppNotRunning, done, std::string("done"))->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
