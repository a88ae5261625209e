// One Lumora serves the hook socket: a second one says who does and leaves,
// a stale socket file is replaced, and a socket that cannot be served is
// reported rather than silently dropping every prompt.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "lumora/hooks/hook_client.hpp"
#include "monitor/child_process.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;

namespace {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

}  // namespace

TEST(SingleInstance, TheSocketHasOneOwnerAndAnyOtherSaysWho) {
    TempHome home;
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0700);
    fs::path socket = home / "run/notch.sock";
    ScopedEnv socketEnv("LUMORA_SOCKET", socket.string());

    // A crashed run left its socket file; nobody listens on it.
    {
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    EXPECT_EQ(HookClient::who(socket).kind, HookClient::Who::Kind::nobody);

    ChildProcess first(lumoraBinary(), {"lumora", "--no-ui"}, home.path());
    ASSERT_TRUE(eventually([&] { return HookClient::who(socket).kind == HookClient::Who::Kind::lumora; }));
    EXPECT_EQ(HookClient::who(socket).pid, first.pid());

    // A second one leaves the socket to it, says so and exits non-zero.
    auto second = runCommand(lumoraBinary().string() + " --no-ui 2>&1");
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.output, "Lumora is already running (pid " + std::to_string(first.pid()) + ")\n");
    EXPECT_EQ(HookClient::who(socket).pid, first.pid());
}

TEST(SingleInstance, ASocketThatCannotBeServedIsReported) {
    TempHome home;
    fs::create_directories(home / "run");
    ::chmod((home / "run").c_str(), 0755);
    ScopedEnv socketEnv("LUMORA_SOCKET", (home / "run/notch.sock").string());
    auto run = runCommand("timeout -s INT 3 " + lumoraBinary().string() + " --no-ui");
    EXPECT_NE(run.output.find("Hooks not listening: the socket's folder " + (home / "run").string() +
                              " is open to group or others"),
              std::string::npos)
        << run.output;
    EXPECT_FALSE(fs::exists(home / "run/notch.sock"));
}
