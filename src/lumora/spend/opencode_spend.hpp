#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/spend_event.hpp"

// OpenCode keeps its messages in SQLite with their own token counts and
// dollar cost; its spend is read from there rather than from journals.
namespace lumora::OpenCodeSpend {

// `LUMORA_OPENCODE_DB`, else ~/.local/share/opencode/opencode.db.
std::filesystem::path databaseFile();

// The assistant messages created since `since`, one event each (key
// "opencode:" and the message id). Tokens are input, output and both cache
// counts (reasoning is left out, as OpenCode counts it); the cost is the
// message's own when it has one, else priced by the model, else the model is
// named as unpriced. Nothing when the database is missing or can't be read.
std::optional<std::vector<SpendEvent>> read(const std::filesystem::path& database, Date since, ModelPricing& pricing);

}  // namespace lumora::OpenCodeSpend
