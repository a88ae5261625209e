#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "lumora/base/status.hpp"
#include "lumora/platform/file_stamp.hpp"

namespace lumora {

// The user-defaults store: typed values under plain keys in one JSON file.
//
// Every write rereads the file under an exclusive file lock, applies its one
// change and renames a fresh copy into place, so two processes that write
// different keys at once both keep their writes. Reads are served from memory
// and reloaded when the file changes on disk. A corrupt file reads as empty
// and is kept beside the new one (".corrupt") on the next write. A file that
// exists but cannot be read (permissions, a folder or a FIFO in its place) is
// never written: every write then fails and says why, and reads keep the
// values read last.
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

    // Each write says why it failed ("can't read …: Permission denied").
    Status setBool(const std::string& key, bool value);
    Status setInteger(const std::string& key, int64_t value);
    Status setReal(const std::string& key, double value);
    Status setString(const std::string& key, const std::string& value);
    Status setValue(const std::string& key, Json value);
    Status remove(const std::string& key);
    // Applies `change` to the value of `key` as it is on disk at this moment
    // (null when missing), under the file lock, and writes the result back; a
    // null result removes the key. For lists that several processes edit.
    Status update(const std::string& key, const std::function<void(Json&)>& change);
    // Removes every key, keeping the file.
    Status removeAll();
    // Removes the store's files (the file, its lock file and a set-aside
    // corrupt copy) and their folder when that is left empty: the
    // uninstaller's wipe. Reads then see an empty store.
    Status erase();

    // A copy of everything stored.
    Json snapshot() const;
    // A number that changes whenever what the store holds may have changed:
    // a write of ours, or the file changed on disk (checked now, by its
    // stamp). Cheap enough for a timer.
    uint64_t revision() const;

private:
    void refreshIfChanged() const;  // requires mutex_
    // Applies `change` to the freshest on-disk state under the file lock and writes it back.
    Status mutate(const std::function<void(Json&)>& change);
    Status writeLocked(const std::function<void(Json&)>& change);  // requires mutex_ and the file lock

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    mutable Json cache_ = Json::object();
    mutable std::optional<FileStamp> stamp_;
    mutable uint64_t revision_ = 0;
};

}  // namespace lumora
