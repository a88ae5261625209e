#include "lumora/spend/spend_store.hpp"

#include <simdjson.h>
#include <spdlog/spdlog.h>

#include <charconv>
#include <cmath>

#include "lumora/base/file_util.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora {

namespace {

namespace od = simdjson::ondemand;
using simdjson::SUCCESS;

// The cache of a heavy month is tens of megabytes; far more is not ours.
constexpr size_t kMaxCacheBytes = 1u << 30;

double seconds(Date d) { return std::chrono::duration<double>(d.time_since_epoch()).count(); }
// Rounded to the microsecond: a double holds seconds since 1970 to about
// that, and truncating would turn a journal's .162 into .161999.
Date fromSeconds(double s) {
    auto us = std::chrono::round<std::chrono::microseconds>(std::chrono::duration<double>(s));
    return Date(std::chrono::duration_cast<Date::duration>(us));
}

bool validUtf8(std::string_view s) { return simdjson::validate_utf8(s.data(), s.size()); }

void appendString(std::string& out, std::string_view s) {
    out.push_back('"');
    for (char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
                    out += buf;
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
}

void appendNumber(std::string& out, double v) {
    if (!std::isfinite(v)) v = 0;
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

void appendNumber(std::string& out, int64_t v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

void appendNumber(std::string& out, uint64_t v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

bool eventStringsValid(const SpendEvent& e) {
    return validUtf8(e.dedupKey) && (!e.model || validUtf8(*e.model)) && (!e.unpricedModel || validUtf8(*e.unpricedModel));
}

void appendMap(std::string& out, const SpendStore::FileMap& map) {
    out.push_back('{');
    bool firstFile = true;
    for (const auto& [path, file] : map) {
        bool valid = validUtf8(path);
        for (const auto& e : file.events) valid = valid && eventStringsValid(e);
        if (!valid) continue;  // read again next time rather than written wrong
        if (!firstFile) out.push_back(',');
        firstFile = false;
        out += "\n";
        appendString(out, path);
        out += ":{\"size\":";
        appendNumber(out, file.size);
        out += ",\"mtime\":";
        appendNumber(out, seconds(file.mtime));
        out += ",\"parsedBytes\":";
        appendNumber(out, file.parsedBytes);
        out += ",\"inode\":";
        appendNumber(out, file.inode);
        out += ",\"events\":[";
        bool firstEvent = true;
        for (const auto& e : file.events) {
            if (!firstEvent) out.push_back(',');
            firstEvent = false;
            out += "{\"dedupKey\":";
            appendString(out, e.dedupKey);
            out += ",\"date\":";
            appendNumber(out, seconds(e.date));
            out += ",\"tokens\":";
            appendNumber(out, e.tokens);
            out += ",\"newTokens\":";
            appendNumber(out, e.newTokens);
            out += ",\"cost\":";
            appendNumber(out, e.cost);
            if (e.unpricedModel) {
                out += ",\"unpricedModel\":";
                appendString(out, *e.unpricedModel);
            }
            if (e.model) {
                out += ",\"model\":";
                appendString(out, *e.model);
            }
            out.push_back('}');
        }
        out += "]}";
    }
    out += "\n}";
}

bool readUnsigned(od::value v, uint64_t& out) { return v.get_uint64().get(out) == SUCCESS; }

bool readFinite(od::value v, double& out) {
    return v.get_double().get(out) == SUCCESS && std::isfinite(out);
}

bool readOptionalString(od::value v, std::optional<std::string>& out) {
    bool isNull = false;
    if (v.is_null().get(isNull) == SUCCESS && isNull) return true;
    std::string_view s;
    if (v.get_string().get(s) != SUCCESS) return false;
    out = std::string(s);
    return true;
}

bool readEvent(od::value v, SpendEvent& e) {
    od::object o;
    if (v.get_object().get(o) != SUCCESS) return false;
    bool key = false, date = false, tokens = false, newTokens = false, cost = false;
    for (auto result : o) {
        od::field f;
        std::string_view name;
        if (std::move(result).get(f) != SUCCESS || f.unescaped_key().get(name) != SUCCESS) return false;
        od::value value = f.value();
        if (name == "dedupKey") {
            std::string_view s;
            if (value.get_string().get(s) != SUCCESS || s.empty()) return false;
            e.dedupKey = std::string(s);
            key = true;
        } else if (name == "date") {
            double d = 0;
            if (!readFinite(value, d) || d < 0 || d > 1e11) return false;
            e.date = fromSeconds(d);
            date = true;
        } else if (name == "tokens") {
            if (value.get_int64().get(e.tokens) != SUCCESS || e.tokens < 0) return false;
            tokens = true;
        } else if (name == "newTokens") {
            if (value.get_int64().get(e.newTokens) != SUCCESS || e.newTokens < 0) return false;
            newTokens = true;
        } else if (name == "cost") {
            if (!readFinite(value, e.cost) || e.cost < 0) return false;
            cost = true;
        } else if (name == "unpricedModel") {
            if (!readOptionalString(value, e.unpricedModel)) return false;
        } else if (name == "model") {
            if (!readOptionalString(value, e.model)) return false;
        }
    }
    return key && date && tokens && newTokens && cost && e.newTokens <= e.tokens;
}

bool readFile(od::value v, SpendStore::CachedFile& file) {
    od::object o;
    if (v.get_object().get(o) != SUCCESS) return false;
    bool size = false, mtime = false, parsed = false, events = false;
    for (auto result : o) {
        od::field f;
        std::string_view name;
        if (std::move(result).get(f) != SUCCESS || f.unescaped_key().get(name) != SUCCESS) return false;
        od::value value = f.value();
        if (name == "size") {
            if (!readUnsigned(value, file.size)) return false;
            size = true;
        } else if (name == "mtime") {
            double m = 0;
            if (!readFinite(value, m)) return false;
            file.mtime = fromSeconds(m);
            mtime = true;
        } else if (name == "parsedBytes") {
            if (!readUnsigned(value, file.parsedBytes)) return false;
            parsed = true;
        } else if (name == "inode") {
            if (!readUnsigned(value, file.inode)) return false;
        } else if (name == "events") {
            od::array a;
            if (value.get_array().get(a) != SUCCESS) return false;
            for (auto item : a) {
                od::value ev;
                if (std::move(item).get(ev) != SUCCESS) return false;
                SpendEvent e;
                if (!readEvent(ev, e)) return false;
                file.events.push_back(std::move(e));
            }
            events = true;
        }
    }
    return size && mtime && parsed && events && file.parsedBytes <= file.size;
}

bool readMap(od::value v, SpendStore::FileMap& map) {
    od::object o;
    if (v.get_object().get(o) != SUCCESS) return false;
    for (auto result : o) {
        od::field f;
        std::string_view path;
        if (std::move(result).get(f) != SUCCESS || f.unescaped_key().get(path) != SUCCESS || path.empty()) return false;
        SpendStore::CachedFile file;
        if (!readFile(f.value(), file)) return false;
        map[std::string(path)] = std::move(file);
    }
    return true;
}

}  // namespace

SpendStore& SpendStore::shared() {
    static SpendStore store(Paths::spendCacheFile());
    return store;
}

SpendStore::SpendStore(std::filesystem::path cacheURL) : cacheURL_(std::move(cacheURL)) {}

SpendStore::FileMap& SpendStore::cache(SpendProvider provider) {
    switch (provider) {
        case SpendProvider::codex: return persisted_.codex;
        case SpendProvider::kimi: return persisted_.kimi;
        default: return persisted_.claude;
    }
}

std::string SpendStore::encode(const Persisted& p) {
    std::string out;
    size_t events = 0;
    for (const auto* map : {&p.claude, &p.codex, &p.kimi}) {
        for (const auto& [path, file] : *map) events += file.events.size() + 1;
    }
    out.reserve(64 + events * 160);
    out += "{\"version\":";
    appendNumber(out, static_cast<int64_t>(p.version));
    out += ",\n\"claude\":";
    appendMap(out, p.claude);
    out += ",\n\"codex\":";
    appendMap(out, p.codex);
    out += ",\n\"kimi\":";
    appendMap(out, p.kimi);
    out += "}\n";
    return out;
}

std::optional<SpendStore::Persisted> SpendStore::decode(std::string_view text) {
    // Nothing but blanks may follow the object (the parser stops at its end).
    auto last = text.find_last_not_of(" \t\r\n");
    if (last == std::string_view::npos || text[last] != '}') return std::nullopt;
    simdjson::padded_string padded(text.data(), text.size());
    od::parser parser;
    od::document doc;
    if (parser.iterate(padded).get(doc) != SUCCESS) return std::nullopt;
    od::object root;
    if (doc.get_object().get(root) != SUCCESS) return std::nullopt;
    Persisted p;
    bool version = false;
    for (auto result : root) {
        od::field f;
        std::string_view name;
        if (std::move(result).get(f) != SUCCESS || f.unescaped_key().get(name) != SUCCESS) return std::nullopt;
        od::value value = f.value();
        if (name == "version") {
            int64_t v = 0;
            if (value.get_int64().get(v) != SUCCESS || v != kVersion) return std::nullopt;
            p.version = static_cast<int>(v);
            version = true;
        } else if (name == "claude" || name == "codex" || name == "kimi") {
            auto& map = name == "claude" ? p.claude : name == "codex" ? p.codex : p.kimi;
            if (!readMap(value, map)) return std::nullopt;
        }
    }
    if (!version) return std::nullopt;
    return p;
}

void SpendStore::loadIfNeeded() {
    std::lock_guard lock(mutex_);
    if (loaded_) return;
    loaded_ = true;
    auto read = FileUtil::read(cacheURL_, kMaxCacheBytes);
    if (read.missing()) return;
    std::optional<Persisted> p;
    if (read.ok()) p = decode(read.text);
    if (!p) {
        spdlog::warn("spend: the cache {} is unreadable or of another version; rebuilding it", cacheURL_.string());
        persisted_ = {};
        dirty = true;
        return;
    }
    persisted_ = std::move(*p);
}

Status SpendStore::saveIfDirty() {
    std::string text;
    {
        std::lock_guard lock(mutex_);
        if (!dirty) return Status::success();
        persisted_.version = kVersion;
        text = encode(persisted_);
        dirty = false;
    }
    if (cacheURL_.parent_path() == Paths::supportFolder()) Paths::ensureSupportFolder();
    auto status = FileUtil::writeAtomically(cacheURL_, text, 0600);
    if (!status.ok) {
        spdlog::warn("spend: could not save {}: {}", cacheURL_.string(), status.why);
        std::lock_guard lock(mutex_);
        dirty = true;
    }
    return status;
}

}  // namespace lumora
