#include "lumora/spend/spend_scanner.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "lumora/platform/paths.hpp"
#include "lumora/platform/threads.hpp"
#include "lumora/spend/journal_usage.hpp"
#include "lumora/spend/local_calendar.hpp"
#include "lumora/spend/opencode_spend.hpp"

namespace lumora {

namespace fs = std::filesystem;

namespace {

// Below this much to read, threads cost more than they give.
constexpr uint64_t kParallelBytes = 8u << 20;
// A response's blocks straddle a read's start at most by a few lines.
constexpr size_t kStraddle = 32;

bool sameTime(Date a, Date b) {
    auto d = a > b ? a - b : b - a;
    return d <= std::chrono::microseconds(1);
}

// True when the byte before `offset` is a newline: the file still has a line
// boundary where the last read stopped, as a grown journal does.
bool endsLineAt(const fs::path& file, uint64_t offset) {
    if (offset == 0) return true;
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    char c = 0;
    bool ok = ::pread(fd, &c, 1, static_cast<off_t>(offset - 1)) == 1 && c == '\n';
    ::close(fd);
    return ok;
}

template <typename Accept>
void walk(const fs::path& root, int maxDepth, Accept&& accept, const std::function<void(const fs::path&)>& found) {
    std::error_code ec;
    if (!fs::is_directory(root, ec)) return;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
        const auto& entry = *it;
        std::error_code typeError;
        if (entry.is_directory(typeError)) {
            if (it.depth() >= maxDepth || entry.is_symlink(typeError)) it.disable_recursion_pending();
            continue;
        }
        if (accept(entry.path().filename().native())) found(entry.path());
    }
}

bool endsWith(const std::string& s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

struct SpendScanner::Job {
    SpendProvider provider = SpendProvider::claude;
    std::string path;
    FileStamp stamp;
    enum class Kind { unchanged, grown, whole } kind = Kind::whole;
    uint64_t from = 0;
    std::string model;  // Codex: the model in force where a grown file's read starts
    std::optional<JournalUsage::Read> result;
};

SpendScanner::Roots SpendScanner::defaultRoots() {
    return {Paths::claudeProjects(), Paths::codexHome(), Paths::kimiHome(), OpenCodeSpend::databaseFile()};
}

SpendScanner::SpendScanner(SpendStore& store, ModelPricing& pricing, Roots roots, Options options)
    : store_(store), pricing_(pricing), roots_(std::move(roots)), options_(options) {}

SpendScanner::SpendScanner(SpendStore& store, ModelPricing& pricing, Roots roots)
    : SpendScanner(store, pricing, std::move(roots), Options{}) {}

void SpendScanner::listJournals(Date cutoff, std::vector<Job>& jobs) {
    auto add = [&](SpendProvider provider) {
        return [&, provider](const fs::path& file) {
            auto stamp = FileStamp::of(file);
            if (!stamp || !stamp->regular || stamp->modified() < cutoff) return;
            Job job;
            job.provider = provider;
            job.path = file.string();
            job.stamp = *stamp;
            jobs.push_back(std::move(job));
        };
    };
    walk(roots_.claudeProjects, 4, [](const std::string& name) { return endsWith(name, ".jsonl"); },
         add(SpendProvider::claude));
    auto rollout = [](const std::string& name) { return name.rfind("rollout-", 0) == 0 && endsWith(name, ".jsonl"); };
    walk(roots_.codexHome / "sessions", 4, rollout, add(SpendProvider::codex));
    walk(roots_.codexHome / "archived_sessions", 4, rollout, add(SpendProvider::codex));
    walk(roots_.kimiHome / "sessions", 5, [](const std::string& name) { return name == "wire.jsonl"; },
         add(SpendProvider::kimi));
}

SpendScanner::Result SpendScanner::scan(Date now) {
    Result result;
    Stats& stats = result.stats;
    store_.loadIfNeeded();
    pricing_.rates("");  // loads the price table, so its generation is current
    uint64_t generation = pricing_.generation();
    bool reprice = generation != pricedGeneration_;
    Date cutoff = LocalCalendar::addDays(LocalCalendar::startOfDay(now), -options_.lookbackDays);

    std::vector<Job> jobs;
    listJournals(cutoff, jobs);
    stats.files = jobs.size();

    // Decide what each file needs, and forget files that are gone or too old.
    bool changed = false;
    {
        std::lock_guard lock(store_.mutex());
        std::unordered_set<std::string> listed[3];
        for (auto& job : jobs) {
            auto& map = store_.cache(job.provider);
            listed[static_cast<int>(job.provider)].insert(job.path);
            auto it = map.find(job.path);
            if (it == map.end()) continue;
            const auto& c = it->second;
            bool sameFile = c.inode == job.stamp.inode;
            if (sameFile && c.size == job.stamp.size && sameTime(c.mtime, job.stamp.modified())) {
                job.kind = Job::Kind::unchanged;
                if (reprice) {
                    // A model that was unpriced may have a price now: read the file again to price it.
                    for (const auto& e : c.events) {
                        if (e.unpricedModel && pricing_.rates(*e.unpricedModel)) {
                            job.kind = Job::Kind::whole;
                            break;
                        }
                    }
                }
            } else if (sameFile && job.stamp.size > c.size && c.parsedBytes <= c.size &&
                       !(reprice && std::any_of(c.events.begin(), c.events.end(), [&](const SpendEvent& e) {
                           return e.unpricedModel && pricing_.rates(*e.unpricedModel);
                       }))) {
                job.kind = Job::Kind::grown;
                job.from = c.parsedBytes;
                for (auto e = c.events.rbegin(); e != c.events.rend(); ++e) {
                    if (e->model) {
                        job.model = *e->model;
                        break;
                    }
                }
            }
        }
        for (int p = 0; p < 3; ++p) {
            auto& map = store_.cache(static_cast<SpendProvider>(p));
            for (auto it = map.begin(); it != map.end();) {
                if (listed[p].count(it->first)) {
                    ++it;
                } else {
                    it = map.erase(it);
                    changed = store_.dirty = true;
                }
            }
        }
    }

    // Read what is new, biggest first, on every core.
    std::vector<Job*> work;
    uint64_t toRead = 0;
    for (auto& job : jobs) {
        if (job.kind == Job::Kind::unchanged) continue;
        work.push_back(&job);
        toRead += job.stamp.size - job.from;
    }
    std::sort(work.begin(), work.end(), [](const Job* a, const Job* b) {
        return a->stamp.size - a->from > b->stamp.size - b->from;
    });
    std::atomic<size_t> next{0};
    auto worker = [&] {
        JournalUsage reader(pricing_);
        for (size_t i; (i = next.fetch_add(1)) < work.size();) {
            Job& job = *work[i];
            if (job.kind == Job::Kind::grown && !endsLineAt(job.path, job.from)) {
                job.kind = Job::Kind::whole;  // not the file we read: read it all
                job.from = 0;
                job.model.clear();
            }
            JournalUsage::Start start;
            start.offset = job.from;
            start.limit = job.stamp.size;
            start.model = job.model;
            start.fallbackDate = job.stamp.modified();
            job.result = reader.read(job.provider, job.path, start);
        }
    };
    unsigned threads = options_.threads ? options_.threads : std::max(1u, std::thread::hardware_concurrency());
    if (toRead < kParallelBytes || work.size() < 2) threads = 1;
    threads = static_cast<unsigned>(std::min<size_t>(threads, std::max<size_t>(1, work.size())));
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t) {
        pool.emplace_back([&] {
            Threads::nameCurrent("lumora.spendscan");
            worker();
        });
    }
    worker();
    for (auto& t : pool) t.join();

    // Fold what was read into the store.
    {
        std::lock_guard lock(store_.mutex());
        for (Job* job : work) {
            auto& map = store_.cache(job->provider);
            changed = store_.dirty = true;
            if (!job->result) {
                map.erase(job->path);  // gone or unreadable since it was listed
                continue;
            }
            ++stats.filesRead;
            stats.bytesRead += job->stamp.size - job->from;
            stats.skippedLines += job->result->skippedLines;
            auto& cached = map[job->path];
            if (job->kind == Job::Kind::whole) {
                ++stats.filesReadWhole;
                cached.events = std::move(job->result->events);
            } else {
                // A message whose blocks straddle the boundary merges with its earlier part.
                size_t oldCount = cached.events.size();
                size_t lookFrom = oldCount > kStraddle ? oldCount - kStraddle : 0;
                for (auto& e : job->result->events) {
                    auto same = std::find_if(cached.events.begin() + static_cast<long>(lookFrom),
                                             cached.events.begin() + static_cast<long>(oldCount),
                                             [&](const SpendEvent& old) { return old.dedupKey == e.dedupKey; });
                    if (same != cached.events.begin() + static_cast<long>(oldCount)) mergeEvent(*same, e);
                    else cached.events.push_back(std::move(e));
                }
            }
            cached.size = job->stamp.size;
            cached.mtime = job->stamp.modified();
            cached.inode = job->stamp.inode;
            cached.parsedBytes = job->result->parsedBytes;
        }
    }
    pricedGeneration_ = generation;

    // OpenCode's database, when it changed (or the look-back moved).
    if (roots_.openCodeDatabase) {
        auto db = FileStamp::of(*roots_.openCodeDatabase);
        auto wal = FileStamp::of(fs::path(roots_.openCodeDatabase->string() + "-wal"));
        if (db != openCodeStamp_ || wal != openCodeWalStamp_ || cutoff != openCodeSince_ || reprice) {
            openCodeStamp_ = db;
            openCodeWalStamp_ = wal;
            openCodeSince_ = cutoff;
            auto events = db ? OpenCodeSpend::read(*roots_.openCodeDatabase, cutoff, pricing_) : std::nullopt;
            // A database that can't be read now keeps the figures it gave last.
            if (events || !db) openCodeEvents_ = events ? std::move(*events) : std::vector<SpendEvent>{};
            changed = true;
        }
    }

    stats.changed = changed || !haveLast_;
    if (stats.changed) {
        lastEntries_ = deduplicate(stats);
        haveLast_ = true;
    }
    stats.events = lastEntries_.size();
    result.entries = lastEntries_;
    return result;
}

std::vector<SpendEntry> SpendScanner::deduplicate(Stats& stats) {
    std::lock_guard lock(store_.mutex());
    size_t total = openCodeEvents_.size();
    for (int p = 0; p < 3; ++p) {
        for (const auto& [path, file] : store_.cache(static_cast<SpendProvider>(p))) total += file.events.size();
    }
    std::vector<SpendEntry> out;
    out.reserve(total);
    std::unordered_map<std::string_view, size_t> index;
    index.reserve(total);
    auto take = [&](SpendProvider provider, const SpendEvent& e) {
        auto [it, fresh] = index.emplace(e.dedupKey, out.size());
        if (fresh) {
            out.push_back(SpendEntry{provider, e.date, e.tokens, e.newTokens, e.cost, e.unpricedModel});
            return;
        }
        ++stats.duplicates;
        SpendEntry& kept = out[it->second];
        Date earliest = std::min(kept.date, e.date);
        if (e.tokens > kept.tokens) kept = SpendEntry{kept.provider, e.date, e.tokens, e.newTokens, e.cost, e.unpricedModel};
        kept.date = earliest;
    };
    for (int p = 0; p < 3; ++p) {
        auto provider = static_cast<SpendProvider>(p);
        for (const auto& [path, file] : store_.cache(provider)) {
            for (const auto& e : file.events) take(provider, e);
        }
    }
    for (const auto& e : openCodeEvents_) take(SpendProvider::opencode, e);
    std::sort(out.begin(), out.end(), [](const SpendEntry& a, const SpendEntry& b) { return a.date < b.date; });
    return out;
}

}  // namespace lumora
