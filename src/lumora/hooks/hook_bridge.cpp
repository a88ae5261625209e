#include "lumora/hooks/hook_bridge.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/base/serial_queue.hpp"
#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/base/json_fields.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/peer_credentials.hpp"
#include "lumora/platform/sockets.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr auto kBusyWindow = std::chrono::seconds(1800);
constexpr auto kCursorWindow = std::chrono::seconds(1800);
constexpr auto kRestoreWindow = std::chrono::seconds(1800);
constexpr auto kMarkerLifetime = std::chrono::seconds(86400);
constexpr size_t kReadChunk = 8192;
// Reads per connection per wake-up, so one chatty client cannot starve the rest.
constexpr int kReadsPerTurn = 16;
constexpr int kMaxNesting = 64;
constexpr size_t kLogHeadChars = 80;

constexpr const char* kStateFile = "hook-state.json";
constexpr const char* kApprovalsLog = "approvals.log";

bool setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
    return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

// Creates `dir` with mode 0700 (its parents as needed) when missing.
void createPrivateFolder(const fs::path& dir) {
    std::error_code ec;
    if (fs::exists(dir, ec)) return;
    if (dir.has_parent_path()) fs::create_directories(dir.parent_path(), ec);
    ::mkdir(dir.c_str(), 0700);
}

// Only a directory of our own that nobody else may enter can hold the socket.
bool isPrivateFolder(const fs::path& dir, std::string& why) {
    struct stat st{};
    if (::stat(dir.c_str(), &st) != 0) {
        why = "cannot be read";
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        why = "is not a directory";
        return false;
    }
    if (st.st_uid != PeerCredentials::currentUserId()) {
        why = "belongs to another user";
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        why = "is open to group or others";
        return false;
    }
    return true;
}

std::string shortId(const std::string& sessionId) { return sessionId.substr(0, 8); }

}  // namespace

// One request line, its keys read with their expected types.
struct HookBridge::Request {
    std::string source = "claude";
    std::string action = "marker";
    std::string sessionId;
    std::string cwd;
    std::string toolName;
    std::optional<std::string> detail;
    std::optional<std::string> reason;
    std::string kind;
    bool escalated = false;
    std::optional<std::vector<std::string>> options;
    int moreQuestions = 0;
    std::string model;
    std::optional<double> ts;
    std::string command;
    std::string transcriptPath;
    std::string status;
    std::string title;

    // Nothing (and `why`) when the line is not a JSON object, a key has the
    // wrong type, or there is no session id.
    static std::optional<Request> parse(std::string_view line, std::string& why) {
        if (JsonText::nestedDeeperThan(line, kMaxNesting)) {
            why = "nested too deep";
            return std::nullopt;
        }
        Json j = Json::parse(line, nullptr, false);
        if (j.is_discarded() || !j.is_object()) {
            why = "not a JSON object";
            return std::nullopt;
        }
        Request r;
        using JsonFields::read;
        double version = 1, ts = 0;
        bool ok = read(j, "v", version) && read(j, "source", r.source) && read(j, "session_id", r.sessionId) &&
                  read(j, "action", r.action) && read(j, "cwd", r.cwd) && read(j, "tool_name", r.toolName) &&
                  read(j, "detail", r.detail) && read(j, "reason", r.reason) && read(j, "escalated", r.escalated) &&
                  read(j, "kind", r.kind) && read(j, "options", r.options) &&
                  read(j, "more_questions", r.moreQuestions) && read(j, "model", r.model) && read(j, "ts", ts) &&
                  read(j, "command", r.command) && read(j, "transcript_path", r.transcriptPath) &&
                  read(j, "status", r.status) && read(j, "title", r.title);
        if (!ok) {
            why = "a key has the wrong type";
            return std::nullopt;
        }
        if (r.sessionId.empty()) {
            why = "no session_id";
            return std::nullopt;
        }
        if (JsonFields::find(j, "ts")) r.ts = ts;
        return r;
    }

