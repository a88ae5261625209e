// The installers against real files in a temporary home.
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <spdlog/sinks/ostream_sink.h>

#include <sstream>

#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/attention_hooks.hpp"
#include "lumora/hooks/codex_hooks.hpp"
#include "lumora/hooks/cursor_hooks.hpp"
#include "lumora/hooks/hook_installation.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/opencode_hooks.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "lumora/hooks/uninstaller.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/python_locator.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using lumora::test::TempHome;
using Json = nlohmann::ordered_json;

namespace {

// Captures what is logged while it lives.
class LogCapture {
public:
    LogCapture() : previous_(spdlog::default_logger()) {
        auto logger = std::make_shared<spdlog::logger>("capture", std::make_shared<spdlog::sinks::ostream_sink_mt>(stream_));
        logger->set_pattern("%v");
        logger->set_level(spdlog::level::trace);
        spdlog::set_default_logger(logger);
    }
    ~LogCapture() { spdlog::set_default_logger(previous_); }
    std::string text() const { return stream_.str(); }

private:
    std::ostringstream stream_;
    std::shared_ptr<spdlog::logger> previous_;
};

std::string python() { return PythonLocator::interpreter()->string(); }

}  // namespace

TEST(CodexTrust, HashesMatchWhatCodexComputes) {
    struct Vector {
        const char *event, *group, *handler, *hash;
    };
    const Vector vectors[] = {
        {"PreToolUse", R"({"matcher":"Bash"})", R"({"type":"command","command":"echo a"})",
         "sha256:e858b0fa107866bd5702cb2dffd866040cad81f83f76ff7697d1c7fad904b5e5"},
        {"PreToolUse", R"({"matcher":"Bash"})", R"({"type":"command","command":"echo b","timeout":0})",
         "sha256:14b1795e8a89ef4944cfd23fa4da038bbc851c9a1f89c1b65a493d5c7237bd3c"},
        {"PreToolUse", R"({"matcher":"Bash"})",
         R"({"type":"command","command":"echo c","timeout":30,"async":true,"statusMessage":"checking"})",
         "sha256:662c2f5975cf0d09b6d3f8210c4ad3be73be95e40b803def77fd9198a80210af"},
        {"PreToolUse", R"({})", R"({"type":"command","command":"echo j"})",
         "sha256:60ef83fda58f415485b593cca2c802771bf74b9408b845503df56bb7240bd880"},
        {"UserPromptSubmit", R"({"matcher":"foo"})", R"({"type":"command","command":"echo u","additionalContextLimit":100})",
         "sha256:2f0c65ceb1553d7762bc3847a3e37e085af651b55c5788a6c3ee1098de352a05"},
        {"Stop", R"({"matcher":"foo"})", R"({"type":"command","command":"echo s","additionalContextLimit":5000})",
         "sha256:b4f5d92cf8d9d7805c64e06a8543e27a7a478a8cf4ce5aa54ff7c1d014ae9f38"},
        {"SessionEnd", R"({})", R"({"type":"command","command":"echo se2"})",
         "sha256:bc180acfd4f2f810bc8a21f49d8af17c02d6429739512626e67a57eb3c538310"},
    };
    for (const auto& v : vectors) {
        EXPECT_EQ(CodexHooks::trustHash(v.event, Json::parse(v.group), Json::parse(v.handler)), v.hash) << v.handler;
    }
    EXPECT_EQ(CodexHooks::eventLabel("PermissionRequest"), "permission_request");
    EXPECT_EQ(CodexHooks::eventLabel("UserPromptSubmit"), "user_prompt_submit");
    EXPECT_EQ(CodexHooks::eventLabel("Stop"), "stop");

}

