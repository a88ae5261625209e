#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <fstream>

#include "../../bench/spend_corpus.hpp"
#include "lumora/spend/spend_scanner.hpp"
#include "spend/http_test_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

using Clock = std::chrono::system_clock;

int64_t millis(Date d) { return std::chrono::duration_cast<std::chrono::milliseconds>(d.time_since_epoch()).count(); }

std::string iso(Date d) {
    auto ms = millis(d);
    std::time_t t = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
    return buf;
}

// One content block of a Claude API message, with the message's full usage.
std::string claudeBlock(const std::string& msg, const std::string& req, Date at, int64_t input, int64_t output,
                        const std::string& model = "claude-sonnet-4-5-20250929", const std::string& text = "hi") {
    return R"({"parentUuid":null,"isSidechain":false,"message":{"id":")" + msg +
           R"(","type":"message","role":"assistant","model":")" + model +
           R"(","content":[{"type":"text","text":")" + text + R"("}],"stop_reason":"end_turn","usage":{"input_tokens":)" +
           std::to_string(input) + R"(,"cache_creation_input_tokens":0,"cache_read_input_tokens":0,"output_tokens":)" +
           std::to_string(output) + "}}" + (req.empty() ? "" : R"(,"requestId":")" + req + "\"") +
           R"(,"type":"assistant","uuid":"u-)" + msg + R"(","timestamp":")" + iso(at) + "\",\"sessionId\":\"s\"}\n";
}

std::string codexUsage(const std::string& thread, Date at, int64_t in, int64_t out, int64_t running, bool record) {
    std::string last = R"({"input_tokens":)" + std::to_string(in) + R"(,"cached_input_tokens":0,"output_tokens":)" +
                       std::to_string(out) + R"(,"total_tokens":)" + std::to_string(in + out) + "}";
    std::string total = R"({"input_tokens":1,"output_tokens":1,"total_tokens":)" + std::to_string(running) + "}";
    if (record)
        return R"({"timestamp":")" + iso(at) + R"(","type":"token_usage_record","payload":{"thread_id":")" + thread +
               R"(","response_id":"r","usage":)" + last + R"(,"thread_token_usage":)" + total + "}}\n";
    return R"({"timestamp":")" + iso(at) + R"(","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)" +
           total + R"(,"last_token_usage":)" + last + "}}}\n";
}

std::string turnContext(Date at, const std::string& model) {
    return R"({"timestamp":")" + iso(at) + R"(","type":"turn_context","payload":{"model":")" + model + "\"}}\n";
}

void append(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::app | std::ios::binary) << text;
}

struct Spend {
    TempHome home;
    ModelPricing pricing{home / "pricing-none", {}, std::nullopt};
    std::unique_ptr<SpendStore> storage = std::make_unique<SpendStore>(home / "spend-cache.json");
    SpendStore& store = *storage;
    SpendScanner::Roots roots{home / ".claude/projects", home / ".codex", home / ".kimi-code", std::nullopt};
    std::optional<SpendScanner> scanner{std::in_place, *storage, pricing, roots};
    fs::path claudeDir = home / ".claude/projects/-home-dev-p";
    fs::path codexDir = home / ".codex/sessions/2026/11/22";
    Date now = Clock::now();

    SpendScanner::Result scan() { return scanner->scan(now); }
    static int64_t tokens(const SpendScanner::Result& r, std::optional<SpendProvider> p = std::nullopt) {
        int64_t sum = 0;
        for (const auto& e : r.entries) {
            if (!p || e.provider == *p) sum += e.tokens;
        }
        return sum;
    }
    static double cost(const SpendScanner::Result& r) {
        double sum = 0;
        for (const auto& e : r.entries) sum += e.cost;
        return sum;
    }
    // A new process: the store read back from its file.
    void restart() {
        ASSERT_TRUE(storage->saveIfDirty().ok);
        scanner.reset();
        storage = std::make_unique<SpendStore>(home / "spend-cache.json");
        scanner.emplace(*storage, pricing, roots);
    }
};

std::set<std::string> unpriced(const SpendScanner::Result& r) {
    std::set<std::string> names;
    for (const auto& e : r.entries) {
        if (e.unpricedModel) names.insert(*e.unpricedModel);
    }
    return names;
}

}  // namespace

