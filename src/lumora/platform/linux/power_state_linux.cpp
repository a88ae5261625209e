#include <cstdlib>
#include <fstream>
#include <string>

#include "lumora/platform/power_state.hpp"

namespace lumora::PowerState {

namespace {

std::string firstLine(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}

// The power-profiles daemon keeps its choice in a small ini file.
bool daemonSaysPowerSaver(const char* stateFile) {
    std::ifstream in(stateFile);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("Profile=", 0) == 0) return line.substr(8) == "power-saver";
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
