#include "lumora/hooks/codex_config_edits.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <map>
#include <toml++/toml.h>

#include "lumora/hooks/hook_config_edits.hpp"
#include "lumora/hooks/toml_text_edits.hpp"

namespace lumora::CodexConfigEdits {

namespace Toml = TomlTextEdits;

namespace {

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

std::optional<toml::table> parsed(const std::string& text, std::string* why = nullptr) {
    try {
        return toml::parse(text);
    } catch (const toml::parse_error& e) {
        if (why) *why = "isn't valid TOML (line " + std::to_string(e.source().begin.line) + ": " +
                        std::string(e.description()) + ")";
        return std::nullopt;
    }
}

std::optional<std::string> hashIn(const toml::table& config, const std::string& key) {
    if (auto value = config["hooks"]["state"][key]["trusted_hash"].value<std::string>()) return *value;
    return std::nullopt;
}

bool flagOn(const toml::table& config) { return config["features"]["hooks"].value<bool>() == true; }

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        size_t end = eol == std::string::npos ? text.size() : eol + 1;
        lines.push_back(text.substr(pos, end - pos));
        pos = end;
    }
    return lines;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& l : lines) out += l;
    return out;
}

// Splits a line into its content and its ending ("\n", "\r\n" or none).
std::pair<std::string, std::string> content(const std::string& line) {
    size_t end = line.size();
    while (end > 0 && (line[end - 1] == '\n' || line[end - 1] == '\r')) --end;
    return {line.substr(0, end), line.substr(end)};
}

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return {};
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

// Where the inline table that is the value on this line opens and closes, outside quoted strings.
std::optional<std::pair<size_t, size_t>> inlineTable(const std::string& line) {
    size_t open = std::string::npos;
    int depth = 0;
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (quote) {
            if (c == '\\' && quote == '"') ++i;
            else if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '#') {
            return std::nullopt;
        } else if (c == '{') {
            if (depth++ == 0 && open == std::string::npos) open = i;
        } else if (c == '}') {
            if (--depth == 0 && open != std::string::npos) return std::make_pair(open, i);
        }
    }
    return std::nullopt;
}

// `features = { web = true }` → `features = { web = true, hooks = true }  # Lumora added hooks = true`.
std::optional<std::string> withInlineFlag(const std::string& line) {
    auto [text, ending] = content(line);
    auto braces = inlineTable(text);
    if (!braces) return std::nullopt;
    auto [open, close] = *braces;
    size_t at = close;
    while (at > open + 1 && (text[at - 1] == ' ' || text[at - 1] == '\t')) --at;
    std::string added = at == open + 1 ? "hooks = true" : ", hooks = true";
    return text.substr(0, at) + added + text.substr(at, close + 1 - at) + "  " + kInlineMarker +
           text.substr(close + 1) + ending;
}

// The reverse of `withInlineFlag` on a line that carries our marker.
std::string withoutInlineFlag(const std::string& line) {
    std::string marker = std::string("}  ") + kInlineMarker;
    size_t close = line.find(marker);
    if (close == std::string::npos) return line;
    std::string out = line.substr(0, close + 1) + line.substr(close + marker.size());
    size_t at = close;
    while (at > 0 && (out[at - 1] == ' ' || out[at - 1] == '\t')) --at;
    for (const std::string added : {", hooks = true", "hooks = true"}) {
        if (at >= added.size() && out.compare(at - added.size(), added.size(), added) == 0 &&
            (added[0] == ',' || (at > added.size() && out[at - added.size() - 1] == '{'))) {
            out.erase(at - added.size(), added.size());
            break;
        }
    }
    return out;
}

