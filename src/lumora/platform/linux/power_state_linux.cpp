#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "lumora/platform/power_state.hpp"

namespace lumora::PowerState {

namespace {

// A small text file, read without ever waiting (a FIFO put in its place is
// refused, not waited on); empty when it cannot be read.
std::string smallFile(const char* path) {
    int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return {};
    std::string text;
    struct stat st{};
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        char buf[4096];
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) text.assign(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return text;
}

std::string firstLine(const char* path) {
    std::string line = smallFile(path);
    line = line.substr(0, line.find('\n'));
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}

// The power-profiles daemon keeps its choice in a small ini file.
bool daemonSaysPowerSaver(const char* stateFile) {
    std::string text = smallFile(stateFile);
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
        if (line.rfind("Profile=", 0) == 0) return line.substr(8) == "power-saver";
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return false;
}

}  // namespace

bool lowPowerMode() {
    // Tests and users can force an answer.
    if (const char* forced = std::getenv("LUMORA_LOW_POWER")) return std::string(forced) == "1";
    if (firstLine("/sys/firmware/acpi/platform_profile") == "low-power") return true;
    return daemonSaysPowerSaver("/var/lib/power-profiles-daemon/state.ini");
}

}  // namespace lumora::PowerState
