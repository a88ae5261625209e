// Arbitrary bytes as a Codex rollout: through the tail parser, every
// derivation, the rate-limit windows of every payload, and the file-level
// reader (head, tail window, session). Nothing may crash or throw.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "scrivet/codex_transcript_reader.hpp"
#include "scrivet/tail_reader.hpp"

namespace Codex = scrivet::CodexTranscriptReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto entries = scrivet::TailReader::parseWindow(bytes, 0, 600).entries;

    (void)Codex::isInProgress(entries);
    (void)Codex::summarize(entries);
    (void)Codex::endsWithQuestion(entries);
    (void)Codex::pendingApproval(entries);
    (void)Codex::newestPrompt(entries);
    (void)Codex::firstPrompt(entries);
    (void)Codex::awaitingFirstReply(entries);
    (void)Codex::hasRealTurn(entries);
    (void)Codex::recentActivity(entries, 8);
    (void)Codex::tokenCounts(entries);
    (void)Codex::rateLimits(entries);
    if (auto model = Codex::modelId(entries)) (void)Codex::displayModel(*model);
    for (const auto& e : entries) {
        (void)Codex::userPromptText(e);
        (void)Codex::assistantText(e);
        if (auto payload = e.field("payload")) {
            (void)Codex::rateLimitsFromPayload(*payload);
            if (auto rl = scrivet::json::field(*payload, "rate_limits")) (void)Codex::rateLimitsFromPayload(*rl);
        }
    }
    (void)Codex::isInjectedUserText(bytes);
    (void)Codex::displayModel(bytes.substr(0, 64));
    (void)Codex::threadIdFromName(bytes.substr(0, 80));

    // The same bytes as a file on disk.
    static const auto file =
        std::filesystem::temp_directory_path() / ("codex-fuzz-" + std::to_string(::getpid()) + ".jsonl");
    std::ofstream(file, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(size));
    (void)Codex::header(file);
    (void)Codex::session(file);
    (void)Codex::isRollout(file);
    return 0;
}
