#include "lumora/hooks/toml_text_edits.hpp"

#include <cstdio>
#include <toml++/toml.h>

namespace lumora::TomlTextEdits {

namespace {

std::vector<std::string> splitLines(std::string_view text) {
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        size_t end = eol == std::string_view::npos ? text.size() : eol + 1;
        lines.emplace_back(text.substr(pos, end - pos));
        pos = end;
    }
    return lines;
}

std::string join(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& l : lines) out += l;
    return out;
}

std::string trimmed(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r' || s[b] == '\n')) ++b;
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) --e;
    return std::string(s.substr(b, e - b));
}

bool isBlank(std::string_view line) { return trimmed(line).empty(); }

// `lines` (each ending in "\n") written with the text's own line ending.
std::string withEol(std::string_view lines, std::string_view eol) {
    if (eol == "\n") return std::string(lines);
    std::string out;
    for (char c : lines) {
        if (c == '\n') out += eol;
        else out += c;
    }
    return out;
}

// Which lines sit inside a multi-line string (and so are neither headers nor keys).
std::vector<bool> insideMultiline(const std::vector<std::string>& lines) {
    std::vector<bool> inside(lines.size(), false);
    std::string open;  // the delimiter of the open multi-line string, if any
    for (size_t i = 0; i < lines.size(); ++i) {
        inside[i] = !open.empty();
        const std::string& l = lines[i];
        size_t pos = 0;
        while (pos < l.size()) {
            if (open.empty()) {
                size_t dq = l.find("\"\"\"", pos), sq = l.find("'''", pos);
                size_t hash = std::string::npos;
                // A comment before any delimiter ends the scan (roughly: '#' outside quotes).
                bool inStr = false;
                char q = 0;
                for (size_t k = pos; k < l.size(); ++k) {
                    char c = l[k];
                    if (inStr) {
                        if (c == '\\' && q == '"') ++k;
                        else if (c == q) inStr = false;
                    } else if ((c == '"' || c == '\'') && l.compare(k, 3, std::string(3, c)) != 0) {
                        inStr = true;
                        q = c;
                    } else if (c == '#') {
                        hash = k;
                        break;
                    } else if (l.compare(k, 3, "\"\"\"") == 0 || l.compare(k, 3, "'''") == 0) {
                        break;
                    }
                }
                size_t first = std::min(dq, sq);
                if (first == std::string::npos || (hash != std::string::npos && hash < first)) break;
                open = l.substr(first, 3);
                pos = first + 3;
            } else {
                size_t close = l.find(open, pos);
                if (close == std::string::npos) break;
                open.clear();
                pos = close + 3;
            }
        }
    }
    return inside;
}

struct Table {
    size_t header;  // line index of the header
    size_t end;     // one past the table's last line
};

std::optional<Table> findTable(const std::vector<std::string>& lines, const std::vector<bool>& inside,
                               const std::string& header) {
    for (size_t i = 0; i < lines.size(); ++i) {
        if (inside[i] || normalisedHeader(lines[i]) != header) continue;
        size_t end = i + 1;
        while (end < lines.size() && (inside[end] || normalisedHeader(lines[end]).empty())) ++end;
        return Table{i, end};
    }
    return std::nullopt;
}

// Where `wanted` first stands outside a quoted string, or npos.
size_t findOutsideQuotes(std::string_view text, char wanted) {
    bool inStr = false;
    char q = 0;
    for (size_t k = 0; k < text.size(); ++k) {
        char c = text[k];
        if (inStr) {
            if (c == '\\' && q == '"') ++k;
            else if (c == q) inStr = false;
        } else if (c == '"' || c == '\'') {
            inStr = true;
            q = c;
        } else if (c == wanted) {
            return k;
        }
    }
    return std::string_view::npos;
}

// The key of a `key = value` line (bare or quoted, whitespace removed), or empty.
std::string keyOf(std::string_view line) {
    std::string t = trimmed(line);
    if (t.empty() || t[0] == '#' || t[0] == '[') return {};
    size_t eq = findOutsideQuotes(t, '=');
    if (eq == std::string::npos) return {};
    std::string key = trimmed(t.substr(0, eq));
    if (key.size() >= 2 && (key.front() == '"' || key.front() == '\'') && key.back() == key.front())
        key = key.substr(1, key.size() - 2);
    return key;
}

std::string valueOf(std::string_view line) {
    std::string t = trimmed(line);
    size_t eq = findOutsideQuotes(t, '=');
    if (eq == std::string::npos) return {};
    std::string v = trimmed(t.substr(eq + 1));
    // Strip a trailing comment outside quotes.
    size_t comment = findOutsideQuotes(v, '#');
    return comment == std::string::npos ? v : trimmed(v.substr(0, comment));
}

std::optional<size_t> findKey(const std::vector<std::string>& lines, const std::vector<bool>& inside, const Table& t,
                              const std::string& key) {
    for (size_t i = t.header + 1; i < t.end; ++i) {
        if (!inside[i] && keyOf(lines[i]) == key) return i;
    }
    return std::nullopt;
}

}  // namespace