// The user's handlers matched across the edit: (event, ordinal, index) names the same handler before and after.
using Place = std::tuple<std::string, size_t, size_t>;

}  // namespace

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
        if (t->is_number_float()) {
            double d = t->get<double>();
            timeout = d > 1e12 ? int64_t(1e12) : d < -1e12 ? int64_t(-1e12) : static_cast<int64_t>(d);
        } else {
            timeout = t->get<int64_t>();
        }
    }
    timeout = std::max<int64_t>(timeout, 1);
    if (shortLived) timeout = std::min<int64_t>(timeout, 3);
    h["timeout"] = timeout;
    auto a = handler.find("async");
    h["async"] = a != handler.end() && a->is_boolean() ? a->get<bool>() : false;
    if (auto s = handler.find("statusMessage"); s != handler.end() && !s->is_null()) h["statusMessage"] = *s;
    if (oneOf(event, {"PreToolUse", "PostToolUse", "SessionStart", "UserPromptSubmit", "SubagentStart"})) {
        auto l = handler.find("additionalContextLimit");
        if (l != handler.end() && l->is_number() && l->get<double>() != 2500.0) h["additionalContextLimit"] = *l;
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

std::string trustHeader(const std::string& key) { return "[hooks.state." + Toml::basicString(key) + "]"; }

std::vector<Handler> handlers(const Json& hooksFile, const std::string& keyPath, std::string_view ourScript) {
    std::vector<Handler> out;
    auto hooks = hooksFile.find("hooks");
    if (hooks == hooksFile.end() || !hooks->is_object()) return out;
    for (auto it = hooks->begin(); it != hooks->end(); ++it) {
        if (!it.value().is_array()) continue;
        size_t oursSeen = 0, theirsSeen = 0;
        for (size_t gi = 0; gi < it.value().size(); ++gi) {
            const Json& group = it.value()[gi];
            bool ours = HookConfigEdits::groupUses(group, ourScript);
            size_t ordinal = ours ? oursSeen++ : theirsSeen++;
            if (!group.is_object() || !group.contains("hooks") || !group["hooks"].is_array()) continue;
            const Json& list = group["hooks"];
            for (size_t hi = 0; hi < list.size(); ++hi) {
                const Json& handler = list[hi];
                if (!handler.is_object()) continue;
                auto command = handler.find("command");
                bool mine = command != handler.end() && command->is_string() &&
                            command->get_ref<const std::string&>().find(ourScript) != std::string::npos;
                if (ours && !mine) continue;  // someone else's handler inside our group is not ours to trust
                out.push_back({it.key(), gi, hi, ordinal, ours,
                               keyPath + ":" + eventLabel(it.key()) + ":" + std::to_string(gi) + ":" + std::to_string(hi),
                               trustHash(it.key(), group, handler)});
            }
        }
    }
    return out;
}

std::optional<std::string> storedHash(const std::string& config, const std::string& key) {
    auto table = parsed(config);
    return table ? hashIn(*table, key) : std::nullopt;
}

size_t untrusted(const std::string& config, const std::vector<Handler>& wanted) {
    auto table = parsed(config);
    if (!table) return wanted.size();
    size_t missing = 0;
    for (const auto& h : wanted) missing += hashIn(*table, h.key) != h.hash;
    return missing;
}

bool featureOn(const std::string& config) {
    auto table = parsed(config);
    return table && flagOn(*table);
}

bool holdsOurFlag(const std::string& config) { return disablingFeatureFlag(config, false) != config; }

Edit enablingFeatureFlag(const std::string& text) {
    std::string why;
    auto table = parsed(text, &why);
    if (!table) return {text, Status::failure(why)};
    const std::string block = std::string("[features]\n") + kFeatureLine + "\n";
    std::string out;
    toml::node* node = table->get("features");
    if (!node) {
        out = Toml::appendBlock(text, block);
    } else {
        toml::table* features = node->as_table();
        if (!features) return {text, Status::failure("its \"features\" isn't a table")};
        if (toml::node* hooks = features->get("hooks")) {
            if (hooks->value<bool>() == true) return {text, Status::success()};
            return {text, Status::failure("it turns the hooks feature off (features.hooks isn't true)")};
        }
        auto lines = splitLines(text);
        size_t at = node->source().begin.line;  // 1-based
        if (at == 0 || at > lines.size()) return {text, Status::failure("its \"features\" table can't be found")};
        std::string eol = Toml::lineEnding(text);
        std::string first = trimmed(lines[at - 1]);
        if (features->is_inline()) {
            auto edited = withInlineFlag(lines[at - 1]);
            if (!edited) return {text, Status::failure("its inline \"features\" table can't be edited")};
            lines[at - 1] = *edited;
            out = joined(lines);
        } else if (Toml::normalisedHeader(first) == "[features]") {
            if (lines[at - 1].back() != '\n') lines[at - 1] += eol;
            lines.insert(lines.begin() + static_cast<long>(at), kFeatureLine + eol);
            out = joined(lines);
        } else if (!first.empty() && first[0] != '[') {
            // Dotted keys (`features.web = true`) at the top: ours goes after the value that begins there.
            size_t last = at;
            for (auto&& [key, value] : *features) {
                if (key.source().begin.line == at) last = std::max<size_t>(last, value.source().end.line);
            }
            if (last > lines.size()) return {text, Status::failure("its \"features\" keys can't be found")};
            if (lines[last - 1].back() != '\n') lines[last - 1] += eol;
            lines.insert(lines.begin() + static_cast<long>(last), kDottedFeatureLine + eol);
            out = joined(lines);
        } else {
            // Only implied by a sub-table such as [features.x]: the table itself may still be written.
            out = Toml::appendBlock(text, block);
        }
    }
    auto check = parsed(out);
    if (!check || !flagOn(*check)) return {text, Status::failure("the hooks feature can't be turned on in it as it is written")};
    return {out, Status::success()};
}

std::string disablingFeatureFlag(const std::string& text, bool dropEmptyTable) {
    std::string out = Toml::removeLine(Toml::removeLine(text, kFeatureLine), kDottedFeatureLine);
    if (out.find(kInlineMarker) != std::string::npos) {
        auto lines = splitLines(out);
        for (auto& line : lines) line = withoutInlineFlag(line);
        out = joined(lines);
    }
    if (dropEmptyTable && out != text) out = Toml::removeTableIfEmpty(out, "[features]");
    return out;
}

Edit retrusted(const std::string& config, const Json& before, const Json& after, const std::string& keyPath,
               std::string_view ourScript, FeatureFlag flag) {
    std::string why;
    auto current = parsed(config, &why);
    if (!current) return {config, Status::failure(why)};
    auto old = handlers(before, keyPath, ourScript);
    auto now = handlers(after, keyPath, ourScript);

    // The user's handlers Codex runs today, by place, and where each one is after the edit.
    std::map<Place, const Handler*> trusted;
    for (const auto& h : old) {
        if (!h.ours && hashIn(*current, h.key) == h.hash) trusted[{h.event, h.ordinal, h.index}] = &h;
    }
    std::map<std::string, std::string> wanted;  // key → hash
    std::vector<std::string> stale;
    for (const auto& h : now) {
        if (h.ours) {
            wanted[h.key] = h.hash;
            continue;
        }
        auto was = trusted.find({h.event, h.ordinal, h.index});
        if (was == trusted.end() || was->second->hash != h.hash) continue;
        if (was->second->key != h.key) {
            wanted[h.key] = h.hash;
            stale.push_back(was->second->key);
        }
    }
    for (const auto& h : old) {
        if (h.ours) stale.push_back(h.key);
    }

    std::string text = config;
    for (const auto& key : stale) {
        if (!wanted.count(key)) text = Toml::removeKey(text, trustHeader(key), "trusted_hash");
    }
    for (const auto& [key, hash] : wanted) text = Toml::setKey(text, trustHeader(key), "trusted_hash", Toml::basicString(hash));
    if (flag == FeatureFlag::on) {
        Edit flagged = enablingFeatureFlag(text);
        if (!flagged.status) return {config, flagged.status};
        text = flagged.text;
    } else {
        text = disablingFeatureFlag(text, flag == FeatureFlag::offDroppingEmptyTable);
    }

    auto result = parsed(text, &why);
    if (!result) return {config, Status::failure("our entries can't be written into it as it is (" + why + ")")};
    for (const auto& h : now) {
        bool mustTrust = h.ours || (trusted.count({h.event, h.ordinal, h.index}) &&
                                    trusted[{h.event, h.ordinal, h.index}]->hash == h.hash);
        if (mustTrust && hashIn(*result, h.key) != h.hash) {
            return {config, Status::failure(h.ours ? "our trust entries can't be written into it as it is"
                                                   : "the edit would leave one of your own hooks untrusted")};
        }
    }
    return {text, Status::success()};
}

}  // namespace lumora::CodexConfigEdits
