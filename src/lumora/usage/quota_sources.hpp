#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "lumora/usage/opencode_go_usage.hpp"
#include "lumora/usage/usage_service.hpp"

namespace lumora {

// What one look at a provider's quota gave: the diagnosis (with the numbers
// when there are some) and when those numbers were true, if not now.
struct QuotaFetch {
    UsageProbe probe;
    std::optional<Date> readingAt;
};

// One provider's way of reading its quota. Called on the usage worker, one
// call at a time; a source that asks the network honours `cancel`.
// Adding a metered provider is adding a source.
class QuotaSource {
public:
    virtual ~QuotaSource() = default;
    virtual HarnessProvider provider() const = 0;
    // True when a fetch asks a remote service (and so goes through the back-off).
    virtual bool usesNetwork() const { return false; }
    virtual QuotaFetch fetch(Date now, const std::atomic<bool>& cancel) = 0;
};

// Claude: the usage endpoint, with the login found on this machine.
class ClaudeQuotaSource final : public QuotaSource {
public:
    using EnvironmentSource = std::function<UsageService::Environment()>;
    // `environment` is read on every fetch (empty: the process's environment).
    explicit ClaudeQuotaSource(EnvironmentSource environment = {}, UsageBackoff& backoff = UsageBackoff::shared());
    HarnessProvider provider() const override { return HarnessProvider::claudeCode; }
    bool usesNetwork() const override { return true; }
    QuotaFetch fetch(Date now, const std::atomic<bool>& cancel) override;

private:
    EnvironmentSource environment_;
    UsageBackoff& backoff_;
};

// Codex: the newest rollout's last good rate limits.
class CodexQuotaSource final : public QuotaSource {
public:
    // `sessionsRoot` empty: Codex's own ($CODEX_HOME/sessions or ~/.codex/sessions).
    explicit CodexQuotaSource(std::filesystem::path sessionsRoot = {}, int days = 7);
    HarnessProvider provider() const override { return HarnessProvider::codex; }
    QuotaFetch fetch(Date now, const std::atomic<bool>& cancel) override;

private:
    std::filesystem::path root_;
    int days_;
};

// OpenCode Go: the charges in OpenCode's database against the caps.
class OpenCodeGoQuotaSource final : public QuotaSource {
public:
    using CapsSource = std::function<GoUsage::Caps()>;
    // `database` empty: OpenCode's own; `caps` empty: the plan's published caps.
    explicit OpenCodeGoQuotaSource(std::filesystem::path database = {}, CapsSource caps = {});
    HarnessProvider provider() const override { return HarnessProvider::opencode; }
    QuotaFetch fetch(Date now, const std::atomic<bool>& cancel) override;

private:
    std::filesystem::path database_;
    CapsSource caps_;
    OpenCodeGoUsage::ChargeLedger ledger_;
};

namespace QuotaSources {
// Every metered provider's source, in provider order: Claude, Codex, OpenCode Go.
std::vector<std::unique_ptr<QuotaSource>> standard(OpenCodeGoQuotaSource::CapsSource caps = {});
}  // namespace QuotaSources

}  // namespace lumora