    AttentionMarker marker(std::string markerKind) const {
        return AttentionMarker{sessionId, toolName, detail, std::move(markerKind), reason, escalated, options,
                               moreQuestions};
    }
};

// ---------------------------------------------------------------------------------------------
// Construction and queries

HookBridge::HookBridge(fs::path socketPath, fs::path supportFolder, ApprovalRulesStore& rules, Options options)
    : socketPath_(std::move(socketPath)),
      supportFolder_(std::move(supportFolder)),
      rules_(rules),
      options_(std::move(options)) {}

HookBridge::~HookBridge() { stop(); }

std::optional<fs::path> hookTraceFileFromEnvironment() {
    const char* v = std::getenv("LUMORA_DEBUG_LOG");
    if (!v || !*v) return std::nullopt;
    return fs::path(v);
}

fs::path HookBridge::stateFile() const { return supportFolder_ / kStateFile; }
fs::path HookBridge::approvalsLog() const { return supportFolder_ / kApprovalsLog; }

void HookBridge::setGating(bool enabled) {
    std::lock_guard lock(mutex_);
    gatingEnabled_ = enabled;
}

bool HookBridge::gatingEnabled() const {
    std::lock_guard lock(mutex_);
    return gatingEnabled_;
}

void HookBridge::setOnEvent(std::function<void()> onEvent) {
    std::lock_guard lock(mutex_);
    onEvent_ = std::move(onEvent);
}

namespace {
std::vector<AttentionMarker> values(const std::map<std::string, AttentionMarker>& m) {
    std::vector<AttentionMarker> out;
    out.reserve(m.size());
    for (const auto& [_, marker] : m) out.push_back(marker);
    return out;
}
}  // namespace

std::vector<AttentionMarker> HookBridge::claudeMarkers() const {
    std::lock_guard lock(mutex_);
    return values(claudeMarkers_);
}

std::vector<AttentionMarker> HookBridge::codexMarkers() const {
    std::lock_guard lock(mutex_);
    return values(codexMarkers_);
}

std::vector<AttentionMarker> HookBridge::kimiMarkers() const {
    std::lock_guard lock(mutex_);
    return values(kimiMarkers_);
}

std::vector<AttentionMarker> HookBridge::openCodeMarkers() const {
    std::lock_guard lock(mutex_);
    return values(openCodeMarkers_);
}

std::map<std::string, HookBridge::TimePoint> HookBridge::claudeMarkerCreatedAt() const {
    std::lock_guard lock(mutex_);
    return markerCreatedAt_;
}

std::map<std::string, HookBridge::TimePoint> HookBridge::claudeBusy(TimePoint now) const {
    std::lock_guard lock(mutex_);
    std::map<std::string, TimePoint> out;
    for (const auto& [sid, when] : claudeBusy_) {
        if (now - when < kBusyWindow) out.emplace(sid, when);
    }
    return out;
}

std::set<std::string> HookBridge::claudeBusySessions(TimePoint now) const {
    std::set<std::string> out;
    for (const auto& [sid, _] : claudeBusy(now)) out.insert(sid);
    return out;
}

std::map<std::string, CursorPending> HookBridge::cursorPending(TimePoint now) const {
    double since = Dates::toSeconds(now - kCursorWindow);
    std::lock_guard lock(mutex_);
    std::map<std::string, CursorPending> out;
    for (const auto& [cid, p] : cursorPending_) {
        if (p.ts > since) out.emplace(cid, p);
    }
    return out;
}

std::map<std::string, CursorActivity> HookBridge::cursorActivity(TimePoint now) const {
    double since = Dates::toSeconds(now - kCursorWindow);
    std::lock_guard lock(mutex_);
    std::map<std::string, CursorActivity> out;
    for (const auto& [cid, a] : cursorActivity_) {
        if (a.ts > since) out.emplace(cid, a);
    }
    return out;
}

std::map<std::string, std::string> HookBridge::cursorModels() const {
    std::lock_guard lock(mutex_);
    return cursorModels_;
}

