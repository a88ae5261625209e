#pragma once

#include <filesystem>
#include <optional>
#include <vector>

// Finding a Python 3 interpreter to run the hook programs. Each platform
// names its own candidate locations (platform/linux/ on Linux); the chosen
// absolute path goes into every hook command, so the agents never depend on
// their own PATH.
namespace lumora::PythonLocator {

namespace fs = std::filesystem;

// The locations to try, best first, as absolute paths (only existing files).
// Linux: /usr/bin/python3, /usr/local/bin/python3, then python3 on PATH.
std::vector<fs::path> candidates();

// True when the interpreter runs "import json,socket,sys; sys.stdout.write('ok')"
// and prints exactly "ok" (within a few seconds).
bool passesProbe(const fs::path& interpreter);

// The first of `candidates` that passes the probe. Logs "Lumora: no usable
// python3 found — hook bridges unavailable" when there is no candidate, and
// "Lumora: python3 at <path> failed the import probe — hook bridges
// unavailable" for each one that fails.
std::optional<fs::path> locate(const std::vector<fs::path>& candidates);

// `locate(candidates())`, decided once per process.
std::optional<fs::path> interpreter();

}  // namespace lumora::PythonLocator
