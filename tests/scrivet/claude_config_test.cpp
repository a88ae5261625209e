#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "scrivet/claude_config.hpp"
#include "support/test_support.hpp"

using namespace scrivet::ClaudeConfig;
using lumora::test::TempDir;
using lumora::test::writeFile;
using Json = nlohmann::json;

TEST(ClaudeConfig, ContextTierFromTheProjectsRecentModels) {
    TempDir dir;
    auto file = dir / "claude.json";
    EXPECT_EQ(contextTier(file, "/p", "claude-opus-4-6"), ContextTier::unknown) << "missing file";
    EXPECT_EQ(contextTier(file, "/p", "claude-opus-4-6[1m]"), ContextTier::oneMillion);
    writeFile(file, Json{{"projects",
                          {{"/p", {{"lastModelUsage", {{"claude-opus-4-6[1m]", {{"inputTokens", 5}}},
                                                       {"claude-sonnet-4-5", {{"inputTokens", 5}}},
                                                       {"claude-haiku-4-5", {{"inputTokens", 0}}}}}}},
                           {"/q", {{"lastModelUsage", Json::object()}}}}}}
                        .dump());
    EXPECT_EQ(contextTier(file, "/p", "claude-opus-4-6"), ContextTier::oneMillion);
    EXPECT_EQ(contextTier(file, "/p", "claude-sonnet-4-5"), ContextTier::twoHundredK);
    EXPECT_EQ(contextTier(file, "/p", "claude-haiku-4-5"), ContextTier::unknown);
    EXPECT_EQ(contextTier(file, "/q", "claude-sonnet-4-5"), ContextTier::unknown);
    EXPECT_EQ(contextTier(file, "/elsewhere", "claude-sonnet-4-5"), ContextTier::unknown);

    // Reread only when the modification time changes.
    auto stamp = std::chrono::system_clock::now() - std::chrono::hours(1);
    lumora::test::setMtime(file, stamp);
    EXPECT_EQ(contextTier(file, "/p", "claude-sonnet-4-5"), ContextTier::twoHundredK);
    writeFile(file, "not json at all");
    lumora::test::setMtime(file, stamp);
    EXPECT_EQ(contextTier(file, "/p", "claude-sonnet-4-5"), ContextTier::twoHundredK) << "cached";
    lumora::test::setMtime(file, stamp + std::chrono::seconds(1));
    EXPECT_EQ(contextTier(file, "/p", "claude-sonnet-4-5"), ContextTier::unknown) << "not JSON";
    writeFile(file, "[1,2,3]");
    lumora::test::setMtime(file, stamp + std::chrono::seconds(2));
    EXPECT_EQ(contextTier(file, "/p", "claude-sonnet-4-5"), ContextTier::unknown);
    writeFile(file, R"({"projects":{"/p":{"lastModelUsage":{"claude-sonnet-4-5":{"inputTokens":"x"}}}}})");
    lumora::test::setMtime(file, stamp + std::chrono::seconds(3));
    EXPECT_EQ(contextTier(file, "/p", "claude-sonnet-4-5"), ContextTier::unknown);
}

TEST(ClaudeConfig, PlanLabelFromTheLogin) {
    TempDir dir;
    auto file = dir / "claude.json";
    auto label = [&](Json account) {
        writeFile(file, Json{{"oauthAccount", account}}.dump());
        static int step = 0;
        lumora::test::setMtime(file, std::chrono::system_clock::now() + std::chrono::seconds(++step));
        return planLabel(file);
    };
    EXPECT_EQ(label({{"organizationType", "claude_max"}, {"userRateLimitTier", "default_claude_max_20x"}}), "Max 20x");
    EXPECT_EQ(label({{"organizationType", "claude_max"}, {"organizationRateLimitTier", "default_claude_max_5x"}}), "Max 5x");
    EXPECT_EQ(label({{"organizationType", "claude_pro"}}), "Pro");
    EXPECT_EQ(label({{"organizationType", "claude_team"}, {"userRateLimitTier", "team_standard"}}), "Team");
    EXPECT_EQ(label({{"userRateLimitTier", "default_claude_max_5x"}}), "Max 5x");
    EXPECT_EQ(label(Json::object()), std::nullopt);
    writeFile(file, "{}");
    lumora::test::setMtime(file, std::chrono::system_clock::now() - std::chrono::hours(3));
    EXPECT_EQ(planLabel(file), std::nullopt);
    EXPECT_EQ(planLabel(dir / "missing.json"), std::nullopt);
}
