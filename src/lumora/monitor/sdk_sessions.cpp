#include "lumora/monitor/sdk_sessions.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "lumora/base/defaults_store.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/platform/file_stamp.hpp"
#include "lumora/platform/paths.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/journal_entry.hpp"
#include "scrivet/regular_file.hpp"
#include "scrivet/tail_reader.hpp"

namespace lumora {

namespace SDKSessionReader {

namespace {

// How much of a journal's beginning is searched for its entrypoint.
constexpr size_t kHeadBytes = 256 * 1024;

// A journal's head never changes once it is written: a head read whole is
// remembered, found or not; a file shorter than a head is read again only
// once it has grown.
struct HeadCache {
    struct Seen {
        std::optional<Head> head;
        uint64_t size = 0;  // what the file held when read
    };
    std::mutex mutex;
    std::unordered_map<std::string, Seen> heads;
};
HeadCache& headCache() {
    static HeadCache cache;
    return cache;
}

std::optional<Head> cachedHead(const fs::path& file, uint64_t size) {
    auto& cache = headCache();
    {
        std::lock_guard lock(cache.mutex);
        if (auto it = cache.heads.find(file.string()); it != cache.heads.end()) {
            const auto& seen = it->second;
            if (seen.head || seen.size >= kHeadBytes || seen.size == size) return seen.head;
        }
    }
    auto head = readHead(file);
    std::lock_guard lock(cache.mutex);
    if (cache.heads.size() > 4096) cache.heads.clear();
    cache.heads[file.string()] = HeadCache::Seen{head, size};
    return head;
}

// The time of the newest "user" or "assistant" entry in the journal's tail.
std::optional<Date> lastTurn(const fs::path& file) {
    auto entries = scrivet::TailReader::entries(
        file, 200, [](std::string_view type) { return type == "user" || type == "assistant"; });
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        if (auto ts = it->string("timestamp")) {
            if (auto d = scrivet::parseIsoDate(*ts)) return *d;
        }
    }
    return std::nullopt;
}

std::string lastComponent(const std::string& path) {
    fs::path p = fs::path(path).lexically_normal();
    if (!p.has_filename()) p = p.parent_path();
    return p.filename().string();
}

}  // namespace

std::optional<Head> readHead(const fs::path& transcript) {
    auto head = scrivet::RegularFile::readHead(transcript, kHeadBytes);
    if (!head) return std::nullopt;
    const std::string& buf = *head;
    std::optional<std::string> cwd;
    size_t pos = 0;
    while (pos < buf.size()) {
        size_t nl = buf.find('\n', pos);
        if (nl == std::string::npos) break;  // a cut last line is not read
        auto parsed = JsonText::parse(std::string_view(buf).substr(pos, nl - pos));
        pos = nl + 1;
        if (!parsed || !parsed->is_object()) continue;
        const auto& j = *parsed;
        if (!cwd) {
            if (auto it = j.find("cwd"); it != j.end() && it->is_string()) cwd = it->get<std::string>();
        }
        auto ep = j.find("entrypoint");
        if (ep == j.end() || !ep->is_string()) continue;
        Head h{ep->get<std::string>(), cwd};
        return h;
    }
    return std::nullopt;
}

std::vector<SDKSession> runningSessions(const fs::path& projectsRoot, const fs::path& claudeConfig, Date now,
                                        std::chrono::seconds maxAge, const std::set<std::string>& excluding,
                                        const std::function<bool(const SDKSession&)>& shown) {
    std::map<std::string, SDKSession> byCwd;
    std::error_code ec;
    for (fs::directory_iterator dir(projectsRoot, ec), end; !ec && dir != end; dir.increment(ec)) {
        std::error_code dirEc;
        if (!dir->is_directory(dirEc)) continue;
        for (fs::directory_iterator it(dir->path(), dirEc); !dirEc && it != end; it.increment(dirEc)) {
            const fs::path& file = it->path();
            if (file.extension() != ".jsonl") continue;
            auto stamp = FileStamp::of(file);  // one look for both its time and its size
            if (!stamp || now - stamp->modified() > maxAge) continue;
            auto head = cachedHead(file, stamp->size);
            if (!head || !head->entrypoint.starts_with("sdk-") || !head->cwd) continue;
            if (excluding.count(file.stem().string())) continue;
            // A recently touched journal whose last turn is old is residue.
            auto turn = lastTurn(file);
            if (turn && now - *turn > maxAge) continue;
            SDKSession s;
            s.sessionId = file.stem().string();
            s.cwd = *head->cwd;
            s.projectName = lastComponent(s.cwd);
            s.entrypoint = head->entrypoint;
            s.transcript = file;
            s.lastActivity = turn.value_or(stamp->modified());
            auto existing = byCwd.find(s.cwd);
            if (existing != byCwd.end() && existing->second.lastActivity >= s.lastActivity) continue;
            byCwd[s.cwd] = std::move(s);
        }
    }
    std::vector<SDKSession> out;
    for (auto& [cwd, s] : byCwd) {
        if (shown && !shown(s)) continue;  // decided before the journal is read
        s.info = scrivet::ClaudeTranscriptReader::info(s.transcript, s.cwd, claudeConfig);
        if (s.info) {
            s.model = s.info->model;
            s.contextTokens = s.info->contextTokens;
        }
        out.push_back(std::move(s));
    }
    std::sort(out.begin(), out.end(),
              [](const SDKSession& a, const SDKSession& b) { return a.lastActivity > b.lastActivity; });
    return out;
}

}  // namespace SDKSessionReader

