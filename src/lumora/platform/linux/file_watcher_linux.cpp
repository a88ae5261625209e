#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "lumora/platform/file_watcher.hpp"
#include "lumora/platform/threads.hpp"

namespace lumora {

namespace {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;
using SubscriptionId = FileWatcher::SubscriptionId;

// Every watch is on a folder and asks for the same events, so two paths that
// name one folder (a link, a bind mount) share one watch without one
// narrowing the other's mask.
constexpr uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB |
                                 IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Events that make a missing folder below worth looking for again.
constexpr uint32_t kAppeared = IN_CREATE | IN_MOVED_TO | IN_ATTRIB;
// How many folders above a missing one are watched for it to appear.
constexpr int kMaxClimb = 4;

// Who wants the events of one folder.
struct Interest {
    std::set<SubscriptionId> all;                           // every entry: reports the folder
    std::map<std::string, std::set<SubscriptionId>> names;  // one entry: reports folder/name
    std::set<std::string> revive;                           // missing folders below, by name
    bool empty() const { return all.empty() && names.empty() && revive.empty(); }
};

struct Node {
    int wd = -1;  // -1: not watched (missing, or no watch could be had)
    Interest interest;
};

// The form a target is kept and reported in: lexically normal, no trailing "/".
fs::path normal(const fs::path& p) {
    fs::path n = p.lexically_normal();
    if (!n.has_filename() && n.has_parent_path() && n != n.root_path()) n = n.parent_path();
    return n;
}

class InotifyWatcher final : public FileWatcher {
public:
    explicit InotifyWatcher(Options options) : options_(options) {
        fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ < 0) {
            problem_ = std::string("inotify is not available: ") + std::strerror(errno);
            return;
        }
        wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (wake_ < 0) {
            problem_ = std::string("cannot wake the watcher: ") + std::strerror(errno);
            ::close(fd_);
            fd_ = -1;
            return;
        }
        thread_ = std::thread([this] { run(); });
    }

    ~InotifyWatcher() override {
        if (thread_.joinable()) {
            stopping_ = true;
            signal();
            thread_.join();
        }
        if (wake_ >= 0) ::close(wake_);
        if (fd_ >= 0) ::close(fd_);  // drops every watch
    }

    SubscriptionId subscribe(OnChange onChange) override {
        std::lock_guard lock(mutex_);
        SubscriptionId id = nextId_++;
        subscriptions_[id].onChange = std::move(onChange);
        return id;
    }

    void setWatched(SubscriptionId id, const std::vector<Target>& targets) override {
        std::set<Target> wanted;
        for (const auto& t : targets) {
            if (t.path.empty()) continue;
            wanted.insert(Target{normal(t.path), t.kind});
        }
        bool report;
        {
            std::lock_guard lock(mutex_);
            auto it = subscriptions_.find(id);
            if (it == subscriptions_.end()) return;
            // Unchanged targets are placed again only while some could not be.
            if (it->second.targets == wanted && !retry_) return;
            it->second.targets = std::move(wanted);
            rebuild();
            report = !pending_.empty();
        }
        if (report) signal();
    }

    void unsubscribe(SubscriptionId id) override {
        {
            std::lock_guard lock(mutex_);
            if (!subscriptions_.erase(id)) return;
            pending_.erase(id);
            rebuild();
        }
        // A delivery that took the callback before it was erased ends first.
        std::lock_guard delivering(deliverMutex_);
    }

    std::optional<std::string> problem() const override {
        std::lock_guard lock(mutex_);
        return problem_;
    }

    size_t watchCount() const override {
        std::lock_guard lock(mutex_);
        return byWd_.size();
    }

private:
    struct Subscription {
        OnChange onChange;
        std::set<Target> targets;
    };

    void signal() {
        if (wake_ < 0) return;
        uint64_t one = 1;
        ssize_t n = ::write(wake_, &one, sizeof one);
        (void)n;
    }