TEST(SpendScanner, GeneratedCorpusTotalsAreExactAndRescansReadOnlyWhatChanged) {
    Spend s;
    auto truth = spendcorpus::generate(spendcorpus::Options::small(s.home.path(), millis(s.now)));
    ASSERT_GT(truth.files, 40u);
    auto first = s.scan();
    EXPECT_EQ(first.stats.filesRead, truth.files);
    for (int p = 0; p < 3; ++p) EXPECT_EQ(Spend::tokens(first, static_cast<SpendProvider>(p)), truth.tokens(p)) << p;
    EXPECT_NEAR(Spend::cost(first), truth.cost(), 1e-9 * truth.cost());
    EXPECT_EQ(first.entries.size(), truth.events.size());
    EXPECT_EQ(unpriced(first), truth.unpricedModels);
    EXPECT_GT(first.stats.duplicates, 0u);  // streamed blocks, resumed sessions, Codex's double reports

    auto again = s.scan();
    EXPECT_EQ(again.stats.filesRead, 0u);
    EXPECT_EQ(again.entries, first.entries);

    s.restart();
    auto fromCache = s.scan();
    EXPECT_EQ(fromCache.stats.filesRead, 0u);
    EXPECT_EQ(fromCache.entries.size(), first.entries.size());
    EXPECT_EQ(Spend::tokens(fromCache), truth.tokens());

    auto added = spendcorpus::Generator::appendClaudeMessage(truth.claudeFiles.front(), millis(s.now) - 1000, 99);
    auto grown = s.scan();
    EXPECT_EQ(grown.stats.filesRead, 1u);
    EXPECT_EQ(grown.stats.filesReadWhole, 0u);
    EXPECT_LT(grown.stats.bytesRead, 200'000u);
    EXPECT_EQ(Spend::tokens(grown), truth.tokens() + added.tokens);
}

TEST(SpendScanner, OneUsageCountsOnceWhereverItIsSeen) {
    Spend s;
    Date nine = s.now - std::chrono::hours(1);
    // Streamed blocks of one message, and a resumed session replaying it under another id.
    std::string msg = claudeBlock("msg_a", "req_a", nine, 400, 600) +
                      claudeBlock("msg_a", "req_a", nine + std::chrono::seconds(2), 400, 600);
    writeFile(s.claudeDir / "one.jsonl", msg + claudeBlock("msg_b", "req_b", nine + std::chrono::minutes(5), 200, 300));
    writeFile(s.claudeDir / "resumed.jsonl", msg);
    writeFile(s.claudeDir / "one/subagents/agent-x.jsonl", claudeBlock("msg_c", "", nine, 10, 20));
    // A Codex response reported by a record and a count, and a count emitted twice.
    std::string thread = "01a200b8-08e9-7700-a95d-dc5d02af79ad";
    writeFile(s.codexDir / ("rollout-2026-11-22T00-46-30-" + thread + ".jsonl"),
              turnContext(nine, "gpt-5") + codexUsage(thread, nine, 150, 50, 200, true) +
                  codexUsage(thread, nine, 150, 50, 200, false) + codexUsage(thread, nine, 150, 50, 200, false));
    auto r = s.scan();
    EXPECT_EQ(Spend::tokens(r, SpendProvider::claude), 1000 + 500 + 30);
    EXPECT_EQ(Spend::tokens(r, SpendProvider::codex), 200);
    EXPECT_EQ(Spend::tokens(r), 1730);
    EXPECT_EQ(r.entries.size(), 4u);
    EXPECT_EQ(r.entries.front().date, Date(std::chrono::milliseconds(millis(nine))));  // dated by its first line
    EXPECT_TRUE(unpriced(r).empty());
    EXPECT_NEAR(Spend::cost(r), (610 * 3 + 920 * 15 + 150 * 1.25 + 50 * 10) / 1e6, 1e-12);
}

TEST(SpendScanner, GrownTruncatedReplacedCutAndVanishedFiles) {
    Spend s;
    Date t = s.now - std::chrono::minutes(30);
    fs::path file = s.claudeDir / "j.jsonl";
    writeFile(file, claudeBlock("m1", "r1", t, 100, 0) + claudeBlock("m2", "r2", t, 200, 0));
    EXPECT_EQ(Spend::tokens(s.scan()), 300);

    // A line still being written is not counted, nor lost once it is finished.
    std::string third = claudeBlock("m3", "r3", t, 400, 0);
    append(file, third.substr(0, 50));
    auto cut = s.scan();
    EXPECT_EQ(cut.stats.filesRead, 1u);
    EXPECT_EQ(Spend::tokens(cut), 300);
    append(file, third.substr(50));
    auto done = s.scan();
    EXPECT_EQ(done.stats.filesReadWhole, 0u);
    EXPECT_EQ(Spend::tokens(done), 700);

    // Truncated: read again from the start.
    fs::resize_file(file, claudeBlock("m1", "r1", t, 100, 0).size());
    auto truncated = s.scan();
    EXPECT_EQ(truncated.stats.filesReadWhole, 1u);
    EXPECT_EQ(Spend::tokens(truncated), 100);

    // Replaced by a larger file: never read as if it had grown.
    fs::path fresh = s.claudeDir / "new.tmp";
    writeFile(fresh, claudeBlock("m9", "r9", t, 1000, 0) + claudeBlock("m8", "r8", t, 2000, 0));
    fs::rename(fresh, file);
    auto replaced = s.scan();
    EXPECT_EQ(replaced.stats.filesReadWhole, 1u);
    EXPECT_EQ(Spend::tokens(replaced), 3000);

    // Rewritten in place with the same size: read again.
    writeFile(file, claudeBlock("m7", "r7", t, 1000, 0) + claudeBlock("m8", "r8", t, 2000, 0));
    setMtime(file, s.now + std::chrono::seconds(5));
    EXPECT_EQ(Spend::tokens(s.scan()), 3000);

    fs::remove(file);
    auto gone = s.scan();
    EXPECT_EQ(Spend::tokens(gone), 0);
    EXPECT_TRUE(gone.stats.changed);
    // Journals untouched for longer than the look-back are not read.
    writeFile(file, claudeBlock("old", "r", t, 5, 0));
    setMtime(file, s.now - std::chrono::hours(24 * 70));
    EXPECT_EQ(s.scan().stats.files, 0u);
}

TEST(SpendScanner, ABadCacheIsRebuiltNeverTrusted) {
    Spend s;
    Date t = s.now - std::chrono::minutes(5);
    writeFile(s.claudeDir / "j.jsonl", claudeBlock("m1", "r1", t, 100, 0));
    s.scan();
    ASSERT_TRUE(s.store.saveIfDirty().ok);
    std::string good = readFile(s.store.cacheURL());
    ASSERT_TRUE(SpendStore::decode(good));

    std::string inflated = good;
    auto at = inflated.find("\"tokens\":100");
    inflated.replace(at, 12, "\"tokens\":999");
    std::string lying = good;
    lying.replace(lying.find("\"parsedBytes\":"), 14, "\"parsedBytes\":9999999");
    std::string newer = good;
    newer.replace(newer.find("\"version\":1"), 11, "\"version\":7");
    for (const auto& bad : {std::string("{\"version\":1,"), std::string("garbage"), good + "trailing", lying, newer,
                            std::string("\x00\x01", 2)}) {
        EXPECT_FALSE(SpendStore::decode(bad));
        writeFile(s.store.cacheURL(), bad);
        SpendStore fresh(s.store.cacheURL());
        SpendScanner scanner(fresh, s.pricing, s.roots);
        auto r = scanner.scan(s.now);
        EXPECT_EQ(r.stats.filesReadWhole, 1u);
        EXPECT_EQ(Spend::tokens(r), 100);
        ASSERT_TRUE(fresh.saveIfDirty().ok);
        EXPECT_TRUE(SpendStore::decode(readFile(fresh.cacheURL())));
    }
    // A valid cache is believed as it stands: its files are not read again.
    writeFile(s.store.cacheURL(), inflated);
    SpendStore believed(s.store.cacheURL());
    SpendScanner scanner(believed, s.pricing, s.roots);
    EXPECT_EQ(scanner.scan(s.now).stats.filesRead, 0u);
}

TEST(SpendScanner, BadInputIsSkippedWithoutCrashingOrCountingTwice) {
    Spend s;
    Date t = s.now - std::chrono::minutes(10);
    std::string huge(200u << 20, 'x');  // a 200 MB line: a tool result, and a reply that wrote a file that large
    std::string lines = "garbage\n\x01\x02\xff\n{}\n[]\n" +
                        std::string(R"({"type":"assistant","message":{"id":"bad1","model":"m","usage":{"input_tokens":"12"}},"timestamp":")") + iso(t) + "\"}\n" +
                        R"({"type":"assistant","message":{"id":"bad2","model":"m","usage":{"input_tokens":-5,"output_tokens":1}}})" "\n" +
                        R"({"type":"assistant","message":{"id":"bad3","model":"m","usage":{"input_tokens":1000000000000000000}}})" "\n" +
                        R"({"type":"user","message":{"content":")" + huge + "\"}}\n" +
                        claudeBlock("big", "r", t, 7, 3, "claude-opus-4-7", huge) + claudeBlock("ok", "r", t, 5, 5) +
                        "{\"type\":\"assistant\",\"message\":{\"usage\":" + std::string(100'000, '[') + "\n";
    writeFile(s.claudeDir / "bad.jsonl", lines);
    huge.clear();
    huge.shrink_to_fit();
    auto r = s.scan();
    EXPECT_EQ(Spend::tokens(r), 20);
    EXPECT_EQ(r.entries.size(), 2u);
    EXPECT_DOUBLE_EQ(Spend::cost(r), (7 * 15 + 3 * 75 + 5 * 3 + 5 * 15) / 1e6);
    EXPECT_EQ(Spend::tokens(s.scan()), 20);
}

TEST(SpendScanner, CodexPricesEachResponseWithTheModelInForceAcrossReads) {
    Spend s;
    std::string thread = "01a200b8-4b5e-7c03-b087-53cf7cc8a288";
    fs::path file = s.codexDir / ("rollout-2026-11-22T00-46-47-" + thread + ".jsonl");
    Date t = s.now - std::chrono::minutes(20);
    writeFile(file, turnContext(t, "gpt-5-codex") + codexUsage(thread, t, 1000, 0, 1000, false));
    EXPECT_DOUBLE_EQ(Spend::cost(s.scan()), 1000 * 1.25 / 1e6);
    // The model changes after the last usage; the next usage arrives in a later read.
    append(file, turnContext(t, "gpt-5.6-terra"));
    s.scan();
    append(file, codexUsage(thread, t, 1000, 0, 2000, false));
    auto r = s.scan();
    EXPECT_EQ(r.stats.filesReadWhole, 0u);
    EXPECT_DOUBLE_EQ(Spend::cost(r), 1000 * 1.25 / 1e6 + 1000 * 2.5 / 1e6);
    // An unknown model is counted and named, never priced at $0 in silence.
    append(file, turnContext(t, "gpt-7-preview") + codexUsage(thread, t, 10, 0, 2010, false));
    r = s.scan();
    EXPECT_EQ(Spend::tokens(r), 2010);
    EXPECT_EQ(unpriced(r), std::set<std::string>{"gpt-7-preview"});
}

TEST(SpendScanner, KimiAndOpenCodeUsage) {
    Spend s;
    int64_t ms = millis(s.now - std::chrono::minutes(3));
    writeFile(s.home / ".kimi-code/sessions/wd_a/session_1/agents/main/wire.jsonl",
              R"({"type":"metadata","protocol_version":"1.3"})" "\n"
              R"({"type":"usage.record","model":"kimi-code/k3","usage":{"input_other":3968,"output":383,"input_cache_read":19200},"usageScope":"step","time":)" +
                  std::to_string(ms) + "}\n" +
                  R"({"type":"usage.record","model":"kimi-code/k3","usage":{"input_other":3968,"output":383,"input_cache_read":19200,"input_cache_creation":0},"usageScope":"turn","time":)" +
                  std::to_string(ms) + "}\n");

    fs::path db = s.home / "opencode.db";
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(db.c_str(), &raw), SQLITE_OK);
    auto exec = [&](const std::string& sql) { ASSERT_EQ(sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql; };
    exec("CREATE TABLE message (id text PRIMARY KEY, session_id text NOT NULL, time_created integer NOT NULL, "
         "time_updated integer NOT NULL, data text NOT NULL)");
    auto row = [&](const char* id, const std::string& data) {
        exec("INSERT INTO message VALUES ('" + std::string(id) + "', 's', " + std::to_string(ms) + ", " + std::to_string(ms) +
             ", '" + data + "')");
    };
    row("a", R"({"role":"assistant","modelID":"claude-sonnet-4-5","providerID":"anthropic","cost":0.5,"tokens":{"input":100,"output":50,"reasoning":999,"cache":{"read":10,"write":5}}})");
    row("b", R"({"role":"assistant","modelID":"gpt-5","providerID":"openai","cost":0,"tokens":{"input":1000,"output":0,"reasoning":0,"cache":{"read":0,"write":0}}})");
    row("c", R"({"role":"assistant","modelID":"harness-model","providerID":"harness","cost":0,"tokens":{"input":7,"output":0,"reasoning":0,"cache":{"read":0,"write":0}}})");
    row("d", R"({"role":"user","tokens":{"input":5000}})");
    row("e", "not json");
    sqlite3_close(raw);
    s.roots.openCodeDatabase = db;
    s.scanner.emplace(*s.storage, s.pricing, s.roots);

    auto r = s.scan();
    EXPECT_EQ(Spend::tokens(r, SpendProvider::kimi), 23551);
    EXPECT_EQ(Spend::tokens(r, SpendProvider::opencode), 165 + 1000 + 7);
    EXPECT_NEAR(Spend::cost(r), (3968 * 3 + 383 * 15 + 19200 * 0.3) / 1e6 + 0.5 + 1000 * 1.25 / 1e6, 1e-12);
    EXPECT_EQ(unpriced(r), std::set<std::string>{"harness/harness-model"});
}

TEST(SpendScanner, AModelPricedByARefreshedListIsPricedOnTheNextScan) {
    Spend s;
    HttpTestServer server([](const HttpTestServer::Request&) {
        return HttpTestServer::Response{200, R"({"claude-opus-5-5": {"input_cost_per_token": 1e-05, "output_cost_per_token": 5e-05}})", {}};
    });
    ScopedEnv base("LUMORA_PRICING_BASE", server.base());
    ModelPricing pricing(s.home / "pricing", ModelPricing::defaultSources(), std::nullopt);
    SpendScanner scanner(s.store, pricing, s.roots);
    writeFile(s.claudeDir / "j.jsonl", claudeBlock("m", "r", s.now - std::chrono::minutes(1), 100, 100, "claude-opus-5-5"));
    auto before = scanner.scan(s.now);
    EXPECT_EQ(unpriced(before), std::set<std::string>{"claude-opus-5-5"});
    pricing.refresh(true);
    auto after = scanner.scan(s.now);
    EXPECT_TRUE(unpriced(after).empty());
    EXPECT_DOUBLE_EQ(Spend::cost(after), (100 * 10 + 100 * 50) / 1e6);
}

TEST(SpendScanner, RealJournalsOfClaudeCodeAndCodex) {
    if (!fs::exists(samplesDir() / "claude")) GTEST_SKIP() << "shared/samples is not beside the repository";
    Spend s;
    fs::copy(samplesDir() / "claude/home/.claude", s.home / ".claude", fs::copy_options::recursive);
    fs::copy(samplesDir() / "codex/home/.codex", s.home / ".codex", fs::copy_options::recursive);
    s.now = Clock::now();
    for (const auto& e : fs::recursive_directory_iterator(s.home.path())) {
        if (e.is_regular_file()) setMtime(e.path(), s.now);
    }
    auto r = s.scan();
    // Worked out by hand from the files: one event per message and request id, one per Codex response.
    EXPECT_EQ(Spend::tokens(r, SpendProvider::claude), 85'268);
    EXPECT_EQ(Spend::tokens(r, SpendProvider::codex), 70'156);
    EXPECT_EQ(r.entries.size(), 18u + 9u);
    EXPECT_EQ(unpriced(r), std::set<std::string>{"claude-opus-5-5"});
}