// --- SDKHostMemory -----------------------------------------------------------------

namespace {

using Json = nlohmann::ordered_json;

int64_t epochMillis(Date d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d.time_since_epoch()).count();
}

std::optional<AgentHost::Kind> kindFromName(const std::string& name) {
    if (name == "terminal") return AgentHost::Kind::terminal;
    if (name == "ide") return AgentHost::Kind::ide;
    if (name == "app") return AgentHost::Kind::app;
    return std::nullopt;
}

}  // namespace

SDKHostMemory& SDKHostMemory::shared() {
    static SDKHostMemory memory(DefaultsStore::shared());
    return memory;
}

SDKHostMemory::SDKHostMemory(DefaultsStore& store) : store_(store) { load(); }

void SDKHostMemory::load() {
    auto stored = store_.dictionary(kDefaultsKey);
    if (!stored) return;
    for (const auto& item : stored->items()) {
        const auto& id = item.key();
        const auto& v = item.value();
        if (!v.is_object()) continue;
        // A hand-edited file may hold anything: every field is checked before it is read.
        auto text = [&](const char* key) -> std::optional<std::string> {
            auto it = v.find(key);
            if (it == v.end() || !it->is_string()) return std::nullopt;
            return it->get<std::string>();
        };
        auto kind = kindFromName(text("kind").value_or(""));
        auto seen = v.find("lastSeen");
        if (!kind || seen == v.end() || !seen->is_number()) continue;
        double ms = seen->get<double>();
        if (!(ms >= 0 && ms <= 9e12)) continue;  // no time a clock of nanoseconds holds
        Entry e;
        e.host.kind = *kind;
        e.host.appName = text("appName").value_or("");
        e.host.bundleID = text("bundleID");
        e.lastSeen = Date(std::chrono::milliseconds(static_cast<int64_t>(ms)));
        entries_[id] = std::move(e);
    }
}

void SDKHostMemory::save(Date now) {
    std::erase_if(entries_, [&](const auto& kv) { return now - kv.second.lastSeen > kMaxAge; });
    while (entries_.size() > kCapacity) {
        auto oldest = std::min_element(entries_.begin(), entries_.end(), [](const auto& a, const auto& b) {
            return a.second.lastSeen < b.second.lastSeen;
        });
        entries_.erase(oldest);
    }
    Json out = Json::object();
    for (const auto& [id, e] : entries_) {
        Json v = Json::object();
        v["kind"] = std::string(kindName(e.host.kind));
        v["appName"] = e.host.appName;
        if (e.host.bundleID) v["bundleID"] = *e.host.bundleID;
        v["lastSeen"] = epochMillis(e.lastSeen);
        out[id] = std::move(v);
    }
    store_.setValue(kDefaultsKey, std::move(out));
}

bool SDKHostMemory::learn(const std::string& sessionId, const AgentHost& host, Date now) {
    if (host.kind != AgentHost::Kind::app || !host.bundleID || host.bundleID->empty()) return false;
    std::lock_guard lock(mutex_);
    auto it = entries_.find(sessionId);
    // Seeing the same host again only refreshes the time now and then.
    if (it != entries_.end() && it->second.host == host && now - it->second.lastSeen < std::chrono::minutes(1))
        return true;
    entries_[sessionId] = Entry{host, now};
    save(now);
    return true;
}

std::optional<AgentHost> SDKHostMemory::host(const std::string& sessionId) const {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(sessionId);
    if (it == entries_.end()) return std::nullopt;
    return it->second.host;
}

std::map<std::string, SDKHostMemory::Entry> SDKHostMemory::entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
}

size_t SDKHostMemory::size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

fs::path conductorWorkspaces() { return Paths::home() / "conductor" / "workspaces"; }

std::optional<AgentHost> sdkSessionHost(const SDKSession& session, const SDKHostMemory& memory,
                                        const std::function<bool(const std::string& appId)>& isRunning,
                                        const fs::path& workspaces) {
    if (auto learned = memory.host(session.sessionId)) {
        if (learned->kind == AgentHost::Kind::app && learned->bundleID && isRunning(*learned->bundleID))
            return learned;
        return std::nullopt;
    }
    std::string root = workspaces.lexically_normal().string();
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    bool inWorkspaces = session.cwd.size() > root.size() + 1 && session.cwd.starts_with(root) &&
                        session.cwd[root.size()] == '/';
    if (!inWorkspaces) return std::nullopt;  // includes the "sdk-cli" one-shots with no known host
    if (!isRunning(kConductorAppId)) return std::nullopt;
    AgentHost conductor;
    conductor.kind = AgentHost::Kind::app;
    conductor.appName = "Conductor";
    conductor.bundleID = kConductorAppId;
    return conductor;
}

}  // namespace lumora
