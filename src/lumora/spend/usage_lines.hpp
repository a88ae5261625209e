#pragma once

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/spend/spend_event.hpp"

// Reading token usage out of one journal line of each agent, with simdjson's
// on-demand parser (no tree is built; content blocks are skipped over).
// Every count must be a whole number from 0 to a hundred billion: a line with
// a count of another type, a negative one or an absurd one is malformed and
// gives nothing, like a line that is not JSON.
namespace lumora::UsageLines {

inline constexpr int64_t kMaxCount = 100'000'000'000;

// What a line says.
struct Found {
    enum class Kind { usage, model };
    Kind kind = Kind::usage;
    std::string dedupKey;  // usage: the response's identity
    int64_t millis = 0;    // usage: when, in milliseconds since 1970; 0 when the line has no time
    UsageCounts counts;    // usage
    std::string model;     // the model; empty when the line does not name it
    bool operator==(const Found&) const = default;
};

// The lines worth parsing hold one of these.
inline const std::vector<std::string>& claudeNeedles() {
    static const std::vector<std::string> n = {"\"usage\":"};
    return n;
}
inline const std::vector<std::string>& codexNeedles() {
    static const std::vector<std::string> n = {"\"token_", "\"turn_context\""};
    return n;
}
inline const std::vector<std::string>& kimiNeedles() {
    static const std::vector<std::string> n = {"\"usage.record\""};
    return n;
}

// A Claude assistant entry's usage: one entry per content block, all blocks
// of one API message carrying its "message"."id", "requestId" and full usage,
// so the key is the two ids joined ("msg_…:req_…", the message id alone
// without a request id). Nothing for other entries and for the "<synthetic>"
// model's entries, which carry no real usage.
std::optional<Found> claude(simdjson::padded_string_view line, simdjson::ondemand::parser& parser);

// A Codex rollout line: a "turn_context" names the model (kind model); a
// "token_count" event gives its "last_token_usage" (never the running
// total), and a "token_usage_record" gives its "usage". Both are keyed by the
// thread and its running total, so the record and the event of one response
// are one usage. `threadId` is the rollout's thread (from its file name),
// used where a line does not name it.
std::optional<Found> codex(simdjson::padded_string_view line, simdjson::ondemand::parser& parser,
                           std::string_view threadId);

// A Kimi wire "usage.record" of the turn scope; `agentKey` names the wire
// journal (session and agent) for the key.
std::optional<Found> kimi(simdjson::padded_string_view line, simdjson::ondemand::parser& parser,
                          std::string_view agentKey);

// "2026-11-22T00:47:30.162Z" (any number of fraction digits, "Z" or an
// offset such as "+01:00") as milliseconds since 1970.
std::optional<int64_t> parseIsoMillis(std::string_view text);

}  // namespace lumora::UsageLines
