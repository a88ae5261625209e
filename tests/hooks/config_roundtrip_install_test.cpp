// Many generated configuration files, written the way the agents write them:
// install then uninstall gives every file back byte for byte, a second
// install changes nothing and takes no second backup, and a file that cannot
// be read is never written.
#include <gtest/gtest.h>

#include <random>

#include "lumora/hooks/attention_hooks.hpp"
#include "lumora/hooks/codex_hooks.hpp"
#include "lumora/hooks/cursor_hooks.hpp"
#include "lumora/hooks/json_config_file.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using lumora::test::TempHome;
using Json = nlohmann::ordered_json;

namespace {

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    bool chance(int percent) { return pick(100) < percent; }

    std::string text() {
        static const char* parts[] = {"a",  "model", "é",      "日本語", "🚀",   " ",     "\\", "\"",
                                      "\n", "\t",    "\x01",   "/",      "path", "Bash(", ")",  "*", "x,}"};
        std::string s;
        for (int i = pick(5); i >= 0; --i) s += parts[pick(sizeof parts / sizeof *parts)];
        return s;
    }

    Json value(int depth) {
        switch (depth > 2 ? pick(4) : pick(6)) {
            case 0: return text();
            case 1: return pick(2000) - 1000;
            case 2: return chance(50);
            case 3: return chance(50) ? Json(nullptr) : Json(pick(8) / 4.0);
            case 4: {
                Json a = Json::array();
                for (int i = pick(4); i > 0; --i) a.push_back(value(depth + 1));
                return a;
            }
            default: {
                Json o = Json::object();
                for (int i = pick(4); i > 0; --i) o[text()] = value(depth + 1);
                return o;
            }
        }
    }

    // Another tool's hook group, shaped as the agents keep them.
    Json group() {
        Json g = Json::object();
        if (chance(60)) g["matcher"] = chance(50) ? "*" : text();
        Json hook = {{"type", "command"}, {"command", "/opt/other-tool/hook.sh " + text()}};
        if (chance(40)) hook["timeout"] = pick(100);
        g["hooks"] = Json::array({hook});
        return g;
    }

    Json hooksFile(const std::vector<std::string>& events, bool topLevelNoise) {
        Json root = Json::object();
        if (topLevelNoise) {
            for (int i = pick(4); i > 0; --i) root[text()] = value(0);
        }
        if (chance(80)) {
            Json hooks = Json::object();
            for (int i = pick(5); i > 0; --i) {
                Json list = Json::array();
                for (int j = pick(3); j > 0; --j) list.push_back(group());
                hooks[events[pick(static_cast<int>(events.size()))]] = list;
            }
            root["hooks"] = hooks;
        }
        if (topLevelNoise && chance(50)) root[text()] = value(0);
        return root;
    }

    // Serialised as an agent would write it: mostly two spaces, sometimes
    // four spaces, a tab, or one compact line; with or without a final newline.
    std::string layout(const Json& j) {
        std::string out;
        switch (pick(10)) {
            case 0: out = j.dump(4); break;
            case 1: out = j.dump(1, '\t'); break;
            case 2: out = j.dump(); break;
            default: out = j.dump(2); break;
        }
        if (chance(70)) out += "\n";
        return out;
    }

