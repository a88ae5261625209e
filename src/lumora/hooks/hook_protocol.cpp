#include "lumora/hooks/hook_protocol.hpp"

#include <nlohmann/json.hpp>

#include "lumora/base/json_fields.hpp"
#include "lumora/base/json_text.hpp"
#include "scrivet/transcript_records.hpp"

namespace lumora::HookProtocol {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::string_view kEllipsis = "…";

// How many keys a line's objects hold together (a ':' outside strings): an
// ordered object finds a key by searching, so thousands of keys would cost
// seconds to parse.
size_t keyCount(std::string_view text) {
    size_t n = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == ':') {
            ++n;
        }
    }
    return n;
}

void cutInPlace(std::string& s, size_t maxBytes) {
    if (s.size() > maxBytes) s = cut(s, maxBytes);
}

void cutInPlace(std::optional<std::string>& s, size_t maxBytes) {
    if (s) cutInPlace(*s, maxBytes);
}

}  // namespace

HarnessProvider providerNamed(std::string_view source) {
    if (source == "codex") return HarnessProvider::codex;
    if (source == "cursor") return HarnessProvider::cursor;
    if (source == "kimi") return HarnessProvider::kimi;
    if (source == "opencode") return HarnessProvider::opencode;
    return HarnessProvider::claudeCode;
}

std::string_view sourceName(HarnessProvider provider) {
    switch (provider) {
        case HarnessProvider::claudeCode: return "claude";
        case HarnessProvider::codex: return "codex";
        case HarnessProvider::cursor: return "cursor";
        case HarnessProvider::kimi: return "kimi";
        case HarnessProvider::opencode: return "opencode";
    }
    return "claude";
}

std::string_view name(Behavior behavior) {
    switch (behavior) {
        case Behavior::allow: return "allow";
        case Behavior::deny: return "deny";
        case Behavior::passthrough: return "passthrough";
    }
    return "passthrough";
}

std::string cut(std::string_view text, size_t maxBytes) {
    if (text.size() <= maxBytes) return std::string(text);
    if (maxBytes < kEllipsis.size()) return std::string();
    size_t end = maxBytes - kEllipsis.size();
    // Back up to the first byte of a character.
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return std::string(text.substr(0, end)) + std::string(kEllipsis);
}

bool Request::isQuery() const { return action == "who" || action == "state"; }

AttentionMarker Request::marker(std::string markerKind) const {
    return AttentionMarker{sessionId, toolName, detail, std::move(markerKind), reason, escalated, options,
                           moreQuestions};
}

Parsed parse(std::string_view line) {
    Parsed out;
    if (line.size() > kMaxLineBytes) {
        out.why = "line longer than the limit";
        return out;
    }
    if (JsonText::nestedDeeperThan(line, kMaxNesting)) {
        out.why = "nested too deep";
        return out;
    }
    if (keyCount(line) > kMaxKeys) {
        out.why = "too many keys";
        return out;
    }
    Json j = Json::parse(line, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        out.why = "not a JSON object";
        return out;
    }
    Request r;
    using JsonFields::read;
    double version = 1, ts = 0;
    bool ok = read(j, "v", version) && read(j, "source", r.source) && read(j, "session_id", r.sessionId) &&
              read(j, "action", r.action) && read(j, "cwd", r.cwd) && read(j, "tool_name", r.toolName) &&
              read(j, "detail", r.detail) && read(j, "reason", r.reason) && read(j, "escalated", r.escalated) &&
              read(j, "kind", r.kind) && read(j, "options", r.options) && read(j, "more_questions", r.moreQuestions) &&
              read(j, "model", r.model) && read(j, "ts", ts) && read(j, "command", r.command) &&
              read(j, "transcript_path", r.transcriptPath) && read(j, "status", r.status) &&
              read(j, "title", r.title);
    if (!ok) {
        out.why = "a key has the wrong type";
        return out;
    }
    if (r.sessionId.empty() && !r.isQuery()) {
        out.why = "no session_id";
        return out;
    }
    if (r.sessionId.size() > kMaxSessionIdBytes) {
        out.why = "session_id longer than the limit";
        return out;
    }
    if (JsonFields::find(j, "ts")) r.ts = ts;
    r.provider = providerNamed(r.source);

    cutInPlace(r.source, kMaxNameBytes);
    cutInPlace(r.action, kMaxNameBytes);
    cutInPlace(r.cwd, kMaxPathBytes);
    cutInPlace(r.toolName, kMaxNameBytes);
    if (r.detail && r.detail->size() > kMaxDetailBytes) {
        r.detailCut = true;
        cutInPlace(r.detail, kMaxDetailBytes);
    }
    cutInPlace(r.reason, kMaxReasonBytes);
    cutInPlace(r.kind, kMaxNameBytes);
    if (r.options) {
        if (r.options->size() > kMaxOptions) r.options->resize(kMaxOptions);
        for (auto& o : *r.options) cutInPlace(o, kMaxOptionBytes);
    }
    cutInPlace(r.model, kMaxNameBytes);
    r.command = scrivet::truncateText(r.command.size() > kMaxDetailBytes ? cut(r.command, kMaxDetailBytes) : r.command,
                                      kMaxCursorCommandChars);
    cutInPlace(r.transcriptPath, kMaxPathBytes);
    cutInPlace(r.status, kMaxNameBytes);
    r.title = scrivet::truncateText(r.title.size() > kMaxDetailBytes ? cut(r.title, kMaxDetailBytes) : r.title,
                                    kMaxCursorTitleChars);
    out.request = std::move(r);
    return out;
}

std::string reply(Behavior behavior) {
    return R"({"v":1,"behavior":")" + std::string(name(behavior)) + "\"}\n";
}

std::string whoReply(int32_t pid) { return R"({"v":1,"app":"lumora","pid":)" + std::to_string(pid) + "}\n"; }

std::string whoRequest() { return "{\"v\":1,\"action\":\"who\"}\n"; }

std::string stateRequest() { return "{\"v\":1,\"action\":\"state\"}\n"; }

std::optional<int32_t> parseWhoReply(std::string_view line) {
    auto j = JsonText::parse(line, 4);
    if (!j || !j->is_object()) return std::nullopt;
    auto app = j->find("app");
    auto pid = j->find("pid");
    if (app == j->end() || *app != "lumora" || pid == j->end() || !pid->is_number_integer()) return std::nullopt;
    auto value = pid->get<int64_t>();
    if (value <= 0 || value > INT32_MAX) return std::nullopt;
    return static_cast<int32_t>(value);
}

}  // namespace lumora::HookProtocol
