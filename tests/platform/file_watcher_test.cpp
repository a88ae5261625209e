// The file watcher against the real inotify, in a temporary folder: what it
// reports, how it batches, and what it does when the system says no.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <set>

#include "lumora/platform/file_watcher.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;
using Kind = FileWatcher::Target::Kind;

namespace {

// Every batch a subscription received.
class Recorder {
public:
    FileWatcher::OnChange callback() {
        return [this](const std::vector<fs::path>& changed) {
            std::lock_guard lock(mutex_);
            batches_.push_back(changed);
            cv_.notify_all();
        };
    }
    // Waits until some batch (after the first `from`) names `path`.
    bool waitFor(const fs::path& path, size_t from = 0, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] {
            for (size_t i = from; i < batches_.size(); ++i)
                for (const auto& p : batches_[i])
                    if (p == path) return true;
            return false;
        });
    }
    size_t count() const {
        std::lock_guard lock(mutex_);
        return batches_.size();
    }
    // Whether some batch (after the first `from`) names `path`.
    bool named(const fs::path& path, size_t from = 0) const {
        std::lock_guard lock(mutex_);
        for (size_t i = from; i < batches_.size(); ++i)
            for (const auto& p : batches_[i])
                if (p == path) return true;
        return false;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::vector<fs::path>> batches_;
};

void append(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::app) << text; }

}  // namespace

TEST(FileWatcher, SeesWritesInPlaceRenamesAndFoldersThatComeBack) {
    TempDir dir;
    fs::create_directories(dir / "journals");
    writeFile(dir / "journals/a.jsonl", "{}\n");
    writeFile(dir / "journals/other.jsonl", "{}\n");
    auto watcher = FileWatcher::create();
    ASSERT_FALSE(watcher->problem()) << *watcher->problem();
    Recorder seen;
    auto id = watcher->subscribe(seen.callback());
    watcher->setWatched(id, {{dir / "journals/a.jsonl", Kind::file},
                             {dir / "index", Kind::folder},             // not there yet
                             {dir / "later/deep/b.jsonl", Kind::file}});  // nor its folders

    // A file written in place; a neighbour that nobody watches is not reported.
    append(dir / "journals/other.jsonl", "{}\n");
    append(dir / "journals/a.jsonl", "{\"type\":\"user\"}\n");
    EXPECT_TRUE(seen.waitFor(dir / "journals/a.jsonl"));
    EXPECT_FALSE(seen.named(dir / "journals/other.jsonl"));

    // Replaced by a rename, as agents write their state files.
    size_t before = seen.count();
    writeFile(dir / "journals/.a.tmp", "{\"status\":\"waiting\"}");
    fs::rename(dir / "journals/.a.tmp", dir / "journals/a.jsonl");
    EXPECT_TRUE(seen.waitFor(dir / "journals/a.jsonl", before));

    // A folder that appears, then its entries.
    fs::create_directories(dir / "index");
    EXPECT_TRUE(seen.waitFor(dir / "index"));
    before = seen.count();
    writeFile(dir / "index/42.json", "{}");
    EXPECT_TRUE(seen.waitFor(dir / "index", before));

    // Removed while watched, then made again: watched again.
    before = seen.count();
    fs::remove_all(dir / "index");
    EXPECT_TRUE(seen.waitFor(dir / "index", before));
    fs::create_directories(dir / "index");
    before = seen.count();
    writeFile(dir / "index/43.json", "{}");
    EXPECT_TRUE(seen.waitFor(dir / "index", before));

    // A file whose folders do not exist yet is seen once they and it are made.
    fs::create_directories(dir / "later/deep");
    append(dir / "later/deep/b.jsonl", "{}\n");
    EXPECT_TRUE(seen.waitFor(dir / "later/deep/b.jsonl"));

    // Watches follow the targets: a dropped one is no longer reported.
    watcher->setWatched(id, {{dir / "index", Kind::folder}});
    before = seen.count();
    append(dir / "journals/a.jsonl", "{}\n");
    writeFile(dir / "index/44.json", "{}");
    EXPECT_TRUE(seen.waitFor(dir / "index", before));
    EXPECT_FALSE(seen.named(dir / "journals/a.jsonl", before));
    watcher->unsubscribe(id);
    EXPECT_EQ(watcher->watchCount(), 0u);
}

