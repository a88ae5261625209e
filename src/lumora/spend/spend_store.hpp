#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lumora/base/status.hpp"
#include "lumora/spend/spend_event.hpp"

namespace lumora {

// What is known of every journal file that has been read, saved between runs
// as "spend-cache.json" in the support folder, so that an unchanged file
// costs one look at its size and time and a grown one only its new bytes.
//
// The cache file is never trusted: one that does not parse, has another
// version or holds impossible entries reads as empty and is rebuilt.
class SpendStore {
public:
    // One journal file.
    struct CachedFile {
        uint64_t size = 0;         // bytes, when it was read
        Date mtime{};              // modification time, when it was read
        std::vector<SpendEvent> events;
        uint64_t parsedBytes = 0;  // how far it has been read: the next read starts here
        uint64_t inode = 0;        // tells a replaced file from a grown one
        bool operator==(const CachedFile&) const = default;
    };
    using FileMap = std::unordered_map<std::string, CachedFile>;

    // The saved form.
    struct Persisted {
        int version = 0;
        FileMap claude, codex, kimi;
        bool operator==(const Persisted&) const = default;
    };
    static constexpr int kVersion = 1;

    // The store at the support folder's "spend-cache.json".
    static SpendStore& shared();
    explicit SpendStore(std::filesystem::path cacheURL);

    const std::filesystem::path& cacheURL() const { return cacheURL_; }

    // Reads the cache file once (later calls do nothing). A missing file is
    // an empty cache; a bad one is an empty cache marked dirty, so the next
    // save replaces it.
    void loadIfNeeded();
    // Writes the cache file when something changed since the last save.
    Status saveIfDirty();

    // The maps and the dirty flag, for the scanner; hold the lock while using them.
    std::mutex& mutex() { return mutex_; }
    FileMap& claudeCache() { return persisted_.claude; }
    FileMap& codexCache() { return persisted_.codex; }
    FileMap& kimiCache() { return persisted_.kimi; }
    FileMap& cache(SpendProvider provider);
    bool dirty = false;

    // The cache file's text, and back (nothing for text that is not a valid
    // cache of this version).
    static std::string encode(const Persisted& persisted);
    static std::optional<Persisted> decode(std::string_view text);

private:
    std::filesystem::path cacheURL_;
    std::mutex mutex_;
    bool loaded_ = false;
    Persisted persisted_;
};

}  // namespace lumora