bool HookBridge::hasHeldGate(const std::string& sessionId) const {
    std::lock_guard lock(mutex_);
    return gates_.count(sessionId) > 0;
}

std::set<std::string> HookBridge::heldGateSessions() const {
    std::lock_guard lock(mutex_);
    std::set<std::string> out;
    for (const auto& [sid, _] : gates_) out.insert(sid);
    return out;
}

// ---------------------------------------------------------------------------------------------
// The line protocol

void HookBridge::trace(std::string_view text) const {
    if (!options_.traceFile) return;
    FileUtil::appendLine(*options_.traceFile, Dates::format(Clock::now()) + " " + std::string(text));
}

void HookBridge::handleLine(std::string_view line, ConnectionId connection) {
    std::string why;
    auto request = Request::parse(line, why);
    if (!request) {
        if (options_.traceFile) trace("DROP " + why + " (" + std::to_string(line.size()) + " bytes)");
        return;
    }
    const Request& r = *request;
    if (options_.traceFile) {
        trace("RECV source=" + r.source + " action=" + r.action + " tool=" + (r.toolName.empty() ? "-" : r.toolName) +
              " sid=" + shortId(r.sessionId));
    }
    TimePoint now = Clock::now();

    Source source = Source::claude;
    if (r.source == "cursor") source = Source::cursor;
    else if (r.source == "codex") source = Source::codex;
    else if (r.source == "kimi") source = Source::kimi;
    else if (r.source == "opencode") source = Source::openCode;

    // The rules are asked before the bridge's lock is taken: the two locks never nest.
    // Standing rules answer only the agent they were made on.
    scrivet::HarnessProvider provider = source == Source::codex      ? scrivet::HarnessProvider::codex
                                        : source == Source::kimi     ? scrivet::HarnessProvider::kimi
                                        : source == Source::openCode ? scrivet::HarnessProvider::opencode
                                                                     : scrivet::HarnessProvider::claudeCode;
    if (r.action == "gate" && source != Source::cursor &&
        rules_.matches(provider, r.sessionId, r.toolName, r.detail, r.escalated)) {
        std::string head = scrivet::truncateText(scrivet::collapseWhitespace(r.detail.value_or("")), kLogHeadChars);
        std::string logLine = Dates::format(now) + "  auto-approve tool=" + r.toolName +
                              " session=" + r.sessionId + " head=" + head;
        {
            std::lock_guard lock(mutex_);
            answerLocked(connection, "allow");
            approvalLogLines_.push_back(std::move(logLine));
        }
        if (options_.traceFile) trace("AUTO allow tool=" + r.toolName + " sid=" + shortId(r.sessionId));
        afterChangeOffThread();
        return;
    }

    {
        std::lock_guard lock(mutex_);
        switch (source) {
            case Source::cursor: cursorHandlerLocked(r, now); break;
            case Source::claude: claudeHandlerLocked(r, connection, now); break;
            default: gatedHandlerLocked(r, source, connection, now); break;
        }
    }
    afterChangeOffThread();
}

std::map<std::string, AttentionMarker>& HookBridge::markersLocked(Source source) {
    switch (source) {
        case Source::codex: return codexMarkers_;
        case Source::kimi: return kimiMarkers_;
        case Source::openCode: return openCodeMarkers_;
        default: return claudeMarkers_;
    }
}

void HookBridge::removeMarkerLocked(Source source, const std::string& sessionId) {
    if (markersLocked(source).erase(sessionId) > 0) dirty_ = true;
    if (source == Source::claude && markerCreatedAt_.erase(sessionId) > 0) dirty_ = true;
}

void HookBridge::answerLocked(ConnectionId connection, std::string behavior) {
    if (connection == noConnection) return;
    outbox_.push_back({connection, std::move(behavior)});
}

void HookBridge::dropGateLocked(const std::string& sessionId) {
    auto it = gates_.find(sessionId);
    if (it == gates_.end()) return;
    // The hook would otherwise wait for an answer that can no longer come.
    answerLocked(it->second.connection, "passthrough");
    gates_.erase(it);
}

