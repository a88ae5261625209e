#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "scrivet/journal_entry.hpp"

// Reading only the end of a journal. Journals grow to hundreds of megabytes
// and are read on every tick, so a reader looks at a window at the file's end:
// 64 KiB first, grown eightfold (512 KiB, then 4 MiB) while the window holds no
// "user" or "assistant" entry and does not reach the file's beginning. The
// growth exists for one giant tool result at the end that would otherwise
// hide every real turn.
namespace scrivet::TailReader {

inline constexpr uint64_t kFirstWindow = 64 * 1024;
inline constexpr uint64_t kMaxWindow = 4 * 1024 * 1024;

// Decides, from an entry's "type", whether the caller wants the entry kept.
// Entries it rejects are still looked at for the window's growth decision.
using TypeFilter = std::function<bool(std::string_view type)>;

struct Window {
    std::vector<JournalEntry> entries;  // oldest first
    uint64_t start = 0;                 // offset of the window in the file
    uint64_t fileSize = 0;
    bool hasConversation = false;       // a "user" or "assistant" entry was seen
};

// Reads the tail window of `file` and returns the JSON objects among its last
// `lineLimit` lines, oldest first. A missing or unreadable file gives an empty
// window. Never throws.
Window read(const std::filesystem::path& file, size_t lineLimit, const TypeFilter& keep = {});

// Convenience: only the entries.
std::vector<JournalEntry> entries(const std::filesystem::path& file, size_t lineLimit,
                                  const TypeFilter& keep = {});

// Parses one window's bytes (the part of a file from `baseOffset` on). The
// bytes need not be valid UTF-8; a broken first line is skipped.
Window parseWindow(std::string_view bytes, uint64_t baseOffset, size_t lineLimit,
                   const TypeFilter& keep = {});

// Replaces every invalid UTF-8 sequence with U+FFFD. Returns false when the
// text was already valid (and leaves it untouched).
bool repairUtf8(std::string& text);

}  // namespace scrivet::TailReader
