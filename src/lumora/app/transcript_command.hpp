#pragma once

#include <filesystem>
#include <iosfwd>

// `lumora --transcript FILE`: the facts a reader draws from one journal (a
// Claude Code journal, a Codex rollout or a Cursor transcript, told by their
// first lines, or a Kimi wire journal, "wire.jsonl", read with the session's
// state.json when it sits beside it or in its session folder), as plain
// "field: value" lines under the same names for every agent, for diagnosing a
// real journal. A rollout adds its rate-limit windows.
namespace lumora::TranscriptCommand {

// Prints the journal's TranscriptInfo and its running subagents to `out`.
// Returns 0, or 1 with one line on `err` when the file can't be read.
int run(const std::filesystem::path& file, std::ostream& out, std::ostream& err);

}  // namespace lumora::TranscriptCommand
