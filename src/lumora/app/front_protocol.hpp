#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "lumora/hooks/task_plan_store.hpp"
#include "lumora/monitor/agent_instance.hpp"
#include "lumora/monitor/peek_event.hpp"
#include "lumora/spend/spend_history.hpp"
#include "lumora/ui/view_backend.hpp"
#include "lumora/usage/quota_reading.hpp"

// The front-end line protocol between the service (the Lumora that owns the
// hook socket) and the faces attached to it: a terminal view, `--watch`,
// `--status-line`, `--jump-next`. Pure functions: no state, no I/O.
// PROTOCOL.md describes the same in words.
//
// The service writes one state line at once and one per published change;
// every state line is self-contained (the whole session list, the quota
// readings, today's spend and what the views need to draw news), so a face
// never has to remember an earlier one. Faces write commands: decisions,
// "saw this row", jumps.
namespace lumora::FrontProtocol {

inline constexpr int kVersion = 1;
// A command line longer than this drops the face that sent it.
inline constexpr size_t kMaxCommandBytes = 64 * 1024;
// A state line longer than this is not read (a face keeps its last state).
inline constexpr size_t kMaxStateBytes = 64 * 1024 * 1024;

// Everything one state line carries.
struct State {
    int32_t pid = 0;  // the service's
    int32_t answeringFaces = 0;  // attached faces that show buttons: prompts are held while there is one
    std::vector<AgentInstance> sessions;  // in the monitor's order
    TaskPlans plans;
    std::vector<QuotaReading> quotas;
    std::optional<SpendSummary> spend;
    std::set<std::string> unseen;        // finished turns the user has not seen
    std::set<std::string> acknowledged;  // needs-you rows the user has looked at
    std::optional<PeekEvent> peek;
    std::optional<UsageAlert> usageAlert;
    std::optional<std::string> hooksProblem;
    bool operator==(const State&) const = default;
};

// The state as one line ending in "\n": {"v":1,"pid":…,"answeringFaces":…,"sessions":[…],
// "usage":{…},"spend":…,"unseen":[…],"acknowledged":[…],"peek":…,
// "usageAlert":…,"hooksProblem":…}. Sessions carry the `--scan --json`
// fields. Never throws, whatever bytes the strings hold.
std::string encodeState(const State& state, Date now);
// A state line (with or without its "\n"); nothing when it is not one. A
// session, plan or reading of the wrong shape is skipped. Never throws.
std::optional<State> decodeState(std::string_view line);
// Just the sessions' JSON of a state line, in order: what `--watch` formats.
std::optional<nlohmann::ordered_json> stateJson(std::string_view line);

// A session as `--scan --json` writes it, read back (its planUsage and
// taskPlan aside); nothing when it lacks an id or has the wrong shape.
std::optional<AgentInstance> sessionFromJson(const nlohmann::ordered_json& json);
std::optional<TaskPlan> planFromJson(const nlohmann::ordered_json& json);
std::optional<QuotaReading> readingFromJson(const nlohmann::ordered_json& json);
std::optional<SpendSummary> spendFromJson(const nlohmann::ordered_json& json);
nlohmann::ordered_json toJson(const SpendSummary& spend);

// What a face asks of the service.
struct Command {
    enum class Kind {
        face,    // {"action":"face","answers":true}: this face can answer prompts (it shows buttons)
        decide,  // {"action":"decide","session":…,"gate":N,"choice":"approve"|"deny"|"allowSession"|"allowAlways"}
        saw,     // {"action":"saw","session":…}
        jump,    // {"action":"jump","session":…,"ref":N}
    };
    Kind kind = Kind::face;
    bool answers = false;
    std::string session;
    uint64_t gate = 0;
    ApprovalChoice::Kind choice = ApprovalChoice::Kind::approve;
    int64_t ref = 0;
    bool operator==(const Command&) const = default;
};

// One command line (without its "\n"); nothing when it is not a command of
// this version. Never throws.
std::optional<Command> parseCommand(std::string_view line);
// The line of a command, ending in "\n".
std::string commandLine(const Command& command);

// The service's answer to a jump, to the face that asked: {"v":1,"jumped":ref,"lines":[…]}.
std::string jumpReply(int64_t ref, const std::vector<std::string>& lines);
struct JumpReply {
    int64_t ref = 0;
    std::vector<std::string> lines;
    bool operator==(const JumpReply&) const = default;
};
std::optional<JumpReply> parseJumpReply(std::string_view line);

// The service's answer to a decision, to the face that sent it:
// {"v":1,"decided":gate,"session":…,"taken":bool}; `taken` is false when the
// prompt was no longer shown (answered elsewhere first, or ended).
struct DecidedReply {
    std::string session;
    uint64_t gate = 0;
    bool taken = false;
    bool operator==(const DecidedReply&) const = default;
};
std::string decidedReply(const DecidedReply& reply);
std::optional<DecidedReply> parseDecidedReply(std::string_view line);

std::string_view choiceName(ApprovalChoice::Kind kind);

}  // namespace lumora::FrontProtocol
