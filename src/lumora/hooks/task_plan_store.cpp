#include "lumora/hooks/task_plan_store.hpp"

#include <algorithm>
#include <cctype>

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/plan_sources.hpp"
#include "scrivet/opencode_transcript_reader.hpp"
#include "scrivet/read_only_database.hpp"
#include "scrivet/regular_file.hpp"

namespace lumora {

namespace fs = std::filesystem;

namespace {

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool isUuid(std::string_view s) {
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != '-' : !isHex(s[i])) return false;
    }
    return true;
}

std::pair<std::optional<FileStamp>, std::optional<FileStamp>> databaseStamp(const fs::path& db) {
    auto wal = db;
    wal += "-wal";
    return {FileStamp::of(db), FileStamp::of(wal)};
}

// What a read of the database is remembered by. A writer's frames reach the
// write-ahead log a moment before its index makes them visible, so a read
// made while the files have just changed may not see the last commit: such a
// read is remembered by no stamp, and the next poll reads again.
std::pair<std::optional<FileStamp>, std::optional<FileStamp>> settledStamp(
    const std::pair<std::optional<FileStamp>, std::optional<FileStamp>>& st) {
    auto recent = std::chrono::system_clock::now() - std::chrono::seconds(1);
    for (const auto* s : {&st.first, &st.second}) {
        if (*s && (*s)->modified() > recent) return {};
    }
    return st;
}

std::optional<TaskPlan> nonEmpty(std::optional<TaskPlan> p) {
    if (p && p->empty()) return std::nullopt;
    return p;
}

}  // namespace

// --- The poller -----------------------------------------------------------------------

TaskPlanPoller::TaskPlanPoller(TaskPlanPaths paths, std::function<Clock::time_point()> clock)
    : paths_(std::move(paths)), clock_(std::move(clock)) {
    if (!clock_) clock_ = [] { return Clock::now(); };
}

void TaskPlanPoller::setSessions(const std::vector<PlanSession>& sessions) {
    std::map<std::string, Tracked> next;
    for (const auto& s : sessions) {
        if (auto it = sessions_.find(s.id); it != sessions_.end() && it->second.key == s) {
            next.emplace(s.id, std::move(it->second));
        } else {
            Tracked fresh;
            fresh.key = s;
            next.emplace(s.id, std::move(fresh));
        }
    }
    if (next.size() != sessions_.size() ||
        !std::equal(next.begin(), next.end(), sessions_.begin(), [](const auto& a, const auto& b) { return a.first == b.first; }))
        sessionsChanged_ = true;
    sessions_ = std::move(next);
}

std::optional<fs::path> TaskPlanPoller::locate(const PlanSession& key) {
    switch (key.provider) {
        case HarnessProvider::claudeCode: return ClaudePlanSource::locateJournal(key.id, paths_.claudeProjects);
        case HarnessProvider::codex:
            return CodexPlanSource::locateRollout(key.id, paths_.codexSessions, kCodexDays, clock_());
        case HarnessProvider::cursor: return CursorPlanSource::locateTranscript(key.id, paths_.cursorProjects);
        case HarnessProvider::kimi: return KimiPlanSource::locateJournal(key.id, paths_.kimiSessions);
        case HarnessProvider::opencode: return std::nullopt;
    }
    return std::nullopt;
}

void TaskPlanPoller::pollClaudeTasks(Tracked& t) {
    auto folder = ClaudePlanSource::taskFolder(paths_.claudeTasks, t.key.id);
    auto st = FileStamp::of(folder);
    if (st != t.folderStamp) {
        // The folder changed (a task added or removed, or the folder made or
        // gone): list it again; a file read before is read again only if it changed.
        t.folderStamp = st;
        std::map<std::string, TaskFile> files;
        std::error_code ec;
        bool isFolder = st && !st->regular && fs::is_directory(folder, ec);
        for (fs::directory_iterator it(isFolder ? folder : fs::path(), ec), end;
             isFolder && !ec && it != end && files.size() < kMaxTaskFiles; it.increment(ec)) {
            auto name = it->path().filename().string();
            if (it->path().extension() != ".json") continue;
            auto old = t.taskFiles.find(name);
            files[name] = old != t.taskFiles.end() ? old->second : TaskFile{};
        }
        t.taskFiles = std::move(files);
    }
    for (auto& [name, file] : t.taskFiles) {
        auto path = folder / name;
        auto fst = FileStamp::of(path);
        if (!fst || !fst->regular) {
            file = TaskFile{};
            continue;
        }
        if (*fst == file.stamp) continue;
        file.stamp = *fst;
        file.item.reset();
        auto read = FileUtil::read(path, kMaxTaskFile);
        if (read.ok()) file.item = ClaudePlanSource::taskFromFile(read.text, fs::path(name).stem().string());
    }
}

