#include "lumora/monitor/claude_session_index.hpp"

#include <algorithm>
#include <charconv>
#include <map>
#include <nlohmann/json.hpp>

#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/monitor/agent_process_finder.hpp"

namespace lumora::ClaudeSessionIndex {

namespace {

using Json = nlohmann::ordered_json;

// A session file is a few hundred bytes; anything far larger is not one.
constexpr size_t kMaxRecordBytes = 1u << 20;

std::optional<std::string> text(const Json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<Date> millis(const Json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_number()) return std::nullopt;
    // Milliseconds since 1970 that a clock of nanoseconds can hold (to 2255):
    // anything else is no time this file could carry.
    constexpr double kLatest = 9e12;
    double ms = it->get<double>();
    if (!(ms >= 0 && ms <= kLatest)) return std::nullopt;
    return Date(std::chrono::milliseconds(static_cast<int64_t>(ms)));
}

std::optional<uint64_t> ticks(const Json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end()) return std::nullopt;
    if (it->is_number_unsigned()) return it->get<uint64_t>();
    if (!it->is_string()) return std::nullopt;
    const auto& s = it->get_ref<const std::string&>();
    uint64_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
    return v;
}

bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

}  // namespace

bool isUUID(std::string_view s) {
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != '-' : !isHex(s[i])) return false;
    }
    return true;
}

std::optional<Record> parse(std::string_view json) {
    auto parsed = JsonText::parse(json);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    const auto& j = *parsed;
    Record r;
    auto pid = j.find("pid");
    if (pid == j.end() || !pid->is_number_integer()) return std::nullopt;
    int64_t p = pid->get<int64_t>();
    if (p <= 0 || p > INT32_MAX) return std::nullopt;
    r.pid = static_cast<int32_t>(p);
    auto session = text(j, "sessionId");
    if (!session || !isUUID(*session)) return std::nullopt;
    r.sessionId = *session;
    auto cwd = text(j, "cwd");
    if (!cwd || cwd->empty() || cwd->front() != '/') return std::nullopt;
    r.cwd = *cwd;
    auto started = millis(j, "startedAt");
    if (!started) return std::nullopt;
    r.startedAt = *started;
    r.procStart = ticks(j, "procStart");
    r.status = text(j, "status");
    r.waitingFor = text(j, "waitingFor");
    r.statusUpdatedAt = millis(j, "statusUpdatedAt");
    r.tmux = text(j, "tmux");
    r.entrypoint = text(j, "entrypoint");
    r.name = text(j, "name");
    return r;
}

std::vector<Record> read(const fs::path& folder) {
    std::vector<Record> out;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".json") continue;
        auto contents = FileUtil::readFile(it->path(), kMaxRecordBytes);
        if (!contents) continue;
        if (auto r = parse(*contents)) out.push_back(std::move(*r));
    }
    return out;
}

std::vector<Record> validate(const std::vector<Record>& records, const ProcessSnapshot& snapshot,
                             std::chrono::seconds tolerance) {
    // Per session: the surviving record and its process's birth.
    struct Survivor {
        Record record;
        uint64_t birthTicks;
        Date birth;
    };
    std::map<std::string, Survivor> bySession;
    for (const auto& r : records) {
        const ProcessInfo* live = snapshot.find(r.pid);
        if (!live || !AgentProcessFinder::isClaudeProcess(*live)) continue;
        if (r.procStart && live->startTicks != 0) {
            if (*r.procStart != live->startTicks) continue;
        } else if (live->start) {
            auto off = *live->start > r.startedAt ? *live->start - r.startedAt : r.startedAt - *live->start;
            if (off > tolerance) continue;
        }
        Survivor s{r, live->startTicks, live->start.value_or(r.startedAt)};
        auto [it, inserted] = bySession.try_emplace(r.sessionId, s);
        if (inserted) continue;
        bool newer = (s.birthTicks && it->second.birthTicks) ? s.birthTicks > it->second.birthTicks
                                                             : s.birth > it->second.birth;
        if (newer) it->second = s;
    }
    std::vector<Record> out;
    out.reserve(bySession.size());
    for (auto& [id, s] : bySession) out.push_back(std::move(s.record));
    std::sort(out.begin(), out.end(), [](const Record& a, const Record& b) { return a.pid < b.pid; });
    return out;
}

}  // namespace lumora::ClaudeSessionIndex
