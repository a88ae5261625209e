#include "support/test_support.hpp"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace lumora::test {

namespace {
fs::path runRoot() {
    // Created once per test process by the test main; see test_main.cpp.
    const char* root = std::getenv("LUMORA_TEST_ROOT");
    return root ? fs::path(root) : fs::temp_directory_path();
}
}  // namespace

TempDir::TempDir() {
    static std::mt19937_64 rng{std::random_device{}()};
    for (;;) {
        path_ = runRoot() / ("t" + std::to_string(rng() % 100000000));
        std::error_code ec;
        if (fs::create_directories(path_, ec)) break;
    }
    path_ = fs::canonical(path_);
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* v = std::getenv(name)) old_ = v;
    if (value) ::setenv(name, value->c_str(), 1);
    else ::unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
    if (old_) ::setenv(name_.c_str(), old_->c_str(), 1);
    else ::unsetenv(name_.c_str());
}

TempHome::TempHome()
    : home_("HOME", dir_.path().string()),
      data_("XDG_DATA_HOME", (dir_.path() / ".local/share").string()),
      config_("XDG_CONFIG_HOME", (dir_.path() / ".config").string()),
      cache_("XDG_CACHE_HOME", (dir_.path() / ".cache").string()),
      state_("XDG_STATE_HOME", (dir_.path() / ".local/state").string()),
      runtime_("XDG_RUNTIME_DIR", (dir_.path() / ".run").string()),
      bus_("DBUS_SESSION_BUS_ADDRESS", std::nullopt),
      socket_("LUMORA_SOCKET", std::nullopt) {}

void writeFile(const fs::path& file, std::string_view contents) {
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    if (!out) throw std::runtime_error("cannot write " + file.string());
}

std::string readFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void setMtime(const fs::path& file, std::chrono::system_clock::time_point when) {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
    timespec times[2];
    times[0].tv_sec = times[1].tv_sec = ns / 1000000000;
    times[0].tv_nsec = times[1].tv_nsec = ns % 1000000000;
    ::utimensat(AT_FDCWD, file.c_str(), times, 0);
}

fs::path samplesDir() { return fs::path(LUMORA_SAMPLES_DIR); }

bool haveSamples() {
    std::error_code ec;
    return fs::is_directory(samplesDir() / "claude", ec);
}

fs::path agentSample(const std::string& relative) {
    std::error_code ec;
    fs::path shared = samplesDir() / relative;
    if (fs::exists(shared, ec)) return shared;
    return fs::path(LUMORA_SOURCE_DIR) / "tests/fixtures/agents" / relative;
}
fs::path lumoraBinary() { return fs::path(LUMORA_BINARY); }

CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> buf;
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0) result.output.append(buf.data(), n);
    int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

namespace {
constexpr uid_t kNobody = 65534;

void becomeNobody() {
    if (::geteuid() != 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) ::_exit(125);
}
}  // namespace

std::string asOtherUser(const fs::path& folder) {
    if (::geteuid() != 0) return "";
    std::error_code ec;
    ::lchown(folder.c_str(), kNobody, kNobody);
    for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        ::lchown(it->path().c_str(), kNobody, kNobody);
    }
    // The run's folders are private to root: let others pass through (not list) them.
    fs::path root = fs::temp_directory_path();
    for (fs::path p = folder.parent_path(); p.string().rfind(root.string(), 0) == 0 && p != root; p = p.parent_path()) {
        fs::permissions(p, fs::perms::others_exec, fs::perm_options::add, ec);
    }
    return "setpriv --reuid=65534 --regid=65534 --clear-groups ";
}

int inChildAsOtherUser(const std::function<int()>& body) {
    pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        becomeNobody();
        ::_exit(body());
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace lumora::test
