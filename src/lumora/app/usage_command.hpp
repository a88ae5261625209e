#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <vector>

#include "lumora/usage/opencode_go_usage.hpp"
#include "lumora/usage/quota_reading.hpp"

// Plan usage from the command line: `lumora --usage-doctor`, and the
// readings `--scan --json` carries.
namespace lumora::UsageCommand {

// `lumora --usage-doctor`: the Claude logins found on this machine with
// their source and expiry, then one line per metered provider (asking the
// network once). Good readings are stored for the running app.
int doctor(std::ostream& out, const GoUsage::Caps& caps);

// What a one-shot command can show without asking the network: the last
// reading the running app stored for a network provider (within the week)
// and the local providers read now.
std::vector<QuotaReading> currentReadings(Date now, const GoUsage::Caps& caps);

// One reading as JSON: provider, label, plan, detail, when it was true,
// whether it is stale, the latest attempt's blocker, and every window with
// what is left, its reset and its pace.
nlohmann::ordered_json toJson(const QuotaReading& reading, Date now);
// Every reading, keyed by provider ("claudeCode", "codex", "opencode").
nlohmann::ordered_json toJson(const std::vector<QuotaReading>& readings, Date now);

}  // namespace lumora::UsageCommand
