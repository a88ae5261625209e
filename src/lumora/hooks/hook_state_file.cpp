#include "lumora/hooks/hook_state_file.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "lumora/base/dates.hpp"
#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"

namespace lumora::HookStateFile {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
// Read with std::map objects: an ordered object finds a key by searching, so a
// file with a hundred thousand keys in one object would take minutes to parse.
using ReadJson = nlohmann::json;
using scrivet::HarnessProvider;

namespace {

constexpr int kMaxDepth = 16;

struct MapKey {
    const char* key;
    HarnessProvider provider;
};
constexpr MapKey kMarkerMaps[] = {{"claudeMarkers", HarnessProvider::claudeCode},
                                  {"codexMarkers", HarnessProvider::codex},
                                  {"kimiMarkers", HarnessProvider::kimi},
                                  {"openCodeMarkers", HarnessProvider::opencode}};

// Keeps a marker read from outside within the limits a hook line has.
void clip(AttentionMarker& m) {
    using namespace HookProtocol;
    if (m.toolName.size() > kMaxNameBytes) m.toolName = cut(m.toolName, kMaxNameBytes);
    if (m.kind.size() > kMaxNameBytes) m.kind = cut(m.kind, kMaxNameBytes);
    if (m.detail && m.detail->size() > kMaxDetailBytes) m.detail = cut(*m.detail, kMaxDetailBytes);
    if (m.reason && m.reason->size() > kMaxReasonBytes) m.reason = cut(*m.reason, kMaxReasonBytes);
    if (m.options) {
        if (m.options->size() > kMaxOptions) m.options->resize(kMaxOptions);
        for (auto& o : *m.options) {
            if (o.size() > kMaxOptionBytes) o = cut(o, kMaxOptionBytes);
        }
    }
}

void clip(CursorPending& p) {
    using namespace HookProtocol;
    p.cwd = cut(p.cwd, kMaxPathBytes);
    p.command = cut(p.command, kMaxDetailBytes);
    p.kind = cut(p.kind, kMaxNameBytes);
    p.toolName = cut(p.toolName, kMaxNameBytes);
    p.transcriptPath = cut(p.transcriptPath, kMaxPathBytes);
}

void clip(CursorActivity& a) {
    using namespace HookProtocol;
    a.cwd = cut(a.cwd, kMaxPathBytes);
    a.status = cut(a.status, kMaxNameBytes);
    a.title = cut(a.title, kMaxDetailBytes);
}

// One entry of one of the saved maps, with the time that decides whether it
// is kept when the budget runs out.
struct Entry {
    const char* map;
    std::string key;
    Json value;
    TimePoint when;
};

Json toJson(const HookBridgeSnapshot& s, TimePoint savedAt, size_t budget) {
    std::vector<Entry> entries;
    for (const auto& [key, provider] : kMarkerMaps) {
        auto it = s.markers.find(provider);
        if (it == s.markers.end()) continue;
        for (const auto& [sid, m] : it->second) {
            TimePoint when = savedAt;
            if (provider == HarnessProvider::claudeCode) {
                if (auto c = s.claudeMarkerCreatedAt.find(sid); c != s.claudeMarkerCreatedAt.end()) when = c->second;
            }
            entries.push_back({key, sid, m.toJson(), when});
        }
    }
    for (const auto& [cid, p] : s.cursorPending) entries.push_back({"cursorPending", cid, p.toJson(), Dates::fromSeconds(p.ts)});
    for (const auto& [cid, a] : s.cursorActivity) entries.push_back({"cursorActivity", cid, a.toJson(), Dates::fromSeconds(a.ts)});
    for (const auto& [cid, m] : s.cursorModels) entries.push_back({"cursorModels", cid, Json(m), savedAt});

    // Newest first until the budget is spent.
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.when > b.when; });
    std::map<std::string, std::map<std::string, const Entry*>> kept;
    size_t used = 0;
    for (const auto& e : entries) {
        size_t size = e.key.size() + JsonText::dump(e.value).size() + 8;
        // A Claude marker also takes a line in claudeMarkerCreatedAt.
        if (std::string_view(e.map) == "claudeMarkers") size += e.key.size() + 36;
        if (used + size > budget) continue;
        used += size;
        kept[e.map][e.key] = &e;
    }
    auto object = [&](const char* map) {
        Json j = Json::object();
        for (const auto& [key, e] : kept[map]) j[key] = e->value;
        return j;
    };
    Json created = Json::object();
    for (const auto& [sid, _] : kept["claudeMarkers"]) {
        if (auto c = s.claudeMarkerCreatedAt.find(sid); c != s.claudeMarkerCreatedAt.end())
            created[sid] = Dates::format(c->second);
    }
    Json state = Json::object();
    state["savedAt"] = Dates::format(savedAt);
    state["claudeMarkers"] = object("claudeMarkers");
    state["codexMarkers"] = object("codexMarkers");
    state["cursorPending"] = object("cursorPending");
    state["cursorActivity"] = object("cursorActivity");
    state["cursorModels"] = object("cursorModels");
    state["claudeMarkerCreatedAt"] = std::move(created);
    state["kimiMarkers"] = object("kimiMarkers");
    state["openCodeMarkers"] = object("openCodeMarkers");
    return state;
}

