#include "lumora/base/defaults_store.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "lumora/base/file_util.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora {

namespace {

// Reads and parses the file. `corrupt` is set when it exists, is not blank
// and is not a JSON object.
DefaultsStore::Json load(const std::filesystem::path& file, bool* corrupt = nullptr) {
    if (corrupt) *corrupt = false;
    auto text = FileUtil::readFile(file);
    if (!text) return DefaultsStore::Json::object();
    auto parsed = DefaultsStore::Json::parse(*text, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        bool blank = text->find_first_not_of(" \t\r\n") == std::string::npos;
        if (corrupt) *corrupt = !blank;
        return DefaultsStore::Json::object();
    }
    return parsed;
}

}  // namespace

DefaultsStore& DefaultsStore::shared() {
    static DefaultsStore store(Paths::defaultsFile());
    return store;
}

DefaultsStore::DefaultsStore(std::filesystem::path file) : file_(std::move(file)) {}

void DefaultsStore::refreshIfChanged() const {
    auto now = FileStamp::of(file_);
    if (now == stamp_) return;
    cache_ = load(file_);
    stamp_ = now;
}

bool DefaultsStore::contains(const std::string& key) const { return value(key).has_value(); }

std::optional<DefaultsStore::Json> DefaultsStore::value(const std::string& key) const {
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    auto it = cache_.find(key);
    if (it == cache_.end()) return std::nullopt;
    return *it;
}

std::optional<DefaultsStore::Json> DefaultsStore::tryValue(const std::string& key, bool& busy) const {
    std::unique_lock lock(mutex_, std::try_to_lock);
    busy = !lock.owns_lock();
    if (busy) return std::nullopt;
    refreshIfChanged();
    auto it = cache_.find(key);
    if (it == cache_.end()) return std::nullopt;
    return *it;
}

std::optional<bool> DefaultsStore::boolean(const std::string& key) const {
    auto v = value(key);
    if (!v) return std::nullopt;
    if (v->is_boolean()) return v->get<bool>();
    if (v->is_number()) return v->get<double>() != 0;
    return std::nullopt;
}

std::optional<int64_t> DefaultsStore::integer(const std::string& key) const {
    auto v = value(key);
    if (!v) return std::nullopt;
    if (v->is_number_integer()) return v->get<int64_t>();
    if (v->is_number_float()) {
        double d = v->get<double>();
        if (d > -9.2e18 && d < 9.2e18) return static_cast<int64_t>(d);
    }
    if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
    return std::nullopt;
}

std::optional<double> DefaultsStore::real(const std::string& key) const {
    auto v = value(key);
    if (!v || !v->is_number()) return std::nullopt;
    return v->get<double>();
}

std::optional<std::string> DefaultsStore::string(const std::string& key) const {
    auto v = value(key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}

std::optional<DefaultsStore::Json> DefaultsStore::list(const std::string& key) const {
    auto v = value(key);
    if (!v || !v->is_array()) return std::nullopt;
    return v;
}

std::optional<DefaultsStore::Json> DefaultsStore::dictionary(const std::string& key) const {
    auto v = value(key);
    if (!v || !v->is_object()) return std::nullopt;
    return v;
}

void DefaultsStore::setBool(const std::string& key, bool v) { setValue(key, Json(v)); }
void DefaultsStore::setInteger(const std::string& key, int64_t v) { setValue(key, Json(v)); }
void DefaultsStore::setReal(const std::string& key, double v) { setValue(key, Json(v)); }
void DefaultsStore::setString(const std::string& key, const std::string& v) { setValue(key, Json(v)); }

void DefaultsStore::setValue(const std::string& key, Json v) {
    mutate([&](Json& all) { all[key] = std::move(v); });
}

void DefaultsStore::remove(const std::string& key) {
    mutate([&](Json& all) { all.erase(key); });
}

void DefaultsStore::update(const std::string& key, const std::function<void(Json&)>& change) {
    mutate([&](Json& all) {
        auto it = all.find(key);
        Json value = it == all.end() ? Json() : *it;
        change(value);
        if (value.is_null()) all.erase(key);
        else all[key] = std::move(value);
    });
}

void DefaultsStore::removeAll() {
    mutate([](Json& all) { all = Json::object(); });
}

DefaultsStore::Json DefaultsStore::snapshot() const {
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    return cache_;
}

void DefaultsStore::mutate(const std::function<void(Json&)>& change) {
    std::lock_guard lock(mutex_);
    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    // The lock file outlives every writer; flock is released when it closes.
    std::string lockPath = file_.string() + ".lock";
    int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFd >= 0) {
        while (::flock(lockFd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    bool corrupt = false;
    Json all = load(file_, &corrupt);
    if (corrupt) {
        // Keep what we could not read beside the fresh file.
        std::filesystem::rename(file_, file_.string() + ".corrupt", ec);
    }
    change(all);
    FileUtil::writeAtomically(file_, all.dump(2) + "\n", 0600);
    cache_ = std::move(all);
    stamp_ = {};  // reload the stamp (and our own write) on the next read
    if (lockFd >= 0) ::close(lockFd);
}

}  // namespace lumora
