#include "lumora/usage/quota_reading.hpp"

#include <algorithm>

namespace lumora {

std::string QuotaReading::label() const {
    std::string out(scrivet::planName(provider));
    if (usage.planName && !usage.planName->empty()) out += " · " + *usage.planName;
    return out;
}

bool QuotaReading::isStale(Date now) const {
    return std::chrono::duration<double>(now - fetchedAt).count() > kStaleAfter;
}

PlanUsage::Window QuotaReading::shown(const PlanUsage::Window& window, Date now) const {
    PlanUsage::Window w = window;
    if (w.resetsAt && *w.resetsAt <= now) {
        w.percentUsed = 0;
        w.resetsAt.reset();  // the next reset is not known yet
    }
    return w;
}

std::optional<PaceEstimate> QuotaReading::pace(const PlanUsage::Window& window, Date now) const {
    if (isStale(now)) return std::nullopt;
    if (window.resetsAt && *window.resetsAt <= now) return std::nullopt;  // a new cycle: nothing known of it yet
    // Projected from when the numbers were true, then brought to now.
    auto e = PaceEstimate::estimate(window, fetchedAt);
    if (e && e->verdict.kind == PaceEstimate::Kind::behind) {
        double since = std::max(0.0, std::chrono::duration<double>(now - fetchedAt).count());
        e->verdict.eta = std::max(0.0, e->verdict.eta - since);
    }
    return e;
}

}  // namespace lumora
