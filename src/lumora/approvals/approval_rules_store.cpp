#include "lumora/approvals/approval_rules_store.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cctype>
#include <random>

#include "lumora/approvals/approval_request.hpp"
#include "lumora/approvals/command_parsing.hpp"
#include "lumora/base/dates.hpp"
#include "lumora/base/defaults_store.hpp"

namespace lumora {

using Json = nlohmann::ordered_json;
using scrivet::HarnessProvider;

namespace {

std::string newUuid() {
    static std::mutex mutex;
    static std::mt19937_64 rng{std::random_device{}()};
    uint64_t a, b;
    {
        std::lock_guard lock(mutex);
        a = rng();
        b = rng();
    }
    a = (a & 0xFFFFFFFFFFFF0FFFull) | 0x0000000000004000ull;  // version 4
    b = (b & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull;  // RFC 4122 variant
    char buf[37];
    std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(a >> 32),
                  static_cast<unsigned>((a >> 16) & 0xFFFF), static_cast<unsigned>(a & 0xFFFF),
                  static_cast<unsigned>(b >> 48), static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFull));
    return buf;
}

// A rule for an agent this version does not know: a newer version made it.
// It is left in the file and not applied.
bool fromNewerVersion(const Json& item) {
    if (!item.is_object()) return false;
    auto provider = item.find("provider");
    return provider != item.end() && provider->is_string() && !scrivet::providerFromRaw(provider->get<std::string>());
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

}  // namespace

std::string ApprovalRule::key() const { return head ? "head:" + *head : "tool:" + toolName; }

Json ApprovalRule::toJson() const {
    Json j = Json::object();
    j["id"] = id;
    j["toolName"] = toolName;
    if (head) j["head"] = *head;
    j["createdAt"] = Dates::format(createdAt);
    j["provider"] = std::string(scrivet::rawValue(provider));
    return j;
}

std::optional<ApprovalRule> ApprovalRule::fromJson(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    auto id = j.find("id");
    auto tool = j.find("toolName");
    auto created = j.find("createdAt");
    if (id == j.end() || !id->is_string() || tool == j.end() || !tool->is_string() || created == j.end())
        return std::nullopt;
    ApprovalRule rule;
    rule.id = id->get<std::string>();
    rule.toolName = tool->get<std::string>();
    if (auto head = j.find("head"); head != j.end() && !head->is_null()) {
        if (!head->is_string()) return std::nullopt;
        rule.head = head->get<std::string>();
    }
    auto when = Dates::parse(*created);
    if (!when) return std::nullopt;
    rule.createdAt = *when;
    if (auto provider = j.find("provider"); provider != j.end()) {
        if (!provider->is_string()) return std::nullopt;
        auto known = scrivet::providerFromRaw(provider->get<std::string>());
        if (!known) return std::nullopt;
        rule.provider = *known;
    }
    return rule;
}

bool ApprovalRulesStore::looksLikeCommandHead(const ApprovalRule& rule) {
    if (!rule.head) return !rule.toolName.empty();
    std::string_view h = *rule.head;
    if (h.substr(0, 5) == "sudo ") h.remove_prefix(5);
    return CommandParsing::isPlausibleWord(h);
}

ApprovalRulesStore& ApprovalRulesStore::shared() {
    static ApprovalRulesStore store(DefaultsStore::shared());
    return store;
}

ApprovalRulesStore::ApprovalRulesStore(DefaultsStore& defaults, Clock clock)
    : defaults_(defaults), clock_(std::move(clock)) {
    if (!clock_) clock_ = [] { return std::chrono::system_clock::now(); };
    // At start-up the implausible rules are also dropped from the file.
    auto stamp = FileStamp::of(defaults_.file());
    size_t dropped = 0;
    auto stored = defaults_.list(defaultsKey);
    auto rules = stored ? decode(*stored, dropped) : std::vector<ApprovalRule>{};
    if (dropped > 0) {
        spdlog::info("[approval] dropped {} malformed always-rule(s)", dropped);
        defaults_.update(defaultsKey, [](Json& list) {
            if (!list.is_array()) return;
            Json kept = Json::array();
            for (const auto& item : list) {
                auto rule = ApprovalRule::fromJson(item);
                if (fromNewerVersion(item) || (rule && looksLikeCommandHead(*rule))) kept.push_back(item);
            }
            list = std::move(kept);
        });
        stamp = FileStamp::of(defaults_.file());
    }
    std::lock_guard lock(mutex_);
    setRulesLocked(std::move(rules));
    stamp_ = stamp;
    loaded_ = true;
}

ApprovalRulesStore::~ApprovalRulesStore() = default;

std::vector<ApprovalRule> ApprovalRulesStore::decode(const Json& list, size_t& dropped) {
    std::vector<ApprovalRule> rules;
    for (const auto& item : list) {
        if (fromNewerVersion(item)) continue;
        auto rule = ApprovalRule::fromJson(item);
        if (rule && looksLikeCommandHead(*rule)) rules.push_back(std::move(*rule));
        else ++dropped;
    }
    return rules;
}

void ApprovalRulesStore::setRulesLocked(std::vector<ApprovalRule> stored) const {
    for (const auto& p : pending_) {
        bool saved = std::any_of(stored.begin(), stored.end(), [&](const ApprovalRule& r) { return r.id == p.id; });
        if (!saved) stored.push_back(p);
    }
    always_ = std::move(stored);
    alwaysKeys_.clear();
    for (const auto& r : always_) alwaysKeys_[r.provider].insert(r.key());
}

void ApprovalRulesStore::refresh(bool wait) const {
    auto stamp = FileStamp::of(defaults_.file());
    {
        std::lock_guard lock(mutex_);
        if (loaded_ && stamp == stamp_) return;
    }
    std::optional<Json> stored;
    if (wait) {
        stored = defaults_.list(defaultsKey);
    } else {
        bool busy = false;
        stored = defaults_.tryValue(defaultsKey, busy);
        if (busy) return;  // a write is in progress: keep the rules we have, read them at a later gate
    }
    size_t dropped = 0;
    auto rules = stored && stored->is_array() ? decode(*stored, dropped) : std::vector<ApprovalRule>{};
    if (dropped > 0) spdlog::info("[approval] ignored {} malformed always-rule(s)", dropped);
    std::lock_guard lock(mutex_);
    setRulesLocked(std::move(rules));
    stamp_ = stamp;  // taken before reading: a change since then reads again next time
    loaded_ = true;
}

void ApprovalRulesStore::pruneSessionsLocked(std::chrono::system_clock::time_point now) const {
    std::erase_if(sessionRules_, [&](const auto& entry) { return now - entry.second.lastUsed > kSessionRulesIdle; });
    while (sessionRules_.size() > kMaxSessions) {
        auto oldest = std::min_element(sessionRules_.begin(), sessionRules_.end(), [](const auto& a, const auto& b) {
            return a.second.lastUsed < b.second.lastUsed;
        });
        sessionRules_.erase(oldest);
    }
}

bool ApprovalRulesStore::matches(HarnessProvider provider, const std::string& sessionId, const std::string& toolName,
                                 const std::optional<std::string>& detail, bool escalated) const {
    if (ApprovalRequest::leavesSandbox(provider, escalated) || toolName.empty()) return false;
    std::vector<std::string> keys;
    if (CommandParsing::isShellTool(toolName)) {
        std::string_view command = trimmed(detail ? std::string_view(*detail) : std::string_view());
        if (command.empty()) return false;
        auto heads = CommandParsing::heads(command);
        if (!heads) return false;
        for (auto& h : *heads) keys.push_back("head:" + h);
    } else {
        keys.push_back("tool:" + toolName);
    }
    refresh(false);

    auto now = clock_();
    std::lock_guard lock(mutex_);
    const std::set<std::string>* always = nullptr;
    if (auto it = alwaysKeys_.find(provider); it != alwaysKeys_.end()) always = &it->second;
    SessionRules* session = nullptr;
    if (auto it = sessionRules_.find({provider, sessionId}); it != sessionRules_.end()) {
        if (now - it->second.lastUsed > kSessionRulesIdle) sessionRules_.erase(it);
        else session = &it->second;
    }
    bool usedSession = false;
    for (const auto& key : keys) {
        if (always && always->count(key)) continue;
        if (session && session->keys.count(key)) {
            usedSession = true;
            continue;
        }
        return false;
    }
    if (usedSession) session->lastUsed = now;
    return true;
}

void ApprovalRulesStore::addSessionRule(HarnessProvider provider, const std::string& sessionId,
                                        const std::string& toolName, const std::optional<std::string>& head) {
    ApprovalRule rule{"", toolName, head, {}, provider};
    auto now = clock_();
    std::lock_guard lock(mutex_);
    auto& session = sessionRules_[{provider, sessionId}];
    if (session.keys.size() < kMaxKeysPerSession) session.keys.insert(rule.key());
    session.lastUsed = now;
    pruneSessionsLocked(now);
}

size_t ApprovalRulesStore::sessionCount() const {
    std::lock_guard lock(mutex_);
    pruneSessionsLocked(clock_());
    return sessionRules_.size();
}

ApprovalRule ApprovalRulesStore::addAlwaysRule(HarnessProvider provider, const std::string& toolName,
                                               const std::optional<std::string>& head) {
    ApprovalRule rule{newUuid(), toolName, head, clock_(), provider};
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(rule);
        always_.push_back(rule);
        alwaysKeys_[provider].insert(rule.key());
    }
    writes_.async([this, rule] { save(rule); });
    return rule;
}