void HookBridge::claudeHandlerLocked(const Request& r, ConnectionId connection, TimePoint now) {
    const std::string& sid = r.sessionId;
    if (r.action == "start") {
        claudeBusy_[sid] = now;
        removeMarkerLocked(Source::claude, sid);
        dropGateLocked(sid);
    } else if (r.action == "busy") {
        claudeBusy_[sid] = now;
    } else if (r.action == "busydone") {
        claudeBusy_[sid] = now;
        auto it = claudeMarkers_.find(sid);
        if (it != claudeMarkers_.end() && it->second.kind == AttentionMarker::permission) {
            // Answered at the agent's own prompt: the notch must stop offering it.
            removeMarkerLocked(Source::claude, sid);
            dropGateLocked(sid);
        }
    } else if (r.action == "done") {
        claudeBusy_.erase(sid);
        removeMarkerLocked(Source::claude, sid);
        dropGateLocked(sid);
    } else {
        gatedHandlerLocked(r, Source::claude, connection, now);
        return;
    }
    changed_ = true;
}

void HookBridge::gatedHandlerLocked(const Request& r, Source source, ConnectionId connection, TimePoint now) {
    const std::string& sid = r.sessionId;
    if (r.action == "clear") {
        removeMarkerLocked(source, sid);
        dropGateLocked(sid);
    } else if (r.action == "marker") {
        markersLocked(source)[sid] = r.marker(r.kind);
        if (source == Source::claude) markerCreatedAt_[sid] = now;
        dirty_ = true;
    } else if (r.action == "gate") {
        if (!gatingEnabled_) {
            answerLocked(connection, "passthrough");
            return;
        }
        markersLocked(source)[sid] = r.marker(AttentionMarker::permission);
        if (source == Source::claude) markerCreatedAt_[sid] = now;
        dirty_ = true;
        auto old = gates_.find(sid);
        if (old != gates_.end() && old->second.connection != connection) {
            answerLocked(old->second.connection, "passthrough");  // a newer gate replaces it
        }
        gates_[sid] = Gate{connection, source};
    } else {
        return;  // "observe" and unknown actions change nothing
    }
    changed_ = true;
}

void HookBridge::cursorHandlerLocked(const Request& r, TimePoint now) {
    const std::string& cid = r.sessionId;
    bool known = true;
    if (!r.model.empty()) {
        auto& slot = cursorModels_[cid];
        if (slot != r.model) {
            slot = r.model;
            dirty_ = changed_ = true;
        }
    }
    double ts = r.ts.value_or(Dates::toSeconds(now));
    if (r.action == "pending") {
        cursorPending_[cid] = CursorPending{cid,    r.cwd, scrivet::truncateText(r.command, 200), r.kind, r.toolName,
                                            ts,     r.transcriptPath};
    } else if (r.action == "pending-clear") {
        cursorPending_.erase(cid);
    } else if (r.action == "activity") {
        cursorActivity_[cid] = CursorActivity{cid, r.cwd, r.status, scrivet::truncateText(r.title, 120), ts};
    } else if (r.action == "activity-clear") {
        cursorActivity_.erase(cid);
    } else {
        known = false;
    }
    if (known) dirty_ = changed_ = true;
}

void HookBridge::resolve(const std::string& sessionId, bool allow) {
    {
        std::lock_guard lock(mutex_);
        auto it = gates_.find(sessionId);
        if (it != gates_.end()) {
            answerLocked(it->second.connection, allow ? "allow" : "deny");
            gates_.erase(it);
        }
        // OpenCode's marker is left for the plugin's own "clear", which follows its reply event.
        removeMarkerLocked(Source::claude, sessionId);
        removeMarkerLocked(Source::codex, sessionId);
        changed_ = true;
    }
    if (options_.traceFile) trace(std::string("RESOLVE ") + (allow ? "allow" : "deny") + " sid=" + shortId(sessionId));
    afterChangeOffThread();
}

