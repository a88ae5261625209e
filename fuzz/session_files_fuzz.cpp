// Arbitrary bytes as the small files the monitor reads beside the journals:
// a Claude Code session index file, and the head of a journal that may name
// an SDK entrypoint. Nothing may crash or throw; a record that parses is
// always one the index could have written.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "lumora/monitor/claude_session_index.hpp"
#include "lumora/monitor/sdk_sessions.hpp"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (auto record = ClaudeSessionIndex::parse(bytes)) {
        if (record->pid <= 0 || !ClaudeSessionIndex::isUUID(record->sessionId) || record->cwd.empty() ||
            record->cwd.front() != '/')
            __builtin_trap();
    }
    static const fs::path dir = [] {
        auto d = fs::temp_directory_path() / ("session-files-fuzz-" + std::to_string(::getpid()));
        fs::create_directories(d / "sessions");
        return d;
    }();
    {
        std::ofstream out(dir / "head.jsonl", std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    (void)SDKSessionReader::readHead(dir / "head.jsonl");
    fs::copy_file(dir / "head.jsonl", dir / "sessions" / "1.json", fs::copy_options::overwrite_existing);
    (void)ClaudeSessionIndex::read(dir / "sessions");
    return 0;
}
