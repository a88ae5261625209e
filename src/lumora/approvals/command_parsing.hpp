#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Reading the programs a shell command runs, so that an approval can be
// widened to exactly those programs and nothing else.
//
// The reading is deliberately narrow: a command is "scopable" only when every
// program it runs can be named from its text. Anything that hides, changes or
// multiplies what runs (substitutions, variable assignments, shells and other
// programs that run programs, options that run commands, writes through
// redirections, characters a terminal does not show) makes it unscopable, and
// an unscopable command is never matched by a rule: the user is asked.
namespace lumora::CommandParsing {

// The tool names whose input is a shell command line, across the agents:
// Claude Code "Bash", Codex "Bash"/"shell"/"local_shell"/"exec_command"/
// "shell_command"/"container.exec", Kimi "Shell"/"Bash", OpenCode "bash".
inline constexpr std::string_view shellToolNames[] = {"Bash",          "Shell",         "shell",
                                                      "local_shell",   "exec_command",  "bash",
                                                      "shell_command", "container.exec"};

// True when `toolName` is one of shellToolNames.
bool isShellTool(std::string_view toolName);

// Whether a word can name a program in a rule: 1 to 64 characters of
// letters, digits and "_-./+:@" (no quotes, blanks, globs or "$").
bool isPlausibleWord(std::string_view word);

// Splits a command line at "&&", "||", "|", "|&", "&", ";", newlines and
// subshell parentheses outside quotes. Single and double quotes open a string
// the same quote closes; a backslash escapes the next character. Segments are
// returned as written (untrimmed), empty ones included.
std::vector<std::string> splitSegments(std::string_view command);

// The program one segment runs ("sudo X" keeps the "sudo "; a plain "env",
// "command", "exec", "builtin" or "nohup" in front is looked through).
// Nothing for a blank segment and for one whose program cannot be named
// safely (see heads).
std::optional<std::string> headOfSegment(std::string_view segment);

// The distinct heads of a command, in order of first appearance. Nothing when
// the command is blank or when any of its programs cannot be named safely:
// substitutions (`...`, $(...), <(...), >(...)), here-documents, ANSI-C and
// locale quoting, `${...}` beyond a plain name, `$[...]`, comments, control
// characters other than tab and newline, invisible or line-separating Unicode
// characters, "|&", unbalanced quotes or parentheses, leading variable
// assignments, writes to files through redirections (only /dev/null and
// descriptor copies pass), shell words that run or redefine code (eval,
// source, alias, export, function, case, [[ ...), programs that run other
// programs (shells, xargs, nice, timeout, watch, sudo or env with options...)
// and options that run commands (git -c, find -exec, ssh with a command...).
std::optional<std::vector<std::string>> heads(std::string_view command);

}  // namespace lumora::CommandParsing
