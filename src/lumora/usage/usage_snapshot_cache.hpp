#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "lumora/base/defaults_store.hpp"
#include "lumora/usage/plan_usage.hpp"

namespace lumora {

// The last good PlanUsage of each provider, kept in the user defaults under
// "usageSnapshots.v2", so the strip shows real numbers at once after a launch
// and keeps showing them through a failed fetch. A failed fetch never clears
// a snapshot; only clear() does. Its read-modify-write of the defaults and its
// record of what this run stored sit behind one lock.
class UsageSnapshotCache {
public:
    using Seconds = double;

    // The stored providers' keys.
    enum class Provider { claude, codex, cursor, kimi, opencode };
    static std::string_view rawValue(Provider p);
    static Provider provider(HarnessProvider p);

    static constexpr const char* kKey = "usageSnapshots.v2";

    // The cache over the standard defaults.
    static UsageSnapshotCache& shared();
    explicit UsageSnapshotCache(DefaultsStore& defaults);

    // Stores a good reading, saved at `now`; a missing one changes nothing.
    void store(const std::optional<PlanUsage>& usage, Provider provider, Date now);
    // The provider's snapshot, from this run or an earlier one.
    std::optional<PlanUsage> load(Provider provider) const;
    // Stored during this run and younger than `ttl`.
    bool isFresh(Provider provider, Seconds ttl, Date now) const;
    // Seconds since the snapshot was saved.
    std::optional<Seconds> age(Provider provider, Date now) const;
    // Removes one provider's snapshot, or every one.
    void clear(std::optional<Provider> provider = std::nullopt);

    // The stored form of a reading, and back (a window that does not decode is dropped).
    static DefaultsStore::Json encode(const PlanUsage& usage, Date savedAt);
    static std::optional<PlanUsage> decode(const DefaultsStore::Json& snapshot);

private:
    std::optional<DefaultsStore::Json> entry(Provider provider) const;  // requires mutex_

    DefaultsStore& defaults_;
    mutable std::mutex mutex_;
    std::set<Provider> storedThisRun_;
};

}  // namespace lumora
