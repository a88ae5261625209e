#include "lumora/hooks/uninstaller.hpp"

#include <functional>

#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/hook_installation.hpp"
#include "lumora/platform/login_item.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::Uninstaller {

namespace fs = std::filesystem;

namespace {

bool isThere(const fs::path& p) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(p, ec));
}

struct Runner {
    bool dryRun;
    std::ostream& out;
    std::vector<Step> steps;

    // A step that is present when `present` says so and is carried out by `remove`.
    void step(const std::string& name, bool present, const std::function<Status()>& remove,
              const std::string& failure = {}) {
        Step s{name, Outcome::notPresent, {}};
        if (present) {
            if (dryRun) {
                s.outcome = Outcome::wouldRemove;
            } else if (Status done = remove(); done) {
                s.outcome = Outcome::done;
            } else {
                s.outcome = Outcome::failed;
                s.note = failure.empty() ? done.why : failure + ": " + done.why;
            }
        }
        out << label(s.outcome) << s.name;
        if (!s.note.empty()) out << " — " << s.note;
        out << "\n";
        steps.push_back(std::move(s));
    }

    void file(const std::string& name, const fs::path& p) {
        step(name, isThere(p), [&] {
            std::error_code ec;
            fs::remove(p, ec);
            return ec ? Status::failure(ec.message()) : Status::success();
        });
    }

    void folder(const std::string& name, const fs::path& p) {
        step(name, isThere(p), [&] {
            std::error_code ec;
            fs::remove_all(p, ec);
            return ec ? Status::failure(ec.message()) : Status::success();
        });
    }
};

}  // namespace

std::string label(Outcome outcome) {
    switch (outcome) {
        case Outcome::done: return "  done          ";
        case Outcome::notPresent: return "  not present   ";
        case Outcome::wouldRemove: return "  would remove  ";
        case Outcome::failed: return "  FAILED        ";
    }
    return "";
}

std::vector<Step> run(bool dryRun, std::ostream& out, DefaultsStore* store) {
    out << (dryRun ? "Lumora uninstall — DRY RUN (nothing will be touched)" : "Removing Lumora…") << "\n";
    Runner r{dryRun, out, {}};
    const auto& installers = HookInstallation::installers();

    for (const auto& installer : installers) {
        const auto& provider = installer.provider();
        if (provider.configLabel.empty()) continue;
        r.step(installer.name() + " hook config (" + std::string(provider.configLabel) + ")", installer.hasOurEntries(),
               installer.uninstall, "hook config revert failed");
    }
    for (const auto& installer : installers) {
        const auto& provider = installer.provider();
        fs::path program = HookProviders::programPath(installer.agent);
        std::string name = installer.name() + " " + std::string(provider.programKind);
        if (provider.configLabel.empty()) name += " (" + HookProviders::displayPath(program) + ")";
        r.file(name, program);
    }
    // The copies taken before each change hold our entries too.
    std::vector<fs::path> backups;
    for (const auto& installer : installers) {
        if (!installer.backups) continue;
        for (auto& b : installer.backups()) {
            if (isThere(b)) backups.push_back(std::move(b));
        }
    }
    r.step("config backups (*.notch-backup)", !backups.empty(), [&] {
        Status status;
        for (const auto& b : backups) {
            std::error_code ec;
            fs::remove(b, ec);
            if (ec && status) status = Status::failure(HookProviders::displayPath(b) + ": " + ec.message());
        }
        return status;
    }, "could not remove one or more backups");

    r.folder("Lumora data (~/.claude/lumora)", Paths::claudeHome() / "lumora");
    r.folder("App support folder (" + HookProviders::displayPath(Paths::supportFolder()) + ")",
             Paths::supportFolder());
    r.step("Login item (" + HookProviders::displayPath(Paths::loginItemFile()) + ")", LoginItem::enabled(), [] {
        auto failure = LoginItem::disable();
        return failure ? Status::failure(*failure) : Status::success();
    }, "could not remove the login item");
    // Linux has no platform permission for Lumora to hold.
    r.step("Automation permission (click-to-jump)", false, [] { return Status::success(); });

    auto& defaults = store ? *store : DefaultsStore::shared();
    fs::path file = defaults.file();
    bool hasDefaults = isThere(file) || isThere(file.string() + ".lock") || isThere(file.string() + ".corrupt");
    r.step("User defaults (" + HookProviders::displayPath(file) + " and its lock file)", hasDefaults,
           [&] { return defaults.erase(); });
    if (!dryRun && r.steps.back().outcome != Outcome::failed) out << "UserDefaults wiped.\n";
    out << "Kept: your own configuration files (settings.json, hooks.json, config.toml), with only our entries "
           "taken out.\n";
    out << "Lumora holds no platform permission on Linux (click-to-jump needs none), so there is nothing to "
           "revoke in the system settings.\n";
    return r.steps;
}

}  // namespace lumora::Uninstaller
