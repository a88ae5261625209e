#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/base/defaults_store.hpp"
#include "lumora/monitor/sdk_sessions.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Json = nlohmann::json;

namespace {

std::string iso(Date t) {
    auto secs = std::chrono::system_clock::to_time_t(std::chrono::time_point_cast<std::chrono::seconds>(t));
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S.000Z", std::gmtime(&secs));
    return buf;
}

// A journal as Claude Code writes it: bookkeeping first, then the turns,
// each naming the entrypoint and the working directory.
fs::path journal(const fs::path& projects, const std::string& cwd, const std::string& session,
                 const std::string& entrypoint, Date lastTurn, bool trailingLastPrompt = false) {
    auto file = projects / scrivet::ClaudeTranscriptReader::encodedDirName(cwd) / (session + ".jsonl");
    std::string text;
    text += Json{{"type", "mode"}, {"mode", "normal"}, {"sessionId", session}}.dump() + "\n";
    text += Json{{"type", "user"}, {"message", {{"role", "user"}, {"content", "hello"}}}, {"entrypoint", entrypoint},
                 {"cwd", cwd}, {"sessionId", session}, {"timestamp", iso(lastTurn - 1min)}}
                .dump() + "\n";
    text += Json{{"type", "assistant"}, {"message", {{"role", "assistant"}, {"content", "hi"}}},
                 {"entrypoint", entrypoint}, {"cwd", cwd}, {"sessionId", session}, {"timestamp", iso(lastTurn)}}
                .dump() + "\n";
    if (trailingLastPrompt) text += Json{{"type", "last-prompt"}, {"lastPrompt", "hello"}}.dump() + "\n";
    writeFile(file, text);
    setMtime(file, trailingLastPrompt ? std::chrono::system_clock::now() : lastTurn);
    return file;
}

const char* kA = "11111111-1111-4111-8111-111111111111";
const char* kB = "22222222-2222-4222-8222-222222222222";
const char* kC = "33333333-3333-4333-8333-333333333333";
const char* kD = "44444444-4444-4444-8444-444444444444";
const char* kE = "55555555-5555-4555-8555-555555555555";
const char* kF = "66666666-6666-4666-8666-666666666666";
const char* kG = "77777777-7777-4777-8777-777777777777";

}  // namespace

TEST(SDKSessionReader, FindsRecentSDKJournalsOnly) {
    TempDir dir;
    auto projects = dir / "projects";
    auto now = std::chrono::system_clock::now();
    journal(projects, "/w/host-app", kA, "sdk-ts", now - 2min);
    journal(projects, "/w/terminal", kB, "cli", now - 1min);
    journal(projects, "/w/editor", kC, "claude-vscode", now - 1min);
    journal(projects, "/w/old", kD, "sdk-ts", now - 45min);
    journal(projects, "/w/refreshed", kE, "sdk-py", now - 2h, /*trailingLastPrompt=*/true);
    journal(projects, "/w/one-shot", kF, "sdk-cli", now - 3min);
    // Two in one directory: the older one is residue.
    journal(projects, "/w/pair", kG, "sdk-ts", now - 10min);
    journal(projects, "/w/pair", kB, "sdk-ts", now - 1min);

    auto head = SDKSessionReader::readHead(projects / "-w-host-app" / (std::string(kA) + ".jsonl"));
    ASSERT_TRUE(head);
    EXPECT_EQ(head->entrypoint, "sdk-ts");
    EXPECT_EQ(head->cwd, "/w/host-app");

    auto found = SDKSessionReader::runningSessions(projects, dir / ".claude.json", now);
    std::map<std::string, SDKSession> byId;
    for (auto& s : found) byId[s.sessionId] = s;
    EXPECT_EQ(byId.size(), 3u);
    ASSERT_TRUE(byId.count(kA));
    EXPECT_EQ(byId[kA].cwd, "/w/host-app");
    EXPECT_EQ(byId[kA].projectName, "host-app");
    EXPECT_EQ(byId[kA].entrypoint, "sdk-ts");
    EXPECT_TRUE(byId.count(kF));  // the reader returns one-shots; the guard drops them
    EXPECT_EQ(byId[kF].entrypoint, "sdk-cli");
    EXPECT_TRUE(byId.count(kB));
    EXPECT_EQ(byId[kB].cwd, "/w/pair");
    EXPECT_FALSE(byId.count(kG));

    // The real journals: interactive sessions say "cli", `claude -p` runs
    // "sdk-cli"; the one-shots of one folder collapse to the newest.
    LUMORA_REQUIRE_SAMPLES();  // the rest reads the recorded journals
    auto real = samplesDir() / "claude/home/.claude/projects";
    EXPECT_EQ(SDKSessionReader::readHead(real / "-home-dev-proj-app/2ba08b56-cdd6-4cd6-a287-5b0a4ea9a300.jsonl")
                  ->entrypoint,
              "cli");
    auto realFound = SDKSessionReader::runningSessions(real, dir / ".claude.json", now, 24h * 3650);
    ASSERT_EQ(realFound.size(), 1u);
    EXPECT_EQ(realFound[0].entrypoint, "sdk-cli");
    EXPECT_EQ(realFound[0].cwd, "/home/dev/proj.app");
    EXPECT_EQ(realFound[0].projectName, "proj.app");
}

