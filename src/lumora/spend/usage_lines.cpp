#include "lumora/spend/usage_lines.hpp"

#include <algorithm>
#include <cmath>
#include <functional>

namespace lumora::UsageLines {

namespace {

namespace od = simdjson::ondemand;
using simdjson::SUCCESS;

// A count: a whole number in range, or null (no count). False for anything else.
bool readCount(od::value v, std::optional<int64_t>& out) {
    od::json_type type;
    if (v.type().get(type) != SUCCESS) return false;
    if (type == od::json_type::null) {
        out.reset();
        return true;
    }
    if (type != od::json_type::number) return false;
    od::number n;
    if (v.get_number().get(n) != SUCCESS) return false;
    double d = 0;
    switch (n.get_number_type()) {
        case od::number_type::signed_integer: d = static_cast<double>(n.get_int64()); break;
        case od::number_type::unsigned_integer: d = static_cast<double>(n.get_uint64()); break;
        default: d = n.get_double(); break;
    }
    if (!std::isfinite(d) || d < 0 || d > static_cast<double>(kMaxCount) || d != std::floor(d)) return false;
    out = static_cast<int64_t>(d);
    return true;
}

// A string field, when it is one (other types leave it unset).
void readString(od::value v, std::string_view& out) {
    std::string_view s;
    if (v.get_string().get(s) == SUCCESS) out = s;
}

bool isObject(od::value& v) {
    od::json_type type;
    return v.type().get(type) == SUCCESS && type == od::json_type::object;
}

template <typename OnField>
bool eachField(od::object object, OnField&& onField) {
    for (auto result : object) {
        od::field field;
        if (std::move(result).get(field) != SUCCESS) return false;
        std::string_view key;
        if (field.unescaped_key().get(key) != SUCCESS) return false;
        if (!onField(key, field.value())) return false;
    }
    return true;
}

template <typename OnField>
bool eachFieldOf(od::value v, OnField&& onField) {
    od::object object;
    if (v.get_object().get(object) != SUCCESS) return false;
    return eachField(object, onField);
}

// Parses the line as an object and hands on its fields.
template <typename OnField>
bool eachTopField(simdjson::padded_string_view line, od::parser& parser, OnField&& onField) {
    od::document doc;
    if (parser.iterate(line).get(doc) != SUCCESS) return false;
    od::object object;
    if (doc.get_object().get(object) != SUCCESS) return false;
    return eachField(object, onField);
}

int64_t get(const std::optional<int64_t>& v) { return v.value_or(0); }

std::string joinKey(std::initializer_list<std::string_view> parts) {
    std::string out;
    for (auto p : parts) out.append(p);
    return out;
}

// The counts of an OpenAI-style usage object, where input includes the cached part.
struct OpenAiUsage {
    std::optional<int64_t> input, cached, cacheWrite, output, total;
    bool present = false;

