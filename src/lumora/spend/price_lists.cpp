#include "lumora/spend/price_lists.hpp"

#include <simdjson.h>

#include <array>
#include <cmath>

namespace lumora::PriceLists {

namespace {

using simdjson::dom::element;
using simdjson::dom::object;

// Dearer than any model sells: a price past this is a broken row.
constexpr double kMaxPerMillion = 100'000;

std::string lower(std::string_view s) {
    std::string out(s);
    for (auto& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

// A price field scaled to dollars per million tokens, when it is a sane number.
std::optional<double> price(const object& o, std::string_view key, double scale) {
    element e;
    if (o.at_key(key).get(e) != simdjson::SUCCESS) return std::nullopt;
    double v = 0;
    if (e.get_double().get(v) != simdjson::SUCCESS) return std::nullopt;
    v *= scale;
    if (!std::isfinite(v) || v < 0 || v > kMaxPerMillion) return std::nullopt;
    return v;
}

std::optional<ModelRates> rates(const object& o, std::array<std::string_view, 4> keys, double scale) {
    auto input = price(o, keys[0], scale);
    auto output = price(o, keys[1], scale);
    if (!input || !output || (*input == 0 && *output == 0)) return std::nullopt;
    ModelRates r;
    r.input = *input;
    r.output = *output;
    r.cacheRead = price(o, keys[2], scale);
    r.cacheWrite = price(o, keys[3], scale);
    return r;
}

bool parseDocument(std::string_view bytes, simdjson::dom::parser& parser, object& root) {
    simdjson::padded_string padded(bytes.data(), bytes.size());
    element doc;
    if (parser.parse(padded).get(doc) != simdjson::SUCCESS) return false;
    return doc.get_object().get(root) == simdjson::SUCCESS;
}

// Makers whose own entry wins a bare model id over resellers' copies.
int makerRank(std::string_view provider) {
    static constexpr std::array<std::string_view, 7> makers = {"anthropic", "openai",   "moonshotai", "moonshotai-cn",
                                                               "google",    "deepseek", "xai"};
    for (size_t i = 0; i < makers.size(); ++i) {
        if (provider == makers[i]) return static_cast<int>(i);
    }
    return static_cast<int>(makers.size());
}

}  // namespace

std::optional<RateTable> parseModelPrices(std::string_view bytes) {
    simdjson::dom::parser parser;
    object root;
    if (!parseDocument(bytes, parser, root)) return std::nullopt;
    RateTable table;
    for (auto field : root) {
        object row;
        if (field.value.get_object().get(row) != simdjson::SUCCESS) continue;
        auto r = rates(row,
                       {"input_cost_per_token", "output_cost_per_token", "cache_read_input_token_cost",
                        "cache_creation_input_token_cost"},
                       1'000'000.0);
        if (r && !field.key.empty()) table[lower(field.key)] = *r;
    }
    if (table.empty()) return std::nullopt;
    return table;
}

std::optional<RateTable> parseModelsCatalogue(std::string_view bytes) {
    simdjson::dom::parser parser;
    object root;
    if (!parseDocument(bytes, parser, root)) return std::nullopt;
    RateTable table;
    std::map<std::string, int, std::less<>> bareRank;  // who set each bare id
    for (auto provider : root) {
        object p, models;
        if (provider.value.get_object().get(p) != simdjson::SUCCESS) continue;
        if (p.at_key("models").get_object().get(models) != simdjson::SUCCESS) continue;
        std::string providerId = lower(provider.key);
        int rank = makerRank(providerId);
        for (auto model : models) {
            object m, cost;
            if (model.key.empty() || model.value.get_object().get(m) != simdjson::SUCCESS) continue;
            if (m.at_key("cost").get_object().get(cost) != simdjson::SUCCESS) continue;
            auto r = rates(cost, {"input", "output", "cache_read", "cache_write"}, 1.0);
            if (!r) continue;
            std::string id = lower(model.key);
            table[providerId + "/" + id] = *r;
            auto seen = bareRank.find(id);
            if (seen == bareRank.end() || rank < seen->second) {
                table[id] = *r;
                bareRank[id] = rank;
            }
        }
    }
    if (table.empty()) return std::nullopt;
    return table;
}

}  // namespace lumora::PriceLists
