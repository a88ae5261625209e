#include <gtest/gtest.h>

#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/view_controller.hpp"
#include "lumora/ui/view_renderer.hpp"

using namespace lumora;
using namespace lumora::ui;
using namespace std::chrono_literals;

namespace {

const Date kNow = Date{} + std::chrono::hours(24 * 20000);

class QuotaBackend : public ViewBackend {
public:
    std::vector<QuotaReading> quotas;
    std::optional<UsageAlert> alert;
    std::vector<AgentInstance> instances() const override { return {}; }
    std::set<std::string> unseenCompletions() const override { return {}; }
    std::set<std::string> acknowledgedAttention() const override { return {}; }
    std::optional<PeekEvent> peekEvent() const override { return std::nullopt; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest&) const override { return {}; }
    std::optional<std::string> choose(const ApprovalRequest&, ApprovalChoice::Kind) override { return std::nullopt; }
    void sawRow(const std::string&) override {}
    std::vector<QuotaReading> quotaReadings() const override { return quotas; }
    std::optional<UsageAlert> usageAlert() const override { return alert; }
    void setOnChange(std::function<void()>) override {}
};

QuotaReading claude(Date fetched) {
    QuotaReading r;
    r.provider = HarnessProvider::claudeCode;
    r.fetchedAt = fetched;
    r.usage.planName = "Max 20x";
    r.usage.windows = {{62, kNow + 2h + 30min, kFiveHours, "5h", "5-hour limit", false, false},
                       {41, kNow + 72h, kOneWeek, "7d", "7-day limit", false, false},
                       {100, kNow + 72h, kOneWeek, "Opus", "Opus weekly", false, true}};
    return r;
}

QuotaReading codex(Date fetched) {
    QuotaReading r;
    r.provider = HarnessProvider::codex;
    r.fetchedAt = fetched;
    r.usage.windows = {{95, kNow - 10min, kFiveHours, "5h", "5-hour limit", false, false},
                       {80, kNow + 24h, kOneWeek, "7d", "7-day limit", false, false}};
    return r;
}

}  // namespace

TEST(QuotaStrip, UnderTheTabLineWithGaugesResetsAndPace) {
    QuotaBackend backend;
    backend.quotas = {claude(kNow - 1min), codex(kNow - 47min)};
    ViewController view(backend, {}, [] { return kNow; });
    auto f = view.frame(120, 24);
    std::string claudeLine = f.lines[1].text();
    EXPECT_EQ(claudeLine.find(" Claude · Max 20x"), 0u);
    EXPECT_NE(claudeLine.find("5h ██░░░ 38% left ↻2h 30m runs out in 1h 3"), std::string::npos) << claudeLine;
    EXPECT_NE(claudeLine.find("7d ███░░ 59% left"), std::string::npos);
    EXPECT_NE(claudeLine.find("Opus ░░░░░ 0% left"), std::string::npos);
    EXPECT_NE(f.lines[3].text().find("STATUS"), std::string::npos);  // the column header follows the strip

    // Codex's reading is 47 minutes old: dimmed, its passed reset empties the
    // window, and it claims no overrun.
    const auto& stale = f.lines[2];
    EXPECT_NE(stale.text().find("5h █████ 100% left"), std::string::npos) << stale.text();
    EXPECT_NE(stale.text().find("47m ago"), std::string::npos);
    EXPECT_EQ(stale.text().find("runs out"), std::string::npos);
    for (const auto& s : stale.spans) EXPECT_TRUE(s.style.dim) << s.text;

    // Narrow screens drop detail, never the percentages, and never overflow.
    for (int width : {40, 60, 80}) {
        auto narrow = view.frame(width, 24);
        EXPECT_LE(narrow.lines[1].width(), width);
        EXPECT_NE(narrow.lines[1].text().find("38% left"), std::string::npos) << width;
    }
    EXPECT_EQ(view.frame(80, 24).lines[1].text().find("↻"), std::string::npos);
    // A short screen keeps three list lines: the strip gives way.
    auto small = view.frame(80, 8);
    EXPECT_EQ(small.lines.size(), 8u);
    EXPECT_NE(small.lines[1].text().find("Claude"), std::string::npos);
    EXPECT_NE(small.lines[2].text().find("STATUS"), std::string::npos);
    // Nothing to show: no strip.
    backend.quotas.clear();
    view.refresh();
    EXPECT_NE(view.frame(80, 24).lines[1].text().find("STATUS"), std::string::npos);
}

TEST(QuotaStrip, AQuotaAlertShowsOnTheNewsLineOnceWithTheBell) {
    QuotaBackend backend;
    backend.alert = UsageAlert{1, HarnessProvider::claudeCode, "5h", "old news"};
    Date now = kNow;
    ViewSettings settings;
    ViewController view(backend, [&] { return settings; }, [&] { return now; });
    EXPECT_EQ(view.frame(100, 24).text().find("old news"), std::string::npos);  // raised before the view opened
    backend.alert = UsageAlert{2, HarnessProvider::claudeCode, "5h", "5-hour limit runs out in 38m, before its reset in 2h"};
    view.refresh();
    auto f = view.frame(100, 24);
    auto news = f.lines[f.lines.size() - 2];
    EXPECT_EQ(news.text().find(" ◔ Claude Code: 5-hour limit runs out in 38m, before its reset in 2h"), 0u) << news.text();
    EXPECT_EQ(news.spans[1].style.role, Role::alert);
    EXPECT_TRUE(view.takeBell());
    view.refresh();
    EXPECT_FALSE(view.takeBell());
    now += 6s;
    EXPECT_EQ(view.frame(100, 24).text().find("runs out in 38m"), std::string::npos);
}

TEST(QuotaStrip, TheDemoShowsThreeProvidersAndRaisesAPaceAlert) {
    Date now = std::chrono::system_clock::now();
    DemoBackend demo(now);
    ViewController view(demo, {}, [&] { return now; });
    auto f = view.frame(120, 30);
    EXPECT_NE(f.lines[1].text().find("Claude · Max 20x"), std::string::npos);
    EXPECT_NE(f.lines[1].text().find("runs out in"), std::string::npos);
    EXPECT_NE(f.lines[2].text().find("ChatGPT · Plus"), std::string::npos);
    EXPECT_NE(f.lines[3].text().find("OpenCode Go"), std::string::npos);
    while (demo.step(now)) view.refresh();
    view.refresh();
    EXPECT_NE(view.frame(120, 30).text().find("OpenCode: 5-hour limit runs out in"), std::string::npos);
}
