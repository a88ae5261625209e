#include <gtest/gtest.h>

#include <random>

#include "lumora/spend/line_scanner.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

namespace {

struct Seen {
    std::vector<std::string> lines;
    std::vector<uint64_t> offsets;
};

LineScanner::OnLine collect(Seen& seen) {
    return [&seen](simdjson::padded_string_view line, uint64_t offset) {
        seen.lines.emplace_back(line.data(), line.size());
        seen.offsets.push_back(offset);
    };
}

}  // namespace

TEST(NeedleFinder, FindsWhatAPlainSearchFinds) {
    std::mt19937 rng(7);
    const std::string alphabet = "\"usage:.record_tokn{}, \\";
    NeedleFinder finder({"\"usage\":", "\"token_", "\"usage.record\""});
    for (int round = 0; round < 300; ++round) {
        std::string text;
        size_t n = rng() % 600;
        for (size_t i = 0; i < n; ++i) text += alphabet[rng() % alphabet.size()];
        if (rng() % 2) text.insert(rng() % (text.size() + 1), finder.needles()[rng() % 3]);
        std::string padded = text + std::string(NeedleFinder::kReadAhead, '"');
        size_t expected = std::string::npos;
        for (const auto& needle : finder.needles()) expected = std::min(expected, text.find(needle));
        ASSERT_EQ(finder.next(padded.data(), text.size(), 0), expected) << text;
    }
}

TEST(LineScanner, HandsOnCompleteLinesWithANeedleAndLeavesACutLine) {
    LineScanner scanner({"\"usage\":"});
    std::string bytes = "{\"a\":1}\n{\"usage\":1}\n{\"b\":\"\\\"usage\\\": escaped\"}\n{\"usage\":2}\n{\"usage\":3";
    Seen seen;
    uint64_t end = scanner.scanBytes(bytes, collect(seen));
    EXPECT_EQ(seen.lines, (std::vector<std::string>{"{\"usage\":1}", "{\"usage\":2}"}));
    EXPECT_EQ(seen.offsets, (std::vector<uint64_t>{8, 47}));
    EXPECT_EQ(end, bytes.rfind('\n') + 1);  // the cut line waits until it is finished

    TempDir dir;
    writeFile(dir / "j.jsonl", bytes);
    Seen fromFile;
    EXPECT_EQ(scanner.scan(dir / "j.jsonl", 8, UINT64_MAX, collect(fromFile)), end);
    EXPECT_EQ(fromFile.lines, seen.lines);
    // Reading stops at the size the file had when it was looked at.
    Seen limited;
    EXPECT_EQ(scanner.scan(dir / "j.jsonl", 0, 30, collect(limited)), 20u);
    EXPECT_EQ(limited.lines.size(), 1u);
    EXPECT_FALSE(scanner.scan(dir / "missing.jsonl", 0, UINT64_MAX, collect(limited)));
    EXPECT_FALSE(scanner.scan(dir.path(), 0, UINT64_MAX, collect(limited)));
}

TEST(LineScanner, LongLinesAreSearchedInPassingAndReducedWhenTheyMatter) {
    LineScanner::Limits limits;
    limits.buffer = 4096;
    limits.directLine = 1024;
    limits.reducedLine = 2048;
    limits.keptString = 64;
    LineScanner scanner({"\"usage\":"}, limits);
    std::string big(20'000, 'x');
    std::string withUsage = "{\"content\":\"" + big + "\",\"model\":\"m\",\"usage\":{\"input_tokens\":5}}";
    std::string without = "{\"content\":\"" + big + "\"}";
    std::string structural = "{\"usage\":[" + std::string(9'000, '[') + "]}";  // too much to keep
    std::string middle = "{\"content\":\"" + std::string(2'000, 'y') + "\",\"usage\":{}}";
    std::string bytes = without + "\n" + withUsage + "\n" + structural + "\n" + middle + "\n" + "{\"usage\":1}\n" +
                        "{\"usage\":\"" + big;  // a long line still being written
    Seen seen;
    uint64_t end = scanner.scanBytes(bytes, collect(seen));
    ASSERT_EQ(seen.lines.size(), 3u);
    EXPECT_EQ(seen.lines[0], "{\"content\":\"\",\"model\":\"m\",\"usage\":{\"input_tokens\":5}}");
    EXPECT_EQ(seen.offsets[0], without.size() + 1);
    EXPECT_EQ(seen.lines[1], "{\"content\":\"\",\"usage\":{}}");
    EXPECT_EQ(seen.lines[2], "{\"usage\":1}");
    EXPECT_EQ(scanner.skippedLines(), 1u);
    EXPECT_EQ(end, bytes.rfind('\n') + 1);

    // A needle split by the streaming of a long line is still found.
    for (size_t shift = 0; shift < 10; ++shift) {
        std::string line = "{\"c\":\"" + std::string(4096 - 6 - shift, 'z') + "\",\"usage\":{}}\n";
        Seen s;
        scanner.scanBytes(line, collect(s));
        ASSERT_EQ(s.lines.size(), 1u) << shift;
        EXPECT_EQ(s.lines[0], "{\"c\":\"\",\"usage\":{}}");
    }
}
