#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "lumora/usage/quota_reading.hpp"
#include "lumora/usage/usage_doctor.hpp"
#include "lumora/usage/usage_service.hpp"
#include "support/test_http_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace std::chrono_literals;
using lumora::test::TestHttpServer;
namespace fs = std::filesystem;

namespace {

const Date kNow = Date{} + 1'800'000'000s;

std::string blob(const std::string& token, std::optional<double> expiresAtMs, const std::string& extra = "") {
    std::string out = R"({"claudeAiOauth": {"accessToken": ")" + token + "\"";
    if (expiresAtMs) out += ", \"expiresAt\": " + std::to_string(static_cast<long long>(*expiresAtMs));
    return out + extra + "}}";
}

double msFromNow(std::chrono::seconds s) {
    return std::chrono::duration<double, std::milli>((kNow + s).time_since_epoch()).count();
}

UsageService::Environment environment(const test::TempDir& home, const std::string& api) {
    UsageService::Environment e;
    e.home = home.path();
    e.apiBase = api;
    return e;
}

constexpr const char* kListAnswer = R"({"limits": [{"kind": "session", "percent": 62, "resets_at": "2027-01-15T10:00:00Z"},
                                                    {"kind": "weekly_all", "percent": 19}]})";

}  // namespace

TEST(UsageLogins, ParsingExpiryAndTheFreshestUsableLogin) {
    auto login = UsageService::parseLogin(
        blob("tok", 1.9e12, R"(, "subscriptionType": "max", "rateLimitTier": "default_claude_max_20x")"), "file");
    ASSERT_TRUE(login);
    EXPECT_EQ(login->token, "tok");
    EXPECT_EQ(login->subscriptionType, "max");
    EXPECT_EQ(UsageService::planName(*login), "Max 20x");
    // 1.9e12 ms is in 2030, not in the far future.
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::seconds>(login->expiresAt->time_since_epoch()).count(), 1'900'000'000);
    for (const char* bad : {"", "garbage", "{}", R"({"claudeAiOauth": {}})", R"({"claudeAiOauth": {"accessToken": 7}})",
                            R"({"claudeAiOauth": "tok"})", R"({"claudeAiOauth": {"accessToken": ""}})", "[]"})
        EXPECT_EQ(UsageService::parseLogin(bad, "x"), std::nullopt) << bad;

    auto expiring = [](std::chrono::seconds s) { return UsageService::parseLogin(blob("t", msFromNow(s)), "x"); };
    EXPECT_FALSE(expiring(3600s)->isExpired(kNow));
    EXPECT_TRUE(expiring(30s)->isExpired(kNow));
    EXPECT_TRUE(expiring(-3600s)->isExpired(kNow));
    EXPECT_FALSE(UsageService::parseLogin(blob("t", std::nullopt), "x")->isExpired(kNow));

    std::vector<UsageService::StoredLogin> logins = {*expiring(-60s), *expiring(7200s), *expiring(3600s)};
    logins[1].token = "later";
    EXPECT_EQ(UsageService::credentials(logins, kNow)->token, "later");
    EXPECT_EQ(UsageService::credentials(std::vector{*expiring(-60s)}, kNow), std::nullopt);

    QuotaReading reading;
    reading.usage.planName = UsageService::planName(*UsageService::parseLogin(
        blob("t", std::nullopt, R"(, "rateLimitTier": "default_claude_max_20x")"), "x"));
    EXPECT_EQ(reading.label(), "Claude · Max 20x");
}

