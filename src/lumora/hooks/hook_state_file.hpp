#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/hooks/hook_session_state.hpp"

// hook-state.json, the bridge's saved state, and the running app's answer to
// the "state" query, which carries the same keys and a few more. Encoding and
// decoding are pure; load() reads without ever blocking.
namespace lumora::HookStateFile {

using TimePoint = std::chrono::system_clock::time_point;

// A larger file is not read (it is set aside).
inline constexpr size_t kMaxFileBytes = 4u << 20;
// What a save may take: the newest entries are kept when more would not fit.
inline constexpr size_t kWriteBudget = 2u << 20;
// Entries read from each map at most.
inline constexpr size_t kMaxEntriesPerMap = 4096;

struct Decoded {
    HookBridgeSnapshot state;
    TimePoint savedAt{};
    bool operator==(const Decoded&) const = default;
};

// The saved keys: savedAt, claudeMarkers, codexMarkers, cursorPending,
// cursorActivity, cursorModels, claudeMarkerCreatedAt, kimiMarkers,
// openCodeMarkers (busy flags and gates are not saved). One line of JSON.
std::string encode(const HookBridgeSnapshot& state, TimePoint savedAt, size_t budget = kWriteBudget);

// The saved keys back, each map read up to kMaxEntriesPerMap entries and each
// field cut to the protocol's limits; nothing when `text` is not a JSON object.
// A missing or unreadable savedAt reads as the start of the epoch (too old to restore).
std::optional<Decoded> decode(std::string_view text);

// Reads `file`: nothing when it is missing; a file that is not a regular
// file, is larger than kMaxFileBytes or is not a state file is renamed to
// "<file>.bad" with a log line, and reads as nothing.
std::optional<Decoded> load(const std::filesystem::path& file);

// The answer to "state": {"v":1,"pid":…,"state":{the saved keys, "claudeBusy":
// {id: date}, "heldGates": {id: {"gateId":…, "source":…, "shown":…}}}} and "\n".
std::string encodeStateReply(const HookBridgeSnapshot& state, TimePoint now, int32_t pid);
// Nothing when `line` is not such an answer.
std::optional<Decoded> decodeStateReply(std::string_view line);

}  // namespace lumora::HookStateFile
