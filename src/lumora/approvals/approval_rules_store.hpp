#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lumora/base/serial_queue.hpp"
#include "lumora/platform/file_stamp.hpp"
#include "scrivet/harness_provider.hpp"

namespace lumora {

class DefaultsStore;

// One standing "always" rule: a command head of a shell tool, or a whole tool,
// for the prompts of one agent.
struct ApprovalRule {
    std::string id;                   // a UUID, used to remove the rule
    std::string toolName;
    std::optional<std::string> head;  // absent for a whole-tool rule
    std::chrono::system_clock::time_point createdAt{};
    // The agent whose prompts it answers; rules stored before rules had one
    // were all made on Claude Code prompts.
    scrivet::HarnessProvider provider = scrivet::HarnessProvider::claudeCode;

    // The key the rule allows: "head:" + head, or "tool:" + tool name.
    std::string key() const;

    // Encoded with the keys id, toolName, head (when present), createdAt and
    // provider (its raw value, "claudeCode"; read as Claude Code when absent).
    nlohmann::ordered_json toJson() const;
    // Nothing for a malformed rule, or one naming an agent this version does not know.
    static std::optional<ApprovalRule> fromJson(const nlohmann::ordered_json& json);
    bool operator==(const ApprovalRule&) const = default;
};

// The rules that approve a gate at once: session rules in memory (gone on
// quit, and after a day unused) and always rules in the user defaults. Every
// rule belongs to one agent. Thread-safe; the bridge asks it from its own
// thread while decisions come from the main thread.
//
// The always rules are served from memory: a gate costs one look at the
// defaults file's stamp, and the rules are read again only when it changed,
// without ever waiting for a write in progress (another process, such as
// `lumora --approvals-remove`, may hold the file's lock). New always rules
// are saved on the store's own queue.
class ApprovalRulesStore {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;
    static constexpr const char* defaultsKey = "approvalRules.v1";
    // A session's rules go after this long without being added to or used...
    static constexpr auto kSessionRulesIdle = std::chrono::hours(24);
    // ...and the least recently used session's go when more sessions than this have rules.
    static constexpr size_t kMaxSessions = 512;
    // Rule keys kept per session; later ones are not added.
    static constexpr size_t kMaxKeysPerSession = 64;

    // The store on DefaultsStore::shared().
    static ApprovalRulesStore& shared();

    // A store on `defaults`; loads (and cleans) the always rules at once.
    // `clock` (the system clock when empty) times session rules and new rules.
    explicit ApprovalRulesStore(DefaultsStore& defaults, Clock clock = {});
    // Saves what is still queued.
    ~ApprovalRulesStore();
    ApprovalRulesStore(const ApprovalRulesStore&) = delete;
    ApprovalRulesStore& operator=(const ApprovalRulesStore&) = delete;

    // True when the rules of `provider` cover this request: never for a
    // request that leaves the sandbox (escalated, or any Codex request) or an
    // empty tool name; a shell command only when every program it runs is
    // allowed (an unscopable command never); any other tool when the whole
    // tool is. Never waits on the defaults file.
    bool matches(scrivet::HarnessProvider provider, const std::string& sessionId, const std::string& toolName,
                 const std::optional<std::string>& detail, bool escalated) const;

    // Allows `head` (or, without one, the whole tool) for the rest of this
    // session of `provider`.
    void addSessionRule(scrivet::HarnessProvider provider, const std::string& sessionId, const std::string& toolName,
                        const std::optional<std::string>& head);

    // Appends an always rule with a new id and the current time and returns
    // it. It answers gates at once; it is saved on the store's queue.
    ApprovalRule addAlwaysRule(scrivet::HarnessProvider provider, const std::string& toolName,
                               const std::optional<std::string>& head);

    // Removes the always rule with this id (saved before returning); false when there is none.
    bool removeAlwaysRule(const std::string& id);

    // The always rules, oldest first (as stored in the defaults, cleaned, then
    // the ones still being saved).
    std::vector<ApprovalRule> alwaysRules() const;

    // Waits until every added always rule is saved.
    void flush();

    // How many sessions have session rules (after dropping the idle ones).
    size_t sessionCount() const;

    // Whether a stored rule is plausible: a whole-tool rule needs a tool name;
    // a head is one word, or "sudo" and one word, each word at most 64
    // characters of letters, digits and "_-./+:@".
    static bool looksLikeCommandHead(const ApprovalRule& rule);

private:
    using SessionKey = std::pair<scrivet::HarnessProvider, std::string>;
    struct SessionRules {
        std::set<std::string> keys;
        std::chrono::system_clock::time_point lastUsed{};
    };

    // Decodes a stored list, dropping malformed and implausible rules (counted in `dropped`).
    static std::vector<ApprovalRule> decode(const nlohmann::ordered_json& list, size_t& dropped);
    // Reads the rules again when the defaults file changed; with `wait`
    // false it gives up (keeping what it has) while a write is in progress.
    void refresh(bool wait) const;
    // Requires mutex_: the rules as read plus the ones still being saved, and their keys.
    void setRulesLocked(std::vector<ApprovalRule> stored) const;
    // Requires mutex_: drops idle sessions, then the least recently used beyond the cap.
    void pruneSessionsLocked(std::chrono::system_clock::time_point now) const;
    void save(const ApprovalRule& rule);

    DefaultsStore& defaults_;
    Clock clock_;
    mutable std::mutex mutex_;
    mutable std::vector<ApprovalRule> always_;     // stored and pending, oldest first
    mutable std::vector<ApprovalRule> pending_;    // added here, not saved yet
    mutable std::map<scrivet::HarnessProvider, std::set<std::string>> alwaysKeys_;
    mutable std::optional<FileStamp> stamp_;       // of the defaults file when last read
    mutable bool loaded_ = false;
    mutable std::map<SessionKey, SessionRules> sessionRules_;
    SerialQueue writes_{"lumora.approvalrules"};  // last: destroyed (and drained) first
};

}  // namespace lumora