TEST(UsageLogins, SourcesInOrderAndBadFilesAreNoLogins) {
    test::TempDir home, config;
    auto env = environment(home, "https://unused.invalid");
    EXPECT_TRUE(UsageService::storedLogins(env).empty());

    env.oauthToken = "from-env";
    env.configDir = config.path();
    test::writeFile(config / ".credentials.json", blob("from-config", msFromNow(3600s)));
    test::writeFile(home / ".claude/.credentials.json", blob("from-home", msFromNow(7200s)));
    auto logins = UsageService::storedLogins(env);
    ASSERT_EQ(logins.size(), 3u);
    EXPECT_EQ(logins[0].source, "CLAUDE_CODE_OAUTH_TOKEN");
    EXPECT_EQ(logins[1].source, (config / ".credentials.json").string());
    EXPECT_EQ(logins[2].token, "from-home");
    // The environment's token never expires, so it outlives every dated login.
    EXPECT_EQ(UsageService::credentials(logins, std::chrono::system_clock::now())->token, "from-env");

    // Garbage, 100 MB, a folder, a FIFO and (when we are not root) an unreadable file: no logins, no crash.
    env.oauthToken.reset();
    test::writeFile(config / ".credentials.json", std::string(5000, '{'));
    {
        int fd = ::open((home / ".claude/.credentials.json").c_str(), O_WRONLY | O_TRUNC);
        ASSERT_EQ(::ftruncate(fd, 100LL << 20), 0);
        ::close(fd);
    }
    EXPECT_TRUE(UsageService::storedLogins(env).empty());
    fs::remove(config / ".credentials.json");
    fs::create_directory(config / ".credentials.json");
    fs::remove(home / ".claude/.credentials.json");
    ASSERT_EQ(::mkfifo((home / ".claude/.credentials.json").c_str(), 0600), 0);
    EXPECT_TRUE(UsageService::storedLogins(env).empty());
    if (::geteuid() != 0) {
        fs::remove(config / ".credentials.json");
        test::writeFile(config / ".credentials.json", blob("t", std::nullopt));
        fs::permissions(config / ".credentials.json", fs::perms::none);
        EXPECT_TRUE(UsageService::storedLogins(env).empty());
    }
}

TEST(UsageProbe, AnswersOfEveryKindAgainstARealServer) {
    test::TempDir home;
    std::string body = kListAnswer;
    int status = 200;
    TestHttpServer server([&](const TestHttpServer::Request&) {
        TestHttpServer::Reply r;
        r.status = status;
        r.body = body;
        return r;
    });
    auto env = environment(home, server.url() + "/");
    UsageBackoff backoff;

    // No login: nothing is sent.
    auto p = UsageService::probe(env, backoff, kNow);
    EXPECT_EQ(p.blocker, UsageBlocker::noLogin);
    EXPECT_EQ(p.line(), "Claude Code: No Claude Code login found on this machine");
    test::writeFile(home / ".claude/.credentials.json", blob("expired-token", msFromNow(-3600s)));
    EXPECT_EQ(UsageService::probe(env, backoff, kNow).blocker, UsageBlocker::expired);
    EXPECT_EQ(server.requestCount(), 0);

    test::writeFile(home / ".claude/.credentials.json",
                    blob("tok-123", std::nullopt, R"(, "subscriptionType": "pro")"));
    p = UsageService::probe(env, backoff, kNow);
    EXPECT_EQ(p.blocker, UsageBlocker::ok);
    EXPECT_EQ(p.status, 200);
    EXPECT_EQ(p.source, (home / ".claude/.credentials.json").string());
    ASSERT_TRUE(p.usage);
    EXPECT_EQ(p.usage->planName, "Pro");
    EXPECT_EQ(p.line(), "Claude Code: 5h 38% left · 7d 81% left");
    auto request = server.requests().back();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.path, "/api/oauth/usage");
    EXPECT_EQ(request.headers["authorization"], "Bearer tok-123");
    EXPECT_EQ(request.headers["anthropic-beta"], "oauth-2025-04-20");

    body = R"({"five_hour": {"utilization": 12.4, "resets_at": "2027-01-15T10:00:00.123+00:00"}, "seven_day": null})";
    p = UsageService::probe(env, backoff, kNow);
    ASSERT_TRUE(p.usage);
    EXPECT_EQ(p.line(), "Claude Code: 5h 88% left");

    // A 200 that is not a usage answer (garbage, wrong types, "limits" an object): no plan limits.
    for (std::string notUsage : {std::string("<html>oops</html>"), std::string(R"({"limits": [{"kind": "session", "percent": "62"}]})"),
                                 std::string(R"({"limits": {"kind": "session", "percent": 62}})")}) {
        body = notUsage;
        p = UsageService::probe(env, backoff, kNow);
        EXPECT_EQ(p.blocker, UsageBlocker::noPlanLimits) << notUsage;
        EXPECT_EQ(p.usage, std::nullopt);
    }

    status = 500;
    p = UsageService::probe(env, backoff, kNow);
    EXPECT_EQ(p.blocker, UsageBlocker::unreachable);
    EXPECT_EQ(p.line(), "Claude Code: Couldn't reach Claude Code — offline, or the service is down (HTTP 500)");
    EXPECT_EQ(server.requestCount(), 6);
}

