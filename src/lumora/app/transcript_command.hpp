#pragma once

#include <filesystem>
#include <iosfwd>

// `lumora --transcript FILE`: the facts a reader draws from one journal, as
// plain "field: value" lines, for diagnosing a real journal. A Kimi wire
// journal ("wire.jsonl") is read by the Kimi reader, with the session's
// state.json when it sits beside the journal or in its session folder; any
// other file by the Claude reader.
namespace lumora::TranscriptCommand {

// Prints the journal's TranscriptInfo and its running subagents to `out`.
// Returns 0, or 1 with one line on `err` when the file can't be read.
int run(const std::filesystem::path& file, std::ostream& out, std::ostream& err);

}  // namespace lumora::TranscriptCommand