void TaskPlanPoller::pollJournal(Tracked& t) {
    Journal& j = t.journal;
    auto now = clock_();
    if (!j.file) {
        if (j.searchedAt && now - *j.searchedAt < kMissRetry && now >= *j.searchedAt) return;
        j.searchedAt = now;
        j.file = locate(t.key);
        if (!j.file) return;
    }
    auto st = scrivet::stamp(*j.file);
    if (!st) {
        // Gone (or no longer a regular file): look for it again later.
        j = Journal{};
        j.searchedAt = now;
        return;
    }
    if (j.stamp && st->size == j.stamp->size && st->mtimeNanos == j.stamp->mtimeNanos &&
        st->inode == j.stamp->inode && st->device == j.stamp->device)
        return;
    bool sameFile = j.stamp && st->inode == j.stamp->inode && st->device == j.stamp->device;
    if (!sameFile || st->size < j.offset) {
        // Another file, or one cut short: read it afresh.
        j.offset = 0;
        j.plan.reset();
        j.stamp.reset();
    }
    bool first = !j.stamp;
    j.stamp = st;
    scrivet::RegularFile file(*j.file);
    if (!file) return;
    uint64_t size = file.size();
    uint64_t start = first ? (size > kWindow ? size - kWindow : 0) : j.offset;
    if (size - start > kWindow) start = size - kWindow;  // a burst larger than the window: its end
    if (start >= size) return;
    auto bytes = file.readAt(start, size - start);
    if (!bytes) return;
    std::string_view window = *bytes;
    // A window that starts inside a line skips to the next one.
    if (start > 0 && start != j.offset) {
        auto before = file.readAt(start - 1, 1);
        if (!before || *before != "\n") {
            auto nl = window.find('\n');
            window = nl == std::string_view::npos ? std::string_view{} : window.substr(nl + 1);
            if (nl != std::string_view::npos) start += nl + 1;
        }
    }
    // Only whole lines: the writer may be in the middle of the last one.
    auto lastNewline = window.rfind('\n');
    if (lastNewline == std::string_view::npos) {
        j.offset = start;
        if (size - start >= kWindow) j.offset = size;  // no line end in a whole window: past it
        return;
    }
    window = window.substr(0, lastNewline + 1);
    j.offset = start + window.size();
    std::optional<TaskPlan> said;
    switch (t.key.provider) {
        case HarnessProvider::claudeCode: said = ClaudePlanSource::plan(window); break;
        case HarnessProvider::codex: said = CodexPlanSource::plan(window); break;
        case HarnessProvider::cursor: said = CursorPlanSource::plan(window, j.plan); break;
        case HarnessProvider::kimi: said = KimiPlanSource::plan(window); break;
        case HarnessProvider::opencode: break;
    }
    if (said) j.plan = std::move(said);
}

void TaskPlanPoller::pollCodexGoals() {
    std::vector<std::string> ids;
    for (const auto& [id, t] : sessions_)
        if (t.key.provider == HarnessProvider::codex) ids.push_back(id);
    if (ids.empty()) {
        goals_.clear();
        return;
    }
    auto st = databaseStamp(paths_.codexGoals);
    if (st == goalsStamp_ && !sessionsChanged_) return;
    if (!st.first || !st.first->regular) {
        goalsStamp_ = st;
        goals_.clear();
        return;
    }
    // A database that can't be read now (its writer holds it) keeps the
    // goals it gave before and is tried again on the next poll.
    if (auto found = CodexPlanSource::goals(paths_.codexGoals, ids)) {
        goals_ = TaskPlans(found->begin(), found->end());
        goalsStamp_ = settledStamp(st);
    }
}

