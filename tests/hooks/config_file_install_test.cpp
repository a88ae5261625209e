// JSONConfigFile and the TOML line edits the installers build on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lumora/hooks/json_config_file.hpp"
#include "lumora/hooks/toml_text_edits.hpp"
#include "support/test_support.hpp"

using namespace lumora;
namespace fs = std::filesystem;
using lumora::test::TempDir;
using Kind = JSONConfigFile::Contents::Kind;

TEST(JSONConfigFile, LoadTellsMissingObjectAndUnreadableApart) {
    TempDir dir;
    auto load = [&](const std::string& text) {
        test::writeFile(dir / "f.json", text);
        return JSONConfigFile::load(dir / "f.json");
    };
    EXPECT_EQ(JSONConfigFile::load(dir / "none.json").kind, Kind::missing);
    EXPECT_EQ(load("").kind, Kind::missing);
    EXPECT_EQ(load(" \n\t\n").kind, Kind::missing);
    EXPECT_EQ(*load("").mergeable(), JSONConfigFile::Json::object());

    auto object = load("{\"a\": [1, 2,], \"b\": {\"c\": \"x,}\",},}\n");
    ASSERT_EQ(object.kind, Kind::object);  // trailing commas tolerated, commas in strings kept
    EXPECT_EQ(object.object["b"]["c"], "x,}");
    EXPECT_EQ(object.object["a"].size(), 2u);

    for (const char* bad : {"[1, 2]", "\"text\"", "{\"a\": 1", "{\"a\": 1} // note", "/* c */ {}", "{\"a\": 1}}",
                            "{\"a\": \"\xff\"}", "{,}"}) {
        auto c = load(bad);
        EXPECT_EQ(c.kind, Kind::unreadable) << bad;
        EXPECT_FALSE(c.mergeable()) << bad;
    }
    // What is not a regular file is refused at once and says so; nothing is written over it.
    std::filesystem::create_directories(dir / "folder.json");
    ASSERT_EQ(::mkfifo((dir / "fifo.json").c_str(), 0600), 0);
    EXPECT_EQ(JSONConfigFile::load(dir / "folder.json").why, "can't be read (a folder, not a file)");
    EXPECT_EQ(JSONConfigFile::load(dir / "fifo.json").why, "can't be read (not a regular file)");
    EXPECT_FALSE(JSONConfigFile::write(JSONConfigFile::Json::object(), dir / "fifo.json"));
    EXPECT_TRUE(fs::is_fifo(dir / "fifo.json"));
    auto deep = load("{\"a\": " + std::string(300, '[') + std::string(300, ']') + "}");
    EXPECT_EQ(deep.kind, Kind::unreadable);
    EXPECT_EQ(deep.why, "nests deeper than 256 levels");
}

TEST(JSONConfigFile, WriteKeepsLayoutBacksUpAndSkipsIdenticalWrites) {
    TempDir dir;
    fs::path file = dir / "settings.json";
    EXPECT_EQ(JSONConfigFile::backupURL(file), dir / "settings.json.notch-backup");

    // A new file: two spaces, final newline, no backup.
    JSONConfigFile::Json o = JSONConfigFile::Json::parse(R"({"z": 1, "a": {"é": "ü"}, "e": [], "f": {}})");
    ASSERT_TRUE(JSONConfigFile::write(o, file));
    EXPECT_EQ(test::readFile(file), "{\n  \"z\": 1,\n  \"a\": {\n    \"é\": \"ü\"\n  },\n  \"e\": [],\n  \"f\": {}\n}\n");
    EXPECT_FALSE(fs::exists(JSONConfigFile::backupURL(file)));

    // The same object again: nothing written, no backup.
    auto before = fs::last_write_time(file);
    ASSERT_TRUE(JSONConfigFile::write(o, file, {test::readFile(file)}));
    EXPECT_FALSE(fs::exists(JSONConfigFile::backupURL(file)));
    EXPECT_EQ(fs::last_write_time(file), before);

    // A four-space file without final newline keeps both; the old bytes go to the backup.
    std::string fourSpaces = "{\n    \"k\": [\n        1\n    ]\n}";
    test::writeFile(file, fourSpaces);
    auto c = JSONConfigFile::load(file);
    c.object["n"] = true;
    ASSERT_TRUE(JSONConfigFile::write(c.object, file, {c.text}));
    EXPECT_EQ(test::readFile(file), "{\n    \"k\": [\n        1\n    ],\n    \"n\": true\n}");
    EXPECT_EQ(test::readFile(JSONConfigFile::backupURL(file)), fourSpaces);
    EXPECT_EQ(JSONConfigFile::serialise(c.object, {"{\r\n\t\"k\": 1\r\n}\r\n"}),
              "{\r\n\t\"k\": [\r\n\t\t1\r\n\t],\r\n\t\"n\": true\r\n}\r\n");

    // A symbolic link stays a link; its target gets the new contents.
    fs::path target = dir / "dotfiles" / "real.json";
    test::writeFile(target, "{}\n");
    fs::path link = dir / "linked.json";
    fs::create_symlink(target, link);
    ASSERT_TRUE(JSONConfigFile::write(JSONConfigFile::Json{{"a", 1}}, link, {"{}\n"}));
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(test::readFile(target), "{\n  \"a\": 1\n}\n");
}

