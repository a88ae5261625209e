#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace lumora {

// A tool call Cursor's agent is about to make, as its hook reported it; it may
// be waiting on the user's approval.
struct CursorPending {
    std::string conversationId;
    std::string cwd;
    std::string command;  // at most 200 characters
    std::string kind;     // "shell", "mcp" or "tool"
    std::string toolName;
    double ts = 0;  // seconds since 1970, as sent
    std::string transcriptPath;

    nlohmann::ordered_json toJson() const;
    static std::optional<CursorPending> fromJson(const nlohmann::ordered_json& json);
    bool operator==(const CursorPending&) const = default;
};

// What Cursor's agent is doing right now, as its hook reported it.
struct CursorActivity {
    std::string conversationId;
    std::string cwd;
    std::string status;  // "shell", "tool", "editing", "running"
    std::string title;   // at most 120 characters
    double ts = 0;       // seconds since 1970, as sent

    nlohmann::ordered_json toJson() const;
    static std::optional<CursorActivity> fromJson(const nlohmann::ordered_json& json);
    bool operator==(const CursorActivity&) const = default;
};

}  // namespace lumora
