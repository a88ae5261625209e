#include "lumora/usage/usage_service.hpp"

#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>

#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/platform/paths.hpp"
#include "scrivet/claude_config.hpp"

namespace lumora::UsageService {

namespace {

std::optional<std::string> env(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v) return std::nullopt;
    return std::string(v);
}

// The suffixed keychain items are listed once per process and store.
std::vector<std::string> suffixedServices(CredentialStore& store) {
    static std::mutex lock;
    static std::map<CredentialStore*, std::vector<std::string>> listed;
    {
        std::lock_guard guard(lock);
        if (auto it = listed.find(&store); it != listed.end()) return it->second;
    }
    auto names = store.services(std::string(kKeychainService) + "-");
    std::lock_guard guard(lock);
    return listed.emplace(&store, std::move(names)).first->second;
}

std::optional<StoredLogin> fromFile(const fs::path& file) {
    auto text = FileUtil::readFile(file, kMaxLoginBytes);
    if (!text) return std::nullopt;
    return parseLogin(*text, file.string());
}

std::optional<std::string> stringField(const nlohmann::ordered_json& o, const char* key) {
    auto it = o.find(key);
    if (it == o.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

}  // namespace

Environment Environment::current() {
    Environment e;
    e.oauthToken = env("CLAUDE_CODE_OAUTH_TOKEN");
    if (auto dir = env("CLAUDE_CONFIG_DIR")) e.configDir = fs::path(*dir);
    e.home = Paths::home();
    e.store = &CredentialStore::system();
    if (auto base = env("LUMORA_CLAUDE_API_URL")) e.apiBase = *base;
    return e;
}

bool StoredLogin::isExpired(Date now) const {
    if (!expiresAt) return false;
    return std::chrono::duration<double>(*expiresAt - now).count() < 60;
}

std::optional<StoredLogin> parseLogin(std::string_view data, std::string source) {
    auto json = JsonText::parse(data, 32);
    if (!json || !json->is_object()) return std::nullopt;
    auto oauth = json->find("claudeAiOauth");
    if (oauth == json->end() || !oauth->is_object()) return std::nullopt;
    auto token = stringField(*oauth, "accessToken");
    if (!token || token->empty()) return std::nullopt;
    StoredLogin login;
    login.token = *token;
    login.source = std::move(source);
    if (auto it = oauth->find("expiresAt"); it != oauth->end() && it->is_number()) {
        // Milliseconds since 1970; a value no clock can hold is not an expiry we can trust.
        double ms = it->get<double>();
        if (!std::isfinite(ms) || std::fabs(ms) > 1e15) return std::nullopt;
        login.expiresAt = Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(ms / 1000.0)));
    }
    login.subscriptionType = stringField(*oauth, "subscriptionType");
    login.rateLimitTier = stringField(*oauth, "rateLimitTier");
    return login;
}

std::vector<StoredLogin> storedLogins(const Environment& e) {
    std::vector<StoredLogin> out;
    if (e.oauthToken && !e.oauthToken->empty()) {
        StoredLogin l;
        l.token = *e.oauthToken;
        l.source = "CLAUDE_CODE_OAUTH_TOKEN";
        out.push_back(std::move(l));
    }
    if (e.store) {
        std::vector<std::string> services = {kKeychainService};
        for (auto& s : suffixedServices(*e.store)) services.push_back(std::move(s));
        for (const auto& service : services) {
            auto secret = e.store->genericPassword(service);
            if (!secret || secret->empty()) continue;  // no item is not a login
            if (auto l = parseLogin(*secret, e.store->sourceName(service))) out.push_back(std::move(*l));
        }
    }
    if (e.configDir) {
        if (auto l = fromFile(*e.configDir / ".credentials.json")) out.push_back(std::move(*l));
    }
    if (!e.home.empty()) {
        fs::path file = e.home / ".claude" / ".credentials.json";
        bool same = e.configDir && *e.configDir / ".credentials.json" == file;
        if (!same) {
            if (auto l = fromFile(file)) out.push_back(std::move(*l));
        }
    }
    return out;
}

std::optional<std::string> planName(const StoredLogin& login) {
    return scrivet::ClaudeConfig::planLabel(login.subscriptionType, login.rateLimitTier);
}

std::optional<Credentials> credentials(const std::vector<StoredLogin>& logins, Date now) {
    const StoredLogin* best = nullptr;
    for (const auto& l : logins) {
        if (l.isExpired(now)) continue;
        if (!best) {
            best = &l;
            continue;
        }
        // The one expiring last wins; no expiry outlives any date.
        bool later = !l.expiresAt ? best->expiresAt.has_value() : (best->expiresAt && *l.expiresAt > *best->expiresAt);
        if (later) best = &l;
    }
    if (!best) return std::nullopt;
    return Credentials{best->token, planName(*best), best->source};
}

std::optional<Credentials> credentials(const Environment& env, Date now) { return credentials(storedLogins(env), now); }

UsageProbe probe(const Environment& env, UsageBackoff& backoff, Date now, const std::atomic<bool>* cancel) {
    UsageProbe p;
    p.provider = HarnessProvider::claudeCode;
    auto logins = storedLogins(env);
    auto creds = credentials(logins, now);
    if (!creds) {
        p.blocker = logins.empty() ? UsageBlocker::noLogin : UsageBlocker::expired;
        return p;
    }
    p.source = creds->source;
    if (auto wait = backoff.retryIn(HarnessProvider::claudeCode, now)) {
        p.blocker = UsageBlocker::rateLimited;
        p.retryIn = *wait;
        return p;
    }
    std::string base = env.apiBase;
    while (!base.empty() && base.back() == '/') base.pop_back();
    HttpClient::Request request;
    request.url = base + kUsagePath;
    request.headers = {{"Authorization", "Bearer " + creds->token},
                       {"anthropic-beta", "oauth-2025-04-20"},
                       {"Accept", "application/json"}};
    request.timeout = env.timeout;
    request.maxBody = kMaxAnswerBytes;
    request.cancel = cancel;
    auto result = HttpClient::get(request);
    if (!result.response) {
        p.blocker = UsageBlocker::unreachable;
        p.error = result.error;
        return p;
    }
    const auto& response = *result.response;
    p.status = response.status;
    // Any answer but a 429 clears the provider's back-off.
    if (backoff.note(HarnessProvider::claudeCode, response, true, now)) {
        p.blocker = UsageBlocker::rateLimited;
        p.retryIn = backoff.retryIn(HarnessProvider::claudeCode, now);
        return p;
    }
    if (response.status != 200) {
        p.blocker = UsageBlocker::unreachable;
        return p;
    }
    auto usage = PlanUsage::parse(response.body);
    if (!usage) {
        p.blocker = UsageBlocker::noPlanLimits;
        return p;
    }
    usage->planName = creds->planName;
    p.usage = std::move(*usage);
    p.blocker = UsageBlocker::ok;
    return p;
}

}  // namespace lumora::UsageService