void HookBridge::releaseAllGates() {
    {
        std::lock_guard lock(mutex_);
        for (const auto& [_, gate] : gates_) answerLocked(gate.connection, "passthrough");
        gates_.clear();
        changed_ = true;
    }
    afterChangeOffThread();
}

void HookBridge::afterChangeOffThread() {
    if (onLoopThread()) return;  // the loop flushes and notifies after its batch
    if (running_.load()) {
        wake();
        return;
    }
    // No socket thread: nothing to answer, but the log and the monitor still hear of it.
    std::vector<std::string> logLines;
    {
        std::lock_guard lock(mutex_);
        outbox_.clear();
        logLines.swap(approvalLogLines_);
    }
    for (const auto& l : logLines) FileUtil::appendLine(approvalsLog(), l);
    notifyIfChanged();
}

void HookBridge::notifyIfChanged() {
    std::function<void()> callback;
    {
        std::lock_guard lock(mutex_);
        if (!changed_) return;
        changed_ = false;
        callback = onEvent_;
    }
    if (callback) callback();
}

// ---------------------------------------------------------------------------------------------
// Persistence

void HookBridge::pruneLocked(TimePoint now) {
    for (auto it = markerCreatedAt_.begin(); it != markerCreatedAt_.end();) {
        if (now - it->second > kMarkerLifetime) {
            claudeMarkers_.erase(it->first);
            it = markerCreatedAt_.erase(it);
            dirty_ = true;
        } else {
            ++it;
        }
    }
}

HookBridge::SavedState HookBridge::snapshotLocked() const {
    return SavedState{claudeMarkers_,  codexMarkers_,   kimiMarkers_,   openCodeMarkers_,
                      markerCreatedAt_, cursorPending_, cursorActivity_, cursorModels_};
}

std::string HookBridge::encode(const SavedState& s, TimePoint savedAt) {
    auto markers = [](const std::map<std::string, AttentionMarker>& m) {
        Json j = Json::object();
        for (const auto& [sid, marker] : m) j[sid] = marker.toJson();
        return j;
    };
    Json state = Json::object();
    state["savedAt"] = Dates::format(savedAt);
    state["claudeMarkers"] = markers(s.claude);
    state["codexMarkers"] = markers(s.codex);
    Json pending = Json::object(), activity = Json::object(), models = Json::object(), created = Json::object();
    for (const auto& [cid, p] : s.cursorPending) pending[cid] = p.toJson();
    for (const auto& [cid, a] : s.cursorActivity) activity[cid] = a.toJson();
    for (const auto& [cid, m] : s.cursorModels) models[cid] = m;
    for (const auto& [sid, when] : s.claudeCreatedAt) created[sid] = Dates::format(when);
    state["cursorPending"] = std::move(pending);
    state["cursorActivity"] = std::move(activity);
    state["cursorModels"] = std::move(models);
    state["claudeMarkerCreatedAt"] = std::move(created);
    state["kimiMarkers"] = markers(s.kimi);
    state["openCodeMarkers"] = markers(s.openCode);
    return state.dump(1) + "\n";
}

void HookBridge::persistNow() {
    SavedState state;
    TimePoint now = Clock::now();
    {
        std::lock_guard lock(mutex_);
        pruneLocked(now);
        state = snapshotLocked();
        dirty_ = false;
    }
    std::string text = encode(state, now);
    std::lock_guard write(saveMutex_);
    std::error_code ec;
    fs::create_directories(supportFolder_, ec);
    FileUtil::writeAtomically(stateFile(), text, 0600);
}

