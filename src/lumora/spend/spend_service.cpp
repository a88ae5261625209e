#include "lumora/spend/spend_service.hpp"

#include <spdlog/spdlog.h>

#include <cmath>

namespace lumora {

namespace {

using Json = nlohmann::ordered_json;

double seconds(Date d) { return std::chrono::duration<double>(d.time_since_epoch()).count(); }
Date fromSeconds(double s) {
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(s)));
}

template <typename T>
bool read(const Json& j, const char* key, T& out) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_number()) return false;
    double v = it->get<double>();
    if (!std::isfinite(v) || v < 0) return false;
    out = static_cast<T>(v);
    return true;
}

}  // namespace

Json toJson(const SpendSummary& s) {
    Json j;
    j["todayNewTokens"] = s.todayNewTokens;
    Json days = Json::array();
    for (const auto& d : s.days) days.push_back({{"date", seconds(d.date)}, {"tokens", d.tokens}, {"cost", d.cost}});
    j["days"] = days;
    j["todayTokens"] = s.todayTokens;
    j["todayCost"] = s.todayCost;
    j["todayClaude"] = s.todayClaude;
    j["todayCodex"] = s.todayCodex;
    j["todayKimi"] = s.todayKimi;
    j["todayOpenCode"] = s.todayOpenCode;
    j["todayClaudeCost"] = s.todayClaudeCost;
    j["todayCodexCost"] = s.todayCodexCost;
    j["todayKimiCost"] = s.todayKimiCost;
    j["todayOpenCodeCost"] = s.todayOpenCodeCost;
    j["comparisonSameTime"] = s.comparisonSameTime;
    j["comparisonSameTimeCost"] = s.comparisonSameTimeCost;
    j["comparisonDate"] = seconds(s.comparisonDate);
    j["typicalDay"] = s.typicalDay;
    j["typicalDayCost"] = s.typicalDayCost;
    j["unpricedModels"] = s.unpricedModels;
    return j;
}

std::optional<SpendSummary> summaryFromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    SpendSummary s;
    double comparison = 0;
    bool ok = read(j, "todayNewTokens", s.todayNewTokens) && read(j, "todayTokens", s.todayTokens) &&
              read(j, "todayCost", s.todayCost) && read(j, "todayClaude", s.todayClaude) &&
              read(j, "todayCodex", s.todayCodex) && read(j, "todayKimi", s.todayKimi) &&
              read(j, "todayClaudeCost", s.todayClaudeCost) && read(j, "todayCodexCost", s.todayCodexCost) &&
              read(j, "todayKimiCost", s.todayKimiCost) && read(j, "comparisonSameTime", s.comparisonSameTime) &&
              read(j, "comparisonSameTimeCost", s.comparisonSameTimeCost) &&
              read(j, "comparisonDate", comparison) && read(j, "typicalDay", s.typicalDay) &&
              read(j, "typicalDayCost", s.typicalDayCost);
    if (!ok) return std::nullopt;
    read(j, "todayOpenCode", s.todayOpenCode);
    read(j, "todayOpenCodeCost", s.todayOpenCodeCost);
    s.comparisonDate = fromSeconds(comparison);
    if (auto it = j.find("days"); it != j.end() && it->is_array()) {
        for (const auto& d : *it) {
            SpendSummary::Day day;
            double date = 0;
            if (!d.is_object() || !read(d, "date", date) || !read(d, "tokens", day.tokens) || !read(d, "cost", day.cost))
                return std::nullopt;
            day.date = fromSeconds(date);
            s.days.push_back(day);
        }
    }
    if (auto it = j.find("unpricedModels"); it != j.end() && it->is_array()) {
        for (const auto& m : *it) {
            if (m.is_string()) s.unpricedModels.push_back(m.get<std::string>());
        }
    }
    return s;
}

SpendService::SpendService(SpendStore& store, ModelPricing& pricing, SpendScanner::Roots roots, RunLoop& loop,
                           DefaultsStore* defaults)
    : store_(store), pricing_(pricing), scanner_(store, pricing, std::move(roots)), loop_(loop), defaults_(defaults) {
    if (defaults_) {
        if (auto kept = defaults_->dictionary(kSummaryKey)) summary_ = summaryFromJson(*kept);
    }
}

SpendService::~SpendService() {
    stop();
    cancelled_ = true;
    alive_->store(false);
    // A price fetch in flight may still queue a scan: it ends (it sees the
    // cancel) while the scan queue is there to take it.
    pricingQueue_.sync([] {});
    queue_.sync([] {});
}

void SpendService::start(std::chrono::steady_clock::duration interval) {
    refreshNow();
    scanTimer_ = loop_.addTimer(interval, [this] { refreshNow(); });
    auto refreshPrices = [this] {
        pricingQueue_.async([this] {
            uint64_t before = pricing_.generation();
            for (const auto& line : pricing_.refresh(false, std::chrono::hours(24), &cancelled_)) spdlog::info("pricing: {}", line);
            // New prices may price what was unpriced.
            if (pricing_.generation() != before) refreshNow();
        });
    };
    refreshPrices();
    pricingTimer_ = loop_.addTimer(kPricingInterval, refreshPrices);
}

void SpendService::stop() {
    if (scanTimer_) loop_.cancelTimer(scanTimer_);
    if (pricingTimer_) loop_.cancelTimer(pricingTimer_);
    scanTimer_ = pricingTimer_ = 0;
}

void SpendService::refreshNow() {
    if (cancelled_) return;
    {
        std::lock_guard lock(mutex_);
        if (scanQueued_) return;  // the queued scan will see this change too
        scanQueued_ = true;
    }
    queue_.async([this] { scan(); });
}

void SpendService::scan() {
    if (cancelled_) return;  // going away: no scan at shutdown
    {
        std::lock_guard lock(mutex_);
        scanQueued_ = false;
    }
    auto now = std::chrono::system_clock::now();
    auto result = scanner_.scan(now);
    auto summary = SpendSummary::build(result.entries, now);
    bool changed = false;
    {
        std::lock_guard lock(mutex_);
        changed = !summary_ || !(*summary_ == summary);
        summary_ = summary;
    }
    store_.saveIfDirty();
    if (!changed) return;
    if (defaults_) defaults_->setValue(kSummaryKey, toJson(summary));
    auto alive = alive_;
    loop_.post([this, alive] {
        if (!alive->load()) return;
        std::function<void()> notify;
        {
            std::lock_guard lock(mutex_);
            notify = onUpdate_;
        }
        if (notify) notify();
    });
}

std::optional<SpendSummary> SpendService::summary() const {
    std::lock_guard lock(mutex_);
    return summary_;
}

void SpendService::setOnUpdate(std::function<void()> onUpdate) {
    std::lock_guard lock(mutex_);
    onUpdate_ = std::move(onUpdate);
}

}  // namespace lumora