    // `codex`: trust-entry tables may appear; otherwise (Kimi) [[hooks]] arrays may.
    std::string tomlFile(bool withFeatures, bool codex) {
        std::string out;
        if (chance(30)) out += "# " + plain() + "\n";
        for (int i = pick(3); i > 0; --i) out += plain() + " = " + tomlValue() + "\n";
        for (int t = pick(5); t >= 0; --t) {
            if (!out.empty() && chance(80)) out += "\n";
            int kind = pick(5);
            if (kind == 0 && withFeatures) {
                out += "[features]\n";
                withFeatures = false;
                if (chance(30)) out += "hooks = true\n";
            } else if (kind == 1 && codex) {
                out += "[hooks.state.\"/home/u/.codex/hooks.json:stop:" + std::to_string(counter_++) + ":0\"]\n";
                out += "trusted_hash = \"sha256:" + std::string(64, 'a' + pick(6)) + "\"\n";
                continue;
            } else if (kind == 2) {
                out += "[projects.\"/home/u/" + plain() + "\"]\n";
            } else if (kind == 3 && !codex) {
                out += "[[hooks]]\nevent = \"Stop\"\ncommand = '/usr/bin/notify-send done'\n";
            } else {
                out += "[" + plain() + "]\n";
            }
            for (int i = pick(3); i > 0; --i) out += plain() + " = " + tomlValue() + (chance(20) ? "  # note" : "") + "\n";
        }
        if (chance(15) && !out.empty()) out.pop_back();  // no final newline
        return out;
    }

private:
    std::string plain() {
        static const char* words[] = {"model", "tui", "alpha", "beta", "notify", "sandbox", "web_search"};
        return std::string(words[pick(7)]) + std::to_string(counter_++);
    }
    std::string tomlValue() {
        switch (pick(5)) {
            case 0: return std::to_string(pick(100));
            case 1: return chance(50) ? "true" : "false";
            case 2: return "\"" + std::string(chance(50) ? "é 日本 🚀" : "[not] a = table") + "\"";
            case 3: return "[1, 2, 3]";
            default: return "\"\"\"\nmulti\n[looks.like.a.table]\nline\n\"\"\"";
        }
    }

    std::mt19937 rng_;
    int counter_ = 0;
};

std::optional<std::string> maybeRead(const fs::path& p) {
    if (!fs::exists(p)) return std::nullopt;
    return test::readFile(p);
}

// Breaks a readable JSON file in one of the ways people and tools do.
std::string broken(Generator& g, const std::string& good) {
    switch (g.pick(4)) {
        case 0: return "[" + good + "]";
        case 1: return "// edited by hand\n" + good;
        case 2: return good.substr(0, std::max<size_t>(1, good.size() / 2));
        default: return good + "}";
    }
}

}  // namespace

TEST(ConfigRoundTrip, ClaudeSettingsComeBackByteForByte) {
    const std::vector<std::string> events = {"PreToolUse", "PostToolUse", "Stop", "Notification", "SessionStart",
                                             "UserPromptSubmit", "PermissionRequest"};
    Generator g(7);
    for (int i = 0; i < 120; ++i) {
        TempHome home;
        fs::path file = home / ".claude/settings.json";
        std::string original = g.layout(g.hooksFile(events, true));
        test::writeFile(file, original);
        ASSERT_TRUE(AttentionHooks::install()) << original;
        std::string installed = test::readFile(file);
        auto backup = maybeRead(JSONConfigFile::backupURL(file));
        ASSERT_TRUE(AttentionHooks::install());
        EXPECT_EQ(test::readFile(file), installed) << original;
        EXPECT_EQ(maybeRead(JSONConfigFile::backupURL(file)), backup);
        ASSERT_TRUE(AttentionHooks::uninstall());
        ASSERT_EQ(test::readFile(file), original) << "case " << i;

        std::string bad = broken(g, original);
        if (JSONConfigFile::parse(bad).kind != JSONConfigFile::Contents::Kind::unreadable) continue;
        TempHome other;
        test::writeFile(other / ".claude/settings.json", bad);
        EXPECT_FALSE(AttentionHooks::install());
        EXPECT_FALSE(AttentionHooks::uninstall());
        EXPECT_EQ(test::readFile(other / ".claude/settings.json"), bad);
        EXPECT_FALSE(fs::exists(JSONConfigFile::backupURL(other / ".claude/settings.json")));
    }
}

