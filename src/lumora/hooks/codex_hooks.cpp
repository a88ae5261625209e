#include "lumora/hooks/codex_hooks.hpp"

#include <openssl/evp.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <toml++/toml.h>

#include "lumora/base/file_util.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::CodexHooks {

using namespace HookConfigEdits;
namespace Toml = TomlTextEdits;

namespace {

std::vector<std::pair<std::string, Json>> ourGroups(const fs::path& interpreter) {
    return groupsFor(eventSpecs(), interpreter, programPath());
}

bool holdsOurs(const Json& object) { return holdsOurGroups(object, kOurScript); }

std::string sha256Hex(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

bool oneOf(const std::string& value, std::initializer_list<const char*> list) {
    for (const char* item : list) {
        if (value == item) return true;
    }
    return false;
}

std::string rtrimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.pop_back();
    return s;
}

bool hasFeatureFlag(const std::string& text) {
    static const std::regex flag(R"(^\s*hooks\s*=\s*true)");
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t eol = text.find('\n', pos);
        std::string line = text.substr(pos, eol == std::string::npos ? std::string::npos : eol - pos);
        if (std::regex_search(line, flag)) return true;
        if (eol == std::string::npos) break;
        pos = eol + 1;
    }
    return false;
}

std::optional<std::string> readConfig() {
    std::error_code ec;
    if (!fs::exists(configPath(), ec)) return std::string();
    return FileUtil::readFile(configPath());
}

// The hash each trust entry of ours holds in the config text, read with a TOML parser.
std::optional<std::string> storedHash(const toml::table& config, const std::string& key) {
    auto node = config["hooks"]["state"][key]["trusted_hash"];
    if (auto value = node.value<std::string>()) return *value;
    return std::nullopt;
}

struct ConfigPlan {
    std::string text;
    bool valid = true;
};

// The config text for `edited` hooks.json: stale trust entries of ours
// removed, current ones set, feature flag on.
ConfigPlan plannedConfig(const std::string& current, const Json& oldHooks, const Json& edited) {
    auto before = ourTrustEntries(oldHooks);
    auto after = ourTrustEntries(edited);
    std::string text = current;
    for (const auto& entry : before) {
        bool kept = std::any_of(after.begin(), after.end(), [&](const TrustEntry& e) { return e.key == entry.key; });
        if (!kept) text = Toml::removeKey(text, trustHeader(entry.key), "trusted_hash");
    }
    for (const auto& entry : after) {
        text = Toml::setKey(text, trustHeader(entry.key), "trusted_hash", Toml::basicString(entry.hash));
    }
    text = enablingFeatureFlag(text);
    return {text, Toml::isValid(text)};
}

bool writeConfig(const std::string& current, const std::string& text) {
    if (text == current) return true;
    std::error_code ec;
    if (fs::exists(configPath(), ec)) {
        // Two changes within a second keep both backups: the later one gets a counter.
        fs::path backup = datedBackupPath(std::chrono::system_clock::now());
        for (int n = 1; fs::exists(backup, ec); ++n) {
            backup = datedBackupPath(std::chrono::system_clock::now());
            backup += "." + std::to_string(n);
        }
        if (!FileUtil::writeAtomically(backup, current, 0600)) return false;
    }
    fs::create_directories(configPath().parent_path(), ec);
    return FileUtil::writeAtomically(configPath(), text, 0600).ok;
}

}  // namespace

const std::vector<EventSpec>& eventSpecs() {
    static const std::vector<EventSpec> specs = {
        {"PermissionRequest", "*", "gate", 1800},
        {"Stop", std::nullopt, "clear", std::nullopt},
        {"UserPromptSubmit", std::nullopt, "clear", std::nullopt},
    };
    return specs;
}

fs::path folder() {
    const char* home = std::getenv("CODEX_HOME");
    if (home && *home) return fs::path(home);
    return Paths::codexHome();
}
fs::path programPath() { return folder() / "notch-codex-hook.py"; }
fs::path hooksPath() { return folder() / "hooks.json"; }
fs::path configPath() { return folder() / "config.toml"; }

