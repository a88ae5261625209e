// Arbitrary bytes as a journal of each agent: the line scanner (with limits
// small enough that long lines, reduction and streaming all happen) hands its
// lines to the three usage readers. Nothing may crash, throw or read out of bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/spend/line_scanner.hpp"
#include "lumora/spend/usage_lines.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static simdjson::ondemand::parser parser(1 << 20);
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    lumora::LineScanner::Limits limits;
    limits.buffer = 4096;
    limits.directLine = 512;
    limits.reducedLine = 2048;
    limits.keptString = 16;
    std::vector<std::string> needles = {"\"usage\":", "\"token_", "\"turn_context\"", "\"usage.record\""};
    lumora::LineScanner scanner(needles, limits);
    scanner.scanBytes(bytes, [](simdjson::padded_string_view line, uint64_t) {
        (void)lumora::UsageLines::claude(line, parser);
        (void)lumora::UsageLines::codex(line, parser, "thread");
        (void)lumora::UsageLines::kimi(line, parser, "session/main");
    });
    (void)lumora::UsageLines::parseIsoMillis(bytes.substr(0, 64));
    return 0;
}
