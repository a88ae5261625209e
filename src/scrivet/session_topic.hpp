#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// A short topic for a session row: the agent's own title when it has one,
// else the user's first prompt, cleaned of markup and cut to fit.
namespace scrivet::SessionTopic {

inline constexpr size_t maxLength = 64;

// The prompt as a one-line topic: markup tags, reminder blocks and fenced code
// removed, a slash command reduced to its argument, markdown marks stripped,
// whitespace collapsed, and cut to `maxLength` on a word boundary (ending in
// "…"). Nothing when what is left says nothing (a "/clear" echo, a task
// notification, a continued-session preamble, an image paste, a bare slash
// command, a hook echo).
std::optional<std::string> sanitize(std::string_view prompt);

// At most `limit` characters, cut on a word boundary and ending in "…" when cut.
std::string truncated(std::string_view text, size_t limit);

// The row's topic: the agent's own title unless it sanitises to nothing, else
// the sanitised first prompt, else nothing.
std::optional<std::string> label(const std::optional<std::string>& givenTitle,
                                 const std::optional<std::string>& rawPrompt);

}  // namespace scrivet::SessionTopic