bool agentPresent() {
    std::error_code ec;
    return fs::is_directory(folder(), ec);
}

std::string trustKeyPath() {
    const char* home = std::getenv("CODEX_HOME");
    if (home && *home) {
        std::error_code ec;
        fs::path resolved = fs::weakly_canonical(fs::path(home), ec);
        if (ec) resolved = fs::path(home).lexically_normal();
        return (resolved / "hooks.json").string();
    }
    std::string p = (Paths::home() / ".codex" / "hooks.json").lexically_normal().string();
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return p;
}

std::string eventLabel(const std::string& event) {
    std::string out;
    for (size_t i = 0; i < event.size(); ++i) {
        char c = event[i];
        if (std::isupper(static_cast<unsigned char>(c))) {
            if (i > 0) out += '_';
            out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else {
            out += c;
        }
    }
    return out;
}

std::string trustHash(const std::string& event, const Json& group, const Json& handler) {
    nlohmann::json h = nlohmann::json::object();  // sorted keys, as the hash wants
    h["type"] = handler.contains("type") ? nlohmann::json(handler["type"]) : nlohmann::json("command");
    h["command"] = handler.contains("command") ? nlohmann::json(handler["command"]) : nlohmann::json("");
    bool shortLived = event == "SessionEnd" || event == "Interrupt";
    int64_t timeout = shortLived ? 1 : 600;
    auto t = handler.find("timeout");
    if (t != handler.end() && t->is_number()) {
        timeout = t->is_number_float() ? static_cast<int64_t>(t->get<double>()) : t->get<int64_t>();
    }
    timeout = std::max<int64_t>(timeout, 1);
    if (shortLived) timeout = std::min<int64_t>(timeout, 3);
    h["timeout"] = timeout;
    auto a = handler.find("async");
    h["async"] = a != handler.end() && a->is_boolean() ? a->get<bool>() : false;
    if (auto s = handler.find("statusMessage"); s != handler.end() && !s->is_null()) h["statusMessage"] = *s;
    if (oneOf(event, {"PreToolUse", "PostToolUse", "SessionStart", "UserPromptSubmit", "SubagentStart"})) {
        auto l = handler.find("additionalContextLimit");
        if (l != handler.end() && l->is_number() && !(l->is_number_integer() && l->get<int64_t>() == 2500) &&
            !(l->is_number_float() && l->get<double>() == 2500.0))
            h["additionalContextLimit"] = *l;
    }
    nlohmann::json identity = nlohmann::json::object();
    identity["event_name"] = eventLabel(event);
    identity["hooks"] = nlohmann::json::array({h});
    if (oneOf(event, {"PreToolUse", "PermissionRequest", "PostToolUse", "PreCompact", "PostCompact", "SessionStart",
                      "SessionEnd", "SubagentStart", "SubagentStop"})) {
        auto m = group.find("matcher");
        if (m != group.end() && !m->is_null()) identity["matcher"] = *m;
    }
    return "sha256:" + sha256Hex(identity.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::vector<TrustEntry> ourTrustEntries(const Json& hooksFile) {
    std::vector<TrustEntry> entries;
    auto hooks = hooksFile.find("hooks");
    if (hooks == hooksFile.end() || !hooks->is_object()) return entries;
    std::string path = trustKeyPath();
    for (auto it = hooks->begin(); it != hooks->end(); ++it) {
        if (!it.value().is_array()) continue;
        for (size_t gi = 0; gi < it.value().size(); ++gi) {
            const Json& group = it.value()[gi];
            if (!groupUses(group, kOurScript)) continue;
            const Json& handlers = group["hooks"];
            for (size_t hi = 0; hi < handlers.size(); ++hi) {
                const Json& handler = handlers[hi];
                if (!handler.is_object() || !handler.contains("command") || !handler["command"].is_string() ||
                    handler["command"].get<std::string>().find(kOurScript) == std::string::npos)
                    continue;
                entries.push_back({path + ":" + eventLabel(it.key()) + ":" + std::to_string(gi) + ":" +
                                       std::to_string(hi),
                                   trustHash(it.key(), group, handler)});
            }
        }
    }
    return entries;
}

std::string trustHeader(const std::string& key) { return "[hooks.state." + Toml::basicString(key) + "]"; }

std::string enablingFeatureFlag(const std::string& text) {
    if (hasFeatureFlag(text)) return text;
    return Toml::insertInTable(text, "[features]", kFeatureLine);
}

std::string disablingFeatureFlag(const std::string& text, bool dropEmptyTable) {
    std::string out = Toml::removeLine(text, kFeatureLine);
    if (dropEmptyTable && out != text) out = Toml::removeTableIfEmpty(out, "[features]");
    return out;
}

std::vector<fs::path> configBackups() {
    std::vector<fs::path> backups;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(configPath().parent_path(), ec)) {
        if (entry.path().filename().string().rfind("config.toml.notch-backup-", 0) == 0) backups.push_back(entry.path());
    }
    // By time, then by counter ("…Z" before "…Z.1" before "…Z.2").
    std::sort(backups.begin(), backups.end(), [](const fs::path& a, const fs::path& b) {
        auto key = [](const fs::path& p) {
            std::string name = p.filename().string();
            size_t z = name.rfind('Z');
            std::string stamp = z == std::string::npos ? name : name.substr(0, z + 1);
            long counter = 0;
            if (z != std::string::npos && z + 2 < name.size()) counter = std::strtol(name.c_str() + z + 2, nullptr, 10);
            return std::make_pair(stamp, counter);
        };
        return key(a) < key(b);
    });
    return backups;
}

fs::path datedBackupPath(std::chrono::system_clock::time_point when) {
    std::time_t t = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    ::gmtime_r(&t, &utc);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H-%M-%SZ", &utc);
    return configPath().parent_path() / (std::string("config.toml.notch-backup-") + buf);
}

bool install() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) {
        spdlog::warn("Lumora: ~/.codex/hooks.json isn't valid JSON — leaving it alone, hooks not installed");
        return false;
    }
    auto config = readConfig();
    if (!config || !Toml::isValid(*config)) {
        spdlog::warn("Lumora: ~/.codex/config.toml isn't valid TOML — leaving it alone, hooks not installed");
        return false;
    }
    auto interpreter = python();
    if (!interpreter) return false;
    Json edited = *object;
    if (!setOurGroups(edited, kOurScript, ourGroups(*interpreter))) {
        spdlog::warn("Lumora: ~/.codex/hooks.json has an unexpected \"hooks\" entry — leaving it alone, hooks not installed");
        return false;
    }
    auto planned = plannedConfig(*config, *object, edited);
    if (!planned.valid) {
        spdlog::warn("Lumora: ~/.codex/config.toml can't take our entries as it is — leaving it alone, hooks not installed");
        return false;
    }
    if (!writeProgram(programPath(), programText(kResource))) return false;
    bool unchanged = contents.kind == JSONConfigFile::Contents::Kind::object && edited == contents.object;
    if (!unchanged && !JSONConfigFile::write(edited, hooksPath(), {contents.text})) return false;
    return writeConfig(*config, planned.text);
}

