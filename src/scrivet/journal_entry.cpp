#include "scrivet/journal_entry.hpp"

#include <charconv>

namespace scrivet {

JournalEntry::JournalEntry(std::unique_ptr<simdjson::dom::document> doc, uint64_t offset)
    : doc_(std::move(doc)), offset_(offset) {}

simdjson::dom::object JournalEntry::object() const {
    // Only objects are ever wrapped, so this cannot fail.
    simdjson::dom::object obj;
    if (doc_->root().get_object().get(obj)) return {};
    return obj;
}

std::string_view JournalEntry::type() const { return string("type").value_or(std::string_view{}); }

std::optional<std::string_view> JournalEntry::string(std::string_view key) const {
    return json::string(doc_->root(), key);
}
std::optional<int64_t> JournalEntry::integer(std::string_view key) const {
    return json::integer(doc_->root(), key);
}
std::optional<bool> JournalEntry::boolean(std::string_view key) const {
    return json::boolean(doc_->root(), key);
}
std::optional<simdjson::dom::element> JournalEntry::field(std::string_view key) const {
    return json::field(doc_->root(), key);
}

namespace json {

std::optional<simdjson::dom::element> field(simdjson::dom::element e, std::string_view key) {
    simdjson::dom::object obj;
    if (e.get_object().get(obj)) return std::nullopt;
    simdjson::dom::element value;
    if (obj.at_key(key).get(value)) return std::nullopt;
    return value;
}

std::optional<std::string_view> string(simdjson::dom::element e) {
    std::string_view s;
    if (e.get_string().get(s)) return std::nullopt;
    return s;
}

std::optional<std::string_view> string(simdjson::dom::element e, std::string_view key) {
    auto f = field(e, key);
    return f ? string(*f) : std::nullopt;
}

std::optional<int64_t> integer(simdjson::dom::element e) {
    int64_t i;
    if (!e.get_int64().get(i)) return i;
    uint64_t u;
    if (!e.get_uint64().get(u)) return static_cast<int64_t>(std::min<uint64_t>(u, INT64_MAX));
    double d;
    if (!e.get_double().get(d) && d > -9.2e18 && d < 9.2e18) return static_cast<int64_t>(d);
    return std::nullopt;
}

std::optional<int64_t> integer(simdjson::dom::element e, std::string_view key) {
    auto f = field(e, key);
    return f ? integer(*f) : std::nullopt;
}

std::optional<bool> boolean(simdjson::dom::element e, std::string_view key) {
    auto f = field(e, key);
    bool b;
    if (!f || f->get_bool().get(b)) return std::nullopt;
    return b;
}

std::optional<simdjson::dom::array> array(simdjson::dom::element e, std::string_view key) {
    auto f = field(e, key);
    simdjson::dom::array a;
    if (!f || f->get_array().get(a)) return std::nullopt;
    return a;
}

std::optional<simdjson::dom::object> object(simdjson::dom::element e, std::string_view key) {
    auto f = field(e, key);
    simdjson::dom::object o;
    if (!f || f->get_object().get(o)) return std::nullopt;
    return o;
}

}  // namespace json

namespace {
bool digits(std::string_view s, size_t pos, size_t n, int& out) {
    if (pos + n > s.size()) return false;
    auto r = std::from_chars(s.data() + pos, s.data() + pos + n, out);
    return r.ec == std::errc() && r.ptr == s.data() + pos + n;
}
}  // namespace

std::optional<std::chrono::system_clock::time_point> parseIsoDate(std::string_view s) {
    using namespace std::chrono;
    int y, mo, d, h, mi, sec;
    if (s.size() < 19 || s[4] != '-' || s[7] != '-' || (s[10] != 'T' && s[10] != ' ') || s[13] != ':' ||
        s[16] != ':')
        return std::nullopt;
    if (!digits(s, 0, 4, y) || !digits(s, 5, 2, mo) || !digits(s, 8, 2, d) || !digits(s, 11, 2, h) ||
        !digits(s, 14, 2, mi) || !digits(s, 17, 2, sec))
        return std::nullopt;
    year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    // Years far from now would overflow the clock's nanosecond count.
    if (!ymd.ok() || y < 1900 || y > 2200 || h > 23 || mi > 59 || sec > 60) return std::nullopt;
    size_t pos = 19;
    nanoseconds frac{0};
    if (pos < s.size() && s[pos] == '.') {
        ++pos;
        long long value = 0;
        int count = 0;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
            if (count < 9) {
                value = value * 10 + (s[pos] - '0');
                ++count;
            }
            ++pos;
        }
        if (count == 0) return std::nullopt;
        for (int i = count; i < 9; ++i) value *= 10;
        frac = nanoseconds{value};
    }
    minutes offset{0};
    if (pos < s.size()) {
        if (s[pos] == 'Z' || s[pos] == 'z') {
            ++pos;
        } else if (s[pos] == '+' || s[pos] == '-') {
            int oh, om;
            bool colon = pos + 3 < s.size() && s[pos + 3] == ':';
            if (!digits(s, pos + 1, 2, oh) || !digits(s, pos + (colon ? 4 : 3), 2, om)) return std::nullopt;
            offset = minutes{oh * 60 + om};
            if (s[pos] == '-') offset = -offset;
            pos += colon ? 6 : 5;
        }
    }
    if (pos != s.size()) return std::nullopt;
    auto tp = sys_days{ymd} + hours{h} + minutes{mi} + seconds{sec} + frac - offset;
    return time_point_cast<system_clock::duration>(tp);
}

}  // namespace scrivet
