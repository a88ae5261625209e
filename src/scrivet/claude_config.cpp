#include "scrivet/claude_config.hpp"

#include <simdjson.h>

#include <cctype>
#include <map>
#include <mutex>
#include <regex>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "scrivet/journal_entry.hpp"
#include "scrivet/regular_file.hpp"

namespace scrivet::ClaudeConfig {

namespace {

namespace fs = std::filesystem;

// ~/.claude.json keeps every project's history; past this it is not read.
constexpr uint64_t kMaxConfigBytes = 256u << 20;

struct Parsed {
    // working directory -> (model id, input tokens) of its "lastModelUsage"
    std::map<std::string, std::vector<std::pair<std::string, long long>>, std::less<>> usageByCwd;
    std::optional<std::string> organizationType, userRateLimitTier, organizationRateLimitTier;
    bool hasAccount = false;
};

struct Cached {
    fs::file_time_type mtime;
    Parsed parsed;
};

std::mutex gLock;
std::unordered_map<std::string, Cached> gCache;

Parsed parse(const fs::path& file) {
    Parsed out;
    auto text = RegularFile::readAll(file, kMaxConfigBytes);
    if (!text) return out;
    simdjson::dom::parser parser;
    simdjson::dom::element root;
    if (parser.parse(simdjson::padded_string(*text)).get(root) || !root.is_object()) return out;
    if (auto projects = json::object(root, "projects")) {
        for (auto [cwd, project] : *projects) {
            auto usage = json::object(project, "lastModelUsage");
            if (!usage) continue;
            auto& list = out.usageByCwd[std::string(cwd)];
            for (auto [model, counts] : *usage)
                list.emplace_back(std::string(model), json::integer(counts, "inputTokens").value_or(0));
        }
    }
    if (auto account = json::field(root, "oauthAccount"); account && account->is_object()) {
        out.hasAccount = true;
        auto text = [&](std::string_view key) -> std::optional<std::string> {
            auto s = json::string(*account, key);
            if (!s || s->empty()) return std::nullopt;
            return std::string(*s);
        };
        out.organizationType = text("organizationType");
        out.userRateLimitTier = text("userRateLimitTier");
        out.organizationRateLimitTier = text("organizationRateLimitTier");
    }
    return out;
}

// Runs `use` on the file's parsed form, rereading it when it changed.
template <typename F>
auto withParsed(const fs::path& file, F use) {
    std::error_code ec;
    auto mtime = fs::last_write_time(file, ec);
    std::lock_guard lock(gLock);
    auto key = file.string();
    if (ec) {
        gCache.erase(key);
        return use(Parsed{});
    }
    auto it = gCache.find(key);
    if (it == gCache.end() || it->second.mtime != mtime) it = gCache.insert_or_assign(key, Cached{mtime, parse(file)}).first;
    return use(it->second.parsed);
}

std::string_view base(std::string_view model) { return model.substr(0, model.find('[')); }

}  // namespace

std::string_view tierName(ContextTier tier) {
    switch (tier) {
        case ContextTier::oneMillion: return "oneMillion";
        case ContextTier::twoHundredK: return "twoHundredK";
        case ContextTier::unknown: return "unknown";
    }
    return "unknown";
}

ContextTier contextTier(const fs::path& configFile, const std::string& cwd, std::string_view model) {
    if (model.find("[1m]") != std::string_view::npos) return ContextTier::oneMillion;
    auto wanted = base(model);
    return withParsed(configFile, [&](const Parsed& p) {
        auto it = p.usageByCwd.find(cwd);
        if (it == p.usageByCwd.end()) return ContextTier::unknown;
        bool matched = false;
        for (const auto& [id, tokens] : it->second) {
            if (tokens < 1 || base(id) != wanted) continue;
            if (id.find("[1m]") != std::string::npos) return ContextTier::oneMillion;
            matched = true;
        }
        return matched ? ContextTier::twoHundredK : ContextTier::unknown;
    });
}

std::optional<std::string> planLabel(const std::optional<std::string>& planType, const std::optional<std::string>& tier,
                                     const std::optional<std::string>& secondTier) {
    std::string tiers = tier.value_or("") + " " + secondTier.value_or("");
    std::string plan;
    if (planType && !planType->empty()) {
        std::string type = *planType;
        if (type.rfind("claude_", 0) == 0) type.erase(0, 7);
        for (char& c : type)
            if (c == '_') c = ' ';
        if (!type.empty()) type[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(type[0])));
        plan = type;
    } else if (tiers.find("max") != std::string::npos) {
        plan = "Max";
    } else if (tiers.find("pro") != std::string::npos) {
        plan = "Pro";
    }
    static const std::regex kMultiplier(R"((\d+)x)");
    std::smatch m;
    std::string multiplier;
    for (const auto& t : {tier, secondTier}) {
        if (t && std::regex_search(*t, m, kMultiplier)) {
            multiplier = m.str(0);
            break;
        }
    }
    if (plan.empty() && multiplier.empty()) return std::nullopt;
    if (plan.empty()) return multiplier;
    return multiplier.empty() ? plan : plan + " " + multiplier;
}

std::optional<std::string> planLabel(const fs::path& configFile) {
    return withParsed(configFile, [](const Parsed& p) -> std::optional<std::string> {
        if (!p.hasAccount) return std::nullopt;
        return planLabel(p.organizationType, p.userRateLimitTier, p.organizationRateLimitTier);
    });
}

void resetCache() {
    std::lock_guard lock(gLock);
    gCache.clear();
}

}  // namespace scrivet::ClaudeConfig
