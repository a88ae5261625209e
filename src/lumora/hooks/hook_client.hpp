#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// The asking end of the hook socket, for Lumora itself: whether another
// instance serves the socket, and what a running app knows.
namespace lumora::HookClient {

struct Who {
    enum class Kind {
        nobody,  // no socket file, or nobody listens on it (a stale file)
        lumora,  // a running Lumora answered, with its pid
        other,   // something accepts connections there but did not answer
    };
    Kind kind = Kind::nobody;
    int32_t pid = 0;
    bool operator==(const Who&) const = default;
};

// Asks whoever serves `socket` who it is.
Who who(const std::filesystem::path& socket, std::chrono::milliseconds timeout = std::chrono::seconds(1));

// Sends one request line and returns the first line of the reply (without
// its "\n"); nothing when nobody answers within `timeout`.
std::optional<std::string> ask(const std::filesystem::path& socket, std::string_view requestLine,
                               std::chrono::milliseconds timeout);

}  // namespace lumora::HookClient
