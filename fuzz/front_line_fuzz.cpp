// Arbitrary bytes as lines of the face socket, both ways: as commands a face
// sends the service, and as state lines a face reads. Nothing may throw or
// crash; a command that parses writes back to the same command; a state that
// decodes encodes to a line that decodes to the same sessions again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "lumora/app/face_commands.hpp"
#include "lumora/app/front_protocol.hpp"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start <= bytes.size()) {
        size_t nl = bytes.find('\n', start);
        auto line = bytes.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start);
        if (auto command = FrontProtocol::parseCommand(line)) {
            std::string again = FrontProtocol::commandLine(*command);
            again.pop_back();
            check(FrontProtocol::parseCommand(again) == command);
        }
        (void)FrontProtocol::parseJumpReply(line);
        if (auto decided = FrontProtocol::parseDecidedReply(line)) {
            std::string again = FrontProtocol::decidedReply(*decided);
            again.pop_back();
            check(FrontProtocol::parseDecidedReply(again) == decided);
        }
        if (nl == std::string_view::npos) break;
        start = nl + 1;
    }
    if (auto state = FrontProtocol::decodeState(bytes)) {
        auto now = std::chrono::system_clock::now();
        std::string line = FrontProtocol::encodeState(*state, now);
        auto back = FrontProtocol::decodeState(line);
        check(back.has_value() && back->sessions.size() == state->sessions.size());
        for (auto format : {FaceCommands::Format::json, FaceCommands::Format::waybar, FaceCommands::Format::plain,
                            FaceCommands::Format::tmux})
            check(FaceCommands::formatState(line, format).has_value());
    }
    return 0;
}
