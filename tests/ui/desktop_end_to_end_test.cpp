// The desktop pill on the real app under a virtual X server with a window
// manager: a fake Claude Code process with its session file and journal, the
// hooks installed by `lumora --hooks-enable`, the real hook program sending a
// permission prompt, and xdotool's pointer hovering and clicking.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <future>
#include <nlohmann/json.hpp>

#include "monitor/child_process.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/test_support.hpp"
#include "ui/x_display.hpp"

using namespace lumora;
using namespace lumora::test;
using Json = nlohmann::json;
using namespace std::chrono_literals;

namespace {

const std::string kSession = "5b1c7e20-9a3d-4f10-8e22-a1b2c3d4e5f6";
const std::array<uint8_t, 3> kCoverColour = {0x5a, 0x6b, 0x7c};

std::string isoAgo(std::chrono::seconds ago) {
    std::time_t secs = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() - ago);
    std::tm tm{};
    ::gmtime_r(&secs, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S.000Z", &tm);
    return buf;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 15s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

// A live Claude Code session mid-turn, with the hooks installed, and the pill
// started over it on its own X display.
struct Desk {
    TempHome home;
    fs::path project = home / "webshop";
    fs::path socket = home / "run/notch.sock";
    fs::path trace = home / "ui-trace";
    std::string env;
    std::unique_ptr<ChildProcess> claude;
    XDisplay x;
    std::unique_ptr<Program> pill;

    Desk(int width, int height, std::string projectName = "webshop")
        : project(home / projectName), x(width, height, home.path()) {
        fs::create_directories(project);
        runCommand("cd '" + project.string() + "' && git init -q -b checkout-flow");
        fs::create_directories(home / "run");
        ::chmod((home / "run").c_str(), 0700);
        env = "env HOME=" + home.path().string() + " XDG_CONFIG_HOME=" + (home / ".config").string() +
              " XDG_DATA_HOME=" + (home / ".local/share").string() + " LUMORA_SOCKET=" + socket.string() + " ";
        fs::create_directories(home / "bin");
        fs::copy_file("/bin/sleep", home / "bin/claude");
        claude = std::make_unique<ChildProcess>(home / "bin/claude", std::vector<std::string>{"claude", "300"}, project);
        Json record = {{"pid", claude->pid()}, {"sessionId", kSession}, {"cwd", project.string()},
                       {"startedAt", std::chrono::duration_cast<std::chrono::milliseconds>(
                                         ProcessTable::system().snapshot().find(claude->pid())->start->time_since_epoch())
                                         .count()}};
        writeFile(home / ".claude/sessions" / (std::to_string(claude->pid()) + ".json"), record.dump());
        Json prompt = {{"type", "user"}, {"message", {{"role", "user"}, {"content", "Run the checks"}}},
                       {"timestamp", isoAgo(3s)}, {"sessionId", kSession}};
        Json call = {{"type", "assistant"},
                     {"message",
                      {{"id", "msg_1"}, {"role", "assistant"}, {"model", "claude-opus-5-5"},
                       {"content", Json::array({{{"type", "tool_use"}, {"id", "toolu_1"}, {"name", "Bash"},
                                                 {"input", {{"command", "git status && npm test"}}}}})},
                       {"stop_reason", "tool_use"},
                       {"usage", {{"input_tokens", 900}, {"cache_read_input_tokens", 20000}}}}},
                     {"timestamp", isoAgo(2s)}, {"sessionId", kSession}};
        writeFile(scrivet::ClaudeTranscriptReader::transcriptURL(home / ".claude/projects", project.string(), kSession),
                  prompt.dump() + "\n" + call.dump() + "\n");
        auto enable = runCommand(env + lumoraBinary().string() + " --hooks-enable 2>&1");
        EXPECT_EQ(enable.status, 0) << enable.output;
    }

    // Starts `lumora` with `flags` (the pill, when no terminal is there).
    void start(std::vector<std::string> flags = {"--desktop"}) {
        x.startWindowManager();
        flags.insert(flags.begin(), lumoraBinary().string());
        pill = std::make_unique<Program>(
            flags,
            std::map<std::string, std::string>{
                {"HOME", home.path().string()}, {"XDG_CONFIG_HOME", (home / ".config").string()},
                {"XDG_DATA_HOME", (home / ".local/share").string()}, {"XDG_RUNTIME_DIR", (home / "run").string()},
                {"LUMORA_SOCKET", socket.string()}, {"DISPLAY", x.name()}, {"WAYLAND_DISPLAY", ""},
                {"QT_QPA_PLATFORM", ""}, {"LUMORA_UI_TRACE", trace.string()},
                // The window system's libraries keep caches for the process's life.
                {"ASAN_OPTIONS", "detect_leaks=0"}},
            project);
    }

    Box widget(const std::string& name) { return readTrace(trace)[name]; }
    bool shows(const std::string& name) { return !widget(name).empty(); }

    // Runs the real hook program on a permission prompt, the way Claude Code does.
    std::future<CommandResult> permission(const std::string& command) const {
        Json input = {{"session_id", kSession},      {"transcript_path", "/dev/null"},
                      {"cwd", project.string()},     {"hook_event_name", "PermissionRequest"},
                      {"tool_name", "Bash"},         {"tool_input", {{"command", command}}}};
        auto file = home / ("input-" + std::to_string(std::rand()) + ".json");
        writeFile(file, input.dump());
        std::string gate = Json::parse(readFile(home / ".claude/settings.json"))["hooks"]["PermissionRequest"][0]["hooks"][0]
                               ["command"].get<std::string>();
        std::string cmd = env + "timeout 30 " + gate + " < '" + file.string() + "'";
        return std::async(std::launch::async, [cmd] { return runCommand(cmd); });
    }

    // Saves the screen once it has settled (two looks 100 ms apart agree).
    void screenshot(const std::string& name, Box box) {
        std::optional<Screenshot> shot;
        eventually([&] {
            Screenshot before(x.framebuffer());
            std::this_thread::sleep_for(100ms);
            shot.emplace(x.framebuffer());
            return shot->ok() && *shot == before;
        }, 5s);
        ASSERT_TRUE(shot && shot->ok());
        shot->savePng(fs::path(LUMORA_ARTIFACTS_DIR) / "desktop" / (name + ".png"), box);
    }
};

std::string behaviorOf(std::future<CommandResult>& f) {
    if (f.wait_for(30s) != std::future_status::ready) return "(no answer)";
    auto r = f.get();
    if (r.status != 0) return "(exit " + std::to_string(r.status) + ")";
    if (r.output.empty()) return "(passed back)";
    auto printed = Json::parse(r.output, nullptr, false);
    if (printed.is_discarded()) return "(no decision: " + r.output + ")";
    return printed["hookSpecificOutput"]["decision"]["behavior"].get<std::string>();
}

bool skipWithoutDesktop(std::string& why) {
    if (!LUMORA_HAS_DESKTOP) {
        why = "this build has no desktop front end (Qt 6 Widgets was not found)";
        return true;
    }
    std::string missing;
    if (!desktopToolsPresent(&missing)) {
        why = missing + " is not installed (scripts/bootstrap installs it)";
        return true;
    }
    return false;
}

}  // namespace

TEST(DesktopEndToEnd, HoverOpensThePanelAndAClickAnswersTheHook) {
    std::string why;
    if (skipWithoutDesktop(why)) GTEST_SKIP() << why;
    Desk desk(1280, 800);
    ASSERT_TRUE(desk.x.ok());
    desk.start();

    // The pill hangs from the top centre of the screen.
    Box pill;
    ASSERT_TRUE(eventually([&] { return !(pill = desk.widget("pill")).empty(); }));
    EXPECT_EQ(pill.y, 0);
    EXPECT_NEAR(pill.cx(), 640, 1);
    EXPECT_LT(pill.height, 60);

    // A window mapped later does not cover it.
    Program cover({LUMORA_COVER_WINDOW}, {{"DISPLAY", desk.x.name()}, {"ASAN_OPTIONS", "detect_leaks=0"}});
    ASSERT_TRUE(eventually([&] {
        Screenshot s(desk.x.framebuffer());
        return s.ok() && s.at(20, 600) == kCoverColour;
    }));
    ASSERT_TRUE(eventually([&] { return !desk.widget("pill").empty(); }));
    pill = desk.widget("pill");
    EXPECT_TRUE(eventually([&] { return Screenshot(desk.x.framebuffer()).at(pill.x + 4, pill.cy()) != kCoverColour; }))
        << "the pill is covered";
    desk.screenshot("collapsed", {pill.cx() - 320, 0, 640, 120});

    // A pointer approaching from below blooms the dots into the agents' marks,
    // and the pill widens with them (a moving device, not a warp).
    desk.x.xdotool("mousemove " + std::to_string(pill.cx()) + " 400");
    desk.x.xdotool("mousemove_relative -- 0 -300");
    desk.x.xdotool("mousemove_relative -- 0 -50");
    EXPECT_TRUE(eventually([&] { return desk.widget("pill").width > pill.width; }));
    desk.screenshot("approached", {pill.cx() - 320, 0, 640, 120});
    int approached = desk.widget("pill").width;
    desk.x.xdotool("mousemove_relative -- 0 500");
    EXPECT_TRUE(eventually([&] { return desk.widget("pill").width < approached; }));
    pill = desk.widget("pill");

    // A held permission prompt from the real hook program: the pill peeks.
    auto answer = desk.permission("git status && npm test");
    ASSERT_TRUE(eventually([&] { return desk.widget("pill").width > pill.width + 100; }));
    Box peek = desk.widget("pill");
    desk.screenshot("peeking", {peek.cx() - 320, 0, 640, 120});

    // Hovering opens the panel with the row and its buttons, no extra click.
    desk.x.xdotool("mousemove " + std::to_string(peek.cx()) + " " + std::to_string(peek.cy()));
    ASSERT_TRUE(eventually([&] { return desk.shows("panel") && desk.shows("approve-" + kSession); }));
    EXPECT_TRUE(desk.shows("row-" + kSession));
    EXPECT_TRUE(desk.shows("deny-" + kSession));
    Box panel = desk.widget("panel");
    EXPECT_EQ(panel.y, 0);
    EXPECT_NEAR(panel.cx(), 640, 1);
    desk.screenshot("open", {panel.x - 40, 0, panel.width + 80, panel.height + 40});

    // A click on Approve answers through the bridge: the hook prints allow.
    Box approve = desk.widget("approve-" + kSession);
    desk.x.xdotool("mousemove " + std::to_string(approve.cx()) + " " + std::to_string(approve.cy()) + " click 1");
    EXPECT_EQ(behaviorOf(answer), "allow");
    EXPECT_TRUE(eventually([&] { return !desk.shows("approve-" + kSession); }));

    // A click on the row itself brings its session forward: the jump logs the route it took.
    Box row = desk.widget("row-" + kSession);
    desk.x.xdotool("mousemove " + std::to_string(row.x + 20) + " " + std::to_string(row.y + 12) + " click 1");
    EXPECT_TRUE(eventually([&] {
        for (const auto& e : fs::recursive_directory_iterator(desk.home.path()))
            if (e.path().filename() == "lumora.log" && readFile(e.path()).find("jump: ") != std::string::npos)
                return true;
        return false;
    })) << "no jump in the log";

    // The gear opens the settings window; a switch there is stored at once.
    Box gear = desk.widget("settings-button");
    desk.x.xdotool("mousemove " + std::to_string(gear.cx()) + " " + std::to_string(gear.cy()) + " click 1");
    ASSERT_TRUE(eventually([&] { return desk.shows("setting-soundEnabled"); }));
    // The window manager places the new window; click once it has settled.
    Box sound;
    ASSERT_TRUE(eventually([&] {
        Box before = desk.widget("setting-soundEnabled");
        std::this_thread::sleep_for(200ms);
        sound = desk.widget("setting-soundEnabled");
        return sound.x == before.x && sound.y == before.y;
    }));
    desk.screenshot("settings", {0, 0, 1280, 600});
    desk.x.xdotool("mousemove " + std::to_string(sound.cx()) + " " + std::to_string(sound.cy()) + " click 1");
    EXPECT_TRUE(eventually([&] {
        auto stored = Json::parse(readFile(desk.home / ".config/lumora/defaults.json"), nullptr, false);
        return stored.is_object() && stored.value("soundEnabled", true) == false;
    }));

    // Moving away closes the panel; the pill stays.
    desk.x.xdotool("mousemove 100 700");
    EXPECT_TRUE(eventually([&] { return !desk.shows("panel"); }));
    EXPECT_TRUE(desk.shows("pill"));

    // A stop signal ends it cleanly and removes the socket.
    EXPECT_EQ(desk.pill->kill(SIGTERM), 0);
    EXPECT_FALSE(fs::exists(desk.socket));
}

TEST(DesktopEndToEnd, ASmallScreenAHugeCommandAndTheDisplayGoingAway) {
    std::string why;
    if (skipWithoutDesktop(why)) GTEST_SKIP() << why;
    Desk desk(640, 480, "shop-" + std::string(200, 'n'));
    ASSERT_TRUE(desk.x.ok());
    // An older single-display preference naming this screen becomes the selection.
    writeFile(desk.home / ".config/lumora/defaults.json", R"({"preferredDisplay": "screen"})");
    desk.start({});  // no flag, no terminal, a display: the pill
    ASSERT_TRUE(eventually([&] { return desk.shows("pill"); }));
    auto stored = Json::parse(readFile(desk.home / ".config/lumora/defaults.json"), nullptr, false);
    EXPECT_EQ(stored.value("notchDisplays", Json()), Json::array({"screen"})) << stored.dump();

    // A desktop's top bar appears: the pill moves under it.
    Program bar({LUMORA_COVER_WINDOW, "--top-bar", "28"}, {{"DISPLAY", desk.x.name()}, {"ASAN_OPTIONS", "detect_leaks=0"}});
    EXPECT_TRUE(eventually([&] { return desk.widget("pill").y == 28; })) << desk.widget("pill").y;
    EXPECT_NEAR(desk.widget("pill").cx(), 320, 1);

    // A 4 KB command: the panel fits the screen and scrolls; nothing is lost.
    std::string command = "echo ";
    for (int i = 0; i < 400; ++i) command += "step-" + std::to_string(i % 10) + "-ok ";
    auto answer = desk.permission(command);
    ASSERT_TRUE(eventually([&] { return desk.widget("pill").width > 200; }));
    desk.x.xdotool("mousemove 320 40");
    ASSERT_TRUE(eventually([&] { return desk.shows("panel") && desk.shows("row-" + kSession); }));
    Box panel = desk.widget("panel");
    EXPECT_GE(panel.x, 0);
    EXPECT_EQ(panel.y, 28);
    EXPECT_LE(panel.x + panel.width, 640);
    EXPECT_LE(panel.y + panel.height, 480);
    desk.screenshot("small-screen", {0, 0, 640, 480});

    // The X server dies: the held prompt goes back to the agent and the program ends.
    desk.x.kill();
    EXPECT_EQ(behaviorOf(answer), "(passed back)");
    EXPECT_TRUE(desk.pill->wait(10s).has_value());
}

TEST(DesktopEndToEnd, TheOpenPanelCarriesTheQuotaStripUnderItsRows) {
    std::string why;
    if (skipWithoutDesktop(why)) GTEST_SKIP() << why;
    Desk desk(1280, 900);
    ASSERT_TRUE(desk.x.ok());
    desk.start({"--desktop", "--demo"});  // scripted sessions, plans, quota windows and spend
    // The pill grows as the demonstration's sessions arrive, and a pointer
    // that arrived before the window was ready brings no hover: the pointer
    // comes again, over the pill as it is now, until the panel opens.
    ASSERT_TRUE(eventually([&] { return !desk.widget("pill").empty(); }));
    ASSERT_TRUE(eventually([&] {
        Box pill = desk.widget("pill");
        desk.x.xdotool("mousemove 5 " + std::to_string(pill.y + pill.height + 400));
        desk.x.xdotool("mousemove " + std::to_string(pill.cx()) + " " + std::to_string(pill.cy()));
        return eventually([&] { return desk.shows("panel") && desk.shows("quota-strip"); }, 2s);
    }, 30s));
    Box panel = desk.widget("panel"), strip = desk.widget("quota-strip");
    // Under the rows, inside the panel, one line per provider with readings.
    EXPECT_GT(strip.y, panel.y + 100);
    EXPECT_LE(strip.y + strip.height, panel.y + panel.height);
    EXPECT_GE(strip.height, 3 * 18);
    desk.screenshot("open-with-quotas", {panel.x - 40, 0, panel.width + 80, panel.height + 40});
    EXPECT_EQ(desk.pill->kill(SIGTERM), 0);
}

TEST(DesktopFace, ForcingAFaceThatCannotShowSaysSoInOneLine) {
    TempHome home;
    std::string bin = lumoraBinary().string();
    auto noDisplay = runCommand("env -u DISPLAY -u WAYLAND_DISPLAY " + bin + " --desktop 2>&1 </dev/null");
    EXPECT_EQ(noDisplay.status, 1);
    std::string expected = LUMORA_HAS_DESKTOP ? "no display" : "no desktop front end";
    EXPECT_NE(noDisplay.output.find(expected), std::string::npos) << noDisplay.output;
    EXPECT_EQ(std::count(noDisplay.output.begin(), noDisplay.output.end(), '\n'), 1) << noDisplay.output;

    auto noTerminal = runCommand(bin + " --terminal 2>&1 </dev/null");
    EXPECT_EQ(noTerminal.status, 1);
    EXPECT_NE(noTerminal.output.find("needs a terminal"), std::string::npos) << noTerminal.output;

    auto both = runCommand(bin + " --terminal --desktop 2>&1 </dev/null");
    EXPECT_NE(both.status, 0);
}