    // Places and removes watches so they match what the subscriptions want.
    // Folders that are missing get a watch on the folder above for their name
    // (up to kMaxClimb levels), so their appearance brings them back. A
    // folder watched again after it went missing reports a change: what
    // appeared in it before its watch was in place is otherwise lost.
    void rebuild() {
        if (fd_ < 0) return;
        std::map<fs::path, Interest> want;
        for (const auto& [id, sub] : subscriptions_) {
            for (const auto& t : sub.targets) {
                if (t.kind == Target::Kind::folder) {
                    want[t.path].all.insert(id);
                } else if (t.path.has_parent_path() && t.path.has_filename()) {
                    want[t.path.parent_path()].names[t.path.filename().string()].insert(id);
                }
            }
        }
        std::optional<std::string> trouble;
        bool retry = false;
        std::deque<std::pair<fs::path, int>> work;
        for (const auto& [path, _] : want) work.emplace_back(path, 0);
        std::set<fs::path> done;
        while (!work.empty()) {
            auto [path, climbed] = work.front();
            work.pop_front();
            if (!done.insert(path).second) continue;
            Node& node = nodes_[path];
            bool revived = false;
            if (node.wd < 0) {
                int error = place(path, node);
                if (error == 0) {
                    revived = wasMissing_.erase(path) > 0;
                } else if (error == ENOSPC || error == ENOMEM) {
                    trouble = "the limit of watched folders is reached (fs.inotify.max_user_watches); "
                              "changes are seen at the next tick";
                    wasMissing_.insert(path);
                    retry = true;
                } else {
                    wasMissing_.insert(path);
                    fs::path parent = path.parent_path();
                    if (climbed < kMaxClimb && !parent.empty() && parent != path) {
                        want[parent].revive.insert(path.filename().string());
                        work.emplace_back(parent, climbed + 1);
                    } else {
                        retry = true;  // nothing above it watches for it
                    }
                }
            }
            if (revived) {
                const Interest& in = want[path];
                for (auto id : in.all) pending_[id].insert(path);
                for (const auto& [name, ids] : in.names)
                    for (auto id : ids) pending_[id].insert(path / name);
            }
        }
        bool freed = false;
        for (auto it = nodes_.begin(); it != nodes_.end();) {
            auto w = want.find(it->first);
            if (w == want.end() || w->second.empty()) {
                freed = freed || it->second.wd >= 0;
                unplace(it->first, it->second);
                wasMissing_.erase(it->first);
                it = nodes_.erase(it);
            } else {
                it->second.interest = std::move(w->second);
                ++it;
            }
        }
        problem_ = trouble;
        retry_ = retry;
        // Watches let go of may make room for those the limit refused.
        if (trouble && freed) rebuild();
    }

    // Adds the folder's watch; returns 0 or the error.
    int place(const fs::path& path, Node& node) {
        if (options_.maxWatches && byWd_.size() >= options_.maxWatches) return ENOSPC;
        int wd = ::inotify_add_watch(fd_, path.c_str(), kFolderMask);
        if (wd < 0) return errno;
        node.wd = wd;
        auto& paths = byWd_[wd];
        if (std::find(paths.begin(), paths.end(), path) == paths.end()) paths.push_back(path);
        return 0;
    }

    void unplace(const fs::path& path, Node& node) {
        if (node.wd < 0) return;
        auto it = byWd_.find(node.wd);
        if (it != byWd_.end()) {
            std::erase(it->second, path);
            if (it->second.empty()) {
                ::inotify_rm_watch(fd_, node.wd);
                byWd_.erase(it);
            }
        }
        node.wd = -1;
    }

    // Notes who is interested in one event of the folder at `path`.
    void note(const fs::path& path, const Node& node, const char* name, uint32_t mask, bool& again) {
        const Interest& in = node.interest;
        if (name) {
            for (auto id : in.all) pending_[id].insert(path);
            if (auto it = in.names.find(name); it != in.names.end())
                for (auto id : it->second) pending_[id].insert(path / name);
            if ((mask & kAppeared) && in.revive.count(name)) again = true;
        } else {
            // The folder itself went or moved: everything watched in it changed.
            for (auto id : in.all) pending_[id].insert(path);
            for (const auto& [entry, ids] : in.names)
                for (auto id : ids) pending_[id].insert(path / entry);
        }
    }