TEST(TomlTextEdits, AddAndRemoveGiveBackTheSameBytes) {
    namespace T = TomlTextEdits;
    const std::string header = "[hooks.state." + T::basicString("/h/.codex/hooks.json:stop:0:0") + "]";
    EXPECT_EQ(header, "[hooks.state.\"/h/.codex/hooks.json:stop:0:0\"]");
    EXPECT_EQ(T::normalisedHeader("  [ hooks . state . \"a b\" ]  # note"), "[hooks.state.\"a b\"]");
    EXPECT_EQ(T::normalisedHeader("key = 1"), "");

    for (std::string original : {std::string(), std::string("a = 1\n"), std::string("a = 1\n\n"),
                                 std::string("[x]\ny = \"\"\"\n[not.a.table]\n\"\"\"\n\n[tui]\nz = 2\n")}) {
        std::string added = T::setKey(original, header, "trusted_hash", "\"sha256:1\"");
        EXPECT_TRUE(T::isValid(added)) << added;
        EXPECT_EQ(T::keyValue(added, header, "trusted_hash"), "\"sha256:1\"");
        std::string changed = T::setKey(added, header, "trusted_hash", "\"sha256:2\"");
        EXPECT_EQ(T::keyValue(changed, header, "trusted_hash"), "\"sha256:2\"");
        EXPECT_EQ(T::setKey(changed, header, "trusted_hash", "\"sha256:2\""), changed);
        EXPECT_EQ(T::removeKey(changed, header, "trusted_hash"), original);

        std::string flagged = T::insertInTable(original, "[features]", "hooks = true  # managed by Lumora");
        EXPECT_TRUE(T::isValid(flagged));
        EXPECT_EQ(T::removeTableIfEmpty(T::removeLine(flagged, "hooks = true  # managed by Lumora"), "[features]"),
                  original);
    }
    // A table in the middle, as Codex writes them, goes with its blank line.
    std::string middle = "[a]\nx = 1\n\n" + header + "\ntrusted_hash = \"h\"\n\n[tui]\ny = 2\n";
    EXPECT_EQ(T::removeKey(middle, header, "trusted_hash"), "[a]\nx = 1\n\n[tui]\ny = 2\n");
    // A table with other keys keeps them.
    std::string shared = header + "\ntrusted_hash = \"h\"\nenabled = true\n";
    EXPECT_EQ(T::removeKey(shared, header, "trusted_hash"), header + "\nenabled = true\n");
    EXPECT_FALSE(T::isValid("a = \n"));

    // What we add to a CRLF file ends in CRLF; a replaced line keeps its own ending.
    std::string crlf = T::setKey("a = 1\r\n", header, "trusted_hash", "\"h\"");
    EXPECT_EQ(crlf, "a = 1\r\n\r\n" + header + "\r\ntrusted_hash = \"h\"\r\n");
    EXPECT_EQ(T::setKey(crlf, header, "trusted_hash", "\"g\""), "a = 1\r\n\r\n" + header + "\r\ntrusted_hash = \"g\"\r\n");
    EXPECT_EQ(T::removeKey(crlf, header, "trusted_hash"), "a = 1\r\n");
}
