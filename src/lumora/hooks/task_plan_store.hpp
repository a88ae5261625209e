#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumora/base/run_loop.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/hooks/task_plan.hpp"
#include "lumora/platform/file_stamp.hpp"
#include "scrivet/file_stamp.hpp"
#include "scrivet/harness_provider.hpp"

namespace lumora {

using scrivet::HarnessProvider;

// Where the agents keep their plans.
struct TaskPlanPaths {
    std::filesystem::path claudeTasks;       // ~/.claude/tasks
    std::filesystem::path claudeProjects;    // ~/.claude/projects (TodoWrite calls in journals)
    std::filesystem::path codexSessions;     // ~/.codex/sessions
    std::filesystem::path codexGoals;        // ~/.codex/goals_1.sqlite
    std::filesystem::path cursorProjects;    // ~/.cursor/projects
    std::filesystem::path kimiSessions;      // ~/.kimi-code/sessions
    std::filesystem::path openCodeDatabase;  // OpenCode's opencode.db
};

// A session whose plan is followed.
struct PlanSession {
    HarnessProvider provider = HarnessProvider::claudeCode;
    std::string id;
    bool operator==(const PlanSession&) const = default;
    auto operator<=>(const PlanSession&) const = default;
};

using TaskPlans = std::map<std::string, TaskPlan>;  // by session id

// The work of one poll, without threads: for each session it looks again
// only at what changed since the last look (a task folder or task file, a
// journal, a database, each by its stamp), reads only the bytes a journal
// gained since, and folds them onto the plan it had. One caller at a time.
class TaskPlanPoller {
public:
    using Clock = std::chrono::system_clock;

    // Days of dated Codex folders searched for a session's rollout.
    static constexpr int kCodexDays = 30;
    // A journal's first read looks at most this far back from its end.
    static constexpr uint64_t kWindow = 4 * 1024 * 1024;
    // A session whose journal was not found is looked for again after this long.
    static constexpr auto kMissRetry = std::chrono::seconds(30);
    // Task files larger than this are not plans.
    static constexpr size_t kMaxTaskFile = 256 * 1024;
    static constexpr size_t kMaxTaskFiles = 500;

    explicit TaskPlanPoller(TaskPlanPaths paths, std::function<Clock::time_point()> clock = {});

    // The sessions to follow; what is known of the others is forgotten.
    void setSessions(const std::vector<PlanSession>& sessions);
    // One look: the plans of every followed session (empty plans left out)
    // when any changed since the last look, else nothing.
    std::optional<TaskPlans> poll();
    // The plans as of the last look.
    const TaskPlans& plans() const { return plans_; }

private:
    // A journal read piece by piece as it grows.
    struct Journal {
        std::optional<std::filesystem::path> file;
        std::optional<Clock::time_point> searchedAt;  // when it was last looked for
        std::optional<scrivet::FileStamp> stamp;      // as last read
        uint64_t offset = 0;                          // read up to here (a line start)
        std::optional<TaskPlan> plan;                 // what its calls say so far
    };
    struct TaskFile {
        FileStamp stamp;
        std::optional<TaskPlanItem> item;
    };
    struct Tracked {
        PlanSession key;
        std::optional<FileStamp> folderStamp;       // Claude's task folder
        std::map<std::string, TaskFile> taskFiles;  // by file name
        Journal journal;
        std::optional<TaskPlan> shown;
    };

    void pollClaudeTasks(Tracked& t);
    // Reads what the journal gained; true when its plan changed.
    void pollJournal(Tracked& t);
    std::optional<std::filesystem::path> locate(const PlanSession& key);
    void pollCodexGoals();
    void pollOpenCode();
    std::optional<TaskPlan> planOf(const Tracked& t) const;

    TaskPlanPaths paths_;
    std::function<Clock::time_point()> clock_;
    std::map<std::string, Tracked> sessions_;  // by session id
    bool sessionsChanged_ = false;
    // Shared sources: each database is read again only when it (or its
    // write-ahead log) changed or the sessions asking changed.
    std::pair<std::optional<FileStamp>, std::optional<FileStamp>> goalsStamp_, openCodeStamp_;
    std::map<std::string, TaskPlan> goals_;     // Codex thread goals
    std::map<std::string, TaskPlan> openCode_;  // OpenCode to-do lists
    TaskPlans plans_;
};

// Keeps one plan per session on screen. The monitor tells it which sessions
// show (registerSessions); a timer polls their sources on the store's own
// queue, and changed plans are published on the main loop, where `plans()`
// is read. Everything but the queue's work runs on the main loop's thread.
class TaskPlanStore {
public:
    TaskPlanStore(TaskPlanPaths paths, RunLoop& loop,
                  std::chrono::milliseconds interval = std::chrono::milliseconds(2000));
    ~TaskPlanStore();
    TaskPlanStore(const TaskPlanStore&) = delete;
    TaskPlanStore& operator=(const TaskPlanStore&) = delete;

    // True for ids a plan source exists for: a bare UUID (Claude Code, Codex,
    // Cursor), "session_" and a UUID (Kimi) and "ses_…" (OpenCode); never
    // the "<cwd>#<pid>" of a session known only by its process.
    static bool acceptsId(HarnessProvider provider, const std::string& id);

    // The sessions on screen (ids of other shapes are left out). A new one
    // is polled at once.
    void registerSessions(const std::vector<PlanSession>& sessions);
    const TaskPlans& plans() const { return plans_; }
    const TaskPlan* plan(const std::string& sessionId) const;

    // Schedules the poll timer and polls at once; stop() cancels it.
    void start();
    void stop();
    // Polls on the queue and waits, then publishes (for one-shot commands).
    void pollNow();
    // Off: no polling and no plans (the "taskPlanEnabled" setting).
    void setEnabled(bool enabled);
    // Called on the main loop after the plans changed.
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

    // The demonstration shows scripted plans; polling does not replace them
    // until clearPreview().
    void setPreview(TaskPlans plans);
    void clearPreview();

    // How many plan lines the open row adds, at most `maxRows`.
    int inlineRowCount(const std::optional<std::string>& openSession, int maxRows) const;

private:
    void requestPoll();
    void publish(TaskPlans plans);

    RunLoop& loop_;
    std::chrono::milliseconds interval_;
    std::unique_ptr<SerialQueue> queue_;
    TaskPlanPoller poller_;  // used on the queue only
    std::vector<PlanSession> registered_;
    TaskPlans plans_;
    bool enabled_ = true;
    bool preview_ = false;
    std::atomic<bool> pollInFlight_{false};  // set on the main loop, cleared by the poll
    std::optional<RunLoop::TimerId> timer_;
    std::function<void()> onChange_;
    std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
};

}  // namespace lumora
