// The installers against real files in a temporary home.
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <spdlog/sinks/ostream_sink.h>

#include <sys/stat.h>

#include <set>
#include <sstream>

#include "hooks/fake_hook_server.hpp"
#include "lumora/base/defaults_store.hpp"
#include "lumora/hooks/attention_hooks.hpp"
#include "lumora/hooks/codex_config_edits.hpp"
#include "lumora/hooks/codex_hooks.hpp"
#include "lumora/hooks/cursor_hooks.hpp"
#include "lumora/hooks/hook_installation.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/opencode_hooks.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "lumora/hooks/uninstaller.hpp"
#include "lumora/platform/child_process.hpp"
#include "lumora/platform/login_item.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/python_locator.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using lumora::test::TempHome;
using Json = nlohmann::ordered_json;
namespace Trust = CodexConfigEdits;
using namespace std::chrono_literals;

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

bool hasSamples() { return fs::exists(test::samplesDir() / "codex/home/.codex/hooks.json"); }

// The events Codex 0.169 offers hooks for.
const std::vector<std::string> kCodexEvents = {"SessionStart", "UserPromptSubmit", "PreToolUse", "PermissionRequest",
                                               "PostToolUse",  "Stop",             "SubagentStart", "SubagentStop",
                                               "PreCompact",   "PostCompact",      "SessionEnd",    "Interrupt"};

// A user's group in the shape Codex keeps them.
Json userGroup(const std::string& event, const std::string& tag) {
    Json group = {{"hooks", Json::array({{{"type", "command"},
                                          {"command", "/usr/local/bin/hook-logger --event " + event + " " + tag},
                                          {"timeout", event == "SessionEnd" || event == "Interrupt" ? 3 : 600}}})}};
    if (event.find("ToolUse") != std::string::npos || event == "PermissionRequest") group["matcher"] = "*";
    return group;
}

// config.toml with a trust entry for every user handler of `hooks`, where it stands.
std::string trustingUsers(std::string config, const Json& hooks) {
    for (const auto& h : Trust::handlers(hooks, CodexHooks::trustKeyPath(), "notch-codex-hook")) {
        if (!h.ours) config = TomlTextEdits::setKey(config, Trust::trustHeader(h.key), "trusted_hash", "\"" + h.hash + "\"");
    }
    return config;
}

// Every handler of the user's (and, with `ours`, of ours) holds a matching trust entry.
void expectTrusted(const std::string& step, bool ours = true) {
    Json hooks = Json::parse(test::readFile(CodexHooks::hooksPath()));
    std::string config = test::readFile(CodexHooks::configPath());
    for (const auto& h : Trust::handlers(hooks, CodexHooks::trustKeyPath(), "notch-codex-hook")) {
        if (!h.ours || ours) {
            EXPECT_EQ(Trust::storedHash(config, h.key), h.hash) << step << ": " << h.key;
        }
    }
}

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
        EXPECT_EQ(Trust::trustHash(v.event, Json::parse(v.group), Json::parse(v.handler)), v.hash) << v.handler;
    }
    EXPECT_EQ(Trust::eventLabel("PermissionRequest"), "permission_request");
    EXPECT_EQ(Trust::eventLabel("UserPromptSubmit"), "user_prompt_submit");
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
    // A question dismissed in the agent fails the tool: that clears the marker too.
    EXPECT_EQ(settings["hooks"]["PostToolUseFailure"][0]["matcher"], "AskUserQuestion|ExitPlanMode");
    EXPECT_EQ(settings["hooks"]["PostToolUseFailure"][0]["hooks"][0]["command"],
              "\"" + python() + "\" \"" + (home / ".claude/lumora/notch-hook.py").string() + "\" clear");
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
    test::writeFile(AttentionHooks::programPath(), "#!/usr/bin/env python3\n# notch-cc-hook v8\n# older text\n");
    EXPECT_FALSE(AttentionHooks::isInstalled());
    ASSERT_TRUE(AttentionHooks::install());
    EXPECT_TRUE(AttentionHooks::isInstalled());

    ASSERT_TRUE(AttentionHooks::uninstall());
    EXPECT_EQ(test::readFile(AttentionHooks::settingsPath()), original);
    EXPECT_FALSE(AttentionHooks::hasOurEntries());
    EXPECT_FALSE(fs::exists(home / ".claude.json"));
}

