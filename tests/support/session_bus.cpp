#include "support/session_bus.hpp"

#include <fstream>
#include <thread>

namespace lumora::test {

namespace {

const char* kPython = "/usr/bin/python3";

fs::path serverScript() { return fs::path(LUMORA_SOURCE_DIR) / "tests/support/notification_server.py"; }

fs::path logFile(const fs::path& dir) { return dir / "notifications.log"; }

}  // namespace

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto until = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < until) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

std::optional<std::string> SessionBus::missing() {
    if (!fs::exists("/usr/bin/dbus-daemon")) return "dbus-daemon is not installed (scripts/bootstrap installs it)";
    if (runCommand(std::string(kPython) + " -c 'import dbus, gi' 2>/dev/null").status != 0)
        return "python3-dbus or python3-gi is not installed (scripts/bootstrap installs them)";
    return std::nullopt;
}

SessionBus::SessionBus() {
    fs::path socket = dir_ / "bus";
    std::string address = "unix:path=" + socket.string();
    daemon_ = ChildProcess::spawn({"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile",
                                   "--address=" + address},
                                  "");
    if (!daemon_ || !eventually([&] { return fs::exists(socket); }, std::chrono::seconds(10))) {
        if (daemon_) daemon_->kill();
        daemon_.reset();
        return;
    }
    address_ = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", address);
}

SessionBus::~SessionBus() {
    stopServer();
    if (daemon_) daemon_->kill();
}

bool SessionBus::startServer(const std::string& mode) {
    if (!daemon_) return false;
    stopServer();
    size_t readyBefore = calls("ready").size();
    server_ = ChildProcess::spawn({kPython, serverScript().string(), logFile(dir_.path()).string(), mode}, "");
    ++serverRuns_;
    return server_ && eventually([&] { return calls("ready").size() > readyBefore; });
}

void SessionBus::stopServer() {
    if (server_) server_->kill();
    server_.reset();
}

std::vector<nlohmann::json> SessionBus::calls() const {
    std::vector<nlohmann::json> out;
    std::ifstream in(logFile(dir_.path()));
    std::string line;
    while (std::getline(in, line)) {
        auto j = nlohmann::json::parse(line, nullptr, false);
        if (!j.is_discarded()) out.push_back(std::move(j));
    }
    return out;
}

std::vector<nlohmann::json> SessionBus::calls(const std::string& name) const {
    std::vector<nlohmann::json> out;
    for (auto& c : calls())
        if (c.value("call", "") == name) out.push_back(c);
    return out;
}

bool SessionBus::control(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {"/usr/bin/dbus-send", "--session", "--print-reply",
                                     "--dest=org.freedesktop.Notifications", "/org/freedesktop/Notifications"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    auto child = ChildProcess::spawn(argv, "");
    return child && child->wait(std::chrono::seconds(10)) && child->exitCode() == 0;
}

bool SessionBus::invoke(uint32_t id, const std::string& key) {
    return control({"test.Control.Invoke", "uint32:" + std::to_string(id), "string:" + key});
}

bool SessionBus::spoof(uint32_t id, const std::string& key) {
    return control({"test.Control.Spoof", "uint32:" + std::to_string(id), "string:" + key});
}

bool SessionBus::dismiss(uint32_t id) { return control({"test.Control.Dismiss", "uint32:" + std::to_string(id)}); }

}  // namespace lumora::test