TEST(UsageProbe, A429ShutsTheProviderOutAndTheServerSeesNoMoreRequests) {
    test::TempDir home;
    test::writeFile(home / ".claude/.credentials.json", blob("tok", std::nullopt));
    std::optional<std::string> retryAfter;
    int status = 429;
    TestHttpServer server([&](const TestHttpServer::Request&) {
        TestHttpServer::Reply r;
        r.status = status;
        if (retryAfter) r.headers.push_back({"Retry-After", *retryAfter});
        r.body = status == 200 ? kListAnswer : "slow down";
        return r;
    });
    auto env = environment(home, server.url());
    UsageBackoff backoff;

    auto p = UsageService::probe(env, backoff, kNow);
    EXPECT_EQ(p.blocker, UsageBlocker::rateLimited);
    EXPECT_EQ(p.status, 429);
    EXPECT_EQ(p.retryIn, 300);
    EXPECT_EQ(p.line(), "Claude Code: Claude Code is rate-limiting usage checks — retrying on its own (HTTP 429); next check in 5 min");
    // Shut: asking again within the wait sends nothing, and says when it retries.
    for (int i = 0; i < 5; ++i) {
        p = UsageService::probe(env, backoff, kNow + 255s);
        EXPECT_EQ(p.blocker, UsageBlocker::rateLimited);
    }
    EXPECT_EQ(server.requestCount(), 1);
    EXPECT_NEAR(*p.retryIn, 45, 1e-6);
    EXPECT_NE(p.line().find("in 45s"), std::string::npos);
    EXPECT_EQ(p.line().find("offline"), std::string::npos);

    // Open again after the wait: the second 429 costs double; a Retry-After above it is honoured; nonsense is not.
    retryAfter = "-5";
    EXPECT_EQ(UsageService::probe(env, backoff, kNow + 301s).retryIn, 600);
    retryAfter = "2000";
    EXPECT_EQ(UsageService::probe(env, backoff, kNow + 902s).retryIn, 1800);
    retryAfter = "abc";
    EXPECT_EQ(UsageService::probe(env, backoff, kNow + 2703s).retryIn, 1800);
    retryAfter = "1000000000000";
    EXPECT_EQ(UsageService::probe(env, backoff, kNow + 4504s).retryIn, 1800);
    EXPECT_EQ(server.requestCount(), 5);

    // A good answer clears the strikes: the next 429 costs the floor again.
    status = 200;
    EXPECT_EQ(UsageService::probe(env, backoff, kNow + 6305s).blocker, UsageBlocker::ok);
    status = 429;
    retryAfter.reset();
    EXPECT_EQ(UsageService::probe(env, backoff, kNow + 6306s).retryIn, 300);
    EXPECT_EQ(server.requestCount(), 7);
}

