// The test executables' main: before any test runs, HOME and the XDG folders
// point at a temporary folder of this process, so no test can touch the real
// user's files. Tests that need their own empty home use TempHome.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "lumora/base/log.hpp"

namespace {

class TemporaryHome : public ::testing::Environment {
public:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "lumora-test-XXXXXX").string();
        root_ = ::mkdtemp(pattern.data());
        ::setenv("LUMORA_TEST_ROOT", root_.c_str(), 1);
        auto home = root_ / "home";
        std::filesystem::create_directories(home);
        ::setenv("HOME", home.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (home / ".local/share").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (home / ".config").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (home / ".cache").c_str(), 1);
        ::setenv("XDG_STATE_HOME", (home / ".local/state").c_str(), 1);
        // Price lists come from loopback, where nothing answers: no test reaches the network.
        ::setenv("LUMORA_PRICING_BASE", "http://127.0.0.1:9", 1);
        ::unsetenv("LUMORA_SOCKET");
        ::unsetenv("LUMORA_DEBUG_LOG");
        ::unsetenv("CLAUDE_CONFIG_DIR");
        ::unsetenv("CODEX_HOME");
        lumora::Log::silence();
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }

private:
    std::filesystem::path root_;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new TemporaryHome);
    return RUN_ALL_TESTS();
}
