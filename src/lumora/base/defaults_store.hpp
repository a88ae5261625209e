#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "lumora/platform/file_stamp.hpp"

namespace lumora {

// The user-defaults store: typed values under plain keys in one JSON file.
//
// Every write rereads the file under an exclusive file lock, applies its one
// change and renames a fresh copy into place, so two processes that write
// different keys at once both keep their writes. Reads are served from memory
// and reloaded when the file changes on disk. A corrupt file reads as empty
// and is kept beside the new one (".corrupt") on the next write.
class DefaultsStore {
public:
    using Json = nlohmann::ordered_json;

    // The store at the platform's defaults location.
    static DefaultsStore& shared();

    explicit DefaultsStore(std::filesystem::path file);

    const std::filesystem::path& file() const { return file_; }

    bool contains(const std::string& key) const;
    // The stored value of any type; nothing when the key is missing.
    std::optional<Json> value(const std::string& key) const;

    // Typed reads return nothing for a missing key or a value of another type.
    // A number reads as a boolean (non-zero) and integers and doubles convert,
    // as platform defaults do.
    std::optional<bool> boolean(const std::string& key) const;
    std::optional<int64_t> integer(const std::string& key) const;
    std::optional<double> real(const std::string& key) const;
    std::optional<std::string> string(const std::string& key) const;
    std::optional<Json> list(const std::string& key) const;        // a JSON array
    std::optional<Json> dictionary(const std::string& key) const;  // a JSON object

    // Like value(), but never waits: when another thread of this process is
    // writing (a write may itself wait on another process's file lock),
    // `busy` is set and nothing is returned.
    std::optional<Json> tryValue(const std::string& key, bool& busy) const;

    void setBool(const std::string& key, bool value);
    void setInteger(const std::string& key, int64_t value);
    void setReal(const std::string& key, double value);
    void setString(const std::string& key, const std::string& value);
    void setValue(const std::string& key, Json value);
    void remove(const std::string& key);
    // Applies `change` to the value of `key` as it is on disk at this moment
    // (null when missing), under the file lock, and writes the result back; a
    // null result removes the key. For lists that several processes edit.
    void update(const std::string& key, const std::function<void(Json&)>& change);
    // Removes every key (the uninstaller's wipe).
    void removeAll();

    // A copy of everything stored.
    Json snapshot() const;

private:
    void refreshIfChanged() const;  // requires mutex_
    // Applies `change` to the freshest on-disk state under the file lock and writes it back.
    void mutate(const std::function<void(Json&)>& change);

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    mutable Json cache_ = Json::object();
    mutable std::optional<FileStamp> stamp_;
};

}  // namespace lumora