void HookBridge::restore(TimePoint now) {
    auto text = FileUtil::readFile(stateFile());
    if (!text) return;
    Json j = Json::parse(*text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return;
    auto savedAt = j.contains("savedAt") ? Dates::parse(j["savedAt"]) : std::nullopt;
    if (!savedAt || now - *savedAt > kRestoreWindow) return;  // prompts that are long gone

    auto object = [&](const char* key) -> const Json* {
        auto it = j.find(key);
        return it != j.end() && it->is_object() ? &*it : nullptr;
    };
    auto markers = [&](const char* key, std::map<std::string, AttentionMarker>& into) {
        if (const Json* o = object(key)) {
            for (const auto& [sid, v] : o->items()) {
                if (auto m = AttentionMarker::fromJson(v)) into[sid] = std::move(*m);
            }
        }
    };
    std::lock_guard lock(mutex_);
    markers("claudeMarkers", claudeMarkers_);
    markers("codexMarkers", codexMarkers_);
    markers("kimiMarkers", kimiMarkers_);
    markers("openCodeMarkers", openCodeMarkers_);
    if (const Json* o = object("cursorPending")) {
        for (const auto& [cid, v] : o->items()) {
            if (auto p = CursorPending::fromJson(v)) cursorPending_[cid] = std::move(*p);
        }
    }
    if (const Json* o = object("cursorActivity")) {
        for (const auto& [cid, v] : o->items()) {
            if (auto a = CursorActivity::fromJson(v)) cursorActivity_[cid] = std::move(*a);
        }
    }
    if (const Json* o = object("cursorModels")) {
        for (const auto& [cid, v] : o->items()) {
            if (v.is_string()) cursorModels_[cid] = v.get<std::string>();
        }
    }
    if (const Json* o = object("claudeMarkerCreatedAt")) {
        for (const auto& [sid, v] : o->items()) {
            if (auto when = Dates::parse(v)) markerCreatedAt_[sid] = *when;
        }
    }
    pruneLocked(now);
    changed_ = true;
}

// ---------------------------------------------------------------------------------------------
// The socket

bool HookBridge::start() {
    if (running_.load()) return true;
    createPrivateFolder(supportFolder_);
    fs::path folder = socketPath_.parent_path();
    if (folder.empty()) folder = ".";
    createPrivateFolder(folder);
    std::string why;
    if (!isPrivateFolder(folder, why)) {
        spdlog::warn("hook bridge: not listening: the socket's folder {} {}", folder.string(), why);
        return false;
    }

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string& path = socketPath_.native();
    if (path.size() >= sizeof(addr.sun_path)) {
        spdlog::warn("hook bridge: socket path too long: {}", path);
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    // A crashed run leaves its socket behind; anything else at the path is not ours to remove.
    struct stat st{};
    if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());

    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        spdlog::warn("hook bridge: cannot bind {}: {}", path, std::strerror(errno));
        ::close(fd);
        return false;
    }
    ::chmod(path.c_str(), 0600);
    if (::listen(fd, 16) != 0 || !setNonBlocking(fd) || ::pipe(wakePipe_) != 0) {
        ::close(fd);
        ::unlink(path.c_str());
        return false;
    }
    setNonBlocking(wakePipe_[0]);
    setNonBlocking(wakePipe_[1]);
    if (::stat(path.c_str(), &st) == 0) {
        socketDevice_ = static_cast<uint64_t>(st.st_dev);
        socketInode_ = static_cast<uint64_t>(st.st_ino);
    }
    listenFd_ = fd;

    restore(Clock::now());
    if (!saveQueue_) saveQueue_ = std::make_unique<SerialQueue>(std::string(queueLabel) + ".save");
    stopRequested_ = false;
    running_ = true;
    loopThread_ = std::thread([this] { loop(); });
    spdlog::info("hook bridge: listening on {}", path);
    return true;
}

void HookBridge::stop() {
    if (!running_.load()) return;
    stopRequested_ = true;
    wake();
    if (loopThread_.joinable()) loopThread_.join();
    running_ = false;

    for (auto& [_, c] : connections_) ::close(c.fd);
    connections_.clear();
    connectionCount_ = 0;
    ::close(listenFd_);
    listenFd_ = -1;
    {
        std::lock_guard lock(wakeMutex_);
        ::close(wakePipe_[0]);
        ::close(wakePipe_[1]);
        wakePipe_[0] = wakePipe_[1] = -1;
    }
    {
        std::lock_guard lock(mutex_);
        gates_.clear();  // a held connection cannot outlive the socket
        outbox_.clear();
    }
    saveQueue_.reset();  // runs what is queued, then joins
    persistNow();
    // Remove the socket only when it is still the one we bound.
    struct stat st{};
    if (::lstat(socketPath_.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_dev) == socketDevice_ &&
        static_cast<uint64_t>(st.st_ino) == socketInode_)
        ::unlink(socketPath_.c_str());
    spdlog::info("hook bridge: stopped");
}

