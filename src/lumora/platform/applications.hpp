#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/platform/process_table.hpp"

// What the platform knows about desktop applications. An application is named
// by an id: on Linux its desktop id ("org.gnome.Terminal"), learned from the
// executable's name, the unit the session manager launched it in and the
// launch hints a launcher leaves in the environment.
namespace lumora {

namespace Applications {

enum class Role { terminal, editor, other };

struct Description {
    std::string name;  // shown to the user ("GNOME Terminal")
    Role role = Role::other;
    bool operator==(const Description&) const = default;
};

// The name and role of an application; an unknown id gets a name made from it.
Description describe(std::string_view appId);

}  // namespace Applications

// Tells which application a process belongs to. What it reads per process is
// cached by pid and start time; evict() trims the cache to the live pids.
// Safe to use from one thread at a time.
class ApplicationIdentifier {
public:
    explicit ApplicationIdentifier(ProcessTable& table);
    ~ApplicationIdentifier();
    ApplicationIdentifier(const ApplicationIdentifier&) = delete;
    ApplicationIdentifier& operator=(const ApplicationIdentifier&) = delete;

    // The application `process` is itself (not one it merely descends from).
    std::optional<std::string> applicationOf(const ProcessInfo& process, const ProcessSnapshot& snapshot);
    // The application `process` is, or was launched as: applicationOf, else
    // what the launcher said it started (a script or wrapper that a desktop
    // entry runs is that entry's application).
    std::optional<std::string> launchedAs(const ProcessInfo& process, const ProcessSnapshot& snapshot);
    void evict(const ProcessSnapshot& snapshot);
    size_t cachedPids() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace lumora
