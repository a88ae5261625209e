#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Turning what a user typed into the short texts a row shows.
namespace scrivet::PromptText {

inline constexpr size_t kTopicLength = 64;

// One line: markup tags and fenced code removed, whitespace collapsed.
std::string oneLine(std::string_view text);
// A row's topic from a first prompt: one line, at most `kTopicLength`
// characters, cut on a word boundary with "…"; nothing when it says nothing.
std::optional<std::string> topic(std::string_view prompt);

}  // namespace scrivet::PromptText
