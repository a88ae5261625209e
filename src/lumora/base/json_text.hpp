#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

// Reading and writing JSON text that comes from or goes to the outside world.
namespace lumora::JsonText {

// Deeper than any file or line we read legitimately holds.
inline constexpr int kMaxDepth = 256;

// True when arrays and objects in `text` nest deeper than `maxDepth`
// (brackets inside strings do not count). A cheap check before parsing: the
// parser recurses once per level.
bool nestedDeeperThan(std::string_view text, int maxDepth);

// The parsed value, or nothing when `text` is not JSON or nests deeper than `maxDepth`.
std::optional<nlohmann::ordered_json> parse(std::string_view text, int maxDepth = kMaxDepth);

// `value` as text; bytes that are not UTF-8 in any string are replaced
// (U+FFFD), so writing never throws. `indent` < 0 writes one line.
std::string dump(const nlohmann::ordered_json& value, int indent = -1);

}  // namespace lumora::JsonText