void HookBridge::wake() {
    std::lock_guard lock(wakeMutex_);
    if (wakePipe_[1] < 0) return;
    char c = 1;
    ssize_t n = ::write(wakePipe_[1], &c, 1);  // a full pipe already means "wake up"
    (void)n;
}

void HookBridge::loop() {
    std::vector<pollfd> fds;
    std::vector<ConnectionId> ids;
    while (!stopRequested_.load()) {
        fds.clear();
        ids.clear();
        fds.push_back({wakePipe_[0], POLLIN, 0});
        fds.push_back({listenFd_, POLLIN, 0});
        auto now = std::chrono::steady_clock::now();
        auto deadline = std::chrono::steady_clock::time_point::max();
        bool savePending;
        std::set<ConnectionId> waiting;
        {
            std::lock_guard lock(mutex_);
            savePending = dirty_ && options_.saveAfterChange;
            waiting = waitingConnectionsLocked();
        }
        for (const auto& [id, c] : connections_) {
            fds.push_back({c.fd, POLLIN, 0});
            ids.push_back(id);
            if (!waiting.count(id)) deadline = std::min(deadline, c.lastHeard + options_.idleTimeout);
        }
        if (savePending) deadline = std::min(deadline, lastSave_ + options_.saveDelay);
        int timeout = -1;
        if (deadline != std::chrono::steady_clock::time_point::max()) {
            auto ms = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
            timeout = static_cast<int>(std::clamp<long long>(ms, 0, 60000));
        }
        int ready = ::poll(fds.data(), fds.size(), timeout);
        if (ready < 0 && errno != EINTR) break;

        if (ready > 0) {
            if (fds[0].revents) {
                char buf[256];
                while (::read(wakePipe_[0], buf, sizeof buf) > 0) {
                }
            }
            for (size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents) readClient(ids[i - 2]);
            }
            flushOutbox();
            if (fds[1].revents) acceptClients();
        }
        flushOutbox();
        closeIdleConnections();
        saveIfDue();
        notifyIfChanged();
    }
}

void HookBridge::acceptClients() {
    for (;;) {
        int fd = ::accept(listenFd_, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;  // EAGAIN: none left (or out of descriptors: try on the next wake-up)
        }
        auto peer = PeerCredentials::of(fd);
        if (!peer || peer->uid != PeerCredentials::currentUserId()) {
            if (options_.traceFile) trace("REFUSE connection of another user");
            ::close(fd);
            continue;
        }
        if (connections_.size() >= options_.maxConnections) {
            if (options_.traceFile) trace("REFUSE connection: too many open");
            ::close(fd);
            continue;
        }
        if (!setNonBlocking(fd)) {
            ::close(fd);
            continue;
        }
        ConnectionId id = nextConnection_++;
        connections_.emplace(id, Connection{fd, {}, std::chrono::steady_clock::now()});
        connectionCount_ = connections_.size();
        // Most hooks have written their line and closed by now: serve them at
        // once, so a burst of short clients never fills the connection slots.
        readClient(id);
    }
}

