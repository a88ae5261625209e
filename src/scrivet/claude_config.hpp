#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// What Claude Code's own configuration file (~/.claude.json) says about the
// context window a model gets in a project, and about the user's plan. The
// parsed file is cached per path, reread only when its modification time
// changes, behind its own lock.
namespace scrivet::ClaudeConfig {

enum class ContextTier { oneMillion, twoHundredK, unknown };

std::string_view tierName(ContextTier tier);

// The context tier of `model` in the working directory `cwd`: "[1m]" in the id
// is one million; otherwise the project's recent model usage decides, and a
// missing or unreadable file, or no usage of that model, is `unknown`.
ContextTier contextTier(const std::filesystem::path& configFile, const std::string& cwd, std::string_view model);

// The plan as one short label ("Max 20x", "Pro", "Team"), from the login's
// organisation type and rate-limit tiers; nothing when there is no login.
std::optional<std::string> planLabel(const std::filesystem::path& configFile);

// The same rule over the fields themselves: the plan type ("max",
// "claude_team") capitalised, else "Max" or "Pro" found in a tier, followed by
// the multiplier ("20x") cut out of the first tier that has one. A login's
// "subscriptionType" and "rateLimitTier" go through it too.
std::optional<std::string> planLabel(const std::optional<std::string>& planType,
                                     const std::optional<std::string>& tier,
                                     const std::optional<std::string>& secondTier = std::nullopt);

// Forgets every cached file.
void resetCache();

}  // namespace scrivet::ClaudeConfig
