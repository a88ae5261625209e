#include "lumora/usage/usage_poller.hpp"

#include <algorithm>

#include <spdlog/spdlog.h>

namespace lumora {

namespace {

double secondsBetween(Date a, Date b) { return std::chrono::duration<double>(b - a).count(); }

std::chrono::milliseconds millis(double seconds) {
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
}

}  // namespace

UsagePoller::UsagePoller(Dependencies deps)
    : deps_(std::move(deps)), loop_(deps_.loop ? *deps_.loop : RunLoop::main()),
      queue_(std::make_unique<SerialQueue>("lumora.usage")) {}

UsagePoller::~UsagePoller() {
    alive_.reset();
    cancel_->store(true);
    if (timer_) loop_.cancelTimer(*timer_);
    queue_.reset();  // a read in flight sees the cancel and ends; then the worker joins
}

Date UsagePoller::now() const { return deps_.clock ? deps_.clock() : std::chrono::system_clock::now(); }

std::optional<PlanUsage> UsagePoller::mergedUsage(const std::optional<PlanUsage>& fetched,
                                                  const std::optional<PlanUsage>& lastGood,
                                                  std::optional<Seconds> lastGoodAge) {
    if (fetched) return fetched;
    if (lastGood && lastGoodAge && *lastGoodAge < kDarkAfter) return lastGood;
    return std::nullopt;
}

void UsagePoller::start() {
    if (running_) return;
    running_ = true;
    if (!enabled_) return;
    seed();
    runCycle();
    scheduleTimer();
}

void UsagePoller::stop() {
    if (!running_) return;
    running_ = false;
    cancelInFlight();
    if (timer_) loop_.cancelTimer(*timer_);
    timer_.reset();
    interval_.reset();
}

void UsagePoller::setEnabled(bool enabled) {
    if (enabled == enabled_) return;
    enabled_ = enabled;
    if (!enabled) {
        cancelInFlight();
        if (timer_) loop_.cancelTimer(*timer_);
        timer_.reset();
        interval_.reset();
        known_.clear();
        probes_.clear();
        pace_.clear();
        if (!readings_.empty()) {
            readings_.clear();
            publish();
        }
        return;
    }
    if (!running_) return;
    seed();
    runCycle();
    scheduleTimer();
}

void UsagePoller::refreshNow() {
    if (running_ && enabled_) runCycle();
}

void UsagePoller::cancelInFlight() {
    // The read in flight aborts; whatever it still posts belongs to an old generation.
    cancel_->store(true);
    cancel_ = std::make_shared<std::atomic<bool>>(false);
    ++generation_;
    inFlight_ = false;
}

void UsagePoller::seed() {
    if (!deps_.cache) return;
    Date at = now();
    for (const auto& source : deps_.sources) {
        auto key = UsageSnapshotCache::provider(source->provider());
        auto age = deps_.cache->age(key, at);
        if (!age || *age >= kDarkAfter) continue;
        auto usage = deps_.cache->load(key);
        if (!usage) continue;
        auto& k = known_[source->provider()];
        k.lastGood = std::move(usage);
        k.goodAt = at - std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(std::max(0.0, *age)));
    }
    rebuild(at);
}

void UsagePoller::runCycle() {
    if (inFlight_) return;
    inFlight_ = true;
    auto cancel = cancel_;
    long long generation = generation_;
    std::weak_ptr<bool> alive = alive_;
    queue_->async([this, cancel, generation, alive] {
        // Local sources first: a slow network never holds them back.
        for (bool network : {false, true}) {
            for (const auto& source : deps_.sources) {
                if (source->usesNetwork() != network) continue;
                if (cancel->load()) return;
                Date at = now();
                auto provider = source->provider();
                if (network && deps_.cache &&
                    deps_.cache->isFresh(UsageSnapshotCache::provider(provider), kFreshFor, at))
                    continue;
                QuotaFetch fetch = source->fetch(at, *cancel);
                if (cancel->load()) return;
                if (fetch.probe.usage && deps_.cache)
                    deps_.cache->store(fetch.probe.usage, UsageSnapshotCache::provider(provider),
                                       fetch.readingAt.value_or(at));
                loop_.post([this, alive, generation, fetch = std::move(fetch), at] {
                    if (!alive.lock() || generation != generation_) return;
                    apply(fetch, at);
                });
            }
        }
        loop_.post([this, alive, generation] {
            if (!alive.lock() || generation != generation_) return;
            finishCycle();
        });
    });
}