    bool read(od::value v) {
        present = true;
        return eachFieldOf(v, [&](std::string_view key, od::value value) {
            if (key == "input_tokens") return readCount(value, input);
            if (key == "cached_input_tokens") return readCount(value, cached);
            if (key == "cache_write_input_tokens") return readCount(value, cacheWrite);
            if (key == "output_tokens") return readCount(value, output);
            if (key == "total_tokens") return readCount(value, total);
            return true;
        });
    }
    int64_t runningTotal() const { return total ? *total : get(input) + get(output); }
    UsageCounts counts() const {
        UsageCounts c;
        int64_t in = get(input);
        c.cacheRead = std::min(get(cached), in);
        c.cacheWrite5m = std::min(get(cacheWrite), in - c.cacheRead);
        c.input = in - c.cacheRead - c.cacheWrite5m;
        c.output = get(output);
        return c;
    }
};

}  // namespace

std::optional<int64_t> parseIsoMillis(std::string_view t) {
    auto digits = [&](size_t at, size_t n, int& out) {
        if (at + n > t.size()) return false;
        int v = 0;
        for (size_t i = at; i < at + n; ++i) {
            if (t[i] < '0' || t[i] > '9') return false;
            v = v * 10 + (t[i] - '0');
        }
        out = v;
        return true;
    };
    int y, mo, d, h, mi, s;
    if (!digits(0, 4, y) || t.size() < 19 || t[4] != '-' || !digits(5, 2, mo) || t[7] != '-' || !digits(8, 2, d) ||
        (t[10] != 'T' && t[10] != ' ') || !digits(11, 2, h) || t[13] != ':' || !digits(14, 2, mi) || t[16] != ':' ||
        !digits(17, 2, s))
        return std::nullopt;
    if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60) return std::nullopt;
    size_t i = 19;
    int64_t millis = 0;
    if (i < t.size() && t[i] == '.') {
        ++i;
        int scale = 100;
        size_t start = i;
        while (i < t.size() && t[i] >= '0' && t[i] <= '9') {
            millis += (t[i] - '0') * scale;
            scale /= 10;
            ++i;
        }
        if (i == start) return std::nullopt;
    }
    int64_t offsetMinutes = 0;
    if (i < t.size() && t[i] == 'Z') {
        ++i;
    } else if (i < t.size() && (t[i] == '+' || t[i] == '-')) {
        int oh, om;
        bool colon = i + 3 < t.size() && t[i + 3] == ':';
        if (!digits(i + 1, 2, oh) || !digits(i + (colon ? 4 : 3), 2, om) || oh > 23 || om > 59) return std::nullopt;
        offsetMinutes = (t[i] == '+' ? 1 : -1) * (oh * 60 + om);
        i += colon ? 6 : 5;
    } else {
        return std::nullopt;  // a time without a zone is no time we can place
    }
    if (i != t.size()) return std::nullopt;
    // Days from 1970-01-01 in the proleptic Gregorian calendar.
    int yy = y - (mo <= 2);
    int era = (yy >= 0 ? yy : yy - 399) / 400;
    int yoe = yy - era * 400;
    int doy = (153 * (mo + (mo > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    int64_t days = static_cast<int64_t>(era) * 146097 + doe - 719468;
    int64_t seconds = days * 86400 + h * 3600 + mi * 60 + s - offsetMinutes * 60;
    return seconds * 1000 + millis;
}

std::optional<Found> claude(simdjson::padded_string_view line, od::parser& parser) {
    std::string_view type, id, requestId, model, timestamp, uuid;
    std::optional<int64_t> input, output, cacheRead, creation, five, hour;
    bool usage = false, creationObject = false;
    auto readUsage = [&](od::value v) {
        usage = true;
        return eachFieldOf(v, [&](std::string_view key, od::value value) {
            if (key == "input_tokens") return readCount(value, input);
            if (key == "output_tokens") return readCount(value, output);
            if (key == "cache_read_input_tokens") return readCount(value, cacheRead);
            if (key == "cache_creation_input_tokens") return readCount(value, creation);
            if (key == "cache_creation" && isObject(value)) {
                creationObject = true;
                return eachFieldOf(value, [&](std::string_view k, od::value c) {
                    if (k == "ephemeral_5m_input_tokens") return readCount(c, five);
                    if (k == "ephemeral_1h_input_tokens") return readCount(c, hour);
                    return true;
                });
            }
            return true;
        });
    };
    bool ok = eachTopField(line, parser, [&](std::string_view key, od::value value) {
        if (key == "type") readString(value, type);
        else if (key == "requestId") readString(value, requestId);
        else if (key == "timestamp") readString(value, timestamp);
        else if (key == "uuid") readString(value, uuid);
        else if (key == "message" && isObject(value)) {
            return eachFieldOf(value, [&](std::string_view k, od::value m) {
                if (k == "id") readString(m, id);
                else if (k == "model") readString(m, model);
                else if (k == "usage" && isObject(m)) return readUsage(m);
                return true;
            });
        }
        return true;
    });
    if (!ok || type != "assistant" || !usage || model == "<synthetic>") return std::nullopt;

    Found f;
    int64_t written = creation ? *creation : get(five) + get(hour);
    f.counts.input = get(input);
    f.counts.output = get(output);
    f.counts.cacheRead = get(cacheRead);
    f.counts.cacheWrite1h = creationObject ? std::min(get(hour), written) : 0;
    f.counts.cacheWrite5m = written - f.counts.cacheWrite1h;
    if (f.counts.total() == 0) return std::nullopt;
    if (!id.empty()) f.dedupKey = requestId.empty() ? std::string(id) : joinKey({id, ":", requestId});
    else if (!requestId.empty()) f.dedupKey = joinKey({"request:", requestId});
    else if (!uuid.empty()) f.dedupKey = joinKey({"entry:", uuid});
    else return std::nullopt;  // nothing tells this usage from its copies
    f.model = std::string(model);
    f.millis = parseIsoMillis(timestamp).value_or(0);
    return f;
}

std::optional<Found> codex(simdjson::padded_string_view line, od::parser& parser, std::string_view threadId) {
    std::string_view type, timestamp, payloadType, model, thread, response;
    OpenAiUsage last, running, usage, threadRunning;
    bool ok = eachTopField(line, parser, [&](std::string_view key, od::value value) {
        if (key == "type") readString(value, type);
        else if (key == "timestamp") readString(value, timestamp);
        else if (key == "payload" && isObject(value)) {
            return eachFieldOf(value, [&](std::string_view k, od::value p) {
                if (k == "type") readString(p, payloadType);
                else if (k == "model") readString(p, model);
                else if (k == "thread_id") readString(p, thread);
                else if (k == "response_id") readString(p, response);
                else if (k == "usage" && isObject(p)) return usage.read(p);
                else if (k == "thread_token_usage" && isObject(p)) return threadRunning.read(p);
                else if (k == "info" && isObject(p)) {
                    return eachFieldOf(p, [&](std::string_view i, od::value u) {
                        if (i == "last_token_usage" && isObject(u)) return last.read(u);
                        if (i == "total_token_usage" && isObject(u)) return running.read(u);
                        return true;
                    });
                }
                return true;
            });
        }
        return true;
    });
    if (!ok) return std::nullopt;

    Found f;
    f.millis = parseIsoMillis(timestamp).value_or(0);
    f.model = std::string(model);
    if (type == "turn_context") {
        if (model.empty()) return std::nullopt;
        f.kind = Found::Kind::model;
        return f;
    }
    std::string_view who = thread.empty() ? threadId : thread;
    if (type == "event_msg" && payloadType == "token_count") {
        if (!last.present) return std::nullopt;
        f.counts = last.counts();
        f.dedupKey = running.present ? joinKey({"codex:", who, ":", std::to_string(running.runningTotal())})
                                     : joinKey({"codex:", who, ":at:", timestamp});
    } else if (type == "token_usage_record" || payloadType == "token_usage_record") {
        if (!usage.present) return std::nullopt;
        f.counts = usage.counts();
        if (threadRunning.present) f.dedupKey = joinKey({"codex:", who, ":", std::to_string(threadRunning.runningTotal())});
        else if (!response.empty()) f.dedupKey = joinKey({"codex:response:", response});
        else f.dedupKey = joinKey({"codex:", who, ":at:", timestamp});
    } else {
        return std::nullopt;
    }
    if (f.counts.total() == 0) return std::nullopt;
    return f;
}

std::optional<Found> kimi(simdjson::padded_string_view line, od::parser& parser, std::string_view agentKey) {
    std::string_view type, model, scope;
    std::optional<int64_t> other, input, output, read, creation;
    std::optional<double> time;
    bool usage = false;
    // The record's fields, at the top or inside a "payload".
    std::function<bool(std::string_view, od::value)> onField = [&](std::string_view key, od::value value) -> bool {
        if (key == "type") readString(value, type);
        else if (key == "model") readString(value, model);
        else if (key == "usageScope") readString(value, scope);
        else if (key == "time") {
            double t = 0;
            if (value.get_double().get(t) == SUCCESS && std::isfinite(t) && t > 0) time = t;
        } else if (key == "usage" && isObject(value)) {
            usage = true;
            return eachFieldOf(value, [&](std::string_view k, od::value c) {
                if (k == "input_other") return readCount(c, other);
                if (k == "input" || k == "input_tokens") return readCount(c, input);
                if (k == "output" || k == "output_tokens") return readCount(c, output);
                if (k == "input_cache_read" || k == "cache_read" || k == "cache_read_tokens") return readCount(c, read);
                if (k == "input_cache_creation" || k == "cache_creation" || k == "cache_write")
                    return readCount(c, creation);
                return true;
            });
        } else if (key == "payload" && isObject(value)) {
            return eachFieldOf(value, onField);
        }
        return true;
    };
    if (!eachTopField(line, parser, onField)) return std::nullopt;
    if (type != "usage.record" || scope != "turn" || !usage) return std::nullopt;

    Found f;
    f.counts.cacheRead = get(read);
    f.counts.cacheWrite5m = get(creation);
    f.counts.output = get(output);
    // "input_other" is the uncached input; a bare "input" is all of it.
    f.counts.input = other ? *other : std::max<int64_t>(0, get(input) - f.counts.cacheRead - f.counts.cacheWrite5m);
    if (f.counts.total() == 0) return std::nullopt;
    int64_t millis = 0;
    if (time) millis = static_cast<int64_t>(*time < 1e11 ? *time * 1000 : *time);  // seconds or milliseconds
    f.millis = millis;
    f.model = std::string(model);
    f.dedupKey = joinKey({"kimi:", agentKey, ":", std::to_string(millis), ":", std::to_string(f.counts.total())});
    return f;
}

}  // namespace lumora::UsageLines