void ApprovalRulesStore::save(const ApprovalRule& rule) {
    {
        std::lock_guard lock(mutex_);
        auto still = std::find_if(pending_.begin(), pending_.end(), [&](const ApprovalRule& r) { return r.id == rule.id; });
        if (still == pending_.end()) return;  // removed before it was saved
    }
    defaults_.update(defaultsKey, [&](Json& list) {
        if (!list.is_array()) list = Json::array();
        list.push_back(rule.toJson());
    });
    std::lock_guard lock(mutex_);
    std::erase_if(pending_, [&](const ApprovalRule& r) { return r.id == rule.id; });
}

bool ApprovalRulesStore::removeAlwaysRule(const std::string& id) {
    bool found = false;
    {
        std::lock_guard lock(mutex_);
        found = std::erase_if(pending_, [&](const ApprovalRule& r) { return r.id == id; }) > 0;
    }
    defaults_.update(defaultsKey, [&](Json& list) {
        if (!list.is_array()) return;
        size_t before = list.size();
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [&](const Json& item) {
                                      auto rid = item.is_object() ? item.find("id") : item.end();
                                      return item.is_object() && rid != item.end() && *rid == id;
                                  }),
                   list.end());
        found = found || list.size() != before;
    });
    std::lock_guard lock(mutex_);
    auto rules = always_;
    std::erase_if(rules, [&](const ApprovalRule& r) { return r.id == id; });
    setRulesLocked(std::move(rules));
    return found;
}

std::vector<ApprovalRule> ApprovalRulesStore::alwaysRules() const {
    refresh(true);
    std::lock_guard lock(mutex_);
    return always_;
}

void ApprovalRulesStore::flush() {
    writes_.sync([] {});
}

}  // namespace lumora
