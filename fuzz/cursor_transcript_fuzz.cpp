// Arbitrary bytes as a Cursor agent transcript: through the tail parser,
// every derivation, the path finding, and the file-level reader. Nothing may
// crash or throw.
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "scrivet/cursor_transcript_reader.hpp"
#include "scrivet/tail_reader.hpp"

namespace Cursor = scrivet::CursorTranscriptReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto entries = scrivet::TailReader::parseWindow(bytes, 0, 400).entries;

    (void)Cursor::isInProgress(entries);
    (void)Cursor::pendingApproval(entries);
    (void)Cursor::askQuestion(entries);
    (void)Cursor::pendingCommand(entries);
    (void)Cursor::endsWithQuestion(entries);
    (void)Cursor::awaitingFirstReply(entries);
    (void)Cursor::hasRealTurn(entries);
    (void)Cursor::wasInterrupted(entries);
    (void)Cursor::summarize(entries);
    (void)Cursor::recentActivity(entries, 8);
    (void)Cursor::newestPrompt(entries);
    (void)Cursor::firstPrompt(entries);
    (void)Cursor::userQuery(bytes);
    (void)Cursor::approvalClass(bytes.substr(0, 32));
    auto folder = Cursor::encodedDirName(bytes.substr(0, 40));
    (void)Cursor::cwdFromText(bytes, folder);

    static const auto dir =
        std::filesystem::temp_directory_path() / ("cursor-fuzz-" + std::to_string(::getpid()));
    static const auto file = dir / "agent-transcripts" / "c0ffee00-1111-4222-8333-944445555666.jsonl";
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(size));
    (void)Cursor::isTranscript(file);
    (void)Cursor::session(file, "/tmp/project", std::chrono::system_clock::now());
    return 0;
}