void TaskPlanPoller::pollOpenCode() {
    std::vector<std::string> ids;
    for (const auto& [id, t] : sessions_)
        if (t.key.provider == HarnessProvider::opencode) ids.push_back(id);
    if (ids.empty()) {
        openCode_.clear();
        return;
    }
    auto st = databaseStamp(paths_.openCodeDatabase);
    if (st == openCodeStamp_ && !sessionsChanged_) return;
    if (!st.first || !st.first->regular) {
        openCodeStamp_ = st;
        openCode_.clear();
        return;
    }
    scrivet::ReadOnlyDatabase db(paths_.openCodeDatabase);
    TaskPlans next;
    for (const auto& id : ids) {
        auto todos = scrivet::OpenCodeTranscriptReader::todos(db, id);
        if (!todos) {
            return;  // locked or unreadable: keep what we had, try again next poll
        }
        next[id] = OpenCodePlanSource::plan(*todos);
    }
    openCode_ = std::move(next);
    openCodeStamp_ = settledStamp(st);
}

std::optional<TaskPlan> TaskPlanPoller::planOf(const Tracked& t) const {
    auto from = [](const TaskPlans& map, const std::string& id) -> std::optional<TaskPlan> {
        auto it = map.find(id);
        if (it == map.end()) return std::nullopt;
        return it->second;
    };
    switch (t.key.provider) {
        case HarnessProvider::claudeCode: {
            std::vector<TaskPlanItem> tasks;
            for (const auto& [name, file] : t.taskFiles)
                if (file.item) tasks.push_back(*file.item);
            if (!tasks.empty()) return ClaudePlanSource::planFromTasks(std::move(tasks));
            return nonEmpty(t.journal.plan);
        }
        case HarnessProvider::codex:
            // Older versions write update_plan calls; newer ones keep one goal.
            if (auto p = nonEmpty(t.journal.plan)) return p;
            return nonEmpty(from(goals_, t.key.id));
        case HarnessProvider::cursor:
        case HarnessProvider::kimi: return nonEmpty(t.journal.plan);
        case HarnessProvider::opencode: return nonEmpty(from(openCode_, t.key.id));
    }
    return std::nullopt;
}

std::optional<TaskPlans> TaskPlanPoller::poll() {
    pollCodexGoals();
    pollOpenCode();
    bool changed = sessionsChanged_;
    sessionsChanged_ = false;
    for (auto& [id, t] : sessions_) {
        if (t.key.provider == HarnessProvider::claudeCode) pollClaudeTasks(t);
        // Claude's journal is only asked when there are no task files.
        bool journal = t.key.provider != HarnessProvider::opencode &&
                       !(t.key.provider == HarnessProvider::claudeCode &&
                         std::any_of(t.taskFiles.begin(), t.taskFiles.end(), [](const auto& f) { return f.second.item.has_value(); }));
        if (journal) pollJournal(t);
        auto shown = planOf(t);
        if (shown != t.shown) {
            t.shown = std::move(shown);
            changed = true;
        }
    }
    if (!changed) return std::nullopt;
    TaskPlans next;
    for (const auto& [id, t] : sessions_)
        if (t.shown) next[id] = *t.shown;
    if (next == plans_) return std::nullopt;
    plans_ = next;
    return next;
}

// --- The store ------------------------------------------------------------------------

TaskPlanStore::TaskPlanStore(TaskPlanPaths paths, RunLoop& loop, std::chrono::milliseconds interval)
    : loop_(loop),
      interval_(interval),
      queue_(std::make_unique<SerialQueue>("lumora.taskplans")),
      poller_(std::move(paths)) {}

TaskPlanStore::~TaskPlanStore() {
    *alive_ = false;
    if (timer_) loop_.cancelTimer(*timer_);
    queue_->sync([] {});  // finishes a poll in flight; what it posts finds the store gone
    queue_.reset();
}

