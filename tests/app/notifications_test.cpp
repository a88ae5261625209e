// Desktop notifications end to end: a live Claude session, the real hook
// program holding a permission prompt on the real socket, and a stand-in
// notification service on a private session bus whose buttons answer it.
#include <gtest/gtest.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "lumora/app/lumora_app.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/hooks/embedded_resources.hpp"
#include "lumora/platform/child_process.hpp"
#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/session_bus.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

const std::string kSession = "0b6f7c2a-8d41-4e5f-a9b3-6c2d1e0f4a77";

// What the app logs, kept for the test to read.
class CapturedLog {
public:
    CapturedLog() : sink_(std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(256)), old_(spdlog::default_logger()) {
        auto logger = std::make_shared<spdlog::logger>("test", sink_);
        logger->set_level(spdlog::level::info);
        spdlog::set_default_logger(logger);
    }
    ~CapturedLog() { spdlog::set_default_logger(old_); }
    bool contains(const std::string& text) const {
        for (const auto& line : sink_->last_formatted())
            if (line.find(text) != std::string::npos) return true;
        return false;
    }

private:
    std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink_;
    std::shared_ptr<spdlog::logger> old_;
};

// A Claude Code session the monitor sees as live: a process named claude in
// the project, its session record and a journal mid-turn.
struct LiveSession {
    fs::path project;
    std::unique_ptr<test::ChildProcess> claude;

    explicit LiveSession(const TempHome& home) : project(home / "proj") {
        fs::create_directories(project);
        fs::create_directories(home / "bin");
        fs::copy_file("/bin/sleep", home / "bin/claude");
        claude = std::make_unique<test::ChildProcess>(home / "bin/claude", std::vector<std::string>{"claude", "120"},
                                                      project);
        auto start = ProcessTable::system().snapshot().find(claude->pid())->start.value();
        Json record = {{"pid", claude->pid()}, {"sessionId", kSession}, {"cwd", project.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count()},
                       {"kind", "interactive"}, {"entrypoint", "cli"}, {"status", "busy"}};
        writeFile(home / ".claude/sessions" / (std::to_string(claude->pid()) + ".json"), record.dump());
        std::string stamp = Dates::format(std::chrono::system_clock::now());
        Json user = {{"type", "user"}, {"message", {{"role", "user"}, {"content", "rebuild"}}}, {"uuid", "u1"},
                     {"timestamp", stamp}, {"cwd", project.string()}, {"sessionId", kSession}};
        writeFile(scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", project.string(), kSession),
                  user.dump() + "\n");
    }
};

}  // namespace

