// The desktop pill's costs with 20 sessions, drawn by Qt on an off-screen
// display: a status change repainted on the collapsed pill and on the open
// panel (the budget is a frame, 16 ms), and the hover that turns the pill into
// the painted panel (the budget is 50 ms).
//
// While nothing changes the pill costs nothing: no timer runs but the
// ten-second age tick, the cursor is followed from the X server's motion
// events (none arrive while it rests), and the run loop's tasks wake Qt's
// loop through their pipe.
#include <benchmark/benchmark.h>

#if LUMORA_HAS_DESKTOP

#include <QApplication>
#include <QTimer>
#include <sys/resource.h>

#include <cstdlib>
#include <fstream>

#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/desktop/desktop_parts.hpp"

using namespace lumora;
using namespace lumora::ui;

namespace {

// `count` sessions (20 unless said): the demo's thirteen varied ones,
// repeated under new ids.
class TwentySessions : public ViewBackend {
public:
    explicit TwentySessions(size_t count = 20) {
        DemoBackend demo;
        auto base = demo.instances();
        for (int i = 0; list.size() < count; ++i) {
            auto a = base[static_cast<size_t>(i) % base.size()];
            a.id += "-" + std::to_string(i);
            if (a.approval) a.approval->sessionId = a.id;
            a.projectName += "-" + std::to_string(i);
            list.push_back(a);
        }
    }
    std::vector<AgentInstance> list;
    std::function<void()> onChange;

    std::vector<AgentInstance> instances() const override { return list; }
    std::set<std::string> unseenCompletions() const override { return {}; }
    std::set<std::string> acknowledgedAttention() const override { return {}; }
    std::optional<PeekEvent> peekEvent() const override { return std::nullopt; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& r) const override {
        if (!r.approvable) return {};
        return {{ApprovalChoice::Kind::approve, "Approve"}, {ApprovalChoice::Kind::deny, "Deny"}};
    }
    std::optional<std::string> choose(const ApprovalRequest&, ApprovalChoice::Kind) override { return std::nullopt; }
    void sawRow(const std::string&) override {}
    void setOnChange(std::function<void()> f) override { onChange = std::move(f); }

    // One working session turns to waiting, or back.
    void flip() {
        auto& a = list[12];
        a.status = a.status == AgentStatus::working ? AgentStatus::waiting : AgentStatus::working;
        if (onChange) onChange();
    }
};

QApplication& app() {
    static int argc = 1;
    static char name[] = "desktop_bench";
    static char* argv[] = {name, nullptr};
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static QApplication a(argc, argv);
    return a;
}

DesktopViewOptions options() {
    DesktopViewOptions o;
    o.settings = [] {
        ViewSettings s;
        s.idlePolicy = IdleAgentPolicy::keepFull;
        return s;
    };
    o.look = [] {
        DesktopLook l;
        l.hoverResponse = HoverResponse::instant;
        return l;
    };
    return o;
}

void BM_StatusChangeRepaint(benchmark::State& state) {
    app();
    TwentySessions backend(size_t(state.range(1)));
    desktop::Front front(backend, options());
    auto& window = *front.windows().front();
    if (state.range(0)) window.open();
    QApplication::processEvents();
    for (auto _ : state) {
        backend.flip();
        window.repaint();  // paints now, children included
    }
    state.SetLabel(std::string(state.range(0) ? "panel open, " : "pill, ") + std::to_string(state.range(1)) + " sessions");
}

void BM_HoverToPaintedPanel(benchmark::State& state) {
    app();
    TwentySessions backend;
    desktop::Front front(backend, options());
    auto& window = *front.windows().front();
    QApplication::processEvents();
    for (auto _ : state) {
        state.PauseTiming();
        window.collapse();
        QApplication::processEvents();
        state.ResumeTiming();
        window.open();
        window.repaint();
    }
}

// The resident set, in megabytes.
double residentMB() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    }
    return 0;
}

// A minute with 20 sessions and nothing happening: how often the main
// thread wakes up (voluntary context switches), and the memory it holds.
void BM_Idle60s(benchmark::State& state) {
    app();
    TwentySessions backend;
    desktop::Front front(backend, options());
    QApplication::processEvents();
    for (auto _ : state) {
        rusage before{}, after{};
        ::getrusage(RUSAGE_THREAD, &before);
        QTimer::singleShot(60'000, [] { QApplication::quit(); });
        QApplication::exec();
        ::getrusage(RUSAGE_THREAD, &after);
        state.counters["wakeups"] = double(after.ru_nvcsw - before.ru_nvcsw);
        state.counters["cpu_ms"] = double((after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1000 +
                                          (after.ru_utime.tv_usec - before.ru_utime.tv_usec) / 1000 +
                                          (after.ru_stime.tv_sec - before.ru_stime.tv_sec) * 1000 +
                                          (after.ru_stime.tv_usec - before.ru_stime.tv_usec) / 1000);
    }
    state.counters["rss_mb"] = residentMB();
}

}  // namespace

BENCHMARK(BM_Idle60s)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_StatusChangeRepaint)->Args({0, 20})->Args({1, 20})->Args({1, 200})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HoverToPaintedPanel)->Unit(benchmark::kMillisecond);

#else

// Built without Qt 6 Widgets: nothing to measure.
static void BM_NoDesktop(benchmark::State& state) {
    for (auto _ : state) {
    }
    state.SkipWithError("this build has no desktop front end");
}
BENCHMARK(BM_NoDesktop);

#endif

BENCHMARK_MAIN();
