#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>

#include "lumora/spend/spend_history.hpp"

// `lumora --spend [--json]` and `lumora --pricing-refresh`.
namespace lumora::SpendCommand {

// Scans the journals (from the spend cache: only what changed is read) and
// prints today by hour, the week and the month by day, per agent, in tokens
// and dollars, naming the models no price list knows. Never touches the
// network: prices come from the rows compiled in and the cached price lists.
int report(bool json, std::ostream& out, std::ostream& err);

// Fetches both price lists now and prints one status line for each.
int refreshPricing(std::ostream& out);

// One range as the JSON report gives it.
nlohmann::ordered_json toJson(const SpendHistory& h);
// The text report of the three ranges.
std::string text(const SpendHistory& today, const SpendHistory& week, const SpendHistory& month, Date now);

}  // namespace lumora::SpendCommand