TEST(AttentionHooks, InstallKeepsOtherKeysAndGivesTheFileBackOnUninstall) {
    TempHome home;
    const std::string original = "{\n  \"permissions\": {\n    \"allow\": [\n      \"Bash\"\n    ]\n  },\n"
                                 "  \"hooks\": {\n    \"Stop\": [\n      {\n        \"hooks\": [\n          {\n"
                                 "            \"type\": \"command\",\n            \"command\": \"say done\"\n"
                                 "          }\n        ]\n      }\n    ]\n  }\n}\n";
    test::writeFile(home / ".claude/settings.json", original);
    EXPECT_TRUE(AttentionHooks::agentPresent());
    EXPECT_FALSE(AttentionHooks::isInstalled());
    ASSERT_TRUE(AttentionHooks::install());
    EXPECT_TRUE(AttentionHooks::isInstalled());
    EXPECT_FALSE(fs::exists(home / ".claude.json"));

    auto settings = Json::parse(test::readFile(AttentionHooks::settingsPath()));
    EXPECT_EQ(settings["permissions"]["allow"], Json::array({"Bash"}));
    ASSERT_EQ(settings["hooks"]["Stop"].size(), 2u);
    EXPECT_EQ(settings["hooks"]["Stop"][0]["hooks"][0]["command"], "say done");
    EXPECT_EQ(settings["hooks"]["Stop"][1]["hooks"][0]["command"],
              "\"" + python() + "\" \"" + (home / ".claude/lumora/notch-hook.py").string() + "\" done");
    EXPECT_EQ(settings["hooks"]["PermissionRequest"][0]["hooks"][0]["timeout"], 1800);
    EXPECT_EQ(settings["hooks"]["PermissionRequest"][0]["matcher"], "*");
    EXPECT_EQ(settings["hooks"]["PreToolUse"].size(), 2u);
    EXPECT_EQ(settings["hooks"]["Notification"][0]["matcher"], "idle_prompt");
    EXPECT_FALSE(settings["hooks"]["UserPromptSubmit"][0].contains("matcher"));
    auto mode = fs::status(AttentionHooks::programPath()).permissions();
    EXPECT_NE(mode & fs::perms::owner_exec, fs::perms::none);
    EXPECT_EQ(test::readFile(AttentionHooks::programPath()).rfind("#!/usr/bin/env python3\n", 0), 0u);

    // A second install changes nothing and takes no second backup.
    std::string installed = test::readFile(AttentionHooks::settingsPath());
    std::string backup = test::readFile(home / ".claude/settings.json.notch-backup");
    EXPECT_EQ(backup, original);
    ASSERT_TRUE(AttentionHooks::install());
    EXPECT_EQ(test::readFile(AttentionHooks::settingsPath()), installed);
    EXPECT_EQ(test::readFile(home / ".claude/settings.json.notch-backup"), backup);

    // An older program is stale: not installed, and rewritten by the next install.
    test::writeFile(AttentionHooks::programPath(), "#!/usr/bin/env python3\n# notch-cc-hook v7\n");
    EXPECT_FALSE(AttentionHooks::isInstalled());
    test::writeFile(AttentionHooks::programPath(), "#!/usr/bin/env python3\n# notch-cc-hook v80\n");
    EXPECT_FALSE(AttentionHooks::isInstalled());
    ASSERT_TRUE(AttentionHooks::install());
    EXPECT_TRUE(AttentionHooks::isInstalled());

    ASSERT_TRUE(AttentionHooks::uninstall());
    EXPECT_EQ(test::readFile(AttentionHooks::settingsPath()), original);
    EXPECT_FALSE(AttentionHooks::hasOurEntries());
    EXPECT_FALSE(fs::exists(home / ".claude.json"));
}

