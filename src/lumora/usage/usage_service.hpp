#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/platform/credential_store.hpp"
#include "lumora/usage/usage_backoff.hpp"
#include "lumora/usage/usage_probe.hpp"

// Reads how much of the user's Claude plan is used up: finds a Claude login
// that Claude Code left on this machine, asks the provider's usage endpoint
// and turns the answer into a PlanUsage. Stateless apart from the shared
// back-off; logins are reread on every call, so a refreshed login is picked
// up at the next poll. probe() blocks on the network (12 s at most): call it
// on a worker, never on the main loop or a monitor queue.
namespace lumora::UsageService {

namespace fs = std::filesystem;

// One login found on this machine.
struct StoredLogin {
    std::string token;
    std::optional<Date> expiresAt;             // none: never expires
    std::optional<std::string> subscriptionType;  // "max"
    std::optional<std::string> rateLimitTier;     // "default_claude_max_20x"
    std::string source;                        // "CLAUDE_CODE_OAUTH_TOKEN", a file's path

    // Expires within the minute (or has); a login without expiry never does.
    bool isExpired(Date now) const;
    bool operator==(const StoredLogin&) const = default;
};

// The login a request uses.
struct Credentials {
    std::string token;
    std::optional<std::string> planName;  // "Max 20x"
    std::string source;
    bool operator==(const Credentials&) const = default;
};

// Where logins are looked for and where the endpoint is. current() reads
// the process's environment; tests build their own.
struct Environment {
    std::optional<std::string> oauthToken;  // $CLAUDE_CODE_OAUTH_TOKEN
    std::optional<fs::path> configDir;      // $CLAUDE_CONFIG_DIR
    fs::path home;                          // for ~/.claude/.credentials.json
    CredentialStore* store = nullptr;       // none: no keychain sources
    std::string apiBase = "https://api.anthropic.com";  // $LUMORA_CLAUDE_API_URL overrides
    std::chrono::milliseconds timeout{12000};

    static Environment current();
};

inline constexpr const char* kKeychainService = "Claude Code-credentials";
inline constexpr const char* kUsagePath = "/api/oauth/usage";
// A login blob is a few hundred bytes; anything past this is not one.
inline constexpr size_t kMaxLoginBytes = 1u << 20;
// The usage answer is a few hundred bytes too.
inline constexpr size_t kMaxAnswerBytes = 1u << 20;

// Every login every source yields, in source order: the environment, the
// keychain item and its suffixed siblings, the credential files. Unparseable
// ones are dropped.
std::vector<StoredLogin> storedLogins(const Environment& env);
// The freshest usable login: expired ones skipped, the one expiring last
// kept, a login without expiry counting as usable.
std::optional<Credentials> credentials(const Environment& env, Date now);
std::optional<Credentials> credentials(const std::vector<StoredLogin>& logins, Date now);
// A login blob ({"claudeAiOauth": {"accessToken": ...}}), or nothing.
std::optional<StoredLogin> parseLogin(std::string_view data, std::string source);
// "Max 20x" from a login's subscription type and rate-limit tier.
std::optional<std::string> planName(const StoredLogin& login);

// Asks the endpoint once (unless no login is usable or the back-off says
// wait) and reports what came of it. `cancel` aborts a request in flight.
UsageProbe probe(const Environment& env, UsageBackoff& backoff, Date now,
                 const std::atomic<bool>* cancel = nullptr);

}  // namespace lumora::UsageService
