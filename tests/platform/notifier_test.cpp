// The desktop notifier against a private session bus and a stand-in
// notification service, including services that misbehave.
#include <gtest/gtest.h>

#include <mutex>

#include "lumora/platform/notifier.hpp"
#include "support/session_bus.hpp"

namespace lumora {
namespace {

using test::eventually;

// What the notifier reported, from its thread.
struct Recorder {
    mutable std::mutex mutex;
    std::vector<Notifier::Capabilities> availability;
    std::vector<std::pair<std::string, uint64_t>> shown;
    std::vector<std::pair<std::string, std::string>> presses;
    std::vector<std::string> closed;

    Notifier::Events events() {
        Notifier::Events e;
        e.availability = [this](Notifier::Capabilities c) { std::lock_guard l(mutex); availability.push_back(c); };
        e.shown = [this](const std::string& s, uint64_t tag) { std::lock_guard l(mutex); shown.emplace_back(s, tag); };
        e.actionInvoked = [this](const std::string& s, const std::string& k) {
            std::lock_guard l(mutex);
            presses.emplace_back(s, k);
        };
        e.closed = [this](const std::string& s) { std::lock_guard l(mutex); closed.push_back(s); };
        return e;
    }
    template <typename F>
    auto read(F f) const {
        std::lock_guard l(mutex);
        return f(*this);
    }
    bool availableWithActions() const {
        return read([](const Recorder& r) {
            return !r.availability.empty() && r.availability.back().available && r.availability.back().actions;
        });
    }
};

Notifier::Notification prompt(uint64_t tag, const std::string& command) {
    return {"proj wants to run", command, {{"approve:" + std::to_string(tag), "Approve"}}, true, tag};
}

class NotifierTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = test::SessionBus::missing()) GTEST_SKIP() << *why;
        bus_ = std::make_unique<test::SessionBus>();
        ASSERT_TRUE(bus_->running());
    }
    test::TempHome home_;
    std::unique_ptr<test::SessionBus> bus_;
};

TEST_F(NotifierTest, ShowsReplacesInPlaceReportsPressesAndCloses) {
    ASSERT_TRUE(bus_->startServer());
    Recorder r;
    auto notifier = Notifier::desktop("Lumora", "lumora");
    notifier->start(r.events());
    ASSERT_TRUE(eventually([&] { return r.availableWithActions(); }));

    // Bytes that are not UTF-8 and markup characters arrive as text.
    notifier->show("s1", prompt(7, "echo '<b>' && cat \xff"));
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return x.shown.size() == 1; }); }));
    auto first = bus_->calls("Notify").at(0);
    EXPECT_EQ(first["app_name"], "Lumora");
    EXPECT_EQ(first["icon"], "lumora");
    EXPECT_EQ(first["body"], "echo '&lt;b&gt;' &amp;&amp; cat \xEF\xBF\xBD");
    EXPECT_EQ(first["actions"], nlohmann::json({"approve:7", "Approve"}));
    EXPECT_EQ(first["urgency"], 2);

    // A replacement goes in place; a quick second one waits for the first answer.
    notifier->show("s1", prompt(8, "two"));
    notifier->show("s1", prompt(9, "three"));
    ASSERT_TRUE(eventually([&] { return bus_->calls("Notify").size() == 3; }));
    for (const auto& c : bus_->calls("Notify")) EXPECT_EQ(c["id"], first["id"]);
    EXPECT_EQ(bus_->calls("Notify")[2]["replaces_id"], first["id"]);
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return x.shown.back().second == 9; }); }));

    uint32_t id = first["id"];
    // A look-alike signal from a program that does not own the service's name is not a press.
    ASSERT_TRUE(bus_->spoof(id, "approve:666"));
    ASSERT_TRUE(bus_->invoke(id, "approve:9"));
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return !x.presses.empty(); }); }));
    EXPECT_EQ(r.read([](auto& x) { return x.presses[0]; }), std::make_pair(std::string("s1"), std::string("approve:9")));

    // Closed by us: a press that arrives late for it is not reported.
    notifier->close("s1");
    ASSERT_TRUE(eventually([&] { return bus_->calls("CloseNotification").size() == 1; }));
    ASSERT_TRUE(bus_->invoke(id, "approve:9"));
    // Dismissed by the user: reported as closed.
    auto shownIn = [&](const std::string& slot) {
        return eventually([&] {
            return r.read([&](auto& x) { return x.shown.back().first == slot; });
        });
    };
    notifier->show("s2", prompt(10, "four"));
    ASSERT_TRUE(shownIn("s2"));
    uint32_t second = bus_->calls("Notify").back()["id"];
    ASSERT_TRUE(bus_->dismiss(second));
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return x.closed.size() == 1; }); }));
    EXPECT_EQ(r.read([](auto& x) { return x.presses.size(); }), 1u);
    EXPECT_EQ(r.read([](auto& x) { return x.closed[0]; }), "s2");

    // Stopping takes what is still on screen away.
    notifier->show("s3", prompt(11, "five"));
    ASSERT_TRUE(shownIn("s3"));
    notifier->stop();
    EXPECT_TRUE(eventually([&] { return bus_->calls("CloseNotification").size() == 2; }));
}

