#include "lumora/platform/credential_store.hpp"

namespace lumora {

namespace {

// Claude Code on Linux keeps its login in a file, not in the Secret Service,
// so there is nothing to read here; the file sources cover it.
class NoCredentialStore final : public CredentialStore {
public:
    std::optional<std::string> genericPassword(const std::string&) override { return std::nullopt; }
    std::vector<std::string> services(const std::string&) override { return {}; }
    std::string sourceName(const std::string& service) const override { return "Secret store · " + service; }
};

}  // namespace

CredentialStore& CredentialStore::system() {
    static NoCredentialStore store;
    return store;
}

}  // namespace lumora
