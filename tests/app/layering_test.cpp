// The layers of the tree depend one way: app -> ui -> monitor -> usage, spend
// and hooks -> approvals -> base -> platform, with scrivet beside them. Every
// `#include "lumora/..."` and `#include "scrivet/..."` in src/ is read against
// that table, and calls that differ between operating systems stay in
// platform/<os>/.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace fs = std::filesystem;

namespace {

// The layer a source file belongs to, by its folder.
std::string layerOf(const fs::path& relative) {
    auto it = relative.begin();
    if (it == relative.end()) return {};
    if (*it == "scrivet") return "scrivet";
    if (*it != "lumora") return {};
    ++it;
    if (it == relative.end()) return {};
    std::string first = it->string();
    if (first == "main.cpp") return "main";
    return first;
}

const std::map<std::string, std::set<std::string>>& allowed() {
    static const std::map<std::string, std::set<std::string>> table = {
        {"platform", {"platform"}},
        {"base", {"base", "platform"}},
        {"approvals", {"approvals", "base", "platform", "scrivet"}},
        {"hooks", {"hooks", "approvals", "base", "platform", "scrivet"}},
        {"usage", {"usage", "base", "platform", "scrivet"}},
        {"spend", {"spend", "base", "platform", "scrivet"}},
        {"monitor", {"monitor", "hooks", "approvals", "usage", "spend", "base", "platform", "scrivet"}},
        {"ui", {"ui", "monitor", "hooks", "approvals", "usage", "spend", "base", "platform", "scrivet"}},
        {"app", {"app", "ui", "monitor", "hooks", "approvals", "usage", "spend", "base", "platform", "scrivet"}},
        {"main", {"app", "platform"}},
        {"scrivet", {"scrivet"}},
    };
    return table;
}

// The layer an include names: "lumora/monitor/x.hpp" -> monitor, "scrivet/x.hpp" -> scrivet.
std::string includedLayer(const std::string& target) {
    if (target.starts_with("scrivet/")) return "scrivet";
    auto rest = target.substr(std::string("lumora/").size());
    return rest.substr(0, rest.find('/'));
}

}  // namespace

TEST(Layering, IncludesRunDownTheLayersAndSystemCallsStayInThePlatform) {
    fs::path src = fs::path(LUMORA_SOURCE_DIR) / "src";
    ASSERT_TRUE(fs::is_directory(src));
    std::regex include(R"re(^\s*#\s*include\s*"((lumora|scrivet)/[^"]+)")re");
    // Spellings that differ between operating systems; they belong behind a
    // platform interface (scrivet keeps its own in file_stamp.cpp).
    std::regex osSpecific(R"(st_mtim\b|pthread_setname_np|MSG_NOSIGNAL|/proc/|inotify_)");
    std::vector<std::string> upward, leaks;
    size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(src)) {
        if (!entry.is_regular_file()) continue;
        auto ext = entry.path().extension();
        if (ext != ".cpp" && ext != ".hpp") continue;
        fs::path relative = fs::relative(entry.path(), src);
        std::string layer = layerOf(relative);
        auto rules = allowed().find(layer);
        ASSERT_NE(rules, allowed().end()) << relative << " is in no layer";
        ++files;
        bool platformFile = relative.string().starts_with("lumora/platform/") ||
                            relative == fs::path("scrivet/file_stamp.cpp");
        std::ifstream in(entry.path());
        std::string line;
        int number = 0;
        while (std::getline(in, line)) {
            ++number;
            std::smatch m;
            if (std::regex_search(line, m, include)) {
                std::string target = m[1];
                std::string to = includedLayer(target);
                bool ok = rules->second.count(to) > 0;
                // Only the platform's own files reach its per-system folders.
                if (target.starts_with("lumora/platform/linux/") && layer != "platform") ok = false;
                if (!ok) upward.push_back(relative.string() + ":" + std::to_string(number) + " includes " + target);
            }
            if (!platformFile && std::regex_search(line, osSpecific))
                leaks.push_back(relative.string() + ":" + std::to_string(number) + ": " + line);
        }
    }
    EXPECT_GT(files, 50u);
    EXPECT_TRUE(upward.empty()) << [&] {
        std::string all;
        for (const auto& u : upward) all += u + "\n";
        return all;
    }();
    EXPECT_TRUE(leaks.empty()) << [&] {
        std::string all;
        for (const auto& l : leaks) all += l + "\n";
        return all;
    }();
}
