#pragma once

#include <filesystem>
#include <optional>
#include <string>

// Starting Lumora when the user logs in. On Linux this is an XDG autostart
// entry (Paths::loginItemFile()) that runs this very program without a
// terminal: the desktop front end when there is a display, else the
// headless service. Whether it is on is whether the entry is there.
namespace lumora::LoginItem {

namespace fs = std::filesystem;

bool enabled();
// Writes the entry to run `program`; returns why it could not (nothing else
// is touched then).
std::optional<std::string> enable(const fs::path& program);
// Removes the entry; returns why it could not. Absent is fine.
std::optional<std::string> disable();

// The entry's text for `program`.
std::string entryText(const fs::path& program);
// The absolute path of the running program.
fs::path thisProgram();

}  // namespace lumora::LoginItem
