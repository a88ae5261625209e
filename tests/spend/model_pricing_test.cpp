#include <gtest/gtest.h>

#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/price_lists.hpp"
#include "spend/http_test_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

std::optional<ModelRates> builtIn(std::string_view model) {
    return ModelPricing::resolve(model, ModelPricing::bundledRates());
}

const char* kPrices = R"({"sample_spec": {"input_cost_per_token": "0"},
 "claude-sonnet-5": {"input_cost_per_token": 4e-06, "output_cost_per_token": 2e-05, "cache_read_input_token_cost": 4e-07},
 "gpt-7-preview": {"input_cost_per_token": 2e-06, "output_cost_per_token": 8e-06},
 "free-model": {"input_cost_per_token": 0, "output_cost_per_token": 0}})";

const char* kCatalogue = R"({
 "reseller": {"models": {"m-1": {"cost": {"input": 9, "output": 9}}}},
 "openai": {"models": {"m-1": {"cost": {"input": 1, "output": 2, "cache_read": 0.1}},
                       "gpt-7-preview": {"cost": {"input": 3, "output": 12}}}},
 "broken": {"models": {"m-2": {"cost": {"input": "a lot"}}}}})";

}  // namespace

TEST(ModelPricing, NamesResolveToTheirOwnRowsOrToNothing) {
    EXPECT_EQ(builtIn("claude-fable-5[1m]"), ModelPricing::bundledRates().at("claude-fable-5"));
    EXPECT_EQ(builtIn("anthropic/claude-sonnet-5"), ModelPricing::bundledRates().at("claude-sonnet-5"));
    EXPECT_EQ(builtIn("us.anthropic.claude-haiku-4-5"), ModelPricing::bundledRates().at("claude-haiku-4-5"));
    EXPECT_EQ(builtIn("anthropic.claude-sonnet-4-5-20250929-v1:0"), ModelPricing::bundledRates().at("claude-sonnet-4-5"));
    EXPECT_EQ(builtIn("claude-haiku-4-5-20251001")->input, 1);
    EXPECT_EQ(builtIn("gpt-5")->input, 1.25);
    EXPECT_EQ(builtIn("gpt-5.5")->input, 5);  // its own row, never gpt-5's
    EXPECT_EQ(builtIn("gpt-5.6-terra")->input, 2.5);
    EXPECT_EQ(builtIn("gpt-5.6-luna")->input, 1);
    EXPECT_EQ(builtIn("codex-auto-review"), ModelPricing::bundledRates().at("gpt-5-codex"));
    EXPECT_EQ(builtIn("k3")->input, 3);
    EXPECT_EQ(builtIn("kimi-code/k3")->input, 3);
    EXPECT_EQ(builtIn("GPT-5-Mini")->input, 0.25);
    EXPECT_EQ(builtIn("gpt-5-mini-2025-08-07")->input, 0.25);
    EXPECT_EQ(builtIn("gpt-5.6-sol-preview")->input, 5);  // a longer name of a row, at a word boundary
    EXPECT_FALSE(builtIn("kimi-code/k9-experimental"));
    EXPECT_FALSE(builtIn("claude-opus-5-5"));
    EXPECT_FALSE(builtIn("gpt-5.7"));
    EXPECT_FALSE(builtIn("<synthetic>"));
    EXPECT_FALSE(builtIn(""));

    // A newer version is never priced as an older one that a list happens to have.
    PriceLists::RateTable table = {{"claude-opus-4", {15, 75, {}, {}}}};
    EXPECT_FALSE(ModelPricing::resolve("claude-opus-4-9", table));
    EXPECT_TRUE(ModelPricing::resolve("claude-opus-4-latest", table));
    EXPECT_TRUE(ModelPricing::resolve("claude-opus-4@20250514", table));
}

TEST(ModelPricing, CostFollowsTheFormula) {
    ModelRates opus{15, 75, 1.5, 18.75};
    EXPECT_DOUBLE_EQ(opus.cost(1'000, 5'000, 0, 200'000, 2'000), 0.55875);
    // A one-hour write is twice the input price, whatever the row says.
    EXPECT_DOUBLE_EQ(opus.cost(0, 0, 1'000'000, 0, 0), 30);
    ModelRates bare{2, 8, {}, {}};
    EXPECT_DOUBLE_EQ(bare.cost(0, 0, 0, 1'000'000, 0), 0.2);   // a tenth of input
    EXPECT_DOUBLE_EQ(bare.cost(0, 1'000'000, 0, 0, 0), 2.5);   // 1.25 × input
}