TEST(AttentionHooks, UnreadableSettingsAreLeftAloneAndTheOthersStillInstall) {
    for (const std::string bad : {"[\"array\"]", "{\n  // a comment\n  \"a\": 1\n}", "{\"hooks\": {", "{\"hooks\": 3}"}) {
        TempHome home;
        fs::create_directories(home / ".cursor");
        test::writeFile(home / ".claude/settings.json", bad);
        LogCapture log;
        DefaultsStore defaults(home / "defaults.json");
        auto outcomes = HookInstallation::enable(defaults);
        EXPECT_EQ(test::readFile(home / ".claude/settings.json"), bad);
        EXPECT_FALSE(fs::exists(home / ".claude/settings.json.notch-backup"));
        EXPECT_EQ(outcomes[0].result, HookInstallation::Outcome::Result::failed);
        EXPECT_EQ(outcomes[2].agent, "Cursor");
        EXPECT_EQ(outcomes[2].result, HookInstallation::Outcome::Result::done);
        EXPECT_EQ(outcomes[1].result, HookInstallation::Outcome::Result::skipped);  // no ~/.codex
        EXPECT_TRUE(CursorHooks::isInstalled());
        if (bad != "{\"hooks\": 3}") {
            EXPECT_NE(log.text().find("Lumora: ~/.claude/settings.json isn't valid JSON — leaving it alone, hooks not "
                                      "installed"),
                      std::string::npos)
                << log.text();
        }
        EXPECT_TRUE(defaults.boolean("hooksEnabled").value_or(false));
    }
}

TEST(AttentionHooks, ALinkedSettingsFileStaysALink) {
    TempHome home;
    fs::path target = home / "dotfiles/claude-settings.json";
    test::writeFile(target, "{\n  \"model\": \"opus\"\n}\n");
    fs::create_directories(home / ".claude");
    fs::create_symlink(target, home / ".claude/settings.json");
    ASSERT_TRUE(AttentionHooks::install());
    EXPECT_TRUE(fs::is_symlink(home / ".claude/settings.json"));
    EXPECT_NE(test::readFile(target).find("notch-hook.py"), std::string::npos);
    ASSERT_TRUE(AttentionHooks::uninstall());
    EXPECT_TRUE(fs::is_symlink(home / ".claude/settings.json"));
    EXPECT_EQ(test::readFile(target), "{\n  \"model\": \"opus\"\n}\n");
}

TEST(CodexHooks, InstallWritesGroupsTrustEntriesAndTheFlagAndRemovesExactlyThose) {
    TempHome home;
    fs::path codex = home / ".codex";
    fs::create_directories(codex);
    fs::copy_file(test::samplesDir() / "codex/home/.codex/hooks.json", codex / "hooks.json");
    fs::copy_file(test::samplesDir() / "codex/home/.codex/config.toml", codex / "config.toml");
    fs::permissions(codex / "hooks.json", fs::perms::owner_read | fs::perms::owner_write);
    fs::permissions(codex / "config.toml", fs::perms::owner_read | fs::perms::owner_write);
    std::string hooksBefore = test::readFile(codex / "hooks.json");
    std::string configBefore = test::readFile(codex / "config.toml");

    ASSERT_TRUE(CodexHooks::install());
    EXPECT_TRUE(CodexHooks::isInstalled());
    EXPECT_FALSE(CodexHooks::trustProblem());
    auto hooks = Json::parse(test::readFile(codex / "hooks.json"));
    ASSERT_EQ(hooks["hooks"]["PermissionRequest"].size(), 2u);
    const Json& ours = hooks["hooks"]["PermissionRequest"][1];
    EXPECT_EQ(ours["hooks"][0]["command"], "\"" + python() + "\" \"" + (codex / "notch-codex-hook.py").string() + "\" gate");
    std::string config = test::readFile(codex / "config.toml");
    std::string key = (home / ".codex/hooks.json").string() + ":permission_request:1:0";
    EXPECT_EQ(TomlTextEdits::keyValue(config, CodexHooks::trustHeader(key), "trusted_hash"),
              "\"" + CodexHooks::trustHash("PermissionRequest", ours, ours["hooks"][0]) + "\"");
    EXPECT_NE(config.find("\n[features]\nhooks = true  # managed by Lumora\n"), std::string::npos);
    EXPECT_EQ(config.rfind(configBefore, 0), 0u);  // everything the user had comes first, unchanged
    ASSERT_EQ(CodexHooks::configBackups().size(), 1u);
    EXPECT_EQ(test::readFile(CodexHooks::configBackups()[0]), configBefore);
    EXPECT_TRUE(TomlTextEdits::isValid(config));

    // Installing again changes nothing and takes no new backup.
    ASSERT_TRUE(CodexHooks::install());
    EXPECT_EQ(test::readFile(codex / "config.toml"), config);
    EXPECT_EQ(CodexHooks::configBackups().size(), 1u);

    // A tampered or missing trust entry means "not installed", and says why.
    test::writeFile(codex / "config.toml", TomlTextEdits::setKey(config, CodexHooks::trustHeader(key), "trusted_hash",
                                                                 "\"sha256:00\""));
    EXPECT_FALSE(CodexHooks::isInstalled());
    ASSERT_TRUE(CodexHooks::trustProblem());
    EXPECT_NE(CodexHooks::trustProblem()->find("1 of our 3 handlers"), std::string::npos);
    test::writeFile(codex / "config.toml", TomlTextEdits::removeKey(config, CodexHooks::trustHeader(key), "trusted_hash"));
    EXPECT_FALSE(CodexHooks::isInstalled());
    ASSERT_TRUE(CodexHooks::install());
    EXPECT_TRUE(CodexHooks::isInstalled());

    ASSERT_TRUE(CodexHooks::uninstall());
    EXPECT_EQ(test::readFile(codex / "hooks.json"), hooksBefore);
    EXPECT_EQ(test::readFile(codex / "config.toml"), configBefore);
    EXPECT_FALSE(CodexHooks::hasOurEntries());
}

