#include <gtest/gtest.h>

#include <fstream>

#include "scrivet/tail_reader.hpp"
#include "support/test_support.hpp"

using namespace scrivet;
using lumora::test::TempDir;
using lumora::test::writeFile;

namespace {

std::string line(std::string_view type, std::string_view extra = "") {
    std::string s = R"({"type":")" + std::string(type) + "\"";
    if (!extra.empty()) s += "," + std::string(extra);
    return s + "}\n";
}

std::string giantToolResult(size_t bytes) {
    return R"({"type":"user","message":{"role":"user","content":[{"type":"tool_result","tool_use_id":"t1","content":")" +
           std::string(bytes, 'x') + "\"}]}}\n";
}

std::vector<std::string> types(const TailReader::Window& w) {
    std::vector<std::string> out;
    for (const auto& e : w.entries) out.emplace_back(e.type());
    return out;
}

}  // namespace

TEST(TailReader, GrowsPastAGiantEntryUntilItFindsTheConversation) {
    TempDir dir;
    // A real turn, then a 300 KB tool result, then only bookkeeping: the first
    // window sees bookkeeping alone and must grow to 512 KiB.
    std::string text = line("user", R"("message":{"role":"user","content":"hello"})");
    text += line("assistant", R"("message":{"role":"assistant","content":[{"type":"text","text":"hi"}],"stop_reason":"end_turn"})");
    text += R"({"type":"attachment","blob":")" + std::string(300 * 1024, 'a') + "\"}\n";
    for (int i = 0; i < 50; ++i) text += line("last-prompt") + line("ai-title", R"("aiTitle":"t")") + line("mode");
    writeFile(dir / "j.jsonl", text);

    auto w = TailReader::read(dir / "j.jsonl", 1000);
    EXPECT_TRUE(w.hasConversation);
    EXPECT_EQ(w.start, 0u);  // 512 KiB covers the whole file
    ASSERT_GE(w.entries.size(), 3u);
    EXPECT_EQ(w.entries[0].type(), "user");
    EXPECT_EQ(w.entries[1].type(), "assistant");
    EXPECT_EQ(w.fileSize, text.size());

    // A 3 MB tool result needs the 4 MiB window.
    std::string big = line("user", R"("message":{"content":"first"})") + giantToolResult(3 * 1024 * 1024);
    for (int i = 0; i < 10; ++i) big += line("last-prompt");
    writeFile(dir / "big.jsonl", big);
    auto wb = TailReader::read(dir / "big.jsonl", 1000);
    EXPECT_TRUE(wb.hasConversation);
    EXPECT_EQ(types(wb).size(), 12u);

    // Past 4 MiB the window stops growing and returns what it holds.
    std::string huge = line("user") + giantToolResult(5 * 1024 * 1024);
    for (int i = 0; i < 10; ++i) huge += line("last-prompt");
    writeFile(dir / "huge.jsonl", huge);
    auto wh = TailReader::read(dir / "huge.jsonl", 1000);
    EXPECT_FALSE(wh.hasConversation);
    EXPECT_EQ(wh.fileSize - wh.start, TailReader::kMaxWindow);
    EXPECT_EQ(types(wh).size(), 10u);
}

TEST(TailReader, StopsAtTheFirstWindowWhenItHoldsAConversationEntry) {
    TempDir dir;
    std::string text = giantToolResult(200 * 1024);
    text += line("assistant", R"("message":{"content":[{"type":"text","text":"done"}],"stop_reason":"end_turn"})");
    text += line("last-prompt");
    writeFile(dir / "j.jsonl", text);
    auto w = TailReader::read(dir / "j.jsonl", 1000);
    EXPECT_EQ(w.fileSize - w.start, TailReader::kFirstWindow);
    EXPECT_EQ(types(w), (std::vector<std::string>{"assistant", "last-prompt"}));
}

TEST(TailReader, MetaOnlyFileIsReadOnceFromTheStart) {
    TempDir dir;
    writeFile(dir / "meta.jsonl", line("last-prompt") + line("ai-title") + line("mode"));
    auto w = TailReader::read(dir / "meta.jsonl", 100);
    EXPECT_FALSE(w.hasConversation);
    EXPECT_EQ(w.start, 0u);
    EXPECT_EQ(types(w), (std::vector<std::string>{"last-prompt", "ai-title", "mode"}));
}

