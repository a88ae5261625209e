#include "lumora/app/usage_command.hpp"

#include <ostream>

#include "lumora/base/dates.hpp"
#include "lumora/usage/usage_doctor.hpp"
#include "lumora/usage/usage_poller.hpp"
#include "lumora/usage/usage_snapshot_cache.hpp"

namespace lumora::UsageCommand {

namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json opt(const std::optional<T>& v) {
    return v ? Json(*v) : Json(nullptr);
}

std::string_view verdictName(PaceEstimate::Kind k) {
    switch (k) {
        case PaceEstimate::Kind::ahead: return "ahead";
        case PaceEstimate::Kind::onTrack: return "onTrack";
        case PaceEstimate::Kind::behind: return "behind";
    }
    return "ahead";
}

}  // namespace

int doctor(std::ostream& out, const GoUsage::Caps& caps) {
    auto now = std::chrono::system_clock::now();
    auto logins = UsageService::storedLogins(UsageService::Environment::current());
    auto sources = QuotaSources::standard([caps] { return caps; });
    auto probes = UsageDoctor::probes(sources, now);
    for (const auto& f : probes) {
        if (f.probe.usage)
            UsageSnapshotCache::shared().store(f.probe.usage, UsageSnapshotCache::provider(f.probe.provider),
                                               f.readingAt.value_or(now));
    }
    UsageDoctor::print(out, logins, probes, now);
    return 0;
}

std::vector<QuotaReading> currentReadings(Date now, const GoUsage::Caps& caps) {
    std::vector<QuotaReading> out;
    std::atomic<bool> never{false};
    auto& cache = UsageSnapshotCache::shared();
    for (const auto& source : QuotaSources::standard([caps] { return caps; })) {
        QuotaReading r;
        r.provider = source->provider();
        if (source->usesNetwork()) {
            auto key = UsageSnapshotCache::provider(r.provider);
            auto age = cache.age(key, now);
            auto usage = cache.load(key);
            if (!age || !usage || *age >= UsagePoller::kDarkAfter) continue;
            r.usage = std::move(*usage);
            r.fetchedAt = now - std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(std::max(0.0, *age)));
        } else {
            auto fetch = source->fetch(now, never);
            if (!fetch.probe.usage) continue;
            auto at = fetch.readingAt.value_or(now);
            if (std::chrono::duration<double>(now - at).count() >= UsagePoller::kDarkAfter) continue;
            r.usage = std::move(*fetch.probe.usage);
            r.fetchedAt = at;
            r.blocker = fetch.probe.blocker;
        }
        out.push_back(std::move(r));
    }
    return out;
}

Json toJson(const QuotaReading& r, Date now) {
    Json j;
    j["provider"] = std::string(scrivet::rawValue(r.provider));
    j["label"] = r.label();
    j["planName"] = opt(r.usage.planName);
    j["detail"] = opt(r.usage.detail);
    j["fetchedAt"] = Dates::format(r.fetchedAt);
    j["stale"] = r.isStale(now);
    j["blocker"] = std::string(rawValue(r.blocker));
    j["status"] = opt(r.status);
    j["retryIn"] = opt(r.retryIn);
    j["hasPressure"] = r.usage.hasPressure();
    Json windows = Json::array();
    for (const auto& raw : r.usage.windows) {
        auto w = r.shown(raw, now);
        Json o;
        o["label"] = w.label;
        o["name"] = w.name;
        o["percentUsed"] = w.percentUsed;
        o["percentLeft"] = w.percentLeft();
        o["resetsAt"] = w.resetsAt ? Json(Dates::format(*w.resetsAt)) : Json(nullptr);
        o["period"] = opt(w.period);
        o["isCritical"] = w.isCritical;
        o["isModelScoped"] = w.isModelScoped;
        o["isDepleted"] = w.isDepleted();
        if (auto pace = r.pace(raw, now)) {
            o["pace"] = {{"verdict", std::string(verdictName(pace->verdict.kind))},
                         {"eta", pace->verdict.kind == PaceEstimate::Kind::behind ? Json(pace->verdict.eta) : Json(nullptr)},
                         {"projectedPercent", pace->projectedPercent},
                         {"label", pace->label()}};
        } else {
            o["pace"] = nullptr;
        }
        windows.push_back(std::move(o));
    }
    j["windows"] = std::move(windows);
    return j;
}

Json toJson(const std::vector<QuotaReading>& readings, Date now) {
    Json out = Json::object();
    for (const auto& r : readings) out[std::string(scrivet::rawValue(r.provider))] = toJson(r, now);
    return out;
}

}  // namespace lumora::UsageCommand