TEST(FileWatcher, BatchesBurstsIntoFewReports) {
    TempDir dir;
    fs::create_directories(dir / "busy");
    FileWatcher::Options options;
    options.settle = 30ms;
    auto watcher = FileWatcher::create(options);
    Recorder seen;
    auto id = watcher->subscribe(seen.callback());
    watcher->setWatched(id, {{dir / "busy/wire.jsonl", Kind::file}, {dir / "busy", Kind::folder}});

    // A journal written line by line, as fast as it goes.
    auto start = std::chrono::steady_clock::now();
    {
        std::ofstream out(dir / "busy/wire.jsonl");
        for (int i = 0; i < 20000; ++i) out << "{\"n\":" << i << "}\n" << std::flush;
    }
    // 5,000 files appearing at once.
    for (int i = 0; i < 5000; ++i) std::ofstream(dir / ("busy/f" + std::to_string(i)));
    auto took = std::chrono::steady_clock::now() - start;
    size_t before = seen.count();
    append(dir / "busy/wire.jsonl", "{}\n");
    ASSERT_TRUE(seen.waitFor(dir / "busy/wire.jsonl", before));
    // At most one report per settling window while it went on (and a few at its edges).
    auto windows = static_cast<size_t>(took / options.settle);
    EXPECT_LE(seen.count(), windows + 4) << "over " << std::chrono::duration_cast<std::chrono::milliseconds>(took).count()
                                         << " ms";
    watcher->unsubscribe(id);
}

TEST(FileWatcher, FifosAndLinkLoopsAreOnlyNames) {
    TempDir dir;
    fs::create_directories(dir / "s");
    writeFile(dir / "s/state.json", "{}");
    fs::create_symlink(dir / "loop-b", dir / "loop-a");
    fs::create_symlink(dir / "loop-a", dir / "loop-b");
    auto watcher = FileWatcher::create();
    Recorder seen;
    auto id = watcher->subscribe(seen.callback());
    watcher->setWatched(id, {{dir / "s/state.json", Kind::file}, {dir / "loop-a", Kind::folder}});

    // The file replaced by a FIFO: reported, never opened.
    fs::remove(dir / "s/state.json");
    ASSERT_EQ(::mkfifo((dir / "s/state.json").c_str(), 0600), 0);
    EXPECT_TRUE(seen.waitFor(dir / "s/state.json"));

    // A link loop where a folder should be is watched for until a folder replaces it.
    fs::remove(dir / "loop-a");
    fs::create_directory(dir / "loop-a");
    EXPECT_TRUE(seen.waitFor(dir / "loop-a"));
    size_t before = seen.count();
    writeFile(dir / "loop-a/x", "1");
    EXPECT_TRUE(seen.waitFor(dir / "loop-a", before));
    watcher->unsubscribe(id);
}

TEST(FileWatcher, SaysWhyWhenTheSystemRefuses) {
    TempDir dir;
    for (auto name : {"a", "b", "c"}) fs::create_directories(dir / name);

    // The limit of watches reached: what could be placed still reports.
    FileWatcher::Options options;
    options.maxWatches = 2;
    auto limited = FileWatcher::create(options);
    Recorder seen;
    auto id = limited->subscribe(seen.callback());
    limited->setWatched(id, {{dir / "a", Kind::folder}, {dir / "b", Kind::folder}, {dir / "c", Kind::folder}});
    ASSERT_TRUE(limited->problem());
    EXPECT_NE(limited->problem()->find("limit"), std::string::npos) << *limited->problem();
    EXPECT_EQ(limited->watchCount(), 2u);
    writeFile(dir / "a/x", "1");
    EXPECT_TRUE(seen.waitFor(dir / "a"));
    // Fewer targets: everything fits again.
    limited->setWatched(id, {{dir / "c", Kind::folder}});
    EXPECT_FALSE(limited->problem());
    limited->unsubscribe(id);

    // No descriptor to be had: no inotify at all, and nothing breaks.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit none = saved;
    none.rlim_cur = 3;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    auto dead = FileWatcher::create();
    ::setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(dead->problem());
    EXPECT_NE(dead->problem()->find("inotify is not available"), std::string::npos) << *dead->problem();
    auto deadId = dead->subscribe([](const auto&) {});
    dead->setWatched(deadId, {{dir / "a", Kind::folder}});
    EXPECT_EQ(dead->watchCount(), 0u);
    dead->unsubscribe(deadId);
}
