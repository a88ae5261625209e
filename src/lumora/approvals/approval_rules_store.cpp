#include "lumora/approvals/approval_rules_store.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cctype>
#include <random>

#include "lumora/base/defaults_store.hpp"
#include "lumora/approvals/command_parsing.hpp"
#include "lumora/base/dates.hpp"

namespace lumora {

using Json = nlohmann::ordered_json;

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

bool plausibleWord(std::string_view w) {
    if (w.empty() || w.size() > 64) return false;
    return std::all_of(w.begin(), w.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("_-./+:@").find(c) != std::string_view::npos;
    });
}

}  // namespace

std::string ApprovalRule::key() const { return head ? "head:" + *head : "tool:" + toolName; }

Json ApprovalRule::toJson() const {
    Json j = Json::object();
    j["id"] = id;
    j["toolName"] = toolName;
    if (head) j["head"] = *head;
    j["createdAt"] = Dates::format(createdAt);
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
    return rule;
}

bool ApprovalRulesStore::looksLikeCommandHead(const ApprovalRule& rule) {
    if (!rule.head) return !rule.toolName.empty();
    std::vector<std::string_view> words;
    std::string_view h = *rule.head;
    size_t start = 0;
    while (true) {
        size_t sp = h.find(' ', start);
        words.push_back(h.substr(start, sp == std::string_view::npos ? std::string_view::npos : sp - start));
        if (sp == std::string_view::npos) break;
        start = sp + 1;
    }
    if (words.size() == 1) return plausibleWord(words[0]);
    if (words.size() == 2 && words[0] == "sudo") return plausibleWord(words[1]);
    return false;
}

ApprovalRulesStore& ApprovalRulesStore::shared() {
    static ApprovalRulesStore store(DefaultsStore::shared());
    return store;
}

ApprovalRulesStore::ApprovalRulesStore(DefaultsStore& defaults) : defaults_(defaults) {
    std::lock_guard lock(mutex_);
    loadLocked();
}

std::vector<ApprovalRule> ApprovalRulesStore::loadLocked() const {
    std::vector<ApprovalRule> rules;
    auto stored = defaults_.list(defaultsKey);
    if (!stored) return rules;  // missing or undecodable: no rules
    size_t dropped = 0;
    for (const auto& item : *stored) {
        auto rule = ApprovalRule::fromJson(item);
        if (rule && looksLikeCommandHead(*rule)) rules.push_back(std::move(*rule));
        else ++dropped;
    }
    if (dropped > 0) {
        spdlog::info("[approval] dropped {} malformed always-rule(s)", dropped);
        saveLocked(rules);
    }
    return rules;
}

void ApprovalRulesStore::saveLocked(const std::vector<ApprovalRule>& rules) const {
    Json list = Json::array();
    for (const auto& r : rules) list.push_back(r.toJson());
    defaults_.setValue(defaultsKey, std::move(list));
}

bool ApprovalRulesStore::matches(const std::string& sessionId, const std::string& toolName,
                                 const std::optional<std::string>& detail, bool escalated) const {
    if (escalated || toolName.empty()) return false;
    std::set<std::string> allowed;
    {
        std::lock_guard lock(mutex_);
        for (const auto& rule : loadLocked()) allowed.insert(rule.key());
        if (auto it = sessionRules_.find(sessionId); it != sessionRules_.end())
            allowed.insert(it->second.begin(), it->second.end());
    }
    if (!CommandParsing::isShellTool(toolName)) return allowed.count("tool:" + toolName) > 0;
    std::string_view command = detail ? std::string_view(*detail) : std::string_view();
    while (!command.empty() && std::isspace(static_cast<unsigned char>(command.front()))) command.remove_prefix(1);
    while (!command.empty() && std::isspace(static_cast<unsigned char>(command.back()))) command.remove_suffix(1);
    if (command.empty()) return false;
    auto heads = CommandParsing::heads(command);
    if (!heads) return false;
    return std::all_of(heads->begin(), heads->end(),
                       [&](const std::string& h) { return allowed.count("head:" + h) > 0; });
}

bool ApprovalRulesStore::matches(scrivet::HarnessProvider provider, const std::string& sessionId,
                                 const std::string& toolName, const std::optional<std::string>& detail,
                                 bool escalated) const {
    if (provider != scrivet::HarnessProvider::claudeCode) return false;
    return matches(sessionId, toolName, detail, escalated);
}

void ApprovalRulesStore::addSessionRule(const std::string& sessionId, const std::string& toolName,
                                        const std::optional<std::string>& head) {
    ApprovalRule rule{"", toolName, head, {}};
    std::lock_guard lock(mutex_);
    sessionRules_[sessionId].insert(rule.key());
}

ApprovalRule ApprovalRulesStore::addAlwaysRule(const std::string& toolName, const std::optional<std::string>& head) {
    ApprovalRule rule{newUuid(), toolName, head, std::chrono::system_clock::now()};
    std::lock_guard lock(mutex_);
    auto rules = loadLocked();
    rules.push_back(rule);
    saveLocked(rules);
    return rule;
}

bool ApprovalRulesStore::removeAlwaysRule(const std::string& id) {
    std::lock_guard lock(mutex_);
    auto rules = loadLocked();
    auto it = std::find_if(rules.begin(), rules.end(), [&](const ApprovalRule& r) { return r.id == id; });
    if (it == rules.end()) return false;
    rules.erase(it);
    saveLocked(rules);
    return true;
}

std::vector<ApprovalRule> ApprovalRulesStore::alwaysRules() const {
    std::lock_guard lock(mutex_);
    return loadLocked();
}

}  // namespace lumora
