#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/hooks/attention_marker.hpp"
#include "scrivet/harness_provider.hpp"

// The hook line protocol: one JSON object per line from the hook programs,
// and the one-line replies the bridge writes back. Pure functions: no state,
// no I/O. PROTOCOL.md at the top of the tree describes the same in words.
namespace lumora::HookProtocol {

using scrivet::HarnessProvider;

// What one line may hold. A longer line closes its connection; longer fields
// are cut (and a gate whose command was cut is never held or auto-approved,
// since the user could not see all of it).
inline constexpr size_t kMaxLineBytes = 256 * 1024;
inline constexpr size_t kMaxSessionIdBytes = 256;  // a longer session id drops the line
inline constexpr size_t kMaxDetailBytes = 8 * 1024;
inline constexpr size_t kMaxReasonBytes = 2 * 1024;
inline constexpr size_t kMaxPathBytes = 4096;       // cwd, transcript_path
inline constexpr size_t kMaxNameBytes = 256;        // tool_name, kind, model, status
inline constexpr size_t kMaxOptions = 16;
inline constexpr size_t kMaxOptionBytes = 256;
inline constexpr size_t kMaxCursorCommandChars = 200;
inline constexpr size_t kMaxCursorTitleChars = 120;
inline constexpr int kMaxNesting = 64;
inline constexpr size_t kMaxKeys = 256;  // in all of a line's objects together

// The agent a `source` names; unknown names count as Claude Code.
HarnessProvider providerNamed(std::string_view source);
// The `source` an agent's hook programs send: "claude", "codex", "cursor", "kimi", "opencode".
std::string_view sourceName(HarnessProvider provider);

// The answer to a gate.
enum class Behavior { allow, deny, passthrough };
std::string_view name(Behavior behavior);

// One request line, its keys read with their expected types and cut to the limits.
struct Request {
    HarnessProvider provider = HarnessProvider::claudeCode;  // from `source`; unknown names count as Claude
    std::string source = "claude";                           // as sent (cut), for the trace
    std::string action = "marker";
    std::string sessionId;  // empty only for the queries "who" and "state"
    std::string cwd;
    std::string toolName;
    std::optional<std::string> detail;
    bool detailCut = false;  // the detail was longer than kMaxDetailBytes
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

    // True for the queries that need no session: "who" and "state".
    bool isQuery() const;
    // The marker this request describes, of the given kind.
    AttentionMarker marker(std::string markerKind) const;
    bool operator==(const Request&) const = default;
};

// A parsed line, or why it was dropped.
struct Parsed {
    std::optional<Request> request;
    std::string why;  // "not a JSON object", "a key has the wrong type", "no session_id", ...
};

// Parses one line (without its "\n"). Never throws, whatever the bytes.
Parsed parse(std::string_view line);

// The reply line to a gate: {"v":1,"behavior":"allow"} and "\n".
std::string reply(Behavior behavior);
// The reply line to "who": {"v":1,"app":"lumora","pid":123} and "\n".
std::string whoReply(int32_t pid);
// The request lines of the two queries.
std::string whoRequest();
std::string stateRequest();
// The pid in a "who" reply; nothing when the line is not one.
std::optional<int32_t> parseWhoReply(std::string_view line);

// `text` cut to at most `maxBytes` bytes on a UTF-8 character boundary,
// ending in "…" when cut.
std::string cut(std::string_view text, size_t maxBytes);

}  // namespace lumora::HookProtocol