TEST(AttentionHooks, UnreadableSettingsAreLeftAloneAndTheOthersStillInstall) {
    auto nested = [](size_t depth) { return "{\"a\": " + std::string(depth, '[') + std::string(depth, ']') + "}"; };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[\"array\"]", "isn't valid JSON"},
        {"{\n  // a comment\n  \"a\": 1\n}", "isn't valid JSON"},
        {"{\"hooks\": {", "isn't valid JSON"},
        {"{\"hooks\": 3}", "has an unexpected \"hooks\" entry"},
        {nested(20000), "nests deeper than 256 levels"},
        {nested(100000), "nests deeper than 256 levels"},
    };
    for (const auto& [bad, why] : cases) {
        TempHome home;
        fs::create_directories(home / ".cursor");
        test::writeFile(home / ".claude/settings.json", bad);
        LogCapture log;
        DefaultsStore defaults(home / "defaults.json");
        auto report = HookInstallation::enable(defaults);
        EXPECT_TRUE(HookInstallation::refreshAtStart(defaults).empty());  // no second try, no hang at start
        EXPECT_EQ(test::readFile(home / ".claude/settings.json"), bad);
        EXPECT_FALSE(fs::exists(home / ".claude/settings.json.notch-backup"));
        ASSERT_EQ(report.outcomes.size(), 5u);
        EXPECT_EQ(report.outcomes[0].result, HookInstallation::Outcome::Result::failed);
        EXPECT_EQ(report.outcomes[0].why, "~/.claude/settings.json " + why + " — left alone");
        EXPECT_EQ(report.outcomes[1].agent, "Cursor");
        EXPECT_EQ(report.outcomes[1].result, HookInstallation::Outcome::Result::done);
        EXPECT_EQ(report.outcomes[2].result, HookInstallation::Outcome::Result::skipped);  // no ~/.codex
        EXPECT_FALSE(report.ok());
        EXPECT_TRUE(CursorHooks::isInstalled());
        EXPECT_NE(log.text().find("Lumora: ~/.claude/settings.json " + why + " — leaving it alone, hooks not installed"),
                  std::string::npos)
            << log.text();
        EXPECT_TRUE(defaults.boolean("hooksEnabled").value_or(false));
        EXPECT_EQ(AttentionHooks::uninstall().ok, bad == "{\"hooks\": 3}");  // that one holds nothing of ours
        EXPECT_EQ(test::readFile(home / ".claude/settings.json"), bad);
    }
}