TEST(CodexHooks, AUsersOwnFeatureFlagIsKeptAndNeverRemoved) {
    TempHome home;
    fs::path codex = home / ".codex";
    const std::string config = "model = \"m\"\n\n[features]\nhooks = true\nweb = false\n";
    test::writeFile(codex / "config.toml", config);
    EXPECT_EQ(CodexHooks::enablingFeatureFlag(config), config);
    ASSERT_TRUE(CodexHooks::install());
    std::string installed = test::readFile(codex / "config.toml");
    EXPECT_EQ(installed.find("managed by Lumora"), std::string::npos);
    ASSERT_TRUE(CodexHooks::uninstall());
    EXPECT_EQ(test::readFile(codex / "config.toml"), config);
    EXPECT_FALSE(fs::exists(codex / "hooks.json"));  // we created it, so it goes

    // Our line under the user's [features] table goes; the table and its other keys stay.
    const std::string table = "[features]\nweb = false\n";
    std::string flagged = CodexHooks::enablingFeatureFlag(table);
    EXPECT_EQ(flagged, "[features]\nhooks = true  # managed by Lumora\nweb = false\n");
    EXPECT_EQ(CodexHooks::disablingFeatureFlag(flagged, true), table);
    EXPECT_EQ(CodexHooks::disablingFeatureFlag("[features]\nhooks = true\n", true), "[features]\nhooks = true\n");

    auto name = CodexHooks::datedBackupPath(std::chrono::system_clock::time_point(std::chrono::seconds(1782864000)));
    EXPECT_EQ(name.filename(), "config.toml.notch-backup-2026-07-01T00-00-00Z");
}

TEST(CodexHooks, UnreadableFilesAreLeftAlone) {
    TempHome home;
    test::writeFile(home / ".codex/hooks.json", "{\"hooks\": {\"Stop\": [}");
    test::writeFile(home / ".codex/config.toml", "a = 1\n");
    LogCapture log;
    EXPECT_FALSE(CodexHooks::install());
    EXPECT_NE(log.text().find("Lumora: ~/.codex/hooks.json isn't valid JSON — leaving it alone, hooks not installed"),
              std::string::npos);
    EXPECT_EQ(test::readFile(home / ".codex/config.toml"), "a = 1\n");
    EXPECT_FALSE(fs::exists(home / ".codex/notch-codex-hook.py"));

    test::writeFile(home / ".codex/hooks.json", "{}");
    test::writeFile(home / ".codex/config.toml", "a = = 1\n");
    EXPECT_FALSE(CodexHooks::install());
    EXPECT_EQ(test::readFile(home / ".codex/hooks.json"), "{}");
    EXPECT_EQ(test::readFile(home / ".codex/config.toml"), "a = = 1\n");
}

