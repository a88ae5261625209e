// Arbitrary bytes as a model server's answer, as a proposed name and as the
// prompt it is matched against, and as a naming endpoint; and as a journal
// head whose first human prompt becomes a topic. Nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "scrivet/session_namer.hpp"
#include "scrivet/session_topic.hpp"
#include "scrivet/tail_reader.hpp"

using scrivet::SessionNamer;
namespace Topic = scrivet::SessionTopic;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (auto title = SessionNamer::titleFromAnswer(bytes)) {
        auto tidied = SessionNamer::tidy(*title);
        if (SessionNamer::acceptable(tidied)) (void)SessionNamer::sentenceCased(tidied, bytes);
    }
    auto half = bytes.substr(0, size / 2);
    (void)SessionNamer::sentenceCased(half, bytes.substr(size / 2));
    (void)SessionNamer::acceptable(SessionNamer::tidy(half));
    (void)SessionNamer::chatURL(bytes.substr(0, 256));
    (void)SessionNamer::requestBody(half, bytes);

    auto window = scrivet::TailReader::parseWindow(bytes, 0, 200);
    for (auto prompt : {Topic::claudeFirstPrompt(window.entries), Topic::codexFirstPrompt(window.entries),
                        Topic::cursorFirstPrompt(window.entries)})
        if (prompt) (void)Topic::sanitize(*prompt);
    (void)Topic::promptText(bytes);
    return 0;
}
