#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace lumora::test {

namespace fs = std::filesystem;

// A fresh folder under the run's temporary home, removed when it goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return path_; }
    fs::path operator/(const fs::path& p) const { return path_ / p; }

private:
    fs::path path_;
};

// Sets an environment variable for the scope, restoring the old value after.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<std::string> value);
    ~ScopedEnv();

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Points HOME and the XDG folders at a fresh temporary folder for the scope,
// so a test sees an empty home of its own.
class TempHome {
public:
    TempHome();
    const fs::path& path() const { return dir_.path(); }
    fs::path operator/(const fs::path& p) const { return dir_.path() / p; }

private:
    TempDir dir_;
    // The session bus too: no test reaches the desktop's real one.
    ScopedEnv home_, data_, config_, cache_, state_, runtime_, bus_, socket_;
};

void writeFile(const fs::path& file, std::string_view contents);
std::string readFile(const fs::path& file);
// Sets a file's modification time to `when`.
void setMtime(const fs::path& file, std::chrono::system_clock::time_point when);

// The real agents' sample files beside the repository (shared/samples).
fs::path samplesDir();
// One of the agents' recorded files, by its path under shared/samples: the
// shared copy when it is there, else the one kept in tests/fixtures/agents.
fs::path agentSample(const std::string& relative);
// Whether the shared samples are beside the repository.
bool haveSamples();

}  // namespace lumora::test

// Skips the test, saying why, when the shared samples are not beside the
// repository (the fixture tests cover the same behaviours).
#define LUMORA_REQUIRE_SAMPLES()                                                                      \
    do {                                                                                               \
        if (!::lumora::test::haveSamples())                                                            \
            GTEST_SKIP() << "shared/samples is not beside the repository; its fixture tests cover this"; \
    } while (0)

namespace lumora::test {
// The built `lumora` executable.
fs::path lumoraBinary();

// Runs a shell command; returns its exit status and captured standard output.
struct CommandResult {
    int status = -1;
    std::string output;
};
CommandResult runCommand(const std::string& command);

// File permissions do not bind root. When the tests run as root,
// `asOtherUser` gives `folder` (and everything in it) to an unprivileged user,
// lets that user reach it, and returns the prefix that runs a shell command as
// that user ("setpriv …"); otherwise it returns "".
std::string asOtherUser(const fs::path& folder);
// Runs `body` in a forked child (as that unprivileged user when the tests run
// as root) and returns its exit code; -1 when it did not exit normally.
int inChildAsOtherUser(const std::function<int()>& body);

}  // namespace lumora::test