TEST(CursorHooks, OneEntryPerEventNextToTheUsersOwn) {
    TempHome home;
    const std::string original = "{\n  \"version\": 1,\n  \"hooks\": {\n    \"stop\": [\n      {\n"
                                 "        \"command\": \"./audit.sh\"\n      }\n    ]\n  }\n}\n";
    test::writeFile(home / ".cursor/hooks.json", original);
    ASSERT_TRUE(CursorHooks::install());
    EXPECT_TRUE(CursorHooks::isInstalled());
    auto hooks = Json::parse(test::readFile(CursorHooks::hooksPath()));
    EXPECT_EQ(hooks["hooks"].size(), 10u);
    EXPECT_EQ(hooks["hooks"]["stop"][0]["command"], "./audit.sh");
    EXPECT_EQ(hooks["hooks"]["stop"][1]["command"],
              "\"" + python() + "\" \"" + (home / ".cursor/notch-cursor-hook.py").string() + "\"");
    ASSERT_TRUE(CursorHooks::install());
    EXPECT_EQ(Json::parse(test::readFile(CursorHooks::hooksPath())), hooks);
    ASSERT_TRUE(CursorHooks::uninstall());
    EXPECT_EQ(test::readFile(CursorHooks::hooksPath()), original);

    // No file before: version 1 is added, and uninstall removes the file we made.
    TempHome fresh;
    fs::create_directories(fresh / ".cursor");
    ASSERT_TRUE(CursorHooks::install());
    EXPECT_EQ(Json::parse(test::readFile(CursorHooks::hooksPath()))["version"], 1);
    ASSERT_TRUE(CursorHooks::uninstall());
    EXPECT_FALSE(fs::exists(CursorHooks::hooksPath()));
}

TEST(KimiHooks, TheManagedSectionIsRebuiltAndRemoved) {
    TempHome home;
    const std::string original = "default_model = \"kimi\"\n\n[[hooks]]\nevent = \"Stop\"\ncommand = \"notify-send done\"\n";
    test::writeFile(home / ".kimi-code/config.toml", original);
    ASSERT_TRUE(KimiHooks::install());
    EXPECT_TRUE(KimiHooks::isInstalled());
    std::string text = test::readFile(KimiHooks::configPath());
    std::string command = "'\"" + python() + "\" \"" + (home / ".kimi-code/notch-kimi-hook.py").string() + "\" notify'";
    EXPECT_EQ(text, original + "\n" + KimiHooks::managedSection(*PythonLocator::interpreter()));
    EXPECT_NE(text.find("# ── managed by Lumora — begin (do not edit) ──\n"
                        "# Live Prompts bridge (notch-kimi-hook v3) — reinstalled by Lumora on launch.\n"
                        "[[hooks]]\nevent = \"Notification\"\ncommand = " + command + "\ntimeout = 5\n"),
              std::string::npos);
    EXPECT_NE(text.find("event = \"StopFailure\""), std::string::npos);
    EXPECT_TRUE(TomlTextEdits::isValid(text));
    ASSERT_TRUE(KimiHooks::install());
    EXPECT_EQ(test::readFile(KimiHooks::configPath()), text);
    EXPECT_EQ(test::readFile(home / ".kimi-code/config.toml.notch-backup"), original);
    ASSERT_TRUE(KimiHooks::uninstall());
    EXPECT_EQ(test::readFile(KimiHooks::configPath()), original);
}

