#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "lumora/hooks/cursor_notes.hpp"

// Whether a note from Cursor's hook means the agent waits on the user.
namespace lumora::CursorHooks {

// Tells whether the shell command of a note visibly runs (the monitor builds
// it on the platform's process table).
using ShellAppearsRunning = std::function<bool(const CursorPending&)>;

// True when the note has waited long enough to be a prompt (8 seconds for
// "shell", 3 for other kinds; "mcp" never waits), its transcript file was not
// written more than 0.75 seconds after the note, and — for a shell command —
// the command does not appear to be running.
bool isWaiting(const CursorPending& pending, std::chrono::system_clock::time_point now,
               const ShellAppearsRunning& shellAppearsRunning = {});

// The row text of a waiting note: "Wants to use " + the tool, or
// "Cursor needs your approval" when the note names no tool.
std::string waitingSummary(const CursorPending& pending);

}  // namespace lumora::CursorHooks
