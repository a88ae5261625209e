#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "lumora/base/defaults_store.hpp"
#include "lumora/base/run_loop.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/spend_history.hpp"
#include "lumora/spend/spend_scanner.hpp"
#include "lumora/spend/spend_store.hpp"

namespace lumora {

// Keeps today's spend figures current for a running app, away from
// everything a user waits on: scans run on their own queue ("lumora.spend")
// every minute, price lists are refreshed on another ("lumora.pricing") at
// most daily, and a new summary is announced on the main loop. The last
// summary is kept in the user defaults ("spendSummaryCache.v1"), so figures
// show at once after a restart.
class SpendService {
public:
    static constexpr auto kScanInterval = std::chrono::seconds(60);
    static constexpr auto kPricingInterval = std::chrono::hours(6);
    static constexpr const char* kSummaryKey = "spendSummaryCache.v1";

    // `defaults` may be null (no summary is kept between runs).
    SpendService(SpendStore& store, ModelPricing& pricing, SpendScanner::Roots roots, RunLoop& loop,
                 DefaultsStore* defaults);
    ~SpendService();

    // Scans now and then every `interval`; refreshes the price lists in the background.
    void start(std::chrono::steady_clock::duration interval = kScanInterval);
    void stop();
    // Queues one scan.
    void refreshNow();

    // The latest summary (or the one kept from the last run), if any.
    std::optional<SpendSummary> summary() const;
    // Called on the main loop after each scan that changed the summary.
    void setOnUpdate(std::function<void()> onUpdate);

private:
    void scan();

    SpendStore& store_;
    ModelPricing& pricing_;
    SpendScanner scanner_;
    RunLoop& loop_;
    DefaultsStore* defaults_;
    mutable std::mutex mutex_;
    std::optional<SpendSummary> summary_;
    std::function<void()> onUpdate_;
    std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
    RunLoop::TimerId scanTimer_ = 0, pricingTimer_ = 0;
    bool scanQueued_ = false;  // guarded by mutex_
    std::atomic<bool> cancelled_{false};  // ends a price fetch when the service goes
    SerialQueue pricingQueue_{"lumora.pricing"};
    SerialQueue queue_{"lumora.spend"};
};

// The summary in the user defaults' form, and back.
nlohmann::ordered_json toJson(const SpendSummary& s);
std::optional<SpendSummary> summaryFromJson(const nlohmann::ordered_json& j);

}  // namespace lumora