TEST(OpenCodeHooks, ThePluginCarriesTheSocketPathAndItsMarker) {
    TempHome home;
    EXPECT_FALSE(OpenCodeHooks::agentPresent());
    EXPECT_FALSE(OpenCodeHooks::install());
    EXPECT_FALSE(fs::exists(OpenCodeHooks::pluginPath()));
    fs::create_directories(home / ".local/share/opencode");
    test::ScopedEnv socket("LUMORA_SOCKET", "/tmp/we\"ird\\dir/notch.sock");
    ASSERT_TRUE(OpenCodeHooks::install());
    std::string text = test::readFile(home / ".config/opencode/plugins/lumora.js");
    EXPECT_EQ(text.rfind("// lumora-opencode v3 — written by Lumora. Safe to delete.\n", 0), 0u);
    EXPECT_NE(text.find("const SOCKET = \"/tmp/we\\\"ird\\\\dir/notch.sock\";\n"), std::string::npos);
    EXPECT_EQ(text.find("require("), std::string::npos);
    EXPECT_TRUE(OpenCodeHooks::isInstalled());
    test::writeFile(OpenCodeHooks::pluginPath(), "// lumora-opencode v1 — written by Lumora. Safe to delete.\n");
    EXPECT_FALSE(OpenCodeHooks::isInstalled());
    ASSERT_TRUE(OpenCodeHooks::uninstall());
    EXPECT_FALSE(fs::exists(OpenCodeHooks::pluginPath()));
}

TEST(HookInstallation, StartUpRefreshesOnlyStaleInstallsAndOnlyWhenEnabled) {
    TempHome home;
    fs::create_directories(home / ".claude");
    fs::create_directories(home / ".kimi-code");
    DefaultsStore defaults(home / "defaults.json");
    EXPECT_TRUE(HookInstallation::refreshAtStart(defaults).empty());
    EXPECT_FALSE(AttentionHooks::isInstalled());
    HookInstallation::enable(defaults);
    EXPECT_TRUE(HookInstallation::refreshAtStart(defaults).empty());
    test::writeFile(KimiHooks::programPath(), "# notch-kimi-hook v1\n");
    EXPECT_EQ(HookInstallation::refreshAtStart(defaults), std::vector<std::string>{"Kimi"});
    EXPECT_TRUE(KimiHooks::isInstalled());

    std::ostringstream report;
    HookInstallation::writeConfigTest(report);
    EXPECT_NE(report.str().find("Claude Code: present yes, installed yes, current yes\n  an install would change nothing\n"),
              std::string::npos)
        << report.str();
    EXPECT_NE(report.str().find("Codex: present no, installed no, current no\n"), std::string::npos);

    auto outcomes = HookInstallation::disable(defaults);
    EXPECT_FALSE(defaults.boolean("hooksEnabled").value_or(true));
    EXPECT_EQ(outcomes[0].result, HookInstallation::Outcome::Result::done);
    EXPECT_FALSE(AttentionHooks::hasOurEntries());
    EXPECT_FALSE(KimiHooks::hasOurEntries());
}

