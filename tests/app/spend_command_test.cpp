#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/app/spend_command.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

std::string isoNowMinus(std::chrono::minutes ago) {
    auto t = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() - ago);
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    char buf[40];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S.000Z", &tm);
    return buf;
}

std::string block(const std::string& id, const std::string& model, int input, int output) {
    return R"({"type":"assistant","message":{"id":")" + id + R"(","model":")" + model +
           R"(","content":[],"usage":{"input_tokens":)" + std::to_string(input) + R"(,"output_tokens":)" +
           std::to_string(output) + R"(}},"requestId":"r","timestamp":")" + isoNowMinus(std::chrono::minutes(2)) + "\"}\n";
}

}  // namespace

TEST(SpendCommand, PrintsTheRangesAsTextAndAsJson) {
    TempHome home;
    writeFile(home / ".claude/projects/-p/s.jsonl",
              block("m1", "claude-sonnet-4-5", 1000, 1000) + block("m1", "claude-sonnet-4-5", 1000, 1000) +
                  block("m2", "claude-opus-5-5", 10, 10));
    auto bin = lumoraBinary().string();

    auto json = runCommand(bin + " --spend --json");
    ASSERT_EQ(json.status, 0) << json.output;
    auto j = nlohmann::json::parse(json.output);
    for (const char* range : {"today", "week", "month"}) {
        const auto& r = j["ranges"][range];
        EXPECT_EQ(r["totalTokens"], 2020) << range;
        EXPECT_NEAR(r["totalCost"].get<double>(), (1000 * 3 + 1000 * 15) / 1e6, 1e-12);
        EXPECT_EQ(r["claudeTokens"], 2020);
        EXPECT_EQ(r["unpricedModels"], nlohmann::json::array({"claude-opus-5-5"}));
        EXPECT_TRUE(r.contains("previousTokens"));
        for (const char* key : {"date", "claudeTokens", "codexTokens", "kimiTokens", "cursorTokens", "cost"})
            EXPECT_TRUE(r["days"][0].contains(key)) << key;
    }
    EXPECT_EQ(j["ranges"]["week"]["days"].size(), 7u);
    EXPECT_EQ(j["ranges"]["month"]["days"].size(), 30u);
    EXPECT_EQ(j["ranges"]["today"]["unit"], "hour");
    EXPECT_TRUE(fs::exists(home / ".local/share/lumora/spend-cache.json"));

    auto text = runCommand(bin + " --spend");
    ASSERT_EQ(text.status, 0);
    EXPECT_NE(text.output.find("Today, by hour"), std::string::npos);
    EXPECT_NE(text.output.find("2,020 tokens"), std::string::npos);
    EXPECT_NE(text.output.find("≥$0.02"), std::string::npos);  // a floor: one model had no price
    EXPECT_NE(text.output.find("Counted as tokens but priced at $0 — no catalog has rates for claude-opus-5-5."),
              std::string::npos);

    auto misuse = runCommand(bin + " --json 2>&1");
    EXPECT_NE(misuse.status, 0);
    EXPECT_NE(misuse.output.find("--json goes with --scan or --spend"), std::string::npos);

    ScopedEnv offline("LUMORA_PRICING_BASE", "http://127.0.0.1:9");
    auto refresh = runCommand(bin + " --pricing-refresh");
    EXPECT_EQ(refresh.status, 0);
    EXPECT_EQ(refresh.output, "litellm: fetch failed (kept cache)\nmodels.dev: fetch failed (kept cache)\n");
}

TEST(SpendCommand, AnEmptyHomeSaysSo) {
    TempHome home;
    auto text = runCommand(lumoraBinary().string() + " --spend");
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.output.find("No token usage in the agents' journals this month."), std::string::npos);
    EXPECT_EQ(SpendText::dollars(1234567.891), "$1,234,567.89");
    EXPECT_EQ(SpendText::dollars(0.001), "<$0.01");
    EXPECT_EQ(SpendText::compactTokens(1'234'567), "1.2M");
}
