#pragma once

#include <iosfwd>
#include <memory>
#include <vector>

#include "lumora/usage/quota_sources.hpp"
#include "lumora/usage/usage_service.hpp"

// The diagnostic face of plan usage (`lumora --usage-doctor`): the Claude
// logins found on this machine with their source and expiry, then one line
// per metered provider. Asks the network; run it off any main loop.
namespace lumora::UsageDoctor {

// Every source's probe, in source order.
std::vector<QuotaFetch> probes(const std::vector<std::unique_ptr<QuotaSource>>& sources, Date now);

// One line per stored login: "  ~/.claude/.credentials.json · expires 2026-11-23 14:05 (in 5h 12m)".
std::string loginLine(const UsageService::StoredLogin& login, Date now);

// Prints the report for these logins and probes.
void print(std::ostream& out, const std::vector<UsageService::StoredLogin>& logins,
           const std::vector<QuotaFetch>& probes, Date now);

}  // namespace lumora::UsageDoctor