TEST(HookInstallation, RemovalCutsOurEntriesOutOfTheUsersOwnText) {
    // Files the user edited after our install, in layouts no serialiser writes: only our entries go.
    TempHome home;
    const std::string ours = "{\"hooks\": [{\"type\": \"command\", \"command\": \"\\\"/usr/bin/python3\\\" "
                             "\\\"/h/.claude/lumora/notch-hook.py\\\" busy\"}], \"matcher\": \"*\"}";
    test::writeFile(AttentionHooks::settingsPath(),
                    "{\n"
                    "    \"permissions\": {\"allow\": [\"Bash(git *)\"]},\n"
                    "    \"hooks\": {\n"
                    "        \"PreToolUse\": [\n"
                    "            {\"matcher\": \"Bash\", \"hooks\": [{\"type\": \"command\", \"command\": \"audit.sh\"}]},\n"
                    "            " + ours + ",\n"
                    "            {\"matcher\": \"Edit\", \"hooks\": [{\"type\": \"command\", \"command\": \"fmt.sh\"}]}\n"
                    "        ],\n"
                    "        \"Stop\": [ " + ours + " ]\n"
                    "    },\n"
                    "    \"env\": {\"A\": \"1\"}\n"
                    "}\n");
    ASSERT_TRUE(AttentionHooks::uninstall());
    EXPECT_EQ(test::readFile(AttentionHooks::settingsPath()),
              "{\n"
              "    \"permissions\": {\"allow\": [\"Bash(git *)\"]},\n"
              "    \"hooks\": {\n"
              "        \"PreToolUse\": [\n"
              "            {\"matcher\": \"Bash\", \"hooks\": [{\"type\": \"command\", \"command\": \"audit.sh\"}]},\n"
              "            {\"matcher\": \"Edit\", \"hooks\": [{\"type\": \"command\", \"command\": \"fmt.sh\"}]}\n"
              "        ]\n"
              "    },\n"
              "    \"env\": {\"A\": \"1\"}\n"
              "}\n");

    // Cursor's file on one line, and Codex's with CRLF line ends.
    test::writeFile(CursorHooks::hooksPath(),
                    "{\"version\": 1, \"hooks\": {\"stop\": [{\"command\": \"./audit.sh\"}, {\"command\": \"python3 "
                    "/x/notch-cursor-hook.py\"}], \"afterFileEdit\": [{\"command\": \"python3 /x/notch-cursor-hook.py\"}]}}");
    ASSERT_TRUE(CursorHooks::uninstall());
    EXPECT_EQ(test::readFile(CursorHooks::hooksPath()), "{\"version\": 1, \"hooks\": {\"stop\": [{\"command\": \"./audit.sh\"}]}}");
    test::writeFile(CodexHooks::hooksPath(),
                    "{\r\n\t\"hooks\": {\r\n\t\t\"Stop\": [\r\n\t\t\t{\"hooks\": [{\"command\": \"/x/notch-codex-hook.py clear\"}]},\r\n"
                    "\t\t\t{\"hooks\": [{\"command\": \"say done\"}]}\r\n\t\t]\r\n\t}\r\n}\r\n");
    ASSERT_TRUE(CodexHooks::uninstall());
    EXPECT_EQ(test::readFile(CodexHooks::hooksPath()),
              "{\r\n\t\"hooks\": {\r\n\t\t\"Stop\": [\r\n\t\t\t{\"hooks\": [{\"command\": \"say done\"}]}\r\n\t\t]\r\n\t}\r\n}\r\n");
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
    if (hasSamples()) {
        fs::copy_file(test::samplesDir() / "codex/home/.codex/hooks.json", codex / "hooks.json");
        fs::copy_file(test::samplesDir() / "codex/home/.codex/config.toml", codex / "config.toml");
        fs::permissions(codex / "hooks.json", fs::perms::owner_read | fs::perms::owner_write);
        fs::permissions(codex / "config.toml", fs::perms::owner_read | fs::perms::owner_write);
    } else {  // the same shape: a trusted user group in every event
        Json hooks = {{"hooks", Json::object()}};
        for (const auto& e : kCodexEvents) hooks["hooks"][e] = Json::array({userGroup(e, "a")});
        test::writeFile(codex / "hooks.json", hooks.dump(2));
        test::writeFile(codex / "config.toml", trustingUsers("model = \"m\"\n\n[hooks.state]\n", hooks));
    }
    std::string hooksBefore = test::readFile(codex / "hooks.json");
    std::string configBefore = test::readFile(codex / "config.toml");

    ASSERT_TRUE(CodexHooks::install());
    EXPECT_TRUE(CodexHooks::isInstalled());
    EXPECT_FALSE(CodexHooks::trustProblem());
    auto hooks = Json::parse(test::readFile(codex / "hooks.json"));
    ASSERT_EQ(hooks["hooks"]["PermissionRequest"].size(), 2u);
    const Json& ours = hooks["hooks"]["PermissionRequest"][1];
    EXPECT_EQ(ours["hooks"][0]["command"], "\"" + python() + "\" \"" + (codex / "notch-codex-hook.py").string() + "\" gate");
    EXPECT_EQ(hooks["hooks"]["Interrupt"][1]["hooks"][0]["command"],
              "\"" + python() + "\" \"" + (codex / "notch-codex-hook.py").string() + "\" clear");
    std::string config = test::readFile(codex / "config.toml");
    std::string key = (home / ".codex/hooks.json").string() + ":permission_request:1:0";
    EXPECT_EQ(TomlTextEdits::keyValue(config, Trust::trustHeader(key), "trusted_hash"),
              "\"" + Trust::trustHash("PermissionRequest", ours, ours["hooks"][0]) + "\"");
    EXPECT_NE(config.find("\n[features]\nhooks = true  # managed by Lumora\n"), std::string::npos);
    EXPECT_EQ(config.rfind(configBefore, 0), 0u);  // everything the user had comes first, unchanged
    ASSERT_EQ(CodexHooks::configBackups().size(), 1u);
    EXPECT_EQ(test::readFile(CodexHooks::configBackups()[0]), configBefore);
    EXPECT_TRUE(TomlTextEdits::isValid(config));
    auto name = CodexHooks::datedBackupPath(std::chrono::system_clock::time_point(std::chrono::seconds(1782864000)));
    EXPECT_EQ(name.filename(), "config.toml.notch-backup-2026-07-01T00-00-00Z");

    // Installing again changes nothing and takes no new backup.
    ASSERT_TRUE(CodexHooks::install());
    EXPECT_EQ(test::readFile(codex / "config.toml"), config);
    EXPECT_EQ(CodexHooks::configBackups().size(), 1u);

    // A tampered or missing trust entry means "not installed", and says why.
    test::writeFile(codex / "config.toml", TomlTextEdits::setKey(config, Trust::trustHeader(key), "trusted_hash",
                                                                 "\"sha256:00\""));
    EXPECT_FALSE(CodexHooks::isInstalled());
    ASSERT_TRUE(CodexHooks::trustProblem());
    EXPECT_NE(CodexHooks::trustProblem()->find("1 of our 4 handlers"), std::string::npos);
    test::writeFile(codex / "config.toml", TomlTextEdits::removeKey(config, Trust::trustHeader(key), "trusted_hash"));
    EXPECT_FALSE(CodexHooks::isInstalled());
    ASSERT_TRUE(CodexHooks::install());
    EXPECT_TRUE(CodexHooks::isInstalled());

    ASSERT_TRUE(CodexHooks::uninstall());
    EXPECT_EQ(test::readFile(codex / "hooks.json"), hooksBefore);
    EXPECT_EQ(test::readFile(codex / "config.toml"), configBefore);
    EXPECT_FALSE(CodexHooks::hasOurEntries());
}

