#include "lumora/usage/usage_snapshot_cache.hpp"

#include <cmath>

#include "lumora/base/dates.hpp"

namespace lumora {

namespace {

using Json = DefaultsStore::Json;

std::optional<double> finite(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    double d = it->get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    return d;
}

std::optional<PlanUsage::Window> decodeWindow(const Json& w) {
    if (!w.is_object()) return std::nullopt;
    auto label = w.find("label");
    auto name = w.find("name");
    auto percent = finite(w, "percentUsed");
    if (label == w.end() || !label->is_string() || name == w.end() || !name->is_string() || !percent)
        return std::nullopt;
    PlanUsage::Window out;
    out.label = label->get<std::string>();
    out.name = name->get<std::string>();
    out.percentUsed = *percent;
    if (w.contains("period")) {
        auto period = finite(w, "period");
        if (!period) return std::nullopt;
        out.period = *period;
    }
    if (w.contains("resetsAt")) {
        auto at = finite(w, "resetsAt");
        if (!at || std::fabs(*at) > 1e11) return std::nullopt;
        out.resetsAt = Dates::fromSeconds(*at);
    }
    for (auto [key, field] : {std::pair{"isCritical", &out.isCritical}, std::pair{"isModelScoped", &out.isModelScoped}}) {
        auto it = w.find(key);
        if (it == w.end()) continue;
        if (!it->is_boolean()) return std::nullopt;
        *field = it->get<bool>();
    }
    return out;
}

}  // namespace

std::string_view UsageSnapshotCache::rawValue(Provider p) {
    switch (p) {
        case Provider::claude: return "claude";
        case Provider::codex: return "codex";
        case Provider::cursor: return "cursor";
        case Provider::kimi: return "kimi";
        case Provider::opencode: return "opencode";
    }
    return "claude";
}

UsageSnapshotCache::Provider UsageSnapshotCache::provider(HarnessProvider p) {
    switch (p) {
        case HarnessProvider::claudeCode: return Provider::claude;
        case HarnessProvider::cursor: return Provider::cursor;
        case HarnessProvider::codex: return Provider::codex;
        case HarnessProvider::kimi: return Provider::kimi;
        case HarnessProvider::opencode: return Provider::opencode;
    }
    return Provider::claude;
}

UsageSnapshotCache& UsageSnapshotCache::shared() {
    static UsageSnapshotCache cache(DefaultsStore::shared());
    return cache;
}

UsageSnapshotCache::UsageSnapshotCache(DefaultsStore& defaults) : defaults_(defaults) {}

Json UsageSnapshotCache::encode(const PlanUsage& usage, Date savedAt) {
    Json j = Json::object();
    j["savedAt"] = Dates::toSeconds(savedAt);
    if (usage.planName) j["planName"] = *usage.planName;
    if (usage.detail) j["detail"] = *usage.detail;
    Json windows = Json::array();
    for (const auto& w : usage.windows) {
        Json o = Json::object();
        o["label"] = w.label;
        o["name"] = w.name;
        o["percentUsed"] = w.percentUsed;
        if (w.period) o["period"] = *w.period;
        if (w.resetsAt) o["resetsAt"] = Dates::toSeconds(*w.resetsAt);
        o["isCritical"] = w.isCritical;
        o["isModelScoped"] = w.isModelScoped;
        windows.push_back(std::move(o));
    }
    j["windows"] = std::move(windows);
    return j;
}

std::optional<PlanUsage> UsageSnapshotCache::decode(const Json& snapshot) {
    if (!snapshot.is_object()) return std::nullopt;
    PlanUsage usage;
    if (auto it = snapshot.find("planName"); it != snapshot.end() && it->is_string()) usage.planName = it->get<std::string>();
    if (auto it = snapshot.find("detail"); it != snapshot.end() && it->is_string()) usage.detail = it->get<std::string>();
    auto windows = snapshot.find("windows");
    if (windows == snapshot.end() || !windows->is_array()) return std::nullopt;
    for (const auto& w : *windows) {
        if (auto window = decodeWindow(w)) usage.windows.push_back(std::move(*window));
    }
    if (usage.windows.empty()) return std::nullopt;
    return usage;
}

std::optional<Json> UsageSnapshotCache::entry(Provider provider) const {
    auto all = defaults_.dictionary(kKey);
    if (!all) return std::nullopt;
    auto it = all->find(std::string(rawValue(provider)));
    if (it == all->end() || !it->is_object()) return std::nullopt;
    return *it;
}

void UsageSnapshotCache::store(const std::optional<PlanUsage>& usage, Provider provider, Date now) {
    if (!usage) return;  // a failed fetch never clears what we have
    std::lock_guard lock(mutex_);
    Json all = defaults_.dictionary(kKey).value_or(Json::object());
    all[std::string(rawValue(provider))] = encode(*usage, now);
    defaults_.setValue(kKey, std::move(all));
    storedThisRun_.insert(provider);
}

std::optional<PlanUsage> UsageSnapshotCache::load(Provider provider) const {
    std::lock_guard lock(mutex_);
    auto e = entry(provider);
    return e ? decode(*e) : std::nullopt;
}

bool UsageSnapshotCache::isFresh(Provider provider, Seconds ttl, Date now) const {
    std::lock_guard lock(mutex_);
    if (!storedThisRun_.count(provider)) return false;
    auto e = entry(provider);
    if (!e) return false;
    auto saved = finite(*e, "savedAt");
    if (!saved) return false;
    return Dates::toSeconds(now) - *saved < ttl;
}

std::optional<UsageSnapshotCache::Seconds> UsageSnapshotCache::age(Provider provider, Date now) const {
    std::lock_guard lock(mutex_);
    auto e = entry(provider);
    if (!e) return std::nullopt;
    auto saved = finite(*e, "savedAt");
    if (!saved) return std::nullopt;
    return Dates::toSeconds(now) - *saved;
}

void UsageSnapshotCache::clear(std::optional<Provider> provider) {
    std::lock_guard lock(mutex_);
    if (!provider) {
        defaults_.remove(kKey);
        storedThisRun_.clear();
        return;
    }
    auto all = defaults_.dictionary(kKey);
    if (!all) return;
    all->erase(std::string(rawValue(*provider)));
    defaults_.setValue(kKey, std::move(*all));
    storedThisRun_.erase(*provider);
}

}  // namespace lumora