TEST(SDKHostMemory, LearnsApplicationHostsAndKeepsTheNewest500) {
    TempHome home;
    DefaultsStore store(home / "defaults.json");
    auto now = std::chrono::system_clock::now();
    AgentHost app{AgentHost::Kind::app, "Conductor", "com.conductor.app"};
    {
        SDKHostMemory memory(store);
        EXPECT_FALSE(memory.learn("t", {AgentHost::Kind::terminal, "kitty", "kitty"}, now));
        EXPECT_FALSE(memory.learn("i", {AgentHost::Kind::ide, "Visual Studio Code", "code"}, now));
        EXPECT_FALSE(memory.learn("n", {AgentHost::Kind::app, "Mystery", std::nullopt}, now));
        EXPECT_TRUE(memory.learn("s", app, now));
        EXPECT_EQ(memory.size(), 1u);
    }
    // It lives in the user defaults.
    SDKHostMemory reloaded(store);
    EXPECT_EQ(reloaded.host("s"), app);
    EXPECT_TRUE(store.dictionary(SDKHostMemory::kDefaultsKey));
    // A hand-edited entry of the wrong shape is skipped, never thrown on.
    auto edited = *store.dictionary(SDKHostMemory::kDefaultsKey);
    edited["k"] = {{"kind", 5}, {"appName", "x"}, {"lastSeen", 1}};
    edited["t"] = {{"kind", "app"}, {"appName", {1}}, {"bundleID", "b"}, {"lastSeen", 1e300}};
    store.setValue(SDKHostMemory::kDefaultsKey, edited);
    EXPECT_EQ(SDKHostMemory(store).size(), 1u);

    // Old entries go on the next write.
    SDKHostMemory memory(store);
    memory.learn("ancient", app, now - SDKHostMemory::kMaxAge - 1h);
    memory.learn("fresh", app, now);
    EXPECT_FALSE(memory.host("ancient"));

    // 500 stay; the 501st evicts exactly the oldest.
    DefaultsStore store2(home / "defaults2.json");
    auto stored = nlohmann::ordered_json::object();
    for (int i = 0; i < 500; ++i) {
        auto seen = now - 1h + std::chrono::seconds(i);
        stored["s" + std::to_string(i)] = {
            {"kind", "app"}, {"appName", "Conductor"}, {"bundleID", "com.conductor.app"},
            {"lastSeen", std::chrono::duration_cast<std::chrono::milliseconds>(seen.time_since_epoch()).count()}};
    }
    store2.setValue(SDKHostMemory::kDefaultsKey, stored);
    SDKHostMemory full(store2);
    EXPECT_EQ(full.size(), 500u);
    full.learn("s499", app, now);  // at exactly 500 nothing goes
    EXPECT_EQ(full.size(), 500u);
    EXPECT_TRUE(full.host("s0"));
    full.learn("s500", app, now);
    EXPECT_EQ(full.size(), 500u);
    EXPECT_FALSE(full.host("s0"));
    EXPECT_TRUE(full.host("s1"));
    EXPECT_TRUE(full.host("s500"));
    EXPECT_EQ(SDKHostMemory(store2).size(), 500u);
}

TEST(SDKSessionHost, ShowsOnlySessionsWhoseHostRuns) {
    TempHome home;
    DefaultsStore store(home / "defaults.json");
    SDKHostMemory memory(store);
    auto workspaces = home / "conductor/workspaces";
    AgentHost talvik{AgentHost::Kind::app, "Talvik", "org.example.talvik"};
    memory.learn("learned", talvik);

    std::set<std::string> running;
    auto isRunning = [&](const std::string& id) { return running.count(id) > 0; };
    auto session = [](std::string id, std::string cwd, std::string entrypoint) {
        SDKSession s;
        s.sessionId = std::move(id);
        s.cwd = std::move(cwd);
        s.entrypoint = std::move(entrypoint);
        return s;
    };
    auto learned = session("learned", "/w/p", "sdk-ts");
    auto oneShot = session("once", "/w/p", "sdk-cli");
    auto cold = session("cold", (workspaces / "lumora/my-proj-clone").string(), "sdk-ts");
    auto coldCli = session("cold-cli", (workspaces / "lumora/other").string(), "sdk-cli");
    auto stray = session("stray", "/w/q", "sdk-ts");

    // Nothing running: nothing shows.
    for (const auto& s : {learned, oneShot, cold, coldCli, stray})
        EXPECT_FALSE(sdkSessionHost(s, memory, isRunning, workspaces)) << s.sessionId;

    running = {"org.example.talvik", kConductorAppId};
    EXPECT_EQ(sdkSessionHost(learned, memory, isRunning, workspaces), talvik);
    EXPECT_FALSE(sdkSessionHost(oneShot, memory, isRunning, workspaces));
    AgentHost conductor{AgentHost::Kind::app, "Conductor", kConductorAppId};
    EXPECT_EQ(sdkSessionHost(cold, memory, isRunning, workspaces), conductor);
    EXPECT_EQ(sdkSessionHost(coldCli, memory, isRunning, workspaces), conductor);
    EXPECT_FALSE(sdkSessionHost(stray, memory, isRunning, workspaces));

    // A learned host that has quit hides its session even in a workspace.
    memory.learn("cold", talvik);
    running = {kConductorAppId};
    EXPECT_FALSE(sdkSessionHost(cold, memory, isRunning, workspaces));
}
