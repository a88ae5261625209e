#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lumora/spend/model_rates.hpp"
#include "lumora/spend/price_lists.hpp"

namespace lumora {

// Turns a model name into prices. One table from model name to rates, built
// from the rows compiled in, the two public price lists (fetched at most
// daily and cached in the pricing folder) and OpenCode's local model
// catalogue. Later layers win a name over earlier ones, except the local
// catalogue, which only adds names nobody else prices. A model no layer
// knows is unpriced: `rates` gives nothing, and callers count its tokens and
// name it instead of adding $0.
//
// Thread-safe: scans price from several threads while a refresh replaces the
// table under the same lock (never held across the network).
class ModelPricing {
public:
    using RateTable = PriceLists::RateTable;

    // One public price list.
    struct Source {
        std::string name;           // for status and log lines
        std::string url;
        std::string cacheFileName;  // in the pricing folder
        std::function<std::optional<RateTable>(std::string_view)> parse;
    };

    // The process's instance: the support folder's pricing folder, the two
    // public lists (at `LUMORA_PRICING_BASE` when set) and OpenCode's catalogue.
    static ModelPricing& shared();

    // The public lists. With `LUMORA_PRICING_BASE` set (tests, mirrors) they
    // are fetched from <base>/model_prices_and_context_window.json and <base>/api.json.
    static std::vector<Source> defaultSources();
    // OpenCode's cached catalogue: `LUMORA_OPENCODE_MODELS`, else ~/.cache/opencode/models.json.
    static std::filesystem::path openCodeCatalogueFile();

    // The rows compiled into the program.
    static const RateTable& bundledRates();
    // Names priced as another ("codex-auto-review" as "gpt-5-codex").
    static const std::unordered_map<std::string, std::string>& aliases();

    ModelPricing(std::filesystem::path cacheFolder, std::vector<Source> sources,
                 std::optional<std::filesystem::path> localCatalogue);

    // The rates of `model`, or nothing when it is unpriced.
    std::optional<ModelRates> rates(std::string_view model);

    // Fetches each source whose cached copy is older than `maxAge` (every one
    // with `force`), with the cached copy's validator. One line per source:
    // "<name>: fresh (fetched …)", "<name>: unchanged (304)", "<name>: fetch
    // failed (kept cache)", or "<name>: cached (…)" when it was left alone.
    // Blocks on the network: never call it where a user waits for a report.
    // `*cancel`, when given and set, ends the fetches early (as failures).
    std::vector<std::string> refresh(bool force = false, std::chrono::seconds maxAge = std::chrono::seconds(86'400),
                                     const std::atomic<bool>* cancel = nullptr);

    // Bumped whenever the table changes, so a holder of prices knows to look again.
    uint64_t generation() const { return generation_.load(); }

    // The steps that find a table entry for a name, over any table: the name
    // as given (or an alias); without a "[1m]"-style tag; after the last "/";
    // without a region or vendor prefix ("us.anthropic."); without a version
    // or date suffix ("-v1:0", "-20250514"); then exactly, then by the
    // longest key that is a prefix ending at a boundary, so that "gpt-5.5"
    // is never priced as "gpt-5" nor "claude-opus-4-9" as "claude-opus-4".
    static std::optional<ModelRates> resolve(std::string_view model, const RateTable& table);

private:
    void loadIfNeeded();     // requires mutex_
    void rebuild();          // requires mutex_: the merged table from all layers
    std::filesystem::path cacheFile(const Source& s) const { return cacheFolder_ / s.cacheFileName; }

    std::filesystem::path cacheFolder_;
    std::vector<Source> sources_;
    std::optional<std::filesystem::path> localCatalogue_;
    std::mutex mutex_;
    bool loaded_ = false;
    std::vector<std::optional<RateTable>> fetched_;  // per source, from its cache file or a fetch
    RateTable table_;
    std::unordered_map<std::string, std::optional<ModelRates>> memo_;
    std::atomic<uint64_t> generation_{0};
};

}  // namespace lumora
