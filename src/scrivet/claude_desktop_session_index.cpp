#include "scrivet/claude_desktop_session_index.hpp"

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "scrivet/journal_entry.hpp"

namespace scrivet::ClaudeDesktopSessionIndex {

namespace {

using simdjson::dom::element;

std::optional<Date> dateOf(element root, std::string_view key) {
    auto f = json::field(root, key);
    if (!f) return std::nullopt;
    if (auto s = json::string(*f)) return parseIsoDate(*s);
    if (auto n = json::integer(*f); n && *n > 0) {
        auto since = *n > 100'000'000'000LL ? std::chrono::milliseconds(*n) : std::chrono::milliseconds(*n * 1000);
        return Date(std::chrono::duration_cast<Date::duration>(since));
    }
    return std::nullopt;
}

}  // namespace

std::optional<Entry> parse(std::string_view text) {
    simdjson::dom::parser parser;
    element root;
    if (parser.parse(text.data(), text.size()).get(root) || !root.is_object()) return std::nullopt;
    auto id = json::string(root, "cliSessionId");
    if (!id || id->empty()) return std::nullopt;
    Entry e;
    e.cliSessionId = std::string(*id);
    if (auto title = json::string(root, "title")) {
        auto t = collapseWhitespace(*title);
        if (!t.empty()) e.title = t;
    }
    e.isArchived = json::boolean(root, "isArchived").value_or(false);
    e.lastActivityAt = dateOf(root, "lastActivityAt");
    if (auto cwd = json::string(root, "cwd"); cwd && cwd->starts_with("/")) e.cwd = std::string(*cwd);
    return e;
}

std::vector<Entry> read(const std::filesystem::path& folder) {
    std::map<std::string, Entry> byId;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const auto& file = it->path();
        if (file.extension() != ".json" || !std::filesystem::is_regular_file(file, ec)) continue;
        if (std::filesystem::file_size(file, ec) > (1 << 20)) continue;
        std::ifstream in(file, std::ios::binary);
        std::stringstream buf;
        buf << in.rdbuf();
        auto entry = parse(buf.str());
        if (!entry) continue;
        auto found = byId.find(entry->cliSessionId);
        if (found == byId.end() || entry->lastActivityAt > found->second.lastActivityAt)
            byId[entry->cliSessionId] = std::move(*entry);
    }
    std::vector<Entry> out;
    for (auto& [_, e] : byId) out.push_back(std::move(e));
    std::stable_sort(out.begin(), out.end(),
                     [](const Entry& a, const Entry& b) { return a.lastActivityAt > b.lastActivityAt; });
    return out;
}

std::vector<Entry> visible(const std::vector<Entry>& entries) {
    std::vector<Entry> out;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(out), [](const Entry& e) { return !e.isArchived; });
    return out;
}

}  // namespace scrivet::ClaudeDesktopSessionIndex
