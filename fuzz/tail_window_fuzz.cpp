// Arbitrary bytes as a journal's tail window: nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "scrivet/tail_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto window = scrivet::TailReader::parseWindow(bytes, 0, 64);
    for (const auto& e : window.entries) {
        (void)e.type();
        (void)e.string("sessionId");
        (void)e.integer("timestamp");
    }
    std::string copy(bytes);
    scrivet::TailReader::repairUtf8(copy);
    return 0;
}