TEST_F(NotifierTest, AMissingSlowOrGarbledServiceOnlyTurnsItOff) {
    Recorder r;
    auto notifier = Notifier::desktop("Lumora", "lumora");
    // No service yet: off; one that comes later is picked up.
    notifier->start(r.events());
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return x.availability.size() == 1; }); }));
    EXPECT_FALSE(r.read([](auto& x) { return x.availability[0].available; }));
    ASSERT_TRUE(bus_->startServer("noactions"));
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return x.availability.size() == 2; }); }));
    EXPECT_EQ(r.read([](auto& x) { return x.availability[1]; }), (Notifier::Capabilities{true, false}));
    notifier->show("s1", prompt(1, "ls"));
    ASSERT_TRUE(eventually([&] { return bus_->calls("Notify").size() == 1; }));
    EXPECT_EQ(bus_->calls("Notify")[0]["actions"], nlohmann::json::array());

    // It disappears (what it showed is gone) and comes back with actions.
    bus_->stopServer();
    ASSERT_TRUE(eventually([&] { return r.read([](auto& x) { return x.closed.size() == 1; }); }));
    ASSERT_TRUE(bus_->startServer("normal"));
    ASSERT_TRUE(eventually([&] { return r.availableWithActions(); }));
    notifier->show("s1", prompt(2, "ls"));
    ASSERT_TRUE(eventually([&] { return bus_->calls("Notify").size() == 2; }));
    EXPECT_EQ(bus_->calls("Notify")[1]["replaces_id"], 0);

    // Garbage answers: capabilities unreadable, so off again.
    bus_->stopServer();
    ASSERT_TRUE(bus_->startServer("garbage"));
    ASSERT_TRUE(eventually([&] { return bus_->calls("GetCapabilities").size() >= 3; }));
    ASSERT_TRUE(eventually([&] { return !r.read([](auto& x) { return x.availability.back().available; }); }));

    // A service that never answers: nothing shows, nothing hangs, stop is prompt.
    bus_->stopServer();
    ASSERT_TRUE(bus_->startServer("silent"));
    ASSERT_TRUE(eventually([&] { return bus_->calls("GetCapabilities").size() >= 4; }));
    auto before = std::chrono::steady_clock::now();
    notifier->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

TEST(Notifier, WithoutASessionBusItIsOffAndQuiet) {
    test::TempHome home;
    test::ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    auto notifier = Notifier::desktop("Lumora", "lumora");
    notifier->start({});
    notifier->show("s1", prompt(1, "ls"));
    notifier->close("s1");
    notifier->stop();
}

}  // namespace
}  // namespace lumora
