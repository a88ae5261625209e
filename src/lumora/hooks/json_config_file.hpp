#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/base/status.hpp"

// Reading and writing the agents' JSON configuration files (settings.json,
// hooks.json) without disturbing what the agent or the user wrote: key order
// is kept, the file's own indentation and final newline are reproduced, a
// backup is taken before a change, and a write that changes nothing does not
// touch the file.
namespace lumora::JSONConfigFile {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

struct Contents {
    enum class Kind { missing, object, unreadable };
    Kind kind = Kind::missing;
    Json object = Json::object();  // the parsed object when kind is `object`
    std::string text;              // the file's bytes as read (empty when missing)
    std::string why;               // why it is unreadable: "isn't valid JSON", "Permission denied"…

    // The object to merge into: empty for a missing file, the object for an
    // object, nothing for an unreadable file (which must never be written).
    std::optional<Json> mergeable() const;
    bool operator==(const Contents&) const = default;
};

// Deeper than any configuration file legitimately nests; a deeper file is unreadable.
inline constexpr int kMaxDepth = 256;

// Reads a file (never blocking, regular files only): `missing` for no file,
// an empty file or only whitespace; `object` for a JSON object (a trailing
// comma before `}` or `]` is tolerated); `unreadable` for anything else
// (comments, truncation, a top-level array or scalar, invalid UTF-8, nesting
// deeper than `kMaxDepth`, a file that exists but cannot be read, a link to
// nothing).
Contents load(const fs::path& file);

// Parses text the way `load` parses a file's contents.
Contents parse(std::string_view text);

// The copy of a file's previous contents kept before a change: the same path
// with ".notch-backup" appended.
fs::path backupURL(const fs::path& file);

struct WriteOptions {
    // The text whose layout (indent unit, final newline, CRLF line ends) the
    // output follows; when empty, two spaces and a final newline.
    std::string layoutFrom;
};

// The bytes `write` would put on disk for this object.
std::string serialise(const Json& object, const WriteOptions& options = {});

// Serialises `object`; when the bytes equal the file's current contents does
// nothing (and leaves any backup alone); otherwise copies the existing file to
// `backupURL(file)` and replaces the file atomically (through a symbolic link
// to its target). A new file gets no backup. A file that exists but cannot be
// read is never written. The status says why a write failed.
Status write(const Json& object, const fs::path& file, const WriteOptions& options = {});

// Writes exact bytes with the same backup and no-op rules as `write`.
Status writeText(std::string_view text, const fs::path& file);

}  // namespace lumora::JSONConfigFile
