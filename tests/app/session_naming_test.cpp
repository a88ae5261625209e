// Naming sessions through a local model server: a stand-in server on
// 127.0.0.1 answers good names, junk, invalid JSON, HTML, ten megabytes,
// slowly or never, through the app's own HTTP transport.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "lumora/app/lumora_app.hpp"
#include "lumora/monitor/desktop_session_source.hpp"
#include "lumora/monitor/session_derivation.hpp"
#include "scrivet/claude_journal_builder.hpp"
#include "scrivet/session_namer.hpp"
#include "scrivet/session_topic.hpp"
#include "support/test_http_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using scrivet::SessionNamer;
using Json = nlohmann::json;

namespace {

std::string chatAnswer(const std::string& content) {
    return Json{{"choices", {{{"index", 0}, {"message", {{"role", "assistant"}, {"content", content}}}}}}}.dump();
}

// The stand-in model: what it answers depends on the prompt it is given.
TestHttpServer::Reply standIn(const TestHttpServer::Request& r) {
    auto body = Json::parse(r.body, nullptr, false);
    std::string prompt = body.is_discarded() ? "" : body["messages"][1]["content"].get<std::string>();
    auto has = [&](const char* word) { return prompt.find(word) != std::string::npos; };
    TestHttpServer::Reply reply;
    if (has("dark mode")) reply.body = chatAnswer(R"({"title":"Dark Mode Toggle"})");
    else if (has("compile")) reply.body = chatAnswer(R"({"title":"I will compile the binary"})");
    else if (has("one word")) reply.body = chatAnswer(R"({"title":"Binary"})");
    else if (has("access")) reply.body = chatAnswer(R"({"title":"Does it have access?"})");
    else if (has("broken json")) reply.body = chatAnswer("{\"title\": \"Unclosed");
    else if (has("html")) reply.body = "<html><body><h1>502 Bad Gateway</h1></body></html>";
    else if (has("ten megabytes")) reply.paddingBytes = 10 << 20;
    else if (has("slowly")) {
        reply.delay = 1500ms;
        reply.body = chatAnswer(R"({"title":"Too late"})");
    } else if (has("never")) reply.delay = 60s;
    else reply.body = chatAnswer(R"({"title":"Something else"})");
    return reply;
}

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
    auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

SessionNamer::Config configFor(const std::string& endpoint, const fs::path& cacheFile) {
    SessionNamer::Config c;
    c.endpoint = endpoint;
    c.model = "stand-in";
    c.cacheFile = cacheFile;
    c.transport = namingTransport();
    c.timeout = 400ms;  // the product's 2 s, shortened for the slow cases
    return c;
}

}  // namespace

TEST(SessionNaming, NamesOnceAndKeepsOnlyWhatIsAName) {
    TempHome home;
    TestHttpServer server(standIn);
    auto names = home / "support/session-names.json";
    SessionNamer namer;
    namer.configure(configFor(server.url(), names));
    EXPECT_TRUE(namer.isAvailable());
    // Not started (a one-shot command): only the cache is read.
    EXPECT_FALSE(namer.cachedName("s-good", "add a dark mode toggle to settings"));
    EXPECT_EQ(server.requestCount(), 0);
    namer.start();

    EXPECT_FALSE(namer.cachedName("s-good", "add a dark mode toggle to settings"));  // never waits
    ASSERT_TRUE(waitFor([&] { return namer.idle(); }));
    EXPECT_EQ(namer.cachedName("s-good", "add a dark mode toggle to settings"), "Dark mode toggle");
    auto request = server.requests().front();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/v1/chat/completions");
    auto sent = Json::parse(request.body);
    EXPECT_EQ(sent["model"], "stand-in");
    EXPECT_EQ(sent["messages"][1]["content"], "First message:\n\nadd a dark mode toggle to settings");
    EXPECT_EQ(sent["response_format"]["type"], "json_schema");

    // Junk, invalid JSON and HTML name nothing, and each session is tried once per run.
    for (const char* prompt : {"compile the release binary", "one word please", "does the bot have access",
                               "broken json please", "html please"}) {
        std::string id = std::string("s-") + prompt;
        EXPECT_FALSE(namer.cachedName(id, prompt));
        ASSERT_TRUE(waitFor([&] { return namer.idle(); }));
        EXPECT_FALSE(namer.cachedName(id, prompt)) << prompt;
    }
    EXPECT_EQ(server.requestCount(), 6);
    EXPECT_TRUE(namer.isAvailable());  // the server answered, however badly

    // The names file holds the good name; a new run starts from it without asking.
    auto stored = Json::parse(readFile(names));
    EXPECT_EQ(stored, (Json{{"s-good", "Dark mode toggle"}}));
    SessionNamer next;
    next.configure(configFor(server.url(), names));
    next.start();
    EXPECT_EQ(next.cachedName("s-good", "whatever"), "Dark mode toggle");
    EXPECT_EQ(server.requestCount(), 6);
    // A damaged file starts an empty cache.
    writeFile(names, "{ not json");
    SessionNamer damaged;
    damaged.configure(configFor(server.url(), names));
    EXPECT_FALSE(damaged.cachedName("s-good", "x"));
}