// Calls `each(key, value)` for at most kMaxEntriesPerMap members of the
// object at `key`; each value comes as an ordered object (they are small).
template <typename Each>
void members(const ReadJson& j, const char* key, Each each) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_object()) return;
    size_t n = 0;
    for (const auto& [k, v] : it->items()) {
        if (++n > kMaxEntriesPerMap) break;
        if (k.empty() || k.size() > HookProtocol::kMaxSessionIdBytes) continue;
        each(k, Json(v));
    }
}

std::optional<ReadJson> parseForReading(std::string_view text) {
    if (JsonText::nestedDeeperThan(text, kMaxDepth)) return std::nullopt;
    auto j = ReadJson::parse(text, nullptr, false);
    if (j.is_discarded()) return std::nullopt;
    return j;
}

std::optional<Decoded> fromJson(const ReadJson& j) {
    if (!j.is_object()) return std::nullopt;
    Decoded d;
    if (auto it = j.find("savedAt"); it != j.end()) d.savedAt = Dates::parse(Json(*it)).value_or(TimePoint{});
    auto& s = d.state;
    for (const auto& [key, provider] : kMarkerMaps) {
        auto& into = s.markers[provider];
        members(j, key, [&](const std::string& sid, const Json& v) {
            if (auto m = AttentionMarker::fromJson(v)) {
                m->sessionId = sid;
                clip(*m);
                into[sid] = std::move(*m);
            }
        });
    }
    members(j, "cursorPending", [&](const std::string& cid, const Json& v) {
        if (auto p = CursorPending::fromJson(v)) {
            p->conversationId = cid;
            clip(*p);
            s.cursorPending[cid] = std::move(*p);
        }
    });
    members(j, "cursorActivity", [&](const std::string& cid, const Json& v) {
        if (auto a = CursorActivity::fromJson(v)) {
            a->conversationId = cid;
            clip(*a);
            s.cursorActivity[cid] = std::move(*a);
        }
    });
    members(j, "cursorModels", [&](const std::string& cid, const Json& v) {
        if (v.is_string()) s.cursorModels[cid] = HookProtocol::cut(v.get_ref<const std::string&>(), HookProtocol::kMaxNameBytes);
    });
    members(j, "claudeMarkerCreatedAt", [&](const std::string& sid, const Json& v) {
        if (auto when = Dates::parse(v)) s.claudeMarkerCreatedAt[sid] = *when;
    });
    members(j, "claudeBusy", [&](const std::string& sid, const Json& v) {
        if (auto when = Dates::parse(v)) s.claudeBusy[sid] = *when;
    });
    members(j, "heldGates", [&](const std::string& sid, const Json& v) {
        if (!v.is_object()) return;
        auto id = v.find("gateId");
        auto source = v.find("source");
        if (id == v.end() || !id->is_number_unsigned() || source == v.end() || !source->is_string()) return;
        HookBridgeSnapshot::Gate g;
        g.id = id->get<uint64_t>();
        g.provider = HookProtocol::providerNamed(source->get_ref<const std::string&>());
        if (auto shown = v.find("shown"); shown != v.end() && shown->is_boolean()) g.shown = shown->get<bool>();
        s.gates[sid] = g;
    });
    return d;
}

}  // namespace

std::string encode(const HookBridgeSnapshot& state, TimePoint savedAt, size_t budget) {
    return JsonText::dump(toJson(state, savedAt, budget)) + "\n";
}

std::optional<Decoded> decode(std::string_view text) {
    auto j = parseForReading(text);
    if (!j) return std::nullopt;
    return fromJson(*j);
}

std::optional<Decoded> load(const fs::path& file) {
    auto read = FileUtil::read(file, kMaxFileBytes);
    if (read.missing()) return std::nullopt;
    std::optional<Decoded> decoded;
    std::string why = read.why;
    if (read.ok()) {
        decoded = decode(read.text);
        if (!decoded) why = "not a state file";
    }
    if (decoded) return decoded;
    // Set aside, so the next save starts clean and the user can look at it.
    fs::path aside = file;
    aside += ".bad";
    std::error_code ec;
    fs::remove_all(aside, ec);
    fs::rename(file, aside, ec);
    spdlog::warn("hook bridge: {} set aside as {} ({}); starting empty", file.filename().string(),
                 aside.filename().string(), why);
    return std::nullopt;
}

std::string encodeStateReply(const HookBridgeSnapshot& s, TimePoint now, int32_t pid) {
    Json state = toJson(s, now, kWriteBudget);
    Json busy = Json::object();
    for (const auto& [sid, when] : s.claudeBusy) busy[sid] = Dates::format(when);
    Json gates = Json::object();
    for (const auto& [sid, g] : s.gates) {
        gates[sid] = {{"gateId", g.id}, {"source", std::string(HookProtocol::sourceName(g.provider))}, {"shown", g.shown}};
    }
    state["claudeBusy"] = std::move(busy);
    state["heldGates"] = std::move(gates);
    Json reply = Json::object();
    reply["v"] = 1;
    reply["pid"] = pid;
    reply["state"] = std::move(state);
    return JsonText::dump(reply) + "\n";
}

std::optional<Decoded> decodeStateReply(std::string_view line) {
    auto j = parseForReading(line);
    if (!j || !j->is_object()) return std::nullopt;
    auto state = j->find("state");
    if (state == j->end()) return std::nullopt;
    return fromJson(*state);
}

}  // namespace lumora::HookStateFile
