#pragma once

#include <optional>
#include <string>
#include <vector>

namespace lumora {

// The system's store of secrets (on macOS the login keychain), read only:
// agents that keep their login there are found through it, and nothing is
// ever written. Systems where the agents keep their logins in files (Linux:
// Claude Code writes ~/.claude/.credentials.json) have a store without items.
class CredentialStore {
public:
    virtual ~CredentialStore() = default;

    // The secret of the generic-password item named `service`, trimmed of
    // white space; nothing when there is no such item, it is empty, or the
    // store does not answer within its time-out.
    virtual std::optional<std::string> genericPassword(const std::string& service) = 0;
    // The names of the items whose service begins with `prefix` (the prefix
    // itself excluded), in the store's order.
    virtual std::vector<std::string> services(const std::string& prefix) = 0;
    // How a login read from the item `service` names its source ("Keychain · <service>").
    virtual std::string sourceName(const std::string& service) const = 0;

    // The system's store.
    static CredentialStore& system();
};

}  // namespace lumora
