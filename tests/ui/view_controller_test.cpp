#include <gtest/gtest.h>

#include "lumora/ui/demo_backend.hpp"
#include "lumora/ui/view_controller.hpp"

using namespace lumora;
using namespace lumora::ui;
using namespace std::chrono_literals;

namespace {

const Date kStart = Date{} + std::chrono::hours(24 * 20000);
const std::string kShell = "0199a1c2-1111-7000-8000-000000000001";
const std::string kLint = "0199a1c2-1111-7000-8000-000000000008";

struct DemoView {
    DemoBackend demo{kStart};
    ViewSettings settings;
    Date now = kStart;
    int changes = 0;
    ViewController view{demo, [this] { return settings; }, [this] { return now; }};

    DemoView() {
        demo.setOnChange([this] {
            ++changes;
            view.refresh();
        });
    }
    std::string text(int w = 80, int h = 24) { return view.frame(w, h).text(); }
    const AgentInstance& session(const std::string& id) {
        for (const auto& a : view.model().instances)
            if (a.id == id) return a;
        throw std::runtime_error("no session " + id);
    }
};

}  // namespace

TEST(ViewController, AlwaysAllowConfirmsAndAnswersTheNextMatchingGate) {
    DemoView v;
    EXPECT_EQ(*v.view.state().selectedId, kShell);  // the first needs-you row
    v.text();  // the screen is drawn before any key
    EXPECT_TRUE(v.view.handle(Key::allowAlways));
    std::string t = v.text();
    EXPECT_NE(t.find("✓ Approved · won't ask again"), std::string::npos) << t;
    EXPECT_EQ(v.session(kShell).status, AgentStatus::working);
    EXPECT_FALSE(v.session(kShell).approval);
    EXPECT_EQ(v.demo.alwaysRules(), (std::set<std::string>{"head:git", "head:npm"}));

    // The script's next gates: the third asks for "npm run lint", which the rule covers.
    for (int i = 0; i < 3; ++i) v.demo.step(v.now);
    EXPECT_NE(v.session(kLint).status, AgentStatus::attention);
    EXPECT_FALSE(v.session(kLint).approval);
    EXPECT_EQ(v.session(kLint).recentActivity.back().text, "Allowed by a rule");

    // The confirmation goes after a few seconds.
    v.now += kConfirmationShown + 1s;
    EXPECT_EQ(v.text().find("won't ask again"), std::string::npos);
}

TEST(ViewController, SessionScopeConfirmsAndTheGateWithoutARuleAsks) {
    DemoView v;
    v.text();
    v.view.handle(Key::allowSession);
    EXPECT_NE(v.text().find("✓ Approved · this session"), std::string::npos);
    // A session rule covers only its own session: the lint gate of another session asks.
    for (int i = 0; i < 3; ++i) v.demo.step(v.now);
    const auto& lint = v.session(kLint);
    EXPECT_EQ(lint.status, AgentStatus::attention);
    ASSERT_TRUE(lint.approval);
    EXPECT_TRUE(lint.approval->approvable);
    // Its peek shows in the status line and rings the bell.
    std::string t = v.text();
    EXPECT_NE(t.find("dotfiles: Allow npm run lint?"), std::string::npos) << t;
    EXPECT_TRUE(v.view.takeBell());
    EXPECT_FALSE(v.view.takeBell());
    v.now += kPeekShown + 1s;
    EXPECT_EQ(v.text().find("Allow npm run lint?"), std::string::npos);
}

TEST(ViewController, DenyAndPlainApproveNeedNoRule) {
    DemoView v;
    v.view.handle(Key::deny);
    EXPECT_NE(v.text().find("Denied · lumora"), std::string::npos);
    EXPECT_TRUE(v.demo.alwaysRules().empty());
    EXPECT_EQ(v.session(kShell).recentActivity.back().kind, ActivityLine::Kind::error);
    // The escalated Codex request: approve works, wider scopes are not offered.
    v.view.handle(Key::home);
    while (v.view.state().selectedId != "019fb206-97a0-7573-a940-cb4c5cf36e91") v.view.handle(Key::down);
    v.view.handle(Key::allowAlways);
    EXPECT_NE(v.text().find("That choice is not offered for this request"), std::string::npos);
    // Its command is cut at 80 columns: it is approved once opened and read.
    v.view.handle(Key::approve);
    EXPECT_NE(v.text().find("See the whole command before approving it"), std::string::npos);
    v.view.handle(Key::expand);
    v.text();
    v.view.handle(Key::approve);
    EXPECT_NE(v.text().find("Approved · payments-api"), std::string::npos);
    EXPECT_TRUE(v.demo.alwaysRules().empty());
}

TEST(ViewController, LookingAtARowAcknowledgesItAndSoundsFollowTheSetting) {
    DemoView v;
    const std::string docs = "0199a1c2-1111-7000-8000-000000000003";
    EXPECT_FALSE(v.view.model().acknowledged.count(docs));
    v.view.handle(Key::down);
    v.view.handle(Key::down);
    EXPECT_EQ(*v.view.state().selectedId, docs);
    EXPECT_TRUE(v.view.model().acknowledged.count(docs));
    // Passing over the unseen completion sees it.
    const std::string infra = "0199a1c2-1111-7000-8000-000000000005";
    EXPECT_TRUE(v.view.model().unseen.count(infra));
    while (v.view.state().selectedId != infra) v.view.handle(Key::down);
    EXPECT_FALSE(v.view.model().unseen.count(infra));

    // A completion with sounds off shows its peek but stays silent.
    v.settings.soundEnabled = false;
    v.demo.step(v.now);
    v.demo.step(v.now);
    EXPECT_NE(v.text().find("crawler: robots.txt is honoured; 14 tests pass."), std::string::npos);
    EXPECT_FALSE(v.view.takeBell());
}

TEST(ViewController, TimingsAndKeys) {
    DemoView v;
    // Nothing timed: wake for the age tick only.
    EXPECT_EQ(v.view.nextWake(), v.now + kAgeTick);
    v.view.handle(Key::down);
    EXPECT_EQ(v.view.nextWake(), v.now + kFreezeAfterKey);
    EXPECT_FALSE(v.view.handle(Key::quit));
    v.view.handle(Key::help);
    EXPECT_TRUE(v.view.state().helpShown);
    EXPECT_FALSE(v.view.handle(Key::quit));  // q quits from the help too

    EXPECT_EQ(keyFromInput('j'), Key::down);
    EXPECT_EQ(keyFromInput('k'), Key::up);
    EXPECT_EQ(keyFromInput('\r'), Key::expand);
    EXPECT_EQ(keyFromInput('A'), Key::allowAlways);
    EXPECT_EQ(keyFromInput('s'), Key::allowSession);
    EXPECT_EQ(keyFromInput('?'), Key::help);
    EXPECT_EQ(keyFromInput('q'), Key::quit);
    EXPECT_EQ(keyFromInput('x'), Key::other);
}