bool isValid(std::string_view text) {
    try {
        (void)toml::parse(text);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

std::string basicString(std::string_view value) {
    std::string out = "\"";
    for (unsigned char c : value) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\r': out += "\\r"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04X", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string normalisedHeader(std::string_view line) {
    std::string t = trimmed(line);
    if (t.empty() || t[0] != '[') return {};
    std::string out;
    bool inStr = false;
    char q = 0;
    for (size_t k = 0; k < t.size(); ++k) {
        char c = t[k];
        if (inStr) {
            out += c;
            if (c == '\\' && q == '"' && k + 1 < t.size()) out += t[++k];
            else if (c == q) inStr = false;
        } else if (c == '"' || c == '\'') {
            inStr = true;
            q = c;
            out += c;
        } else if (c == '#') {
            break;
        } else if (c != ' ' && c != '\t') {
            out += c;
        }
    }
    if (out.size() < 2 || out.back() != ']') return {};
    return out;
}

std::string lineEnding(std::string_view text) {
    size_t eol = text.find('\n');
    return eol != std::string_view::npos && eol > 0 && text[eol - 1] == '\r' ? "\r\n" : "\n";
}

std::string appendBlock(std::string_view text, std::string_view block) {
    std::string eol = lineEnding(text);
    std::string out(text);
    if (!out.empty() && out.back() != '\n') out += eol;
    if (!out.empty()) out += eol;
    out += withEol(block, eol);
    return out;
}

std::string setKey(std::string_view text, const std::string& header, const std::string& key, const std::string& value) {
    auto lines = splitLines(text);
    auto inside = insideMultiline(lines);
    auto table = findTable(lines, inside, header);
    std::string eol = lineEnding(text);
    std::string line = key + " = " + value;
    if (!table) return appendBlock(text, header + "\n" + line + "\n");
    if (auto at = findKey(lines, inside, *table, key)) {
        if (valueOf(lines[*at]) == value) return std::string(text);
        std::string& old = lines[*at];
        size_t end = old.size();
        while (end > 0 && (old[end - 1] == '\n' || old[end - 1] == '\r')) --end;
        old = line + old.substr(end);  // the line keeps its own ending
    } else {
        if (lines[table->header].back() != '\n') lines[table->header] += eol;
        lines.insert(lines.begin() + static_cast<long>(table->header) + 1, line + eol);
    }
    return join(lines);
}

std::optional<std::string> keyValue(std::string_view text, const std::string& header, const std::string& key) {
    auto lines = splitLines(text);
    auto inside = insideMultiline(lines);
    auto table = findTable(lines, inside, header);
    if (!table) return std::nullopt;
    auto at = findKey(lines, inside, *table, key);
    if (!at) return std::nullopt;
    return valueOf(lines[*at]);
}

bool hasTable(std::string_view text, const std::string& header) {
    auto lines = splitLines(text);
    return findTable(lines, insideMultiline(lines), header).has_value();
}

std::string removeKey(std::string_view text, const std::string& header, const std::string& key) {
    auto lines = splitLines(text);
    auto inside = insideMultiline(lines);
    auto table = findTable(lines, inside, header);
    if (!table) return std::string(text);
    auto at = findKey(lines, inside, *table, key);
    if (!at) return std::string(text);
    lines.erase(lines.begin() + static_cast<long>(*at));
    return removeTableIfEmpty(join(lines), header);
}

std::string insertInTable(std::string_view text, const std::string& header, const std::string& line) {
    auto lines = splitLines(text);
    auto inside = insideMultiline(lines);
    auto table = findTable(lines, inside, header);
    if (!table) return appendBlock(text, header + "\n" + line + "\n");
    std::string eol = lineEnding(text);
    if (lines[table->header].back() != '\n') lines[table->header] += eol;
    lines.insert(lines.begin() + static_cast<long>(table->header) + 1, line + eol);
    return join(lines);
}

std::string removeLine(std::string_view text, std::string_view line) {
    auto lines = splitLines(text);
    auto inside = insideMultiline(lines);
    std::string wanted = trimmed(line);
    std::vector<std::string> kept;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (!inside[i] && trimmed(lines[i]) == wanted) continue;
        kept.push_back(lines[i]);
    }
    return join(kept);
}

std::string removeTableIfEmpty(std::string_view text, const std::string& header) {
    auto lines = splitLines(text);
    auto inside = insideMultiline(lines);
    auto table = findTable(lines, inside, header);
    if (!table) return std::string(text);
    for (size_t i = table->header + 1; i < table->end; ++i) {
        if (!isBlank(lines[i])) return std::string(text);
    }
    size_t from = table->header;
    if (from > 0 && isBlank(lines[from - 1])) --from;
    lines.erase(lines.begin() + static_cast<long>(from), lines.begin() + static_cast<long>(table->header) + 1);
    return join(lines);
}

}  // namespace lumora::TomlTextEdits
