#include <gtest/gtest.h>

#include <mutex>

#include "lumora/app/run_commands.hpp"
#include "lumora/app/usage_command.hpp"
#include "lumora/usage/usage_snapshot_cache.hpp"
#include "support/test_http_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;

namespace {

std::string env(const TempHome& home, const std::string& api) {
    return "env -u CLAUDE_CODE_OAUTH_TOKEN -u CLAUDE_CONFIG_DIR -u CODEX_HOME -u LUMORA_OPENCODE_DB HOME=" +
           home.path().string() + " XDG_CONFIG_HOME=" + (home / ".config").string() +
           " XDG_DATA_HOME=" + (home / ".local/share").string() + " LUMORA_CLAUDE_API_URL=" + api + " ";
}

}  // namespace

TEST(UsageCommand, TheDoctorPrintsLoginsAndOneLinePerProviderAndStoresAGoodReading) {
    TempHome home;
    writeFile(home / ".claude/.credentials.json",
              R"({"claudeAiOauth": {"accessToken": "tok", "subscriptionType": "max", "rateLimitTier": "default_claude_max_20x"}})");
    // What the server answers; set here between runs, read on the server's thread.
    std::mutex answerLock;
    int status = 200;
    std::optional<std::string> retryAfter;
    TestHttpServer server([&](const TestHttpServer::Request&) {
        std::lock_guard lock(answerLock);
        TestHttpServer::Reply r;
        r.status = status;
        if (retryAfter) r.headers.push_back({"Retry-After", *retryAfter});
        r.body = R"({"limits": [{"kind": "session", "percent": 62}, {"kind": "weekly_all", "percent": 19}]})";
        return r;
    });
    auto bin = lumoraBinary().string();

    auto ok = runCommand(env(home, server.url()) + bin + " --usage-doctor");
    EXPECT_EQ(ok.status, 0);
    EXPECT_NE(ok.output.find("Claude logins on this machine (freshest usable one wins):\n  " +
                             (home / ".claude/.credentials.json").string() + " · no expiry recorded\n"),
              std::string::npos) << ok.output;
    EXPECT_NE(ok.output.find("Claude Code: 5h 38% left · 7d 81% left\n"), std::string::npos) << ok.output;
    EXPECT_NE(ok.output.find("Codex: "), std::string::npos);
    EXPECT_NE(ok.output.find("OpenCode: "), std::string::npos);
    EXPECT_EQ(server.requestCount(), 1);
    EXPECT_NE(readFile(home / ".config/lumora/defaults.json").find("usageSnapshots.v2"), std::string::npos);

    // The stored reading reaches --scan --json's sessions of its provider.
    auto readings = [&] {
        DefaultsStore defaults(home / ".config/lumora/defaults.json");
        UsageSnapshotCache cache(defaults);
        auto usage = cache.load(UsageSnapshotCache::Provider::claude);
        QuotaReading r;
        r.usage = *usage;
        r.fetchedAt = std::chrono::system_clock::now();
        return std::vector<QuotaReading>{r};
    }();
    EXPECT_EQ(readings[0].label(), "Claude · Max 20x");
    auto now = std::chrono::system_clock::now();
    AgentInstance claude, codex;
    claude.id = "c";
    codex.id = "x";
    codex.provider = HarnessProvider::codex;
    auto json = RunCommands::scanJson({claude, codex}, UsageCommand::toJson(readings, now));
    ASSERT_TRUE(json.is_array());
    EXPECT_EQ(json[0]["planUsage"]["label"], "Claude · Max 20x");
    EXPECT_EQ(json[0]["planUsage"]["windows"][0]["percentLeft"], 38);
    EXPECT_EQ(json[0]["planUsage"]["stale"], false);
    EXPECT_TRUE(json[1]["planUsage"].is_null());
    EXPECT_EQ(json[1]["id"], "x");

    // Rate limited: says so with the wait, never "offline"; a server error shows its status.
    {
        std::lock_guard lock(answerLock);
        status = 429;
        retryAfter = "600";
    }
    auto limited = runCommand(env(home, server.url()) + bin + " --usage-doctor");
    EXPECT_NE(limited.output.find("Claude Code: Claude Code is rate-limiting usage checks — retrying on its own (HTTP 429); "
                                  "next check in 10 min\n"),
              std::string::npos) << limited.output;
    EXPECT_EQ(limited.output.find("offline"), std::string::npos);
    {
        std::lock_guard lock(answerLock);
        status = 500;
    }
    auto failed = runCommand(env(home, server.url()) + bin + " --usage-doctor");
    EXPECT_NE(failed.output.find("(HTTP 500)"), std::string::npos) << failed.output;

    // --scan --json stays an array of sessions, each with its plan usage (or null).
    auto scan = runCommand(env(home, server.url()) + bin + " --scan --json");
    EXPECT_EQ(scan.status, 0);
    auto parsed = nlohmann::json::parse(scan.output, nullptr, false);
    ASSERT_TRUE(parsed.is_array()) << scan.output;
    for (const auto& s : parsed) EXPECT_TRUE(s.contains("planUsage"));
    EXPECT_EQ(server.requestCount(), 3);  // --scan asks no network
}