TEST(CodexHooks, TheUsersHooksStayTrustedWhateverHappensToOurs) {
    TempHome home;
    Json hooks = {{"hooks", Json::object()}};
    for (const auto& e : kCodexEvents) hooks["hooks"][e] = Json::array({userGroup(e, "first")});
    test::writeFile(CodexHooks::hooksPath(), hooks.dump(2));
    test::writeFile(CodexHooks::configPath(), trustingUsers("model = \"m\"\n", hooks));
    ASSERT_TRUE(CodexHooks::install());
    expectTrusted("install");

    // The user adds a hook after ours in every event, and Codex trusts it where it stands.
    hooks = Json::parse(test::readFile(CodexHooks::hooksPath()));
    for (const auto& e : kCodexEvents) hooks["hooks"][e].push_back(userGroup(e, "second"));
    // An older install left a second group of ours before the user's in one list.
    Json stale = hooks["hooks"]["Stop"][1];
    stale["hooks"][0]["command"] = "python3 /old/notch-codex-hook.py clear";
    hooks["hooks"]["Stop"].insert(hooks["hooks"]["Stop"].begin(), stale);
    test::writeFile(CodexHooks::hooksPath(), hooks.dump(2));
    test::writeFile(CodexHooks::configPath(), trustingUsers(test::readFile(CodexHooks::configPath()), hooks));
    expectTrusted("edited", false);

    ASSERT_TRUE(CodexHooks::install());  // our groups move to the end: the user's move up
    EXPECT_EQ(Json::parse(test::readFile(CodexHooks::hooksPath()))["hooks"]["Stop"].size(), 3u);
    expectTrusted("reinstall");
    EXPECT_TRUE(CodexHooks::isInstalled());
    ASSERT_TRUE(CodexHooks::uninstall());  // ours go from between the user's
    expectTrusted("uninstall");
    std::string config = test::readFile(CodexHooks::configPath());
    size_t entries = 0;
    for (size_t at = 0; (at = config.find("[hooks.state.", at)) != std::string::npos; ++at) ++entries;
    EXPECT_EQ(entries, 2 * kCodexEvents.size());  // the user's, and none of ours
}