bool uninstall() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind == JSONConfigFile::Contents::Kind::unreadable) {
        spdlog::warn("Lumora: ~/.codex/hooks.json isn't valid JSON — leaving it alone");
        return false;
    }
    auto config = readConfig();
    if (!config) return false;
    Json edited = contents.object;
    bool ok = true;
    if (contents.kind == JSONConfigFile::Contents::Kind::object && removeOurGroups(edited, kOurScript)) {
        ok = applyUninstall(hooksPath(), planUninstall(hooksPath(), contents, edited, holdsOurs));
    }

    std::string text = *config;
    for (const auto& entry : ourTrustEntries(contents.object)) {
        text = Toml::removeKey(text, trustHeader(entry.key), "trusted_hash");
    }
    // We add [features] ourselves only when the file had none, and then the
    // oldest backup (taken before our first change) has none either.
    auto backups = configBackups();
    bool weAddedTable = backups.empty();
    if (!backups.empty()) {
        auto oldest = FileUtil::readFile(backups.front());
        weAddedTable = oldest && !Toml::hasTable(*oldest, "[features]");
    }
    text = disablingFeatureFlag(text, weAddedTable);
    if (text == *config) return ok;
    if (Toml::isValid(*config) && !Toml::isValid(text)) return false;
    // A file that lacked a final newline gets its own bytes back.
    for (auto it = backups.rbegin(); it != backups.rend(); ++it) {
        auto old = FileUtil::readFile(*it);
        if (old && *old != text && rtrimmed(*old) == rtrimmed(text)) {
            text = *old;
            break;
        }
    }
    if (backups.empty() && rtrimmed(text).empty()) {
        std::error_code ec;
        fs::remove(configPath(), ec);
        return ok && !ec;
    }
    return writeConfig(*config, text) && ok;
}