TEST(TailReader, BrokenFirstLineAndCutCharactersAreSkipped) {
    TempDir dir;
    // The window boundary falls inside a line full of multi-byte characters.
    std::string filler = R"({"type":"user","message":{"content":")";
    for (int i = 0; i < 40000; ++i) filler += "é";  // 2 bytes each, 80 KB
    filler += "\"}}\n";
    std::string tail = line("assistant", R"("message":{"content":[{"type":"text","text":"naïve ✓"}]})");
    writeFile(dir / "j.jsonl", filler + tail + line("mode"));
    auto w = TailReader::read(dir / "j.jsonl", 100);
    ASSERT_EQ(types(w), (std::vector<std::string>{"assistant", "mode"}));
    auto content = json::array(w.entries[0].field("message").value(), "content");
    ASSERT_TRUE(content);
    EXPECT_EQ(json::string(content->at(0).value(), "text"), "naïve ✓");

    // Invalid bytes inside a line become U+FFFD instead of losing the line.
    std::string bad = "{\"type\":\"user\",\"message\":{\"content\":\"a\xff\xfe" "b\"}}\n";
    auto wb = TailReader::parseWindow(bad, 0, 10);
    ASSERT_EQ(wb.entries.size(), 1u);
    EXPECT_EQ(json::string(wb.entries[0].field("message").value(), "content"), "a\xEF\xBF\xBD\xEF\xBF\xBD" "b");
}

TEST(TailReader, BadInputYieldsWhatParses) {
    TempDir dir;
    // Missing, empty, a folder, binary noise, a torn last line being written.
    EXPECT_TRUE(TailReader::read(dir / "missing.jsonl", 10).entries.empty());
    writeFile(dir / "empty.jsonl", "");
    EXPECT_TRUE(TailReader::read(dir / "empty.jsonl", 10).entries.empty());
    EXPECT_TRUE(TailReader::read(dir.path(), 10).entries.empty());
    std::string noise;
    for (int i = 0; i < 100000; ++i) noise += static_cast<char>((i * 7919) % 256);
    writeFile(dir / "binary.jsonl", noise);
    EXPECT_TRUE(TailReader::read(dir / "binary.jsonl", 10).entries.empty());

    writeFile(dir / "torn.jsonl", line("user") + "[1,2]\n\"text\"\n  \n" + line("assistant") +
                                      R"({"type":"assistant","message":{"content":[{"ty)");
    auto w = TailReader::read(dir / "torn.jsonl", 100);
    EXPECT_EQ(types(w), (std::vector<std::string>{"user", "assistant"}));
}

TEST(TailReader, KeepsOnlyTheLastLinesAndWhatTheFilterWants) {
    TempDir dir;
    std::string text;
    for (int i = 0; i < 20; ++i) text += line(i % 2 ? "assistant" : "user", "\"n\":" + std::to_string(i));
    writeFile(dir / "j.jsonl", text);
    auto w = TailReader::read(dir / "j.jsonl", 5);
    ASSERT_EQ(w.entries.size(), 5u);
    EXPECT_EQ(w.entries.front().integer("n"), 15);
    EXPECT_EQ(w.entries.back().integer("n"), 19);

    auto onlyUsers = TailReader::read(dir / "j.jsonl", 100, [](std::string_view t) { return t == "user"; });
    EXPECT_EQ(onlyUsers.entries.size(), 10u);
    EXPECT_TRUE(onlyUsers.hasConversation);
    // Offsets point at each line's first byte.
    EXPECT_EQ(text.substr(onlyUsers.entries[1].offset(), 15), R"({"type":"user",)");
}

TEST(TailReader, ReadsTheRealClaudeJournals) {
    LUMORA_REQUIRE_SAMPLES();
    auto folder = lumora::test::samplesDir() / "claude/home/.claude/projects/-home-dev-proj-app";
    int files = 0;
    for (const auto& f : std::filesystem::directory_iterator(folder)) {
        if (f.path().extension() != ".jsonl") continue;
        ++files;
        auto w = TailReader::read(f.path(), 2000);
        EXPECT_TRUE(w.hasConversation) << f.path();
        bool sawAssistant = false;
        for (const auto& e : w.entries) sawAssistant |= e.type() == "assistant";
        EXPECT_TRUE(sawAssistant) << f.path();
    }
    EXPECT_EQ(files, 10);
}

TEST(IsoDates, ParseWithAndWithoutFractionsAndOffsets) {
    using namespace std::chrono;
    auto a = parseIsoDate("2026-11-22T00:47:23.755Z");
    auto b = parseIsoDate("2026-11-22T00:47:23Z");
    auto c = parseIsoDate("2026-11-22T01:47:23+01:00");
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(duration_cast<milliseconds>(*a - *b).count(), 755);
    EXPECT_EQ(*b, *c);
    EXPECT_EQ(duration_cast<seconds>(b->time_since_epoch()).count(), 1795308443);
    EXPECT_FALSE(parseIsoDate("2026-13-01T00:00:00Z"));
    EXPECT_FALSE(parseIsoDate("yesterday"));
    EXPECT_FALSE(parseIsoDate("2026-11-22T00:47:23.Z"));
}
