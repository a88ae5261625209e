#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace scrivet {

// An sRGB colour with opacity 1, components in 0...1.
struct Rgb {
    double r = 0, g = 0, b = 0;
    bool operator==(const Rgb&) const = default;
};

// The agent tool a session belongs to. Declaration order is the order every
// list of providers uses.
enum class HarnessProvider { claudeCode, cursor, codex, kimi, opencode };

inline constexpr std::array<HarnessProvider, 5> kAllProviders = {
    HarnessProvider::claudeCode, HarnessProvider::cursor, HarnessProvider::codex,
    HarnessProvider::kimi, HarnessProvider::opencode};

// The raw value, also the key used in stored data and hook lines ("claudeCode").
std::string_view rawValue(HarnessProvider p);
// Returns the provider whose raw value is exactly `raw` (case matters), if any.
std::optional<HarnessProvider> providerFromRaw(std::string_view raw);
std::string_view displayName(HarnessProvider p);
std::string_view shortName(HarnessProvider p);
Rgb accent(HarnessProvider p);
// The name of the provider's paid plan, as the usage strip shows it.
std::string_view planName(HarnessProvider p);

}  // namespace scrivet
