#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scrivet/harness_provider.hpp"

namespace lumora {

class DefaultsStore;

// One standing "always" rule: a command head of a shell tool, or a whole tool.
struct ApprovalRule {
    std::string id;                   // a UUID, used to remove the rule
    std::string toolName;
    std::optional<std::string> head;  // absent for a whole-tool rule
    std::chrono::system_clock::time_point createdAt{};

    // The key the rule allows: "head:" + head, or "tool:" + tool name.
    std::string key() const;

    // Encoded with the keys id, toolName, head (when present), createdAt.
    nlohmann::ordered_json toJson() const;
    static std::optional<ApprovalRule> fromJson(const nlohmann::ordered_json& json);
    bool operator==(const ApprovalRule&) const = default;
};

// The rules that approve a gate at once: session rules in memory (gone on
// quit) and always rules in the user defaults. Thread-safe; the bridge asks it
// from its own thread while decisions come from the main thread.
class ApprovalRulesStore {
public:
    static constexpr const char* defaultsKey = "approvalRules.v1";

    // The store on DefaultsStore::shared().
    static ApprovalRulesStore& shared();

    // A store on `defaults`; loads (and cleans) the always rules at once.
    explicit ApprovalRulesStore(DefaultsStore& defaults);

    // True when the rules cover this request: never for an escalated request
    // or an empty tool name; a shell command only when every program it runs
    // is allowed; any other tool when the whole tool is.
    bool matches(const std::string& sessionId, const std::string& toolName,
                 const std::optional<std::string>& detail, bool escalated) const;
    // The same for a prompt of `provider`. Rules are made on Claude Code rows
    // (the only rows with buttons so far), so they answer only its prompts.
    bool matches(scrivet::HarnessProvider provider, const std::string& sessionId, const std::string& toolName,
                 const std::optional<std::string>& detail, bool escalated) const;

    // Allows `head` (or, without one, the whole tool) for the rest of this session.
    void addSessionRule(const std::string& sessionId, const std::string& toolName,
                        const std::optional<std::string>& head);

    // Appends an always rule with a new id and the current time, saves, and returns it.
    ApprovalRule addAlwaysRule(const std::string& toolName, const std::optional<std::string>& head);

    // Removes the always rule with this id; false when there is none.
    bool removeAlwaysRule(const std::string& id);

    // The always rules, oldest first (as stored in the defaults, cleaned).
    std::vector<ApprovalRule> alwaysRules() const;

    // Whether a stored rule is plausible: a whole-tool rule needs a tool name;
    // a head is one word, or "sudo" and one word, each word at most 64
    // characters of letters, digits and "_-./+:@".
    static bool looksLikeCommandHead(const ApprovalRule& rule);

private:
    // Reads the always rules from the defaults, dropping (and logging, and
    // saving back without) the implausible ones. Requires mutex_.
    std::vector<ApprovalRule> loadLocked() const;
    void saveLocked(const std::vector<ApprovalRule>& rules) const;

    DefaultsStore& defaults_;
    mutable std::mutex mutex_;
    std::map<std::string, std::set<std::string>> sessionRules_;  // session id → rule keys
};

}  // namespace lumora