bool TaskPlanStore::acceptsId(HarnessProvider provider, const std::string& id) {
    switch (provider) {
        case HarnessProvider::claudeCode:
        case HarnessProvider::codex:
        case HarnessProvider::cursor: return isUuid(id);
        case HarnessProvider::kimi: return id.starts_with("session_") && isUuid(std::string_view(id).substr(8));
        case HarnessProvider::opencode:
            return id.size() > 4 && id.size() <= 128 && id.starts_with("ses_") &&
                   std::all_of(id.begin() + 4, id.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
    }
    return false;
}

void TaskPlanStore::registerSessions(const std::vector<PlanSession>& sessions) {
    std::vector<PlanSession> accepted;
    for (const auto& s : sessions)
        if (acceptsId(s.provider, s.id)) accepted.push_back(s);
    std::sort(accepted.begin(), accepted.end());
    accepted.erase(std::unique(accepted.begin(), accepted.end()), accepted.end());
    if (accepted == registered_) return;
    registered_ = accepted;
    queue_->async([this, accepted] { poller_.setSessions(accepted); });
    // A new session is read at once; one gone takes its plan with it.
    if (timer_) requestPoll();
}

const TaskPlan* TaskPlanStore::plan(const std::string& sessionId) const {
    auto it = plans_.find(sessionId);
    return it == plans_.end() ? nullptr : &it->second;
}

void TaskPlanStore::start() {
    if (timer_) return;
    std::weak_ptr<std::atomic<bool>> alive = alive_;
    timer_ = loop_.addTimer(std::chrono::duration_cast<RunLoop::Clock::duration>(interval_), [this, alive] {
        if (auto a = alive.lock(); a && *a) requestPoll();
    });
    requestPoll();
}

void TaskPlanStore::stop() {
    if (timer_) loop_.cancelTimer(*timer_);
    timer_.reset();
}

void TaskPlanStore::requestPoll() {
    if (!enabled_ || pollInFlight_) return;
    pollInFlight_ = true;
    std::weak_ptr<std::atomic<bool>> alive = alive_;
    queue_->async([this, alive] {
        auto changed = poller_.poll();
        // A poll that found nothing new does not wake the main loop.
        if (!changed) {
            pollInFlight_ = false;
            return;
        }
        loop_.post([this, alive, changed = std::move(changed)]() mutable {
            auto a = alive.lock();
            if (!a || !*a) return;
            pollInFlight_ = false;
            if (changed) publish(std::move(*changed));
        });
    });
}

void TaskPlanStore::pollNow() {
    if (!enabled_) return;
    TaskPlans now;
    queue_->sync([&] {
        poller_.poll();
        now = poller_.plans();
    });
    publish(std::move(now));
}

void TaskPlanStore::publish(TaskPlans plans) {
    if (preview_ || !enabled_) return;
    if (plans == plans_) return;
    plans_ = std::move(plans);
    if (onChange_) onChange_();
}

void TaskPlanStore::setEnabled(bool enabled) {
    if (enabled == enabled_) return;
    enabled_ = enabled;
    if (!enabled) {
        if (!preview_ && !plans_.empty()) {
            plans_.clear();
            if (onChange_) onChange_();
        }
        return;
    }
    // Back on: everything is read afresh.
    auto sessions = registered_;
    queue_->async([this, sessions] {
        poller_.setSessions({});
        poller_.poll();
        poller_.setSessions(sessions);
    });
    requestPoll();
}

void TaskPlanStore::setPreview(TaskPlans plans) {
    preview_ = true;
    plans_ = std::move(plans);
    if (onChange_) onChange_();
}

void TaskPlanStore::clearPreview() {
    if (!preview_) return;
    preview_ = false;
    plans_.clear();
    auto sessions = registered_;
    queue_->async([this, sessions] {
        poller_.setSessions({});
        poller_.poll();
        poller_.setSessions(sessions);
    });
    if (onChange_) onChange_();
    requestPoll();
}

int TaskPlanStore::inlineRowCount(const std::optional<std::string>& openSession, int maxRows) const {
    if (!openSession) return 0;
    const TaskPlan* p = plan(*openSession);
    if (!p) return 0;
    return static_cast<int>(p->rowSlots(maxRows).size());
}

}  // namespace lumora