void UsagePoller::apply(const QuotaFetch& fetch, Date at) {
    auto provider = fetch.probe.provider;
    probes_[provider] = fetch.probe;
    auto& k = known_[provider];
    if (fetch.probe.usage) {
        k.lastGood = fetch.probe.usage;
        k.goodAt = fetch.readingAt.value_or(at);
        observePace(provider, *k.lastGood, k.goodAt, at);
    } else {
        std::optional<Seconds> age;
        if (k.lastGood) age = secondsBetween(k.goodAt, at);
        if (!mergedUsage(std::nullopt, k.lastGood, age)) k.lastGood.reset();
    }
    rebuild(at);
}

void UsagePoller::finishCycle() {
    inFlight_ = false;
    ++cycles_;
    scheduleTimer();
    publish();
}

void UsagePoller::observePace(HarnessProvider provider, const PlanUsage& usage, Date goodAt, Date at) {
    // Only numbers that are true now may raise an alert.
    if (secondsBetween(goodAt, at) > QuotaReading::kStaleAfter) return;
    for (const auto& w : usage.windows) {
        auto key = std::string(scrivet::rawValue(provider)) + "|" + w.label;
        auto estimate = PaceEstimate::estimate(w, goodAt);
        auto fired = pace_[key].observe(w, estimate);
        if (!fired || !estimate) continue;
        std::string name = w.name.empty() ? w.label : w.name;
        std::string text = w.isDepleted() ? name + " is used up" : name + " runs out in " + Pace::compact(estimate->verdict.eta);
        if (w.resetsAt)
            text += (w.isDepleted() ? ", until its reset in " : ", before its reset in ") +
                    Pace::compact(std::max(0.0, secondsBetween(goodAt, *w.resetsAt)));
        alert_ = UsageAlert{++alertToken_, provider, w.label, text};
        spdlog::info("Lumora: {} {}", scrivet::displayName(provider), text);
    }
}

void UsagePoller::rebuild(Date at) {
    std::vector<QuotaReading> next;
    for (const auto& source : deps_.sources) {
        auto provider = source->provider();
        auto it = known_.find(provider);
        if (it == known_.end() || !it->second.lastGood) continue;
        if (secondsBetween(it->second.goodAt, at) >= kDarkAfter) continue;  // dark for a week: hidden
        QuotaReading r;
        r.provider = provider;
        r.usage = *it->second.lastGood;
        r.fetchedAt = it->second.goodAt;
        if (auto p = probes_.find(provider); p != probes_.end()) {
            r.blocker = p->second.blocker;
            r.status = p->second.status;
            r.retryIn = p->second.retryIn;
        }
        next.push_back(std::move(r));
    }
    if (next != readings_) {
        readings_ = std::move(next);
        publish();
    }
}

void UsagePoller::scheduleTimer() {
    if (!running_ || !enabled_) return;
    bool pressure = std::any_of(readings_.begin(), readings_.end(),
                                [](const QuotaReading& r) { return r.usage.hasPressure(); });
    Seconds wanted = pressure ? kPressureInterval : kCalmInterval;
    if (timer_ && interval_ == wanted) return;
    if (timer_) loop_.cancelTimer(*timer_);
    interval_ = wanted;
    timer_ = loop_.addTimer(millis(wanted), [this] { runCycle(); });
}

void UsagePoller::publish() {
    if (onPublish_) onPublish_();
}

}  // namespace lumora
