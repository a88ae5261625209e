#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumora/base/run_loop.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/usage/quota_reading.hpp"
#include "lumora/usage/quota_sources.hpp"
#include "lumora/usage/usage_snapshot_cache.hpp"

namespace lumora {

// Keeps every metered provider's quota current for the views. At start it
// shows the snapshots of the last week at once, then reads every provider
// and polls again every 60 s while some window is under pressure, every
// 300 s otherwise. Reads run on the usage worker ("lumora.usage"), local
// sources first and the network last, never on the main loop or a monitor
// queue; results are published on the main loop. A failed read keeps the
// last good numbers for up to a week. Good readings are stored in the
// snapshot cache; a window turning to run out before its reset raises one
// alert per cycle. Everything but the constructor's sources is used on the
// main loop's thread.
class UsagePoller {
public:
    using Seconds = double;

    struct Dependencies {
        std::vector<std::unique_ptr<QuotaSource>> sources;  // in the order readings are shown
        UsageSnapshotCache* cache = nullptr;                // none: nothing seeded or stored
        RunLoop* loop = nullptr;                            // none: RunLoop::main()
        std::function<Date()> clock;                        // none: the system clock; called on both threads
    };

    static constexpr Seconds kCalmInterval = 300;
    static constexpr Seconds kPressureInterval = 60;
    static constexpr Seconds kDarkAfter = 604800;  // a provider silent this long hides
    static constexpr Seconds kFreshFor = 55;       // a network reading this young is not asked again

    explicit UsagePoller(Dependencies deps);
    ~UsagePoller();
    UsagePoller(const UsagePoller&) = delete;
    UsagePoller& operator=(const UsagePoller&) = delete;

    // Seeds from the snapshots, reads at once and schedules the timer (when enabled).
    void start();
    // Cancels the timer and any read in flight; what is shown stays.
    void stop();
    // Plan usage on or off: off stops the timer, aborts a read in flight and
    // hides every reading; on starts over from the snapshots.
    void setEnabled(bool enabled);
    bool enabled() const { return enabled_; }
    // Reads every provider now, unless a read is already in flight.
    void refreshNow();

    // The readings shown, in source order.
    const std::vector<QuotaReading>& readings() const { return readings_; }
    // The latest diagnosis per provider.
    const std::map<HarnessProvider, UsageProbe>& probes() const { return probes_; }
    // The latest quota alert.
    const std::optional<UsageAlert>& alert() const { return alert_; }
    // The timer's interval while one is scheduled.
    std::optional<Seconds> scheduledInterval() const { return interval_; }
    bool cycleInFlight() const { return inFlight_; }
    // Finished read cycles (diagnostics and tests).
    long long cycleCount() const { return cycles_; }

    // Called on the main loop after anything above changed.
    void setOnPublish(std::function<void()> f) { onPublish_ = std::move(f); }

    // A fetch merged with the last good reading: a good fetch wins; a failed
    // one keeps the last good numbers while they are younger than a week.
    static std::optional<PlanUsage> mergedUsage(const std::optional<PlanUsage>& fetched,
                                                const std::optional<PlanUsage>& lastGood,
                                                std::optional<Seconds> lastGoodAge);

private:
    struct Known {
        std::optional<PlanUsage> lastGood;
        Date goodAt{};
    };

    Date now() const;
    void seed();
    void runCycle();
    void apply(const QuotaFetch& fetch, Date at);
    void finishCycle();
    void observePace(HarnessProvider provider, const PlanUsage& usage, Date goodAt, Date at);
    void rebuild(Date at);
    void scheduleTimer();
    void cancelInFlight();
    void publish();

    Dependencies deps_;
    RunLoop& loop_;
    std::unique_ptr<SerialQueue> queue_;

    // Main-thread state.
    bool running_ = false;
    bool enabled_ = true;
    bool inFlight_ = false;
    long long generation_ = 0;
    long long cycles_ = 0;
    long long alertToken_ = 0;
    std::shared_ptr<std::atomic<bool>> cancel_ = std::make_shared<std::atomic<bool>>(false);
    std::map<HarnessProvider, Known> known_;
    std::map<HarnessProvider, UsageProbe> probes_;
    std::map<std::string, PaceAlertState> pace_;
    std::vector<QuotaReading> readings_;
    std::optional<UsageAlert> alert_;
    std::optional<RunLoop::TimerId> timer_;
    std::optional<Seconds> interval_;
    std::function<void()> onPublish_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace lumora