void HookBridge::readClient(ConnectionId id) {
    char chunk[kReadChunk];
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        auto it = connections_.find(id);
        if (it == connections_.end()) return;
        ssize_t n = ::read(it->second.fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n <= 0) {
            // End of file or an error; an unfinished last line is dropped.
            closeConnection(id);
            return;
        }
        Connection& c = it->second;
        c.lastHeard = std::chrono::steady_clock::now();
        size_t scanFrom = c.buffer.size();
        c.buffer.append(chunk, static_cast<size_t>(n));
        size_t start = 0;
        for (size_t nl; (nl = c.buffer.find('\n', scanFrom)) != std::string::npos; scanFrom = start = nl + 1) {
            if (nl - start > options_.maxLineBytes) {
                if (options_.traceFile) trace("DROP line longer than the limit; closing its connection");
                closeConnection(id);
                return;
            }
            // The handler only queues answers; connections close later, in flushOutbox().
            std::string line = c.buffer.substr(start, nl - start);
            handleLine(line, id);
        }
        c.buffer.erase(0, start);
        if (c.buffer.size() > options_.maxLineBytes) {
            if (options_.traceFile) trace("DROP line longer than the limit; closing its connection");
            closeConnection(id);
            return;
        }
    }
}

void HookBridge::closeConnection(ConnectionId id) {
    auto it = connections_.find(id);
    if (it == connections_.end()) return;
    ::close(it->second.fd);
    connections_.erase(it);
    connectionCount_ = connections_.size();
    // A held gate whose client went (the hook timed out, the agent was interrupted).
    std::lock_guard lock(mutex_);
    for (auto g = gates_.begin(); g != gates_.end();) {
        if (g->second.connection == id) {
            removeMarkerLocked(g->second.source, g->first);
            g = gates_.erase(g);
            changed_ = true;
        } else {
            ++g;
        }
    }
}

void HookBridge::flushOutbox() {
    std::vector<Reply> replies;
    std::vector<std::string> logLines;
    {
        std::lock_guard lock(mutex_);
        if (outbox_.empty() && approvalLogLines_.empty()) return;
        replies.swap(outbox_);
        logLines.swap(approvalLogLines_);
    }
    for (const auto& reply : replies) {
        auto it = connections_.find(reply.connection);
        if (it == connections_.end()) continue;  // the client has gone
        std::string line = Json{{"v", 1}, {"behavior", reply.behavior}}.dump() + "\n";
        ssize_t n = Sockets::sendNoSignal(it->second.fd, line.data(), line.size());
        (void)n;  // a client that went away or never reads gets nothing more
        if (options_.traceFile) trace("REPLY behavior=" + reply.behavior);
        closeConnection(reply.connection);
    }
    for (const auto& l : logLines) FileUtil::appendLine(approvalsLog(), l);
}

std::set<HookBridge::ConnectionId> HookBridge::waitingConnectionsLocked() const {
    std::set<ConnectionId> out;
    for (const auto& [_, g] : gates_) out.insert(g.connection);
    for (const auto& r : outbox_) out.insert(r.connection);  // answered, not yet written
    return out;
}

void HookBridge::closeIdleConnections() {
    auto now = std::chrono::steady_clock::now();
    std::vector<ConnectionId> idle;
    for (const auto& [id, c] : connections_) {
        if (now - c.lastHeard >= options_.idleTimeout) idle.push_back(id);
    }
    if (idle.empty()) return;
    std::set<ConnectionId> held;
    {
        std::lock_guard lock(mutex_);
        held = waitingConnectionsLocked();
    }
    for (ConnectionId id : idle) {
        if (held.count(id)) continue;
        if (options_.traceFile) trace("CLOSE idle connection");
        closeConnection(id);
    }
}

void HookBridge::saveIfDue() {
    if (!options_.saveAfterChange) return;
    auto now = std::chrono::steady_clock::now();
    if (now - lastSave_ < options_.saveDelay) return;
    auto state = std::make_shared<SavedState>();
    TimePoint wall = Clock::now();
    {
        std::lock_guard lock(mutex_);
        if (!dirty_) return;
        pruneLocked(wall);
        *state = snapshotLocked();
        dirty_ = false;
    }
    lastSave_ = now;
    // Encoded and written off this thread: a slow disk never delays an answer.
    saveQueue_->async([this, state, wall] {
        std::string text = encode(*state, wall);
        std::lock_guard write(saveMutex_);
        FileUtil::writeAtomically(stateFile(), text, 0600);
    });
}

}  // namespace lumora