TEST(UsageProbe, SlowHugeAndRefusedAnswersAreUnreachable) {
    test::TempDir home;
    test::writeFile(home / ".claude/.credentials.json", blob("tok", std::nullopt));
    TestHttpServer::Reply reply;
    TestHttpServer server([&](const TestHttpServer::Request&) { return reply; });
    auto env = environment(home, server.url());
    UsageBackoff backoff;

    // An answer slower than the time-out (shortened here from 12 s).
    reply.delay = 1s;
    env.timeout = 300ms;
    // (Had the time-out not fired, the late empty 200 would read as "no plan limits".)
    auto p = UsageService::probe(env, backoff, kNow);
    EXPECT_EQ(p.blocker, UsageBlocker::unreachable);
    EXPECT_EQ(p.status, std::nullopt);
    EXPECT_TRUE(backoff.allows(HarnessProvider::claudeCode, kNow));  // a time-out is not a 429

    // A 50 MB answer is cut off at 1 MiB.
    reply.delay = 0ms;
    reply.body = R"({"five_hour": {"utilization": 1}})";
    reply.paddingBytes = 50u << 20;
    env.timeout = 12s;
    p = UsageService::probe(env, backoff, kNow);
    EXPECT_EQ(p.blocker, UsageBlocker::unreachable);
    EXPECT_EQ(p.usage, std::nullopt);

    // Plain http anywhere but this machine is refused before anything is sent.
    int before = server.requestCount();
    env.apiBase = "http://example.com";
    EXPECT_EQ(UsageService::probe(env, backoff, kNow).blocker, UsageBlocker::unreachable);
    EXPECT_EQ(server.requestCount(), before);
    EXPECT_TRUE(HttpClient::allowedUrl("https://api.anthropic.com"));
    EXPECT_TRUE(HttpClient::allowedUrl("http://localhost:8080/x"));
    EXPECT_TRUE(HttpClient::allowedUrl("http://[::1]:99"));
    EXPECT_FALSE(HttpClient::allowedUrl("http://127.0.0.1.evil.test/"));
    EXPECT_FALSE(HttpClient::allowedUrl("http://user@127.0.0.1/"));
    EXPECT_FALSE(HttpClient::allowedUrl("ftp://127.0.0.1/"));

    // A cancelled request ends at once.
    reply.delay = 1s;
    reply.paddingBytes = 0;
    env.apiBase = server.url();
    std::atomic<bool> cancel{true};
    p = UsageService::probe(env, backoff, kNow, &cancel);
    EXPECT_EQ(p.blocker, UsageBlocker::unreachable);
    EXPECT_EQ(p.error, "cancelled");
}

TEST(UsageDoctor, PrintsLoginsWithSourceAndExpiryThenOneLinePerProvider) {
    UsageService::StoredLogin env{"t", std::nullopt, std::nullopt, std::nullopt, "CLAUDE_CODE_OAUTH_TOKEN"};
    UsageService::StoredLogin file{"t", kNow + 5400s, std::nullopt, std::nullopt, "/home/u/.claude/.credentials.json"};
    UsageService::StoredLogin old{"t", kNow - 7200s, std::nullopt, std::nullopt, "/cfg/.credentials.json"};
    QuotaFetch limited;
    limited.probe.blocker = UsageBlocker::rateLimited;
    limited.probe.retryIn = 45;
    QuotaFetch codex;
    codex.probe.provider = HarnessProvider::codex;
    codex.probe.usage = PlanUsage{{{23, std::nullopt, kFiveHours, "5h", "5-hour limit", false, false}}, "Plus", std::nullopt};
    codex.readingAt = kNow - 3600s;
    QuotaFetch go;
    go.probe.provider = HarnessProvider::opencode;
    go.probe.blocker = UsageBlocker::localOnly;
    std::ostringstream out;
    UsageDoctor::print(out, {env, file, old}, {limited, codex, go}, kNow);
    std::string text = out.str();
    EXPECT_NE(text.find("\nClaude logins on this machine (freshest usable one wins):\n"), std::string::npos);
    EXPECT_NE(text.find("  CLAUDE_CODE_OAUTH_TOKEN · no expiry recorded\n"), std::string::npos);
    EXPECT_NE(text.find("/home/u/.claude/.credentials.json · expires "), std::string::npos);
    EXPECT_NE(text.find("(in 1h 30m)\n"), std::string::npos);
    EXPECT_NE(text.find("/cfg/.credentials.json · expired "), std::string::npos);
    EXPECT_NE(text.find("Claude Code: Claude Code is rate-limiting usage checks — retrying on its own; next check in 45s\n"),
              std::string::npos);
    EXPECT_NE(text.find("Codex: 5h 77% left (recorded 1h ago)\n"), std::string::npos);
    EXPECT_NE(text.find("OpenCode: Added up from this machine's own logs — no login needed (nothing recorded yet)\n"),
              std::string::npos);
    EXPECT_EQ(text.find("offline"), std::string::npos);
}
