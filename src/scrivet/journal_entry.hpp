#pragma once

#include <simdjson.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace scrivet {

// One parsed journal line: a JSON object that owns its parsed form, so it
// stays valid after the window it came from is gone.
class JournalEntry {
public:
    JournalEntry(std::unique_ptr<simdjson::dom::document> doc, uint64_t offset);

    simdjson::dom::object object() const;
    // The entry's root value (always an object).
    simdjson::dom::element root() const { return doc_->root(); }
    // The entry's "type" value, or "" when it has none.
    std::string_view type() const;
    // Byte offset of the line in its file.
    uint64_t offset() const { return offset_; }

    std::optional<std::string_view> string(std::string_view key) const;
    std::optional<int64_t> integer(std::string_view key) const;
    std::optional<bool> boolean(std::string_view key) const;
    std::optional<simdjson::dom::element> field(std::string_view key) const;

private:
    std::unique_ptr<simdjson::dom::document> doc_;
    uint64_t offset_ = 0;
};

// Small accessors over simdjson values that return nothing on a wrong type.
namespace json {
std::optional<simdjson::dom::element> field(simdjson::dom::element e, std::string_view key);
std::optional<std::string_view> string(simdjson::dom::element e);
std::optional<std::string_view> string(simdjson::dom::element e, std::string_view key);
std::optional<int64_t> integer(simdjson::dom::element e);
std::optional<int64_t> integer(simdjson::dom::element e, std::string_view key);
std::optional<bool> boolean(simdjson::dom::element e, std::string_view key);
std::optional<simdjson::dom::array> array(simdjson::dom::element e, std::string_view key);
std::optional<simdjson::dom::object> object(simdjson::dom::element e, std::string_view key);
}  // namespace json

// Parses an ISO 8601 time stamp ("2026-11-22T00:47:23.755Z", with or without
// fractional seconds, "Z" or a numeric offset).
std::optional<std::chrono::system_clock::time_point> parseIsoDate(std::string_view text);

}  // namespace scrivet
