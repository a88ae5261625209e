#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "lumora/usage/http_client.hpp"
#include "lumora/usage/plan_usage.hpp"

namespace lumora {

// Keeps the providers' usage endpoints from being hammered: an HTTP 429
// shuts that one provider out for a wait that doubles with each refusal in a
// row (300 s, 600 s, 1,200 s, then 1,800 s at most), and a good answer opens
// it again with no strikes. Process-wide, behind one lock that is taken for
// each whole read-modify-write and never across a network call. Nothing is
// persisted: a relaunch starts open.
class UsageBackoff {
public:
    using Seconds = double;

    struct Entry {
        int strikes = 0;  // consecutive 429 answers
        Date until{};     // not asked before this
        bool operator==(const Entry&) const = default;
    };

    static constexpr Seconds kFloor = 300;
    static constexpr Seconds kCap = 1800;
    static constexpr Seconds kWordingThreshold = 90;

    static UsageBackoff& shared();

    // True when the provider may be asked now.
    bool allows(HarnessProvider provider, Date now) const;
    // How long the provider stays shut, while it does.
    std::optional<Seconds> retryIn(HarnessProvider provider, Date now) const;
    // Counts a 429 and shuts the provider out; returns the wait set.
    Seconds note429(HarnessProvider provider, std::optional<Seconds> retryAfter, Date now);
    // A good answer: the provider is open with no strikes.
    void noteOK(HarnessProvider provider);
    // The one call every fetcher makes with its answer: a 429 is counted
    // (true is returned); otherwise, with `clearOnSuccess`, the entry goes.
    bool note(HarnessProvider provider, const HttpResponse& response, bool clearOnSuccess, Date now);
    // The provider's entry, if it has one (diagnostics and tests).
    std::optional<Entry> entry(HarnessProvider provider) const;
    // Forgets every entry (tests).
    void reset();

    // The answer's Retry-After in seconds: a positive decimal number only
    // (the HTTP-date form is not read).
    static std::optional<Seconds> retryAfter(const HttpResponse& response);
    // "in 45s" below 90 seconds, "in 10 min" from there on.
    static std::string humanWait(Seconds seconds);

private:
    mutable std::mutex mutex_;
    std::map<HarnessProvider, Entry> entries_;
};

}  // namespace lumora
