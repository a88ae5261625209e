// Arbitrary bytes as the usage endpoint's answer, as a Retry-After header, as
// a stored snapshot and as a Codex rate-limits line: reading them must never
// crash or throw, and whatever reads as a quota must be one we can draw
// (finite numbers, labelled windows) and must survive the snapshot round trip.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/base/json_text.hpp"
#include "lumora/usage/codex_rate_limits.hpp"
#include "lumora/usage/pace.hpp"
#include "lumora/usage/usage_backoff.hpp"
#include "lumora/usage/usage_probe.hpp"
#include "lumora/usage/usage_snapshot_cache.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const Date now = Date{} + std::chrono::seconds(1'800'000'000);

    if (auto usage = PlanUsage::parse(bytes)) {
        if (usage->windows.empty()) __builtin_trap();
        for (const auto& w : usage->windows) {
            if (!std::isfinite(w.percentUsed) || w.label.empty()) __builtin_trap();
            double left = w.percentLeft();
            if (left < 0 || left > 100) __builtin_trap();
            (void)percentLeftText(w);
            if (auto e = PaceEstimate::estimate(w, now)) (void)e->label();
        }
        (void)usage->hasPressure();
        auto stored = UsageSnapshotCache::decode(UsageSnapshotCache::encode(*usage, now));
        if (!stored || stored->windows.size() != usage->windows.size()) __builtin_trap();
        for (size_t i = 0; i < usage->windows.size(); ++i) {
            const auto &a = usage->windows[i], &b = stored->windows[i];
            if (a.label != b.label || a.percentUsed != b.percentUsed || a.resetsAt.has_value() != b.resetsAt.has_value())
                __builtin_trap();
            // Seconds as a double keep the time to well within a microsecond.
            if (a.resetsAt && std::chrono::abs(*a.resetsAt - *b.resetsAt) > std::chrono::microseconds(1)) __builtin_trap();
        }
        UsageProbe probe;
        probe.usage = usage;
        (void)probe.line();
    }
    (void)PlanUsage::parseDate(bytes);

    HttpResponse response;
    response.status = 429;
    response.headers["retry-after"] = std::string(bytes.substr(0, 64));
    if (auto wait = UsageBackoff::retryAfter(response); wait && !(*wait > 0)) __builtin_trap();
    UsageBackoff backoff;
    double set = backoff.note429(HarnessProvider::claudeCode, UsageBackoff::retryAfter(response), now);
    if (set < UsageBackoff::kFloor || set > UsageBackoff::kCap) __builtin_trap();

    if (auto json = JsonText::parse(bytes, 32)) {
        (void)UsageSnapshotCache::decode(*json);
        if (auto codex = CodexRateLimits::fromPayload(*json, now)) {
            for (const auto& w : codex->windows)
                if (!std::isfinite(w.percentUsed)) __builtin_trap();
        }
    }
    return 0;
}
