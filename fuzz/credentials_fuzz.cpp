// Arbitrary bytes as a Claude login blob (a credentials file or a keychain
// item): parsing must never crash or throw, a login always has a token, and
// its expiry, plan label and choice among logins must be computable.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/usage/usage_service.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto login = UsageService::parseLogin(bytes, "fuzz");
    if (!login) return 0;
    if (login->token.empty()) __builtin_trap();
    const Date now = Date{} + std::chrono::seconds(1'800'000'000);
    (void)login->isExpired(now);
    (void)UsageService::planName(*login);
    auto chosen = UsageService::credentials(std::vector<UsageService::StoredLogin>{*login, *login}, now);
    if (chosen && chosen->token != login->token) __builtin_trap();
    return 0;
}
