#include "lumora/usage/usage_backoff.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <locale>
#include <sstream>

namespace lumora {

namespace {

Date plusSeconds(Date t, double s) {
    return t + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(s));
}

}  // namespace

UsageBackoff& UsageBackoff::shared() {
    static UsageBackoff backoff;
    return backoff;
}

bool UsageBackoff::allows(HarnessProvider provider, Date now) const { return !retryIn(provider, now); }

std::optional<UsageBackoff::Seconds> UsageBackoff::retryIn(HarnessProvider provider, Date now) const {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(provider);
    if (it == entries_.end() || it->second.until <= now) return std::nullopt;
    return std::chrono::duration<double>(it->second.until - now).count();
}

UsageBackoff::Seconds UsageBackoff::note429(HarnessProvider provider, std::optional<Seconds> retryAfter, Date now) {
    std::lock_guard lock(mutex_);
    auto& e = entries_[provider];
    int strikes = e.strikes;
    // The first 429 costs the floor; each later one doubles it, up to the cap.
    int exponent = std::min(strikes, 8);
    Seconds wait = std::min(kCap, kFloor * std::pow(2.0, exponent));
    if (retryAfter && std::isfinite(*retryAfter) && *retryAfter > wait) wait = std::min(*retryAfter, kCap);
    e.strikes = strikes < 1000000 ? strikes + 1 : strikes;
    e.until = plusSeconds(now, wait);
    return wait;
}

void UsageBackoff::noteOK(HarnessProvider provider) {
    std::lock_guard lock(mutex_);
    entries_.erase(provider);
}

bool UsageBackoff::note(HarnessProvider provider, const HttpResponse& response, bool clearOnSuccess, Date now) {
    if (response.status == 429) {
        note429(provider, retryAfter(response), now);
        return true;
    }
    if (clearOnSuccess) noteOK(provider);
    return false;
}

std::optional<UsageBackoff::Entry> UsageBackoff::entry(HarnessProvider provider) const {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(provider);
    if (it == entries_.end()) return std::nullopt;
    return it->second;
}

void UsageBackoff::reset() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

std::optional<UsageBackoff::Seconds> UsageBackoff::retryAfter(const HttpResponse& response) {
    auto raw = response.header("retry-after");
    if (!raw) return std::nullopt;
    std::string s = *raw;
    size_t b = s.find_first_not_of(" \t\r\n");
    size_t e = s.find_last_not_of(" \t\r\n");
    if (b == std::string::npos) return std::nullopt;
    s = s.substr(b, e - b + 1);
    // A plain decimal number in the C locale; "abc", "12abc" and dates are not.
    std::istringstream in(s);
    in.imbue(std::locale::classic());
    double value = 0;
    in >> value;
    if (in.fail() || !in.eof()) return std::nullopt;
    if (!std::isfinite(value) || value <= 0) return std::nullopt;
    return value;
}

std::string UsageBackoff::humanWait(Seconds seconds) {
    if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
    seconds = std::min(seconds, 1e9);
    if (seconds < kWordingThreshold) {
        long long s = std::max(1LL, static_cast<long long>(std::round(seconds)));
        return "in " + std::to_string(s) + "s";
    }
    return "in " + std::to_string(static_cast<long long>(std::round(seconds / 60))) + " min";
}

}  // namespace lumora
