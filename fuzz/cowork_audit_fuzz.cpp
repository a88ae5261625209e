// Arbitrary bytes as the tail of a Cowork event log, and as a desktop index
// entry: the fold and the index parser must never crash or throw.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "scrivet/claude_desktop_session_index.hpp"
#include "scrivet/cowork_reader.hpp"
#include "scrivet/tail_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto window = scrivet::TailReader::parseWindow(bytes, 0, 2000);
    auto folded = scrivet::CoworkReader::fold(window.entries);
    (void)scrivet::CoworkReader::contextWindow(folded);
    (void)scrivet::CoworkReader::statusLabel(folded);
    if (folded.pendingTool) (void)scrivet::CoworkReader::approvalLine(*folded.pendingTool);
    (void)scrivet::ClaudeDesktopSessionIndex::parse(bytes);
    return 0;
}