TEST(SessionNaming, ASlowSilentOrFloodingServerBlocksNothing) {
    TempHome home;
    TestHttpServer server(standIn);
    for (const char* prompt : {"send ten megabytes", "answer slowly", "never answer"}) {
        SessionNamer namer;
        namer.configure(configFor(server.url(), home / "names.json"));
        namer.start();
        auto asked = std::chrono::steady_clock::now();
        EXPECT_FALSE(namer.cachedName("s1", prompt));
        // The caller got its answer before the server did anything.
        EXPECT_LT(std::chrono::steady_clock::now() - asked, 400ms) << prompt;
        ASSERT_TRUE(waitFor([&] { return namer.idle(); })) << prompt;
        EXPECT_FALSE(namer.cachedName("s1", prompt)) << prompt;
        EXPECT_EQ(namer.unavailableReason(), "The local model server at " + server.url() + " does not answer.")
            << prompt;
        // While the server is silent, other sessions are not sent to it (nor counted as tried).
        int before = server.requestCount();
        EXPECT_FALSE(namer.cachedName("s2", "add a dark mode toggle"));
        EXPECT_TRUE(namer.idle());
        EXPECT_EQ(server.requestCount(), before);
        namer.stop();  // cancels what is in flight at once
    }
    // Nothing listening at all.
    SessionNamer closed;
    closed.configure(configFor("http://127.0.0.1:9", home / "names.json"));
    EXPECT_FALSE(closed.name("add a dark mode toggle"));
    EXPECT_EQ(closed.unavailableReason(), "The local model server at http://127.0.0.1:9 does not answer.");
}

TEST(SessionNaming, ARowTakesItsNameWhenItArrivesAndTheSettingTurnsItOn) {
    TempHome home;
    TestHttpServer server(standIn);
    auto& namer = SessionNamer::shared();
    namer.configure(configFor(server.url(), home / "names.json"));
    namer.start();

    // The reader's facts stay the same between scans; the name replaces the prompt when it comes.
    SessionObservation obs;
    obs.id = "0199a1c2-1111-7000-8000-00000000abcd";
    obs.cwd = "/home/dev/proj";
    scrivet::TranscriptInfo info;
    scrivet::SessionTopic::fill(info, std::nullopt, std::string("add a dark mode toggle to settings"), std::nullopt);
    obs.info = info;
    SessionDerivation::Memo memo;
    auto now = std::chrono::system_clock::now();
    EXPECT_EQ(SessionDerivation::derive(obs, {}, memo, now, {}).topic, "add a dark mode toggle to settings");
    ASSERT_TRUE(waitFor([&] { return namer.idle() && namer.cachedName(obs.id, "x"); }));
    EXPECT_EQ(SessionDerivation::derive(obs, {}, memo, now, {}).topic, "Dark mode toggle");
    // The agent's own title is never replaced; a process-only row is never named.
    scrivet::SessionTopic::fill(info, std::string("Settings pane"), std::string("add a dark mode toggle"), std::nullopt);
    obs.info = info;
    EXPECT_EQ(SessionDerivation::derive(obs, {}, memo, now, {}).topic, "Settings pane");
    obs.id = "/home/dev/proj#4242";
    scrivet::SessionTopic::fill(info, std::nullopt, std::string("add a dark mode toggle"), std::nullopt);
    obs.info = info;
    SessionDerivation::Memo other;
    EXPECT_EQ(SessionDerivation::derive(obs, {}, other, now, {}).topic, "add a dark mode toggle");
    namer.stop();

    // A desktop session's own title is never replaced by a name either.
    const std::string desktopId = "0199a1c2-1111-7000-8000-00000000dddd";
    writeFile(home / "names.json", Json{{desktopId, "Some other name"}}.dump());
    namer.configure(configFor(server.url(), home / "names.json"));
    writeFile(home / "desktop/claude-code-sessions/local_1.json",
              Json{{"cliSessionId", desktopId}, {"title", "Desktop title"}, {"cwd", "/home/dev/proj"},
                   {"lastActivityAt", std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::system_clock::now().time_since_epoch()).count()}}
                  .dump());
    ClaudeJournal journal(desktopId, "/home/dev/proj");
    journal.prompt("add a dark mode toggle").reply("Done.");
    journal.writeTo(home / "projects/-home-dev-proj" / (desktopId + ".jsonl"));
    DesktopSessionSource desktop({home / "desktop", home / "projects", home / "claude.json"});
    desktop.setCoworkEnabled(false);
    auto seen = desktop.observe(ScanContext{std::chrono::system_clock::now(), nullptr, nullptr});
    ASSERT_EQ(seen.size(), 1u);
    SessionDerivation::Memo desktopMemo;
    EXPECT_EQ(SessionDerivation::derive(seen[0], {}, desktopMemo, now, {}).topic, "Desktop title");

    // The app hands the settings to the namer: empty is off, a remote host is refused.
    {
        LumoraApp app;
        EXPECT_EQ(namer.unavailableReason(), "Naming sessions needs a local model server (set namingEndpoint).");
        app.settings().setString(SettingsStore::kNamingEndpoint, "http://models.example.com:8080");
        EXPECT_EQ(namer.unavailableReason(), "Naming sessions needs a local model server (set namingEndpoint).");
        app.settings().setString(SettingsStore::kNamingEndpoint, server.url());
        EXPECT_TRUE(namer.isAvailable());
        EXPECT_EQ(app.settings().namingModel(), "");
    }
    namer.configure({});
}
