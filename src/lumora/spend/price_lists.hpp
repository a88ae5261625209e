#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/spend/model_rates.hpp"

// Parsers for the public price lists. Both give a table from model name
// (lower case) to rates; both return nothing for bytes that are not the
// list's shape or that price no model at all, so a broken download never
// replaces a good cache. Rows that price a model at $0 for both input and
// output are left out: a list that does not know a price must not make it free.
namespace lumora::PriceLists {

using RateTable = std::map<std::string, ModelRates, std::less<>>;

// The public model-price JSON: {"<model>": {"input_cost_per_token": 3e-06,
// "output_cost_per_token": ..., "cache_read_input_token_cost": ...,
// "cache_creation_input_token_cost": ...}, ...}, prices per token.
std::optional<RateTable> parseModelPrices(std::string_view bytes);

// The public models catalogue (and OpenCode's cached copy of it):
// {"<provider>": {"models": {"<model>": {"cost": {"input": 3, "output": 15,
// "cache_read": 0.3, "cache_write": 3.75}}}}}, prices per million tokens.
// Each model is keyed by its id and by "<provider>/<id>"; where providers
// disagree on a bare id, the model's own maker wins.
std::optional<RateTable> parseModelsCatalogue(std::string_view bytes);

}  // namespace lumora::PriceLists
