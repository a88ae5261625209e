// What a Claude Code hook event that expects no answer costs the agent: the
// wall time from starting python3 with the installed program to its exit,
// interpreter start included, with a server listening on the socket and with
// none (fail open). The target is under 60 ms for both.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_support.hpp"
#include "lumora/app/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/python_locator.hpp"

namespace {

using Json = nlohmann::ordered_json;

// Accepts connections and reads them to the end, as the app's socket does for
// lines that expect no answer.
class DrainingServer {
public:
    explicit DrainingServer(const std::filesystem::path& path) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        ::unlink(path.c_str());
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd_, 16) != 0)
            throw std::runtime_error("bind");
        thread_ = std::thread([this] {
            std::vector<pollfd> fds;
            while (running_) {
                fds.resize(1);
                fds[0] = {fd_, POLLIN, 0};
                for (int c : clients_) fds.push_back({c, POLLIN, 0});
                if (::poll(fds.data(), fds.size(), 50) <= 0) continue;
                if (fds[0].revents & POLLIN) {
                    int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
                    if (c >= 0) clients_.push_back(c);
                }
                for (size_t i = 1; i < fds.size(); ++i) {
                    if (!fds[i].revents) continue;
                    char buf[8192];
                    if (::read(fds[i].fd, buf, sizeof buf) <= 0) {
                        ::close(fds[i].fd);
                        clients_.erase(std::find(clients_.begin(), clients_.end(), fds[i].fd));
                    }
                }
            }
        });
    }
    ~DrainingServer() {
        running_ = false;
        thread_.join();
        ::close(fd_);
    }

private:
    int fd_ = -1;
    std::atomic<bool> running_{true};
    std::vector<int> clients_;
    std::thread thread_;
};

struct Setup {
    std::filesystem::path python, program, socket;
    std::map<std::string, std::string> inputs;  // action → a real hook input
};

const Setup& setup() {
    static Setup s = [] {
        Setup s;
        s.python = lumora::PythonLocator::interpreter().value_or("/usr/bin/python3");
        auto dir = bench::scratch("hooks");
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
    std::unique_ptr<DrainingServer> server;
    if (serverUp) server = std::make_unique<DrainingServer>(s.socket);
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
