// Arbitrary bytes as a Kimi wire journal's tail, a state file and a
// configuration: through the wire status, the first prompt, the state and
// configuration parsers and the sidecar count. Nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "scrivet/kimi_transcript_reader.hpp"
#include "scrivet/session_topic.hpp"

namespace Kimi = scrivet::KimiTranscriptReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto status = Kimi::wireStatus(bytes);
    if (status.question) (void)status.question->optionsLine();
    if (auto prompt = Kimi::firstPrompt(bytes)) (void)scrivet::SessionTopic::sanitize(*prompt);
    (void)Kimi::parseState(bytes);
    auto config = Kimi::parseConfig(bytes);
    if (status.model) (void)Kimi::displayName(*status.model, config);
    (void)Kimi::displayName(std::string(bytes.substr(0, 64)), config);
    (void)Kimi::pendingBackgroundTaskCount({std::string(bytes)});
    (void)Kimi::isSessionId(bytes);
    (void)scrivet::SessionTopic::sanitize(bytes);
    (void)scrivet::SessionTopic::truncated(bytes, 64);
    return 0;
}
