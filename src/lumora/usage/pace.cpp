#include "lumora/usage/pace.hpp"

#include <algorithm>
#include <cmath>

namespace lumora {

namespace {

// Resets that differ by less than this are the same cycle (the provider's
// reset time wobbles by fractions of a second between answers).
constexpr double kSameCycle = 120;

double seconds(Date::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

std::optional<PaceEstimate> PaceEstimate::estimate(const PlanUsage::Window& w, Date now) {
    if (!w.resetsAt || !w.period || !std::isfinite(*w.period) || *w.period <= 0) return std::nullopt;
    double period = *w.period;
    double remaining = std::max(0.0, seconds(*w.resetsAt - now));
    double elapsed = period - remaining;
    double needed = std::max(60.0, period * 0.01);
    if (elapsed < needed) return std::nullopt;  // too early to project
    if (!std::isfinite(w.percentUsed) || w.percentUsed < 5) return std::nullopt;
    double rate = w.percentUsed / elapsed;
    PaceEstimate e;
    e.projectedPercent = period * rate;
    e.fractionElapsed = std::clamp(elapsed / period, 0.0, 1.0);
    if (e.projectedPercent <= 90) e.verdict = {Kind::ahead, 0};
    else if (e.projectedPercent <= 100) e.verdict = {Kind::onTrack, 0};
    else e.verdict = {Kind::behind, std::max(0.0, (100 - w.percentUsed) / rate)};
    return e;
}

std::string PaceEstimate::label() const {
    switch (verdict.kind) {
        case Kind::ahead: return "under pace";
        case Kind::onTrack: return "on pace";
        case Kind::behind: return "runs out in " + Pace::compact(verdict.eta);
    }
    return {};
}

std::string Pace::compact(double secs) {
    if (!std::isfinite(secs) || secs < 0) secs = 0;
    secs = std::min(secs, 1e10);
    long long minutes = std::max(1LL, static_cast<long long>(std::ceil(secs / 60)));
    // Built by appending: GCC 12 warns falsely on `" " + std::to_string(...)` in optimised builds.
    std::string out;
    auto piece = [&](long long value, char unit) {
        if (!out.empty()) out += ' ';
        out += std::to_string(value);
        out += unit;
    };
    if (minutes < 60) {
        piece(minutes, 'm');
    } else if (minutes < 1440) {
        piece(minutes / 60, 'h');
        if (minutes % 60) piece(minutes % 60, 'm');
    } else {
        piece(minutes / 1440, 'd');
        if ((minutes % 1440) / 60) piece((minutes % 1440) / 60, 'h');
    }
    return out;
}

std::optional<PaceAlertState::Milestone> PaceAlertState::observe(const PlanUsage::Window& window,
                                                                 const std::optional<PaceEstimate>& estimate) {
    bool nowBehind = estimate && estimate->verdict.kind == PaceEstimate::Kind::behind;
    if (!primed) {
        // Launching in the middle of a crisis stays silent.
        primed = true;
        cycle = window.resetsAt;
        behind = nowBehind;
        announced = nowBehind;
        return std::nullopt;
    }
    bool newCycle = window.resetsAt && (!cycle || seconds(*window.resetsAt - *cycle) > kSameCycle);
    if (newCycle) {
        cycle = window.resetsAt;
        announced = false;
    }
    std::optional<Milestone> fired;
    if (nowBehind && !behind && !announced) {
        fired = Milestone::willRunOut;
        announced = true;
    }
    behind = nowBehind;
    return fired;
}

}  // namespace lumora