TEST(CodexHooks, TheFeatureFlagGoesWhereverTheUserKeepsFeatures) {
    struct Case {
        std::string config;
        std::string refusal;  // empty: installs
    };
    const std::vector<Case> cases = {
        {"model = \"m\"\n", ""},
        {"[tui]\nhooks = true\n", ""},                                  // another table's key is not the flag
        {"notes = \"\"\"\n[features]\nhooks = true\n\"\"\"\n", ""},       // nor is text in a string
        {"[features]\nweb = false\n", ""},
        {"model = \"m\"\n\n[features]\nhooks = true\nweb = false\n", ""},  // the user's own flag: kept, never removed
        {"features = { web = true } # mine\n\n[tui]\nx = 1\n", ""},
        {"features = {}\n", ""},
        {"model = \"m\"\nfeatures.web = true\nfeatures.note = \"\"\"\na\n\"\"\"\n\n[tui]\nx = 1\n", ""},
        {"[features.sub]\nx = 1\n", ""},
        {"model = \"m\"\r\n\r\n[features]\r\nweb = true\r\n", ""},
        {"model = \"m\"\r\n", ""},
        {"[features]\nhooks = false\n", "turns the hooks feature off"},
        {"features = 3\n", "isn't a table"},
        {"a = = 1\n", "isn't valid TOML"},
    };
    for (const auto& c : cases) {
        TempHome home;
        test::writeFile(CodexHooks::configPath(), c.config);
        Status installed = CodexHooks::install();
        if (!c.refusal.empty()) {
            EXPECT_FALSE(installed) << c.config;
            EXPECT_NE(installed.why.find(c.refusal), std::string::npos) << installed.why;
            EXPECT_EQ(installed.why.rfind("~/.codex/config.toml ", 0), 0u) << installed.why;
            EXPECT_EQ(test::readFile(CodexHooks::configPath()), c.config);
            EXPECT_FALSE(fs::exists(CodexHooks::hooksPath()));
            EXPECT_FALSE(fs::exists(CodexHooks::programPath()));
            continue;
        }
        ASSERT_TRUE(installed) << c.config << installed.why;
        std::string text = test::readFile(CodexHooks::configPath());
        EXPECT_TRUE(Trust::featureOn(text)) << text;
        EXPECT_TRUE(CodexHooks::isInstalled()) << text;
        if (c.config.find('\r') != std::string::npos) {
            for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; ++at) {
                EXPECT_EQ(text[at - 1], '\r') << text;
            }
        }
        if (c.config.find("hooks = true\nweb") != std::string::npos) {
            EXPECT_EQ(text.find("managed by Lumora"), std::string::npos);
        }
        ASSERT_TRUE(CodexHooks::uninstall());
        EXPECT_EQ(test::readFile(CodexHooks::configPath()), c.config);
        EXPECT_FALSE(fs::exists(CodexHooks::hooksPath()));  // we created it, so it goes
    }
    // Our line under the user's [features] table goes; the table and its other keys stay.
    EXPECT_EQ(Trust::disablingFeatureFlag("[features]\nhooks = true  # managed by Lumora\nweb = false\n", true),
              "[features]\nweb = false\n");
    EXPECT_EQ(Trust::disablingFeatureFlag("[features]\nhooks = true\n", true), "[features]\nhooks = true\n");
}

