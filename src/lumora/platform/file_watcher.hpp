#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lumora {

// How a FileWatcher batches and bounds its work.
struct FileWatcherOptions {
    // Changes that arrive within this long of the first one are reported
    // together, so a file written line by line makes one report, not hundreds.
    std::chrono::milliseconds settle{25};
    // At most this many system watches (0: as many as the system allows).
    // Reaching it is handled like reaching the system's own limit.
    size_t maxWatches = 0;
};

// Tells when something changes under chosen folders and files, so callers
// need not poll them. Linux: inotify, with one descriptor served by one
// thread ("lumora.watch") for every path and every subscriber.
//
// A file is watched through its folder, so a file rewritten in place and one
// replaced by a rename (a temporary file, then rename over it) are both
// seen, as is its creation and removal. A folder is watched for its entries
// appearing, vanishing, being renamed or written. A path that does not exist
// yet (or was removed) is watched for its appearance through the nearest
// folder above it that exists, and watched again once it is there. Nothing is
// ever opened or followed beyond the folders themselves: a FIFO or a link
// loop among the entries is only a name.
//
// Changes can still go unseen: when the system offers no watches, when its
// limit on watches is reached, or on file systems that report no events
// (network mounts). problem() then says why; callers keep their own timers
// as the safety net.
class FileWatcher {
public:
    struct Target {
        enum class Kind { file, folder };
        std::filesystem::path path;
        Kind kind = Kind::file;
        auto operator<=>(const Target&) const = default;
        bool operator==(const Target&) const = default;
    };

    using SubscriptionId = uint64_t;
    // Called on the watcher's thread with the watched paths (as given to
    // setWatched) under which something changed, each once per batch.
    using OnChange = std::function<void(const std::vector<std::filesystem::path>& changed)>;
    using Options = FileWatcherOptions;

    // The system's watcher. When the system offers none it still accepts
    // subscriptions and watches nothing; problem() says why.
    static std::unique_ptr<FileWatcher> create(Options options = {});

    // Stops the thread; no callback runs after it returns.
    virtual ~FileWatcher() = default;

    virtual SubscriptionId subscribe(OnChange onChange) = 0;
    // Replaces what the subscription watches. Safe from any thread but the
    // watcher's own (that is, not from inside a callback).
    virtual void setWatched(SubscriptionId id, const std::vector<Target>& targets) = 0;
    // Forgets the subscription; returns once no call of its callback runs.
    // Not from inside a callback.
    virtual void unsubscribe(SubscriptionId id) = 0;

    // Why some changes may go unseen ("inotify is not available: ...", "the
    // limit of watches is reached ..."), or nothing while every watched path
    // that exists reports its changes.
    virtual std::optional<std::string> problem() const = 0;
    // How many system watches are in place (diagnostics and benchmarks).
    virtual size_t watchCount() const = 0;
};

}  // namespace lumora