TEST(ConfigRoundTrip, CodexHooksAndConfigComeBackByteForByte) {
    const std::vector<std::string> events = {"PreToolUse", "PermissionRequest", "Stop", "UserPromptSubmit",
                                             "SessionEnd", "PostCompact"};
    Generator g(11);
    for (int i = 0; i < 100; ++i) {
        TempHome home;
        fs::path hooks = home / ".codex/hooks.json";
        fs::path config = home / ".codex/config.toml";
        std::optional<std::string> hooksText, configText;
        if (g.chance(85)) hooksText = g.layout(g.hooksFile(events, g.chance(30)));
        if (g.chance(90)) configText = g.tomlFile(g.chance(50), true);
        fs::create_directories(home / ".codex");
        if (hooksText) test::writeFile(hooks, *hooksText);
        if (configText) test::writeFile(config, *configText);
        ASSERT_TRUE(!configText || TomlTextEdits::isValid(*configText)) << *configText;

        ASSERT_TRUE(CodexHooks::install()) << (configText ? *configText : "");
        EXPECT_TRUE(CodexHooks::isInstalled()) << test::readFile(config) << "\n---\n" << test::readFile(hooks);
        std::string hooksInstalled = test::readFile(hooks), configInstalled = test::readFile(config);
        size_t backups = CodexHooks::configBackups().size();
        ASSERT_TRUE(CodexHooks::install());
        EXPECT_EQ(test::readFile(hooks), hooksInstalled);
        EXPECT_EQ(test::readFile(config), configInstalled);
        EXPECT_EQ(CodexHooks::configBackups().size(), backups);

        ASSERT_TRUE(CodexHooks::uninstall());
        EXPECT_EQ(maybeRead(hooks), hooksText) << "case " << i;
        ASSERT_EQ(maybeRead(config), configText) << "case " << i << "\n" << configInstalled;

        if (!hooksText) continue;
        std::string bad = broken(g, *hooksText);
        if (JSONConfigFile::parse(bad).kind != JSONConfigFile::Contents::Kind::unreadable) continue;
        test::writeFile(hooks, bad);
        EXPECT_FALSE(CodexHooks::install());
        EXPECT_EQ(test::readFile(hooks), bad);
        EXPECT_EQ(maybeRead(config), configText);
    }
}

TEST(ConfigRoundTrip, CursorAndKimiComeBackByteForByte) {
    const std::vector<std::string> events = {"beforeShellExecution", "stop", "afterFileEdit", "beforeReadFile"};
    Generator g(13);
    for (int i = 0; i < 80; ++i) {
        TempHome home;
        fs::create_directories(home / ".cursor");
        fs::path hooks = home / ".cursor/hooks.json";
        Json cursor = g.hooksFile(events, g.chance(30));
        if (cursor.contains("hooks")) {
            for (auto& [event, list] : cursor["hooks"].items()) {
                for (auto& entry : list) entry = Json{{"command", "./" + g.text()}};
            }
        }
        if (g.chance(70)) {  // Cursor's own files start with the version
            Json withVersion = {{"version", 1}};
            for (auto& [k, v] : cursor.items()) withVersion[k] = v;
            cursor = withVersion;
        }
        std::string original = g.layout(cursor);
        test::writeFile(hooks, original);
        ASSERT_TRUE(CursorHooks::install()) << original;
        std::string installed = test::readFile(hooks);
        ASSERT_TRUE(CursorHooks::install());
        EXPECT_EQ(test::readFile(hooks), installed);
        ASSERT_TRUE(CursorHooks::uninstall());
        ASSERT_EQ(test::readFile(hooks), original) << "case " << i;

        fs::path kimi = home / ".kimi-code/config.toml";
        std::string toml = g.tomlFile(false, false);
        test::writeFile(kimi, toml);
        ASSERT_TRUE(KimiHooks::install()) << toml;
        std::string kimiInstalled = test::readFile(kimi);
        ASSERT_TRUE(KimiHooks::install());
        EXPECT_EQ(test::readFile(kimi), kimiInstalled);
        ASSERT_TRUE(KimiHooks::uninstall());
        ASSERT_EQ(test::readFile(kimi), toml) << "case " << i;
    }
}
