#include "lumora/hooks/uninstaller.hpp"

#include <functional>

#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/attention_hooks.hpp"
#include "lumora/hooks/codex_hooks.hpp"
#include "lumora/hooks/cursor_hooks.hpp"
#include "lumora/hooks/hook_config_edits.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/opencode_hooks.hpp"
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
    void step(const std::string& name, bool present, const std::function<bool()>& remove,
              const std::string& failure = {}) {
        Step s{name, Outcome::notPresent, {}};
        if (present) {
            if (dryRun) {
                s.outcome = Outcome::wouldRemove;
            } else if (remove()) {
                s.outcome = Outcome::done;
            } else {
                s.outcome = Outcome::failed;
                s.note = failure;
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
            return !ec;
        });
    }

    void folder(const std::string& name, const fs::path& p) {
        step(name, isThere(p), [&] {
            std::error_code ec;
            fs::remove_all(p, ec);
            return !ec;
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
    const std::string revertFailed = "hook config revert failed";

    r.step("Claude Code hook config (~/.claude/settings.json)", AttentionHooks::hasOurEntries(),
           AttentionHooks::uninstall, revertFailed);
    r.step("Cursor hook config (~/.cursor/hooks.json)", CursorHooks::hasOurEntries(), CursorHooks::uninstall,
           revertFailed);
    r.step("Codex hook config (~/.codex/hooks.json + config.toml)", CodexHooks::hasOurEntries(),
           CodexHooks::uninstall, revertFailed);
    r.step("Kimi hook config (~/.kimi-code/config.toml)", KimiHooks::hasOurEntries(), KimiHooks::uninstall,
           revertFailed);

    r.file("Claude Code bridge script", AttentionHooks::programPath());
    r.file("Cursor bridge script", CursorHooks::programPath());
    r.file("Codex bridge script", CodexHooks::programPath());
    r.file("Kimi bridge script", KimiHooks::programPath());
    r.file("OpenCode plugin (" + HookConfigEdits::displayPath(OpenCodeHooks::pluginPath()) + ")",
           OpenCodeHooks::pluginPath());

    auto backups = CodexHooks::configBackups();
    r.step("config.toml backups", !backups.empty(), [&] {
        bool ok = true;
        for (const auto& b : backups) {
            std::error_code ec;
            fs::remove(b, ec);
            ok = ok && !ec;
        }
        return ok;
    }, "could not remove one or more backups");

    r.folder("Lumora data (~/.claude/lumora)", Paths::claudeHome() / "lumora");
    r.folder("App support folder (" + HookConfigEdits::displayPath(Paths::supportFolder()) + ")",
             Paths::supportFolder());
    // Linux has no login item and no platform permission for Lumora to hold.
    r.step("Login item", false, [] { return true; });
    r.step("Automation permission (click-to-jump)", false, [] { return true; });

    auto& defaults = store ? *store : DefaultsStore::shared();
    bool hasDefaults = isThere(defaults.file());
    if (dryRun) {
        r.step("User defaults (" + HookConfigEdits::displayPath(defaults.file()) + ")", hasDefaults, [] { return true; });
    } else {
        defaults.removeAll();
        std::error_code ec;
        fs::remove(defaults.file(), ec);
        out << "UserDefaults wiped.\n";
    }
    out << "Lumora holds no platform permission on Linux (click-to-jump needs none), so there is nothing to "
           "revoke in the system settings.\n";
    return r.steps;
}

}  // namespace lumora::Uninstaller