    // Reads every queued event; returns whether any was read.
    bool readEvents() {
        alignas(inotify_event) char buf[64 * 1024];
        bool any = false;
        std::lock_guard lock(mutex_);
        bool again = false;
        for (;;) {
            ssize_t n = ::read(fd_, buf, sizeof buf);
            if (n <= 0) break;
            any = true;
            for (char* p = buf; p < buf + n;) {
                auto* e = reinterpret_cast<inotify_event*>(p);
                p += sizeof(inotify_event) + e->len;
                if (e->mask & IN_Q_OVERFLOW) {
                    // Events were lost: everything may have changed.
                    for (const auto& [id, sub] : subscriptions_)
                        for (const auto& t : sub.targets) pending_[id].insert(t.path);
                    again = true;
                    continue;
                }
                auto it = byWd_.find(e->wd);
                if (it == byWd_.end()) continue;
                const char* name = e->len > 0 && e->name[0] ? e->name : nullptr;
                std::vector<fs::path> paths = it->second;
                for (const auto& path : paths) {
                    auto node = nodes_.find(path);
                    if (node == nodes_.end()) continue;
                    note(path, node->second, name, e->mask, again);
                }
                if (e->mask & (IN_IGNORED | IN_MOVE_SELF)) {
                    // Removed, or moved elsewhere (its watch would follow it):
                    // watched again by path, now or once it is back.
                    if (e->mask & IN_MOVE_SELF) ::inotify_rm_watch(fd_, e->wd);
                    for (const auto& path : paths) {
                        if (auto node = nodes_.find(path); node != nodes_.end()) node->second.wd = -1;
                        wasMissing_.insert(path);
                    }
                    byWd_.erase(e->wd);
                    again = true;
                }
            }
        }
        if (again) rebuild();
        return any;
    }

    void deliver() {
        std::lock_guard delivering(deliverMutex_);
        std::vector<std::pair<OnChange, std::vector<fs::path>>> calls;
        {
            std::lock_guard lock(mutex_);
            for (auto& [id, paths] : pending_) {
                auto sub = subscriptions_.find(id);
                if (sub == subscriptions_.end() || paths.empty() || !sub->second.onChange) continue;
                calls.emplace_back(sub->second.onChange, std::vector<fs::path>(paths.begin(), paths.end()));
            }
            pending_.clear();
        }
        for (const auto& [onChange, paths] : calls) onChange(paths);
    }

    bool hasPending() {
        std::lock_guard lock(mutex_);
        return !pending_.empty();
    }

    void run() {
        Threads::nameCurrent("lumora.watch");
        std::optional<Steady::time_point> due;
        for (;;) {
            int timeout = -1;
            if (due) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Steady::now()).count();
                timeout = static_cast<int>(std::max<long long>(0, left));
            }
            // While a batch settles only the wake-up is waited for: the
            // kernel queues (and merges) what arrives meanwhile. The inotify
            // descriptor is left out of the poll then, since even with no
            // events asked for, each event would wake the thread in the kernel.
            pollfd fds[2] = {{wake_, POLLIN, 0}, {fd_, POLLIN, 0}};
            int ready = ::poll(fds, due ? 1 : 2, timeout);
            if (ready < 0 && errno != EINTR) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));  // never spin
                continue;
            }
            if (fds[0].revents & POLLIN) {
                uint64_t count;
                ssize_t n = ::read(wake_, &count, sizeof count);
                (void)n;
                if (stopping_) return;
            }
            if (fds[1].revents & POLLIN) readEvents();
            if (!due && hasPending()) due = Steady::now() + options_.settle;
            if (due && Steady::now() >= *due) {
                readEvents();
                deliver();
                due.reset();
            }
        }
    }

    const Options options_;
    int fd_ = -1;
    int wake_ = -1;
    std::atomic<bool> stopping_{false};

    mutable std::mutex mutex_;  // over everything below
    std::map<SubscriptionId, Subscription> subscriptions_;
    SubscriptionId nextId_ = 1;
    std::map<fs::path, Node> nodes_;
    std::map<int, std::vector<fs::path>> byWd_;  // one folder may be watched under several paths
    std::set<fs::path> wasMissing_;              // folders whose watch is owed since they went
    std::map<SubscriptionId, std::set<fs::path>> pending_;
    std::optional<std::string> problem_;
    bool retry_ = false;  // some watch is owed that no event will bring: try at every setWatched

    std::mutex deliverMutex_;  // held while callbacks run
    std::thread thread_;       // last: it uses everything above
};

}  // namespace

std::unique_ptr<FileWatcher> FileWatcher::create(Options options) { return std::make_unique<InotifyWatcher>(options); }

}  // namespace lumora
