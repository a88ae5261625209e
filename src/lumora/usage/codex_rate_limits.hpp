#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "lumora/usage/plan_usage.hpp"

// Codex's plan windows, as Codex itself records them: every "token_count"
// event of a rollout carries the account's "rate_limits" ("primary" and
// "secondary" windows), so the newest rollout's last good reading is the
// plan's state when Codex last spoke to its service. Some events carry null
// windows; those are passed over and the last good ones stand.
namespace lumora::CodexRateLimits {

namespace fs = std::filesystem;

struct Reading {
    PlanUsage usage;
    Date at{};        // when Codex recorded it (the event's time)
    fs::path rollout;
    bool operator==(const Reading&) const = default;
};

// The windows of one "rate_limits" object, shortest first; nothing when
// neither window has a usable "used_percent". `eventTime` dates a relative
// "resets_in_seconds".
std::optional<PlanUsage> fromPayload(const nlohmann::ordered_json& rateLimits, std::optional<Date> eventTime);

// The last good reading in one rollout's tail (its last 4 MiB at most).
std::optional<Reading> lastInRollout(const fs::path& rollout);

// The newest good reading among the rollouts of the last `days` dated
// folders (YYYY/MM/DD under `sessionsRoot`), newest rollout first; only those
// folders are listed, never the whole tree.
std::optional<Reading> newest(const fs::path& sessionsRoot, Date now, int days = 7);

// $CODEX_HOME/sessions, else ~/.codex/sessions.
fs::path sessionsRoot();

}  // namespace lumora::CodexRateLimits
