#include "lumora/hooks/attention_marker.hpp"

#include "lumora/hooks/cursor_notes.hpp"
#include "lumora/base/json_fields.hpp"

namespace lumora {

using Json = nlohmann::ordered_json;
using JsonFields::read;

Json AttentionMarker::toJson() const {
    Json j = Json::object();
    j["sessionId"] = sessionId;
    j["toolName"] = toolName;
    if (detail) j["detail"] = *detail;
    j["kind"] = kind;
    if (reason) j["reason"] = *reason;
    j["escalated"] = escalated;
    if (options) j["options"] = *options;
    j["moreQuestions"] = moreQuestions;
    return j;
}

std::optional<AttentionMarker> AttentionMarker::fromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    AttentionMarker m;
    if (!read(j, "sessionId", m.sessionId) || !read(j, "toolName", m.toolName) || !read(j, "detail", m.detail) ||
        !read(j, "kind", m.kind) || !read(j, "reason", m.reason) || !read(j, "escalated", m.escalated) ||
        !read(j, "options", m.options) || !read(j, "moreQuestions", m.moreQuestions))
        return std::nullopt;
    return m;
}

Json CursorPending::toJson() const {
    return Json{{"conversationId", conversationId}, {"cwd", cwd},   {"command", command},
                {"kind", kind},                     {"toolName", toolName}, {"ts", ts},
                {"transcriptPath", transcriptPath}};
}

std::optional<CursorPending> CursorPending::fromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    CursorPending p;
    if (!read(j, "conversationId", p.conversationId) || !read(j, "cwd", p.cwd) || !read(j, "command", p.command) ||
        !read(j, "kind", p.kind) || !read(j, "toolName", p.toolName) || !read(j, "ts", p.ts) ||
        !read(j, "transcriptPath", p.transcriptPath))
        return std::nullopt;
    return p;
}

Json CursorActivity::toJson() const {
    return Json{{"conversationId", conversationId}, {"cwd", cwd}, {"status", status}, {"title", title}, {"ts", ts}};
}

std::optional<CursorActivity> CursorActivity::fromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    CursorActivity a;
    if (!read(j, "conversationId", a.conversationId) || !read(j, "cwd", a.cwd) || !read(j, "status", a.status) ||
        !read(j, "title", a.title) || !read(j, "ts", a.ts))
        return std::nullopt;
    return a;
}

ApprovalRequest AttentionMarker::approvalRequest(bool approvable, scrivet::HarnessProvider provider) const {
    ApprovalRequest r{sessionId, toolName, detail, approvable, reason, escalated};
    r.provider = provider;
    r.escalated = r.leavesSandbox();
    return r;
}

}  // namespace lumora
