#include <gtest/gtest.h>

#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/view_controller.hpp"
#include "lumora/ui/view_renderer.hpp"

using namespace lumora;
using namespace lumora::ui;

namespace {

// A backend with no sessions and the spend figures the test sets.
class SpendOnlyBackend : public ViewBackend {
public:
    std::optional<SpendSummary> spend;
    std::vector<AgentInstance> instances() const override { return {}; }
    std::set<std::string> unseenCompletions() const override { return {}; }
    std::set<std::string> acknowledgedAttention() const override { return {}; }
    std::optional<PeekEvent> peekEvent() const override { return std::nullopt; }
    std::vector<ApprovalChoice> approvalChoices(const ApprovalRequest&) const override { return {}; }
    std::optional<std::string> choose(const ApprovalRequest&, ApprovalChoice::Kind) override { return std::nullopt; }
    void sawRow(const std::string&) override {}
    void setOnChange(std::function<void()>) override {}
    std::optional<SpendSummary> spendSummary() const override { return spend; }
};

std::string topLine(ViewBackend& backend, int width) {
    ViewController view(backend, [] { return ViewSettings{}; });
    return view.frame(width, 24).lines[0].text();
}

}  // namespace

TEST(SpendStrip, TodaysTokensAndDollarsInTheHeader) {
    SpendOnlyBackend backend;
    EXPECT_EQ(topLine(backend, 80).find("today"), std::string::npos);  // nothing known: nothing shown

    SpendSummary s;
    s.todayTokens = 1'234'567;
    s.todayCost = 3.4;
    backend.spend = s;
    EXPECT_NE(topLine(backend, 80).find("today 1.2M tok · $3.40"), std::string::npos);

    s.unpricedModels = {"claude-opus-5-5"};
    backend.spend = s;
    EXPECT_EQ(ViewRenderer::spendText(s), "today 1.2M tok · ≥$3.40");
    EXPECT_NE(topLine(backend, 80).find("≥$3.40"), std::string::npos);
    // A narrow screen keeps the session count and drops the spend.
    std::string narrow = topLine(backend, 40);
    EXPECT_EQ(narrow.find("today"), std::string::npos);

    DemoBackend demo;
    ASSERT_TRUE(demo.spendSummary());
    EXPECT_NE(topLine(demo, 100).find("today 2.4M tok"), std::string::npos);
}
