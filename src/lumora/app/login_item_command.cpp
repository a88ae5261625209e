#include "lumora/app/login_item_command.hpp"

#include "lumora/app/settings_store.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::LoginItemCommand {

int run(const std::string& value, std::ostream& out, std::ostream& err) {
    bool on = value == "on";
    Status done = SettingsStore::shared().setLaunchAtLogin(on);
    if (!done) {
        err << "Launch at login: " << done.why << "\n";
        return 1;
    }
    out << "Launch at login: " << (on ? "on (" + Paths::loginItemFile().string() + ")" : std::string("off")) << "\n";
    return 0;
}

}  // namespace lumora::LoginItemCommand