TEST(DesktopNotifications, AHeldPromptIsAnsweredFromItsNotificationAndOnlyByItsOwnKey) {
    if (auto why = SessionBus::missing()) GTEST_SKIP() << *why;
    TempHome home;
    SessionBus bus;
    ASSERT_TRUE(bus.running());
    ASSERT_TRUE(bus.startServer());
    CapturedLog logged;
    LiveSession session(home);
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    ScopedEnv socket("LUMORA_SOCKET", (home / "run/notch.sock").string());
    fs::path hook = home / "notch-hook.py";
    ASSERT_TRUE(FileUtil::writeAtomically(hook, *EmbeddedResources::text("notch-hook.py"), 0755));
    auto gate = [&](const std::string& command) {
        Json input = {{"session_id", kSession}, {"hook_event_name", "PermissionRequest"}, {"tool_name", "Bash"},
                      {"tool_input", {{"command", command}, {"description", "Rebuild"}}},
                      {"cwd", session.project.string()}};
        return lumora::ChildProcess::spawn({"/usr/bin/python3", hook.string(), "gate"}, input.dump());
    };
    auto loop = [](const std::function<bool()>& done) { return RunLoop::main().runUntil(done, 15s); };
    auto promptNotifications = [&] {
        std::vector<Json> out;
        for (auto& n : bus.calls("Notify"))
            if (n["actions"].dump().find("approve:") != std::string::npos) out.push_back(n);
        return out;
    };

    LumoraApp app;
    // Nothing but the notification can answer here (no view is running).
    app.start(false);
    ASSERT_TRUE(loop([&] { return app.notifications().canAnswer(); }));

    // A held prompt: one notification with Approve and Deny, the command whole.
    auto first = gate("rm -rf build && make all");
    ASSERT_TRUE(first);
    ASSERT_TRUE(loop([&] { return promptNotifications().size() == 1; }));
    Json shown = promptNotifications()[0];
    EXPECT_EQ(shown["app_name"], "Lumora");
    EXPECT_EQ(shown["summary"], "proj wants to run");
    EXPECT_EQ(shown["body"], "rm -rf build &amp;&amp; make all\nRebuild");
    std::string firstApprove = shown["actions"][2];
    ASSERT_EQ(firstApprove.rfind("approve:", 0), 0u);
    std::string firstId = firstApprove.substr(8);
    EXPECT_EQ(shown["actions"], Json({"default", "Open", "approve:" + firstId, "Approve", "deny:" + firstId, "Deny"}));
    // The notification counts as a face that shows it: the bridge holds it.
    ASSERT_TRUE(loop([&] {
        auto snapshot = app.bridge().snapshot(std::chrono::system_clock::now());
        auto g = snapshot.gate(kSession);
        return g && g->shown;
    }));

    // A newer prompt of the session replaces it in place with its own keys.
    auto second = gate("git push");
    ASSERT_TRUE(loop([&] { return promptNotifications().size() == 2; }));
    Json replaced = promptNotifications()[1];
    EXPECT_EQ(replaced["replaces_id"], shown["id"]);
    EXPECT_EQ(replaced["body"], "git push\nRebuild");
    std::string secondId = replaced["actions"][2].get<std::string>().substr(8);
    EXPECT_NE(secondId, firstId);
    ASSERT_TRUE(first->wait(10s));
    EXPECT_EQ(first->output(), "");  // handed back to the agent

    // A press on the outdated prompt's Approve answers nothing.
    uint32_t id = replaced["id"];
    ASSERT_TRUE(bus.invoke(id, "approve:" + firstId));
    ASSERT_TRUE(loop([&] { return logged.contains("ignored approve:" + firstId); }));
    EXPECT_FALSE(second->wait(0ms));

    // The current Approve answers the hook, and the notification closes.
    ASSERT_TRUE(bus.invoke(id, "approve:" + secondId));
    ASSERT_TRUE(loop([&] { return second->wait(0ms); }));
    Json printed = Json::parse(second->output());
    EXPECT_EQ(printed["hookSpecificOutput"]["decision"]["behavior"], "allow");
    ASSERT_TRUE(loop([&] {
        for (auto& c : bus.calls("CloseNotification"))
            if (c["id"] == id) return true;
        return false;
    }));

    // Dismissing a prompt's notification answers nothing: the agent asks itself at once.
    auto third = gate("make deploy");
    ASSERT_TRUE(loop([&] { return promptNotifications().size() == 3; }));
    ASSERT_TRUE(loop([&] {
        auto snapshot = app.bridge().snapshot(std::chrono::system_clock::now());
        auto g = snapshot.gate(kSession);
        return g && g->shown;
    }));
    ASSERT_TRUE(bus.dismiss(promptNotifications()[2]["id"]));
    ASSERT_TRUE(loop([&] { return third->wait(0ms); }));
    EXPECT_EQ(third->output(), "");
    app.stop();
}

TEST(DesktopNotifications, ActionKeysNameTheirPromptAndAnythingElseIsRefused) {
    using Press = NotificationKeys::Press;
    EXPECT_EQ(NotificationKeys::parse(NotificationKeys::approve(12)), (Press{Press::Kind::approve, 12, 0}));
    EXPECT_EQ(NotificationKeys::parse(NotificationKeys::deny(7)), (Press{Press::Kind::deny, 7, 0}));
    EXPECT_EQ(NotificationKeys::parse(NotificationKeys::answer(3, 2)), (Press{Press::Kind::answer, 3, 2}));
    EXPECT_EQ(NotificationKeys::parse("default"), Press{});
    for (const char* bad : {"", "approve:", "approve:0", "approve:-1", "approve:1x", "approve: 1", "approve:012",
                            "deny:1:2", "answer:3", "answer:3:0", "answer:3:4", "answer:3:02", "answer::1",
                            "Approve:1", "approve:99999999999999999999"})
        EXPECT_FALSE(NotificationKeys::parse(bad)) << bad;
}