TEST(Uninstaller, DryRunTouchesNothingAndTheRealRunRemovesEverything) {
    TempHome home;
    for (const char* d : {".claude", ".codex", ".cursor", ".kimi-code", ".config/opencode"}) fs::create_directories(home / d);
    test::writeFile(home / ".claude/settings.json", "{\n  \"permissions\": {}\n}\n");
    test::writeFile(home / ".codex/config.toml", "model = \"m\"\n");
    DefaultsStore defaults(home / "defaults.json");
    HookInstallation::enable(defaults);
    fs::create_directories(Paths::supportFolder());
    test::writeFile(Paths::supportFolder() / "hook-state.json", "{}");

    auto snapshot = [&] {
        std::map<std::string, std::string> files;
        for (const auto& e : fs::recursive_directory_iterator(home.path())) {
            if (e.is_regular_file()) files[e.path().string()] = test::readFile(e.path());
        }
        return files;
    };
    auto before = snapshot();
    std::ostringstream dry;
    auto steps = Uninstaller::run(true, dry, &defaults);
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(dry.str().rfind("Lumora uninstall — DRY RUN (nothing will be touched)\n", 0), 0u);
    ASSERT_GE(steps.size(), 14u);
    EXPECT_EQ(steps[0].name, "Claude Code hook config (~/.claude/settings.json)");
    for (const auto& s : steps) {
        bool linuxOnly = s.name == "Login item" || s.name.rfind("Automation", 0) == 0;
        EXPECT_EQ(s.outcome, linuxOnly ? Uninstaller::Outcome::notPresent : Uninstaller::Outcome::wouldRemove) << s.name;
    }
    EXPECT_NE(dry.str().find("  would remove  Codex hook config (~/.codex/hooks.json + config.toml)\n"),
              std::string::npos);

    std::ostringstream real;
    steps = Uninstaller::run(false, real, &defaults);
    EXPECT_EQ(real.str().rfind("Removing Lumora…\n", 0), 0u);
    EXPECT_NE(real.str().find("  done          Kimi bridge script\n"), std::string::npos);
    EXPECT_NE(real.str().find("  not present   Login item\n"), std::string::npos);
    EXPECT_NE(real.str().find("UserDefaults wiped.\n"), std::string::npos);
    EXPECT_EQ(test::readFile(home / ".claude/settings.json"), "{\n  \"permissions\": {}\n}\n");
    EXPECT_FALSE(fs::exists(home / ".claude/lumora"));
    EXPECT_FALSE(fs::exists(Paths::supportFolder()));
    EXPECT_FALSE(fs::exists(OpenCodeHooks::pluginPath()));
    EXPECT_TRUE(CodexHooks::configBackups().empty());
    EXPECT_EQ(test::readFile(home / ".codex/config.toml"), "model = \"m\"\n");
    EXPECT_FALSE(defaults.contains("hooksEnabled"));
    for (const auto& s : steps) EXPECT_NE(s.outcome, Uninstaller::Outcome::failed) << s.name;
}

TEST(HooksCommandLine, FlagsRunThroughTheBinary) {
    TempHome home;
    fs::create_directories(home / ".claude");
    std::string env = "HOME='" + home.path().string() + "' XDG_DATA_HOME='" + (home / ".local/share").string() +
                      "' XDG_CONFIG_HOME='" + (home / ".config").string() + "' ";
    std::string bin = "'" + test::lumoraBinary().string() + "'";
    auto r = test::runCommand(env + bin + " --hooks-enable 2>&1");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Claude Code: installed\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Codex: not found on this machine, skipped\n"), std::string::npos);
    EXPECT_TRUE(AttentionHooks::isInstalled());
    r = test::runCommand(env + bin + " --hook-config-test 2>&1");
    EXPECT_NE(r.output.find("Claude Code: present yes, installed yes, current yes"), std::string::npos) << r.output;
    r = test::runCommand(env + bin + " --dry-run 2>&1");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.output, "lumora: --dry-run goes with --uninstall\n");
    r = test::runCommand(env + bin + " --uninstall --dry-run 2>&1");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(AttentionHooks::isInstalled());
    r = test::runCommand(env + bin + " --hooks-disable 2>&1");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(AttentionHooks::hasOurEntries());
}

TEST(PythonLocator, TheFirstCandidateThatPassesTheProbeWins) {
    TempHome home;
    auto candidates = PythonLocator::candidates();
    ASSERT_FALSE(candidates.empty());
    for (const auto& c : candidates) EXPECT_TRUE(c.is_absolute()) << c;
    EXPECT_TRUE(PythonLocator::passesProbe(candidates[0]));

    fs::path broken = home / "bin/python3";
    test::writeFile(broken, "#!/bin/sh\necho nope\n");
    fs::permissions(broken, fs::perms::owner_all);
    LogCapture log;
    EXPECT_FALSE(PythonLocator::passesProbe(broken));
    EXPECT_EQ(PythonLocator::locate({broken, candidates[0]}), candidates[0]);
    EXPECT_NE(log.text().find("Lumora: python3 at " + broken.string() +
                              " failed the import probe — hook bridges unavailable"),
              std::string::npos);
    EXPECT_EQ(PythonLocator::locate({}), std::nullopt);
    EXPECT_NE(log.text().find("Lumora: no usable python3 found — hook bridges unavailable"), std::string::npos);
}