TEST(ModelPricing, PriceListsParseOrGiveNothing) {
    auto prices = PriceLists::parseModelPrices(kPrices);
    ASSERT_TRUE(prices);
    EXPECT_EQ(prices->size(), 2u);  // the template row and the free row are no prices
    EXPECT_DOUBLE_EQ(prices->at("claude-sonnet-5").input, 4);
    EXPECT_DOUBLE_EQ(*prices->at("claude-sonnet-5").cacheRead, 0.4);
    EXPECT_FALSE(prices->at("gpt-7-preview").cacheWrite);

    auto catalogue = PriceLists::parseModelsCatalogue(kCatalogue);
    ASSERT_TRUE(catalogue);
    EXPECT_EQ(catalogue->at("m-1").input, 1);  // the maker's own price beats a reseller's
    EXPECT_EQ(catalogue->at("reseller/m-1").input, 9);
    EXPECT_FALSE(catalogue->count("m-2"));

    for (const char* bad : {"", "[]", "{", "{\"a\": 1}", "null", "{\"x\": {\"models\": []}}", "\xff\xfe{}"}) {
        EXPECT_FALSE(PriceLists::parseModelPrices(bad)) << bad;
        EXPECT_FALSE(PriceLists::parseModelsCatalogue(bad)) << bad;
    }
}

TEST(ModelPricing, RefreshFetchesConditionallyAndKeepsTheCacheOnFailure) {
    TempHome home;
    std::string body = kPrices;
    bool broken = false;
    HttpTestServer server([&](const HttpTestServer::Request& r) {
        HttpTestServer::Response res;
        if (r.path == "/api.json") return HttpTestServer::Response{500, "", {}};
        if (broken) return HttpTestServer::Response{200, "<html>not a list</html>", {}};
        auto etag = r.headers.find("if-none-match");
        if (etag != r.headers.end() && etag->second == "\"v1\"") return HttpTestServer::Response{304, "", {}};
        return HttpTestServer::Response{200, body, {{"ETag", "\"v1\""}}};
    });
    ScopedEnv base("LUMORA_PRICING_BASE", server.base() + "/");
    fs::path catalogue = home / "opencode-models.json";
    writeFile(catalogue, kCatalogue);
    ModelPricing pricing(home / "pricing", ModelPricing::defaultSources(), catalogue);

    // Offline knowledge first: the built-in rows and the local catalogue (which only adds).
    EXPECT_EQ(pricing.rates("claude-sonnet-5")->input, 3);
    EXPECT_EQ(pricing.rates("gpt-7-preview")->input, 3);
    EXPECT_EQ(pricing.rates("m-1")->input, 1);

    auto lines = pricing.refresh(true);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "litellm: fresh (fetched 1 kB, 2 models)");
    EXPECT_EQ(lines[1], "models.dev: fetch failed (kept cache)");
    // The fetched list wins over the built-in row and the local catalogue.
    EXPECT_EQ(pricing.rates("claude-sonnet-5")->input, 4);
    EXPECT_EQ(pricing.rates("gpt-7-preview")->input, 2);
    EXPECT_TRUE(fs::exists(home / "pricing/model_prices_and_context_window.json"));

    EXPECT_EQ(pricing.refresh(true)[0], "litellm: unchanged (304)");
    EXPECT_EQ(server.requests().back().path, "/api.json");
    EXPECT_EQ(pricing.refresh(false)[0].rfind("litellm: cached (fetched ", 0), 0u);

    broken = true;
    uint64_t generation = pricing.generation();
    EXPECT_EQ(pricing.refresh(true)[0], "litellm: fetch failed (kept cache)");
    EXPECT_EQ(pricing.generation(), generation);
    EXPECT_EQ(pricing.rates("claude-sonnet-5")->input, 4);

    // A new process starts from the cached list, without the network.
    ModelPricing later(home / "pricing", ModelPricing::defaultSources(), std::nullopt);
    EXPECT_EQ(later.rates("claude-sonnet-5")->input, 4);
}

TEST(ModelPricing, NoServerIsAFailedFetchNotAnError) {
    TempHome home;
    ScopedEnv base("LUMORA_PRICING_BASE", "http://127.0.0.1:9");
    ModelPricing pricing(home / "pricing", ModelPricing::defaultSources(), std::nullopt);
    auto lines = pricing.refresh(true);
    EXPECT_EQ(lines, (std::vector<std::string>{"litellm: fetch failed (kept cache)", "models.dev: fetch failed (kept cache)"}));
    EXPECT_EQ(pricing.rates("gpt-5")->input, 1.25);
}
