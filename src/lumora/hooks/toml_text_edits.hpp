#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Line-level edits of TOML files that keep every byte the user wrote: a table
// is found by its header line, a key by its line inside the table, and what
// we add is appended as a block of its own (one blank line before it) that
// the matching removal takes out again, blank line included. Lines we add end
// the way the file's lines end ("\r\n" in a file written that way).
namespace lumora::TomlTextEdits {

// True when the text parses as TOML.
bool isValid(std::string_view text);

// A TOML basic string literal: "…" with backslashes, quotes and control characters escaped.
std::string basicString(std::string_view value);

// A header line without whitespace outside quotes and without its comment,
// e.g. `[ hooks.state."x" ] # c` → `[hooks.state."x"]`; empty for a non-header line.
std::string normalisedHeader(std::string_view line);

// Sets `key = value` (value already a TOML literal) in the table whose
// normalised header is `header`: replaces the key's line when the table has
// one, inserts it after the header otherwise, and appends the table as a new
// block when there is none.
std::string setKey(std::string_view text, const std::string& header, const std::string& key, const std::string& value);

// Removes the key's line from the table; when the table is left without any
// key, removes its header and the one blank line before it too.
std::string removeKey(std::string_view text, const std::string& header, const std::string& key);

// The key's value text (as written, comment stripped) in the table, if present.
std::optional<std::string> keyValue(std::string_view text, const std::string& header, const std::string& key);

// True when the file has a table with this normalised header.
bool hasTable(std::string_view text, const std::string& header);

// Inserts `line` (without newline) right after the table's header line, or
// appends "<header>\n<line>\n" as a new block when there is no such table.
std::string insertInTable(std::string_view text, const std::string& header, const std::string& line);

// Removes every line equal to `line` (ignoring surrounding whitespace).
std::string removeLine(std::string_view text, std::string_view line);

// Removes the table with this header, with the blank line before it, when it holds no line but blanks.
std::string removeTableIfEmpty(std::string_view text, const std::string& header);

// The text's line ending: "\r\n" when its first line ends so, else "\n".
std::string lineEnding(std::string_view text);

// Appends a block (lines ending in "\n", written with the text's own line
// ending), separated by one blank line from what precedes it; a text without
// a final newline gets one first.
std::string appendBlock(std::string_view text, std::string_view block);

}  // namespace lumora::TomlTextEdits
