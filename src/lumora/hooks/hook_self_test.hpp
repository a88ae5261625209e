#pragma once

#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// `lumora --hooks-selftest`: runs each hook program with sample inputs
// against a private bridge on a temporary socket and checks every round trip
// (a marker arrives; a gate answered allow, and one answered deny, print the
// agent's decision; with no server every program exits at once and prints
// nothing).
namespace lumora::HookSelfTest {

namespace fs = std::filesystem;

// The server end the self-test drives. The app's own hook bridge is the real
// one (`makeBridge`); tests may pass another.
class Bridge {
public:
    virtual ~Bridge() = default;
    virtual bool start() = 0;
    virtual void stop() = 0;
    virtual void setGating(bool enabled) = 0;
    virtual void resolve(const std::string& sessionId, bool allow) = 0;
    // source: "claude", "codex", "kimi", "opencode".
    virtual bool hasMarker(const std::string& source, const std::string& sessionId) = 0;
    virtual bool hasHeldGate(const std::string& sessionId) = 0;
    virtual bool hasCursorPending(const std::string& conversationId) = 0;
};

// The app's hook bridge on `socket`, keeping its files (state, approvals log,
// its own rules store) in `folder`.
std::unique_ptr<Bridge> makeBridge(const fs::path& socket, const fs::path& folder);

struct Check {
    std::string name;
    bool passed = false;
    std::string detail;  // what went wrong
};

// Runs every check against `bridge` (not yet started), which listens on
// `socket`; the programs find it through LUMORA_SOCKET. Prints one line per
// check to `out`.
std::vector<Check> run(Bridge& bridge, const fs::path& socket, std::ostream& out);

// The whole command: a temporary folder and socket, the app's bridge, the
// checks, a summary line. Returns the exit code (0 when every check passed).
int runCommand(std::ostream& out, std::ostream& err);

}  // namespace lumora::HookSelfTest
