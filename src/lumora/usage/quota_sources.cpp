#include "lumora/usage/quota_sources.hpp"

#include "lumora/usage/codex_rate_limits.hpp"

namespace lumora {

ClaudeQuotaSource::ClaudeQuotaSource(EnvironmentSource environment, UsageBackoff& backoff)
    : environment_(std::move(environment)), backoff_(backoff) {}

QuotaFetch ClaudeQuotaSource::fetch(Date now, const std::atomic<bool>& cancel) {
    auto env = environment_ ? environment_() : UsageService::Environment::current();
    return {UsageService::probe(env, backoff_, now, &cancel), std::nullopt};
}

CodexQuotaSource::CodexQuotaSource(std::filesystem::path sessionsRoot, int days) : root_(std::move(sessionsRoot)), days_(days) {}

QuotaFetch CodexQuotaSource::fetch(Date now, const std::atomic<bool>&) {
    QuotaFetch f;
    f.probe.provider = HarnessProvider::codex;
    auto root = root_.empty() ? CodexRateLimits::sessionsRoot() : root_;
    auto reading = CodexRateLimits::newest(root, now, days_);
    if (!reading) {
        f.probe.blocker = UsageBlocker::localOnly;
        return f;
    }
    f.probe.blocker = UsageBlocker::ok;
    f.probe.source = reading->rollout.string();
    f.probe.usage = std::move(reading->usage);
    f.readingAt = reading->at;
    return f;
}

OpenCodeGoQuotaSource::OpenCodeGoQuotaSource(std::filesystem::path database, CapsSource caps)
    : database_(std::move(database)), caps_(std::move(caps)) {}

QuotaFetch OpenCodeGoQuotaSource::fetch(Date now, const std::atomic<bool>&) {
    QuotaFetch f;
    f.probe.provider = HarnessProvider::opencode;
    f.probe.blocker = UsageBlocker::localOnly;
    auto db = database_.empty() ? OpenCodeGoUsage::databasePath() : database_;
    f.probe.source = db.string();
    if (auto go = OpenCodeGoUsage::read(db, caps_ ? caps_() : GoUsage::Caps{}, now, &ledger_)) f.probe.usage = go->planUsage();
    return f;
}

namespace QuotaSources {

std::vector<std::unique_ptr<QuotaSource>> standard(OpenCodeGoQuotaSource::CapsSource caps) {
    std::vector<std::unique_ptr<QuotaSource>> out;
    out.push_back(std::make_unique<ClaudeQuotaSource>());
    out.push_back(std::make_unique<CodexQuotaSource>());
    out.push_back(std::make_unique<OpenCodeGoQuotaSource>(std::filesystem::path{}, std::move(caps)));
    return out;
}

}  // namespace QuotaSources

}  // namespace lumora
