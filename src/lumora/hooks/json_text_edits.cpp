#include "lumora/hooks/json_text_edits.hpp"

#include <algorithm>
#include <vector>

#include "lumora/hooks/json_config_file.hpp"

namespace lumora::JsonTextEdits {

namespace {

// Where each child of a container starts and ends in the text (members from
// their key to the end of their value).
struct Span {
    size_t begin = 0, end = 0;
    std::string key;  // a member's decoded key
};

struct Container {
    size_t open = 0, close = 0;  // the brackets
    std::vector<Span> children;
};

class Scanner {
public:
    Scanner(std::string_view text, int maxDepth) : text_(text), maxDepth_(maxDepth) {}

    void skipSpace(size_t& i) const {
        while (i < text_.size() && (text_[i] == ' ' || text_[i] == '\t' || text_[i] == '\n' || text_[i] == '\r')) ++i;
    }

    // One past the end of the string starting at `i` (a quote), or npos.
    size_t stringEnd(size_t i) const {
        for (++i; i < text_.size(); ++i) {
            if (text_[i] == '\\') ++i;
            else if (text_[i] == '"') return i + 1;
        }
        return std::string_view::npos;
    }

    // One past the end of the value starting at `i`, without recursion, or npos.
    size_t valueEnd(size_t i) const {
        if (i >= text_.size()) return std::string_view::npos;
        char c = text_[i];
        if (c == '"') return stringEnd(i);
        if (c != '{' && c != '[') {
            while (i < text_.size() && text_[i] != ',' && text_[i] != '}' && text_[i] != ']' && text_[i] != ' ' &&
                   text_[i] != '\t' && text_[i] != '\n' && text_[i] != '\r')
                ++i;
            return i;
        }
        int depth = 0;
        for (; i < text_.size(); ++i) {
            char d = text_[i];
            if (d == '"') {
                i = stringEnd(i);
                if (i == std::string_view::npos) return i;
                --i;
            } else if (d == '{' || d == '[') {
                if (++depth > maxDepth_) return std::string_view::npos;
            } else if (d == '}' || d == ']') {
                if (--depth == 0) return i + 1;
            }
        }
        return std::string_view::npos;
    }

    // The children of the object or array whose bracket is at `open`; a trailing comma is tolerated.
    std::optional<Container> container(size_t open) const {
        if (open >= text_.size() || (text_[open] != '{' && text_[open] != '[')) return std::nullopt;
        bool object = text_[open] == '{';
        char closing = object ? '}' : ']';
        Container c;
        c.open = open;
        size_t i = open + 1;
        for (;;) {
            skipSpace(i);
            if (i >= text_.size()) return std::nullopt;
            if (text_[i] == closing) {
                c.close = i;
                return c;
            }
            Span span;
            span.begin = i;
            if (object) {
                size_t keyEnd = stringEnd(i);
                if (text_[i] != '"' || keyEnd == std::string_view::npos) return std::nullopt;
                auto key = Json::parse(text_.substr(i, keyEnd - i), nullptr, false);
                if (!key.is_string()) return std::nullopt;
                span.key = key.get<std::string>();
                i = keyEnd;
                skipSpace(i);
                if (i >= text_.size() || text_[i] != ':') return std::nullopt;
                ++i;
                skipSpace(i);
            }
            span.end = valueEnd(i);
            if (span.end == std::string_view::npos) return std::nullopt;
            c.children.push_back(span);
            i = span.end;
            skipSpace(i);
            if (i < text_.size() && text_[i] == ',') ++i;
            else if (i >= text_.size() || text_[i] != closing) return std::nullopt;
        }
    }

    // Where the value of a member begins.
    size_t memberValue(const Span& member) const {
        size_t i = stringEnd(member.begin);
        skipSpace(i);
        ++i;  // ':'
        skipSpace(i);
        return i;
    }

    std::string_view text() const { return text_; }

private:
    std::string_view text_;
    int maxDepth_;
};

struct Cut {
    size_t begin, end;
};

// The cuts that take the children in `removed` out of `c`, each with the
// separator between it and a neighbour that stays.
void cutsFor(const Container& c, const std::vector<bool>& removed, std::vector<Cut>& cuts) {
    size_t n = c.children.size();
    long lastKept = -1;
    for (size_t i = 0; i < n; ++i) {
        if (!removed[i]) lastKept = static_cast<long>(i);
    }
    if (lastKept < 0) {
        cuts.push_back({c.open + 1, c.close});
        return;
    }
    for (size_t i = 0; i < static_cast<size_t>(lastKept); ++i) {
        if (removed[i]) cuts.push_back({c.children[i].begin, c.children[i + 1].begin});
    }
    if (static_cast<size_t>(lastKept) + 1 < n) cuts.push_back({c.children[lastKept].end, c.children[n - 1].end});
}

}  // namespace

std::optional<std::string> removingEntries(std::string_view text, const std::function<bool(const Json&)>& isOurs,
                                           const Json& expected, int maxDepth) {
    Scanner s(text, maxDepth);
    size_t start = 0;
    s.skipSpace(start);
    auto root = s.container(start);
    if (!root || text[start] != '{') return std::nullopt;

    std::vector<Cut> cuts;
    std::vector<bool> rootRemoved(root->children.size(), false);
    for (size_t m = 0; m < root->children.size(); ++m) {
        const Span& member = root->children[m];
        if (member.key != "hooks") continue;
        auto hooks = s.container(s.memberValue(member));
        if (!hooks || text[hooks->open] != '{') continue;
        std::vector<Cut> inner;
        std::vector<bool> emptied(hooks->children.size(), false);
        size_t emptiedCount = 0;
        for (size_t e = 0; e < hooks->children.size(); ++e) {
            auto list = s.container(s.memberValue(hooks->children[e]));
            if (!list || text[list->open] != '[') continue;
            std::vector<bool> ours(list->children.size(), false);
            size_t count = 0;
            for (size_t k = 0; k < list->children.size(); ++k) {
                const Span& item = list->children[k];
                auto parsed = JSONConfigFile::parse(text.substr(item.begin, item.end - item.begin));
                ours[k] = parsed.kind == JSONConfigFile::Contents::Kind::object && isOurs(parsed.object);
                count += ours[k];
            }
            if (count == 0) continue;
            if (count == list->children.size()) {
                emptied[e] = true;
                ++emptiedCount;
            } else {
                cutsFor(*list, ours, inner);
            }
        }
        if (emptiedCount > 0 && emptiedCount == hooks->children.size()) {
            rootRemoved[m] = true;
            continue;
        }
        if (emptiedCount > 0) cutsFor(*hooks, emptied, inner);
        cuts.insert(cuts.end(), inner.begin(), inner.end());
    }
    if (std::find(rootRemoved.begin(), rootRemoved.end(), true) != rootRemoved.end()) cutsFor(*root, rootRemoved, cuts);

    std::sort(cuts.begin(), cuts.end(), [](const Cut& a, const Cut& b) { return a.begin > b.begin; });
    std::string out(text);
    for (const Cut& c : cuts) out.erase(c.begin, c.end - c.begin);

    auto check = JSONConfigFile::parse(out);
    if (check.kind != JSONConfigFile::Contents::Kind::object || check.object != expected) return std::nullopt;
    return out;
}

}  // namespace lumora::JsonTextEdits
