#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// Small file helpers shared by everything that writes state.
namespace lumora::FileUtil {

// The whole file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::filesystem::path& file);

// Writes `contents` to a temporary file in the same folder, syncs it and
// renames it over `file`, so readers see the old or the new file, never a
// torn one. When `file` is a symbolic link the link stays and its target is
// replaced. A new file gets `mode`; an existing one keeps its permissions.
// Returns false on failure (and leaves `file` untouched).
bool writeAtomically(const std::filesystem::path& file, std::string_view contents, unsigned mode = 0644);

// Appends one line (a newline is added) to a log file, creating it with mode 0600.
void appendLine(const std::filesystem::path& file, std::string_view line);

}  // namespace lumora::FileUtil
