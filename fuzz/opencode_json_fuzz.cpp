// Arbitrary bytes as the JSON columns of OpenCode's database: each line as a
// message's and a part's "data", as "session.model", and the whole input as
// the model catalogue. Nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/opencode_transcript_reader.hpp"
#include "scrivet/session_topic.hpp"

namespace OC = scrivet::OpenCodeTranscriptReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines;
    for (size_t start = 0; start <= bytes.size() && lines.size() < 64;) {
        size_t nl = bytes.find('\n', start);
        lines.emplace_back(bytes.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start));
        if (nl == std::string_view::npos) break;
        start = nl + 1;
    }
    std::vector<OC::MessageRow> messages;
    std::vector<OC::PartRow> parts;
    for (size_t i = 0; i < lines.size(); ++i) {
        const auto& line = lines[i];
        messages.push_back({line, static_cast<int64_t>(i) * 1000});
        parts.push_back({line, i + 1 < lines.size() ? lines[i + 1] : line, static_cast<int64_t>(i)});
        (void)OC::parseSessionModel(line);
        if (auto prompt = OC::promptText(line)) (void)scrivet::SessionTopic::sanitize(*prompt);
        (void)OC::subagentTask(line);
        (void)OC::isPlaceholderTitle(line);
    }
    (void)OC::turnFromMessages(messages);
    (void)OC::activityFromParts(parts, 8);
    (void)OC::lastReplyText(parts);
    if (auto catalogue = OC::ModelCatalogue::parse(bytes)) {
        for (const auto& [provider, models] : catalogue->providers)
            for (const auto& [id, spec] : models) (void)catalogue->model(provider, id);
    }
    return 0;
}
