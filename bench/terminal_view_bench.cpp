// The terminal view's cost with 50 sessions: building the frame (the pure
// renderer), and a full redraw through ncurses onto an off-screen terminal.
//
// While nothing changes the view costs nothing: runTerminalView sleeps in
// poll() on the terminal and the run loop's wake-up pipe, with a timeout at
// the next timed change (a status note or the frozen order ending, or the
// 10-second age tick), and a tick whose frame equals the one on screen sends
// nothing to the terminal.
#include <benchmark/benchmark.h>
#include <curses.h>

#include <cstdio>

#include "lumora/ui/curses_painter.hpp"
#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/view_controller.hpp"
#include "lumora/ui/view_renderer.hpp"

using namespace lumora;
using namespace lumora::ui;

namespace {

// Fifty sessions: the demo's thirteen varied ones, repeated under new ids.
class FiftySessions : public ViewBackend {
public:
    FiftySessions() {
        DemoBackend demo(now);
        auto base = demo.instances();
        for (int i = 0; list.size() < 50; ++i) {
            auto a = base[static_cast<size_t>(i) % base.size()];
            a.id += "-" + std::to_string(i);
            if (a.approval) a.approval->sessionId = a.id;
            a.projectName += "-" + std::to_string(i);
            list.push_back(a);
        }
    }
    Date now = std::chrono::system_clock::now();
    std::vector<AgentInstance> list;

    std::vector<AgentInstance> instances() const override { return list; }
    std::set<std::string> unseenCompletions() const override { return {}; }
    std::set<std::string> acknowledgedAttention() const override { return {}; }
    std::optional<PeekEvent> peekEvent() const override { return std::nullopt; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest& r) const override {
        if (!r.approvable) return {};
        return {{ApprovalChoice::Kind::approve, "Approve"}, {ApprovalChoice::Kind::deny, "Deny"},
                {ApprovalChoice::Kind::allowSession, "Allow git, npm this session"},
                {ApprovalChoice::Kind::allowAlways, "Always allow git, npm"}};
    }
    std::optional<std::string> choose(const ApprovalRequest&, ApprovalChoice::Kind) override { return std::nullopt; }
    void sawRow(const std::string&) override {}
    void setOnChange(std::function<void()>) override {}
};

ViewSettings settingsWithLimit(int limit) {
    ViewSettings s;
    s.visibleRowLimit = limit;
    return s;
}

// Reading the backend and rendering the frame, as after every change.
void BM_RenderFrame_50Sessions(benchmark::State& state) {
    FiftySessions backend;
    auto settings = settingsWithLimit(static_cast<int>(state.range(0)));
    ViewController view(backend, [&] { return settings; });
    view.handle(Key::expand);
    for (auto _ : state) {
        view.refresh();
        benchmark::DoNotOptimize(view.frame(120, 40));
    }
}

// The same, then painted through ncurses with every cell sent again (a
// full redraw, as after a resize), onto a terminal that writes to /dev/null.
void BM_FullRedraw_Ncurses_50Sessions(benchmark::State& state) {
    FILE* out = std::fopen("/dev/null", "w");
    FILE* in = std::fopen("/dev/null", "r");
    SCREEN* screen = newterm("xterm-256color", out, in);
    if (!screen) {
        state.SkipWithError("no xterm-256color terminfo");
        return;
    }
    set_term(screen);
    resizeterm(40, 120);
    CursesPainter painter;
    painter.setUp();
    FiftySessions backend;
    ViewController view(backend, [] { return settingsWithLimit(10); });
    view.handle(Key::expand);
    for (auto _ : state) {
        view.refresh();
        Frame f = view.frame(COLS, LINES);
        clearok(curscr, TRUE);
        painter.paint(f);
    }
    endwin();
    delscreen(screen);
    std::fclose(out);
    std::fclose(in);
}

}  // namespace

BENCHMARK(BM_RenderFrame_50Sessions)->Arg(8)->Arg(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FullRedraw_Ncurses_50Sessions)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
