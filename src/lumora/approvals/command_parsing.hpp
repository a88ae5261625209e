#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Reading the programs a shell command runs, so that an approval can be
// widened to exactly those programs and nothing else.
namespace lumora::CommandParsing {

// The tool names whose input is a shell command line.
inline constexpr std::string_view shellToolNames[] = {"Bash", "Shell", "shell", "local_shell", "exec_command"};

// True when `toolName` is one of shellToolNames.
bool isShellTool(std::string_view toolName);

// Splits a command line at "&&", "||", "|", ";" and newlines outside quotes.
// Single and double quotes open a string the same quote closes; a backslash
// escapes the next character. Segments are returned as written (untrimmed),
// empty ones included.
std::vector<std::string> splitSegments(std::string_view command);

// The program a segment runs: the first word after a leading "env" and any
// variable assignments; "sudo X" keeps the "sudo ". Nothing for a blank segment.
std::optional<std::string> headOfSegment(std::string_view segment);

// The distinct heads of a command, in order of first appearance. Nothing when
// the command is blank or hides what it runs (`...`, $(...), <(...), >(...), here-documents).
std::optional<std::vector<std::string>> heads(std::string_view command);

}  // namespace lumora::CommandParsing