TEST(CodexHooks, UnreadableFilesAreLeftAlone) {
    TempHome home;
    test::writeFile(home / ".codex/hooks.json", "{\"hooks\": {\"Stop\": [}");
    test::writeFile(home / ".codex/config.toml", "a = 1\n");
    LogCapture log;
    EXPECT_EQ(CodexHooks::install().why, "~/.codex/hooks.json isn't valid JSON — left alone");
    EXPECT_NE(log.text().find("Lumora: ~/.codex/hooks.json isn't valid JSON — leaving it alone, hooks not installed"),
              std::string::npos);
    EXPECT_EQ(test::readFile(home / ".codex/config.toml"), "a = 1\n");
    EXPECT_FALSE(fs::exists(home / ".codex/notch-codex-hook.py"));

    // A folder or a FIFO where config.toml should be: refused at once, never waited on.
    test::writeFile(home / ".codex/hooks.json", "{}");
    fs::remove(home / ".codex/config.toml");
    ASSERT_EQ(::mkfifo((home / ".codex/config.toml").c_str(), 0600), 0);
    EXPECT_EQ(CodexHooks::install().why, "~/.codex/config.toml can't be read (not a regular file) — left alone");
    EXPECT_FALSE(CodexHooks::uninstall());
    EXPECT_EQ(test::readFile(home / ".codex/hooks.json"), "{}");
    EXPECT_TRUE(fs::is_fifo(home / ".codex/config.toml"));
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

    // A file written with CRLF keeps CRLF while our section is in it.
    const std::string crlf = "default_model = \"kimi\"\r\n";
    test::writeFile(KimiHooks::configPath(), crlf);
    ASSERT_TRUE(KimiHooks::install());
    text = test::readFile(KimiHooks::configPath());
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; ++at) EXPECT_EQ(text[at - 1], '\r');
    EXPECT_TRUE(KimiHooks::isInstalled());
    ASSERT_TRUE(KimiHooks::uninstall());
    EXPECT_EQ(test::readFile(KimiHooks::configPath()), crlf);
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
    // Something that is not a file where the plugin goes is left as it is.
    fs::create_directories(OpenCodeHooks::pluginPath());
    EXPECT_EQ(OpenCodeHooks::install().why,
              "~/.config/opencode/plugins/lumora.js can't be read (a folder, not a file) — left alone");
    EXPECT_TRUE(fs::is_directory(OpenCodeHooks::pluginPath()));
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

    auto off = HookInstallation::disable(defaults);
    EXPECT_TRUE(off.ok());
    EXPECT_FALSE(defaults.boolean("hooksEnabled").value_or(true));
    EXPECT_EQ(off.outcomes[0].result, HookInstallation::Outcome::Result::done);
    EXPECT_FALSE(AttentionHooks::hasOurEntries());
    EXPECT_FALSE(KimiHooks::hasOurEntries());
}

TEST(HookInstallation, TheInstalledHooksReportADismissedQuestion) {
    // Esc on a question: Claude Code fails the tool, Codex fires Interrupt; neither sends a result or Stop.
    TempHome home;
    fs::create_directories(home / ".claude");
    fs::create_directories(home / ".codex");
    ASSERT_TRUE(AttentionHooks::install());
    ASSERT_TRUE(CodexHooks::install());
    test::FakeHookServer server(home / "s.sock");
    ASSERT_TRUE(server.start());
    auto runInstalled = [&](const fs::path& file, const std::string& event, const std::string& matcher, const Json& input) {
        Json config = Json::parse(test::readFile(file));
        for (const auto& group : config["hooks"][event]) {
            if (group.value("matcher", "") != matcher) continue;
            std::string command = group["hooks"][0]["command"];
            auto child = ChildProcess::spawn({"/bin/sh", "-c", command}, input.dump(),
                                             {{"LUMORA_SOCKET", (home / "s.sock").string()}});
            ASSERT_TRUE(child && child->wait(10s)) << command;
        }
    };
    Json failed = {{"session_id", "cc-1"}, {"hook_event_name", "PostToolUseFailure"}, {"tool_name", "AskUserQuestion"},
                   {"error", "The user doesn't want to proceed with this tool use."}, {"cwd", "/w"}};
    runInstalled(AttentionHooks::settingsPath(), "PostToolUseFailure", "AskUserQuestion|ExitPlanMode", failed);
    runInstalled(AttentionHooks::settingsPath(), "PostToolUseFailure", "*", failed);
    Json interrupt = {{"session_id", "cx-1"}, {"turn_id", "t"}, {"hook_event_name", "Interrupt"}, {"cwd", "/w"}};
    runInstalled(CodexHooks::hooksPath(), "Interrupt", "", interrupt);
    ASSERT_TRUE(server.waitForLines(3));
    auto lines = server.lines();
    std::set<std::tuple<std::string, std::string, std::string>> sent;
    for (const auto& l : lines) {
        sent.insert({l["source"].get<std::string>(), l["session_id"].get<std::string>(), l["action"].get<std::string>()});
    }
    EXPECT_EQ(sent, (std::set<std::tuple<std::string, std::string, std::string>>{
                        {"claude", "cc-1", "clear"}, {"claude", "cc-1", "busydone"}, {"codex", "cx-1", "clear"}}));
}