namespace {

// A notification service in memory: what is on screen per slot, every call answered at once.
class ScreenNotifier : public Notifier {
public:
    std::map<std::string, Notification> screen;
    int shows = 0;
    Events events;
    void start(Events e) override {
        events = std::move(e);
        events.availability({true, true});
    }
    void show(const std::string& slot, const Notification& n) override {
        screen[slot] = n;
        ++shows;
        events.shown(slot, n.tag);
    }
    void close(const std::string& slot) override { screen.erase(slot); }
    void stop() override { screen.clear(); }
};

AgentInstance session(const std::string& id, AgentStatus status) {
    AgentInstance a;
    a.id = id;
    a.projectName = "proj-" + id;
    a.status = status;
    a.summary = "All tests pass.";
    return a;
}

}  // namespace

TEST(DesktopNotifications, WhatShowsFollowsTheSessionsAndTheSettings) {
    auto owned = std::make_unique<ScreenNotifier>();
    ScreenNotifier& screen = *owned;
    std::set<std::string> panel;
    SessionNotifications::Actions actions;
    actions.panelShows = [&](const std::string& id) { return panel.count(id) > 0; };
    SessionNotifications notifications(std::move(owned), actions);
    notifications.start();
    RunLoop::main().runUntil([&] { return notifications.canAnswer(); }, 5s);

    // A question that rises: one notification with its text; nothing for a session whose panel is open.
    auto asking = session("a", AgentStatus::attention);
    asking.question = PendingQuestion{"Which database?", {"SQLite", "Postgres"}, 0};
    auto watched = session("b", AgentStatus::attention);
    panel.insert("b");
    notifications.published({asking, watched});
    EXPECT_TRUE(screen.screen.empty());  // not news until the monitor alerts
    notifications.alerted(PeekEvent{1, "a", "proj-a", "Which database?", false});
    notifications.alerted(PeekEvent{2, "b", "proj-b", "Needs you", false});
    ASSERT_EQ(screen.screen.size(), 1u);
    EXPECT_EQ(screen.screen["a"].summary, "proj-a has a question");
    EXPECT_EQ(screen.screen["a"].body, "Which database?\n" + asking.question->optionsLine());

    // Answered in the agent: closed. A finished turn is news only with notifyOnDone.
    notifications.published({session("a", AgentStatus::waiting)});
    EXPECT_TRUE(screen.screen.empty());
    notifications.alerted(PeekEvent{3, "a", "proj-a", "All tests pass.", true});
    EXPECT_TRUE(screen.screen.empty());
    notifications.setSettings({true, true});
    notifications.alerted(PeekEvent{4, "a", "proj-a", "All tests pass.", true});
    ASSERT_EQ(screen.screen.count("a"), 1u);
    EXPECT_EQ(screen.screen["a"].summary, "proj-a finished its turn");
    // Republishing the same list changes nothing; the session working again takes it away.
    int shows = screen.shows;
    notifications.published({session("a", AgentStatus::waiting)});
    EXPECT_EQ(screen.shows, shows);
    notifications.published({session("a", AgentStatus::working)});
    EXPECT_TRUE(screen.screen.empty());

    // Turned off: what shows goes, and nothing new comes.
    notifications.published({asking});
    notifications.alerted(PeekEvent{5, "a", "proj-a", "Which database?", false});
    ASSERT_EQ(screen.screen.size(), 1u);
    notifications.setSettings({false, true});
    EXPECT_TRUE(screen.screen.empty());
    EXPECT_FALSE(notifications.canAnswer());
    notifications.alerted(PeekEvent{6, "a", "proj-a", "Which database?", false});
    EXPECT_TRUE(screen.screen.empty());
}
