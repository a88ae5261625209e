#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

// Dates in the files Lumora writes: ISO 8601 in UTC with milliseconds
// ("2026-11-22T00:47:23.755Z"). Reading also accepts the form without
// milliseconds, and seconds since 1970 as a number.
namespace lumora::Dates {

using TimePoint = std::chrono::system_clock::time_point;

std::string format(TimePoint when);
std::optional<TimePoint> parse(const nlohmann::ordered_json& value);
std::optional<TimePoint> parseIso(std::string_view text);

// Seconds since 1970 as a fraction, and back.
double toSeconds(TimePoint when);
TimePoint fromSeconds(double seconds);

}  // namespace lumora::Dates