TEST(Uninstaller, DryRunTouchesNothingAndTheRealRunRemovesEverything) {
    TempHome home;
    for (const char* d : {".claude", ".codex", ".cursor", ".kimi-code", ".config/opencode"}) fs::create_directories(home / d);
    test::writeFile(home / ".claude/settings.json", "{\n  \"permissions\": {}\n}\n");
    test::writeFile(home / ".cursor/hooks.json", "{\"version\": 1}");
    test::writeFile(home / ".codex/config.toml", "model = \"m\"\n");
    test::writeFile(home / ".kimi-code/config.toml", "default_model = \"k\"\n");
    DefaultsStore defaults(Paths::defaultsFile());
    ASSERT_TRUE(HookInstallation::enable(defaults).ok());
    fs::create_directories(Paths::supportFolder());
    test::writeFile(Paths::supportFolder() / "hook-state.json", "{}");

    auto snapshot = [&] {
        std::map<std::string, std::string> files;
        for (const auto& e : fs::recursive_directory_iterator(home.path())) {
            files[e.path().string()] = e.is_regular_file() ? test::readFile(e.path()) : "";
        }
        return files;
    };
    ASSERT_FALSE(LoginItem::enable("/usr/bin/lumora"));
    auto before = snapshot();
    EXPECT_TRUE(before.count(Paths::defaultsFile().string() + ".lock"));
    std::ostringstream dry;
    auto steps = Uninstaller::run(true, dry, &defaults);
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(dry.str().rfind("Lumora uninstall — DRY RUN (nothing will be touched)\n", 0), 0u);
    ASSERT_EQ(steps.size(), 15u);
    EXPECT_EQ(steps[0].name, "Claude Code hook config (~/.claude/settings.json)");
    for (const auto& s : steps) {
        bool linuxOnly = s.name.rfind("Automation", 0) == 0;
        EXPECT_EQ(s.outcome, linuxOnly ? Uninstaller::Outcome::notPresent : Uninstaller::Outcome::wouldRemove) << s.name;
    }
    for (const char* line : {"  would remove  Codex hook config (~/.codex/hooks.json + config.toml)\n",
                             "  would remove  config backups (*.notch-backup)\n",
                             "  would remove  User defaults (~/.config/lumora/defaults.json and its lock file)\n"}) {
        EXPECT_NE(dry.str().find(line), std::string::npos) << dry.str();
    }

    std::ostringstream real;
    steps = Uninstaller::run(false, real, &defaults);
    EXPECT_EQ(real.str().rfind("Removing Lumora…\n", 0), 0u);
    EXPECT_NE(real.str().find("  done          Kimi bridge script\n"), std::string::npos);
    EXPECT_NE(real.str().find("  done          Login item (~/.config/autostart/lumora.desktop)\n"), std::string::npos);
    EXPECT_FALSE(LoginItem::enabled());
    EXPECT_NE(real.str().find("UserDefaults wiped.\n"), std::string::npos);
    for (const auto& s : steps) EXPECT_NE(s.outcome, Uninstaller::Outcome::failed) << s.name;
    // The user's files, as they were; nothing of ours anywhere.
    auto after = snapshot();
    std::map<std::string, std::string> expected = {
        {(home / ".claude/settings.json").string(), "{\n  \"permissions\": {}\n}\n"},
        {(home / ".cursor/hooks.json").string(), "{\"version\": 1}"},
        {(home / ".codex/config.toml").string(), "model = \"m\"\n"},
        {(home / ".kimi-code/config.toml").string(), "default_model = \"k\"\n"},
    };
    for (const auto& [path, text] : after) {
        if (fs::is_directory(path)) continue;
        EXPECT_EQ(expected.count(path), 1u) << "left behind: " << path;
        if (expected.count(path)) {
            EXPECT_EQ(text, expected[path]);
        }
    }
    EXPECT_FALSE(fs::exists(Paths::defaultsFile().parent_path()));
    EXPECT_FALSE(fs::exists(Paths::supportFolder()));
    EXPECT_FALSE(defaults.contains("hooksEnabled"));
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
