#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

// Removing our entries from an agent's JSON configuration by cutting them out
// of the text, so everything else keeps the bytes the user wrote: their
// indentation, spacing, key order and line endings.
namespace lumora::JsonTextEdits {

using Json = nlohmann::ordered_json;

// The text without the entries of the lists under the top-level "hooks"
// object for which `isOurs` is true; a list that this empties goes from
// "hooks", and "hooks" goes when that empties it. Each entry goes with the
// comma and the whitespace that separated it from its neighbour. Nothing when
// the text is not a JSON object of that shape or nests deeper than
// `maxDepth`; the result is checked to parse to `expected` (the same edit
// made on the parsed object), and nothing is returned when it does not.
std::optional<std::string> removingEntries(std::string_view text, const std::function<bool(const Json&)>& isOurs,
                                           const Json& expected, int maxDepth);

}  // namespace lumora::JsonTextEdits
