#pragma once

#include <spdlog/spdlog.h>

#include <filesystem>

// The application's log: plain text lines. The command line logs to standard
// error; the running app (terminal view or headless) logs to the log file in
// its support folder, so nothing scribbles over the screen.
namespace lumora::Log {

void toStderr(spdlog::level::level_enum level = spdlog::level::warn);
void toFile(const std::filesystem::path& file, spdlog::level::level_enum level = spdlog::level::info);
// Discards everything (benchmarks, fuzzing).
void silence();

}  // namespace lumora::Log