bool hasOurEntries() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind == JSONConfigFile::Contents::Kind::object && holdsOurs(contents.object)) return true;
    auto config = readConfig();
    return config && config->find(kFeatureLine) != std::string::npos;
}

bool isInstalled() {
    if (!holdsMarker(programPath(), kVersionMarker)) return false;
    auto interpreter = python();
    if (!interpreter) return false;
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind != JSONConfigFile::Contents::Kind::object ||
        !holdsGroups(contents.object, ourGroups(*interpreter)))
        return false;
    auto config = readConfig();
    if (!config) return false;
    try {
        toml::table table = toml::parse(*config);
        for (const auto& entry : ourTrustEntries(contents.object)) {
            if (storedHash(table, entry.key) != entry.hash) return false;
        }
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

std::optional<std::string> trustProblem() {
    auto contents = JSONConfigFile::load(hooksPath());
    if (contents.kind != JSONConfigFile::Contents::Kind::object) return std::nullopt;
    auto entries = ourTrustEntries(contents.object);
    if (entries.empty()) return std::nullopt;
    auto config = readConfig();
    size_t bad = 0;
    try {
        toml::table table = toml::parse(config ? *config : std::string());
        for (const auto& entry : entries) {
            if (storedHash(table, entry.key) != entry.hash) ++bad;
        }
    } catch (const std::exception&) {
        bad = entries.size();
    }
    if (bad == 0) return std::nullopt;
    return std::to_string(bad) + " of our " + std::to_string(entries.size()) + " handlers have no matching trust entry in " +
           displayPath(configPath()) + ", so Codex skips them";
}

std::vector<std::string> plannedChanges() {
    auto contents = JSONConfigFile::load(hooksPath());
    auto object = contents.mergeable();
    if (!object) return {"none: ~/.codex/hooks.json isn't valid JSON and would be left alone"};
    auto config = readConfig();
    if (!config || !Toml::isValid(*config)) return {"none: ~/.codex/config.toml isn't valid TOML and would be left alone"};
    auto interpreter = python();
    if (!interpreter) return {"none: no usable python3"};
    std::vector<std::string> changes;
    if (!holdsMarker(programPath(), kVersionMarker)) changes.push_back("write " + displayPath(programPath()));
    Json edited = *object;
    if (!setOurGroups(edited, kOurScript, ourGroups(*interpreter)))
        return {"none: ~/.codex/hooks.json has an unexpected \"hooks\" entry"};
    if (contents.kind != JSONConfigFile::Contents::Kind::object || edited != contents.object)
        changes.push_back("rewrite our " + std::to_string(eventSpecs().size()) + " hook groups in " +
                          displayPath(hooksPath()));
    auto planned = plannedConfig(*config, *object, edited);
    if (!planned.valid) return {"none: ~/.codex/config.toml can't take our entries as it is"};
    if (planned.text != *config) {
        if (!hasFeatureFlag(*config)) changes.push_back("turn on the hooks feature in " + displayPath(configPath()));
        if (enablingFeatureFlag(*config) != planned.text)
            changes.push_back("write the trust entries of our handlers in " + displayPath(configPath()));
    }
    return changes;
}

}  // namespace lumora::CodexHooks
