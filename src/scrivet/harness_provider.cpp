#include "scrivet/harness_provider.hpp"

namespace scrivet {

namespace {
struct ProviderFacts {
    std::string_view raw, display, shortName, plan;
    Rgb accent;
};

constexpr ProviderFacts kFacts[] = {
    {"claudeCode", "Claude Code", "Claude", "Claude", {0.85, 0.47, 0.34}},
    {"cursor", "Cursor", "Cursor", "Cursor Pro", {0.55, 0.62, 0.98}},
    {"codex", "Codex", "Codex", "ChatGPT", {0.42, 0.80, 0.90}},
    {"kimi", "Kimi", "Kimi", "Kimi Code", {0.36, 0.52, 1.00}},
    {"opencode", "OpenCode", "OpenCode", "OpenCode Go", {0.78, 0.78, 0.80}},
};

const ProviderFacts& facts(HarnessProvider p) { return kFacts[static_cast<int>(p)]; }
}  // namespace

std::string_view rawValue(HarnessProvider p) { return facts(p).raw; }
std::string_view displayName(HarnessProvider p) { return facts(p).display; }
std::string_view shortName(HarnessProvider p) { return facts(p).shortName; }
Rgb accent(HarnessProvider p) { return facts(p).accent; }
std::string_view planName(HarnessProvider p) { return facts(p).plan; }

std::optional<HarnessProvider> providerFromRaw(std::string_view raw) {
    for (auto p : kAllProviders) {
        if (facts(p).raw == raw) return p;
    }
    return std::nullopt;
}

}  // namespace scrivet
