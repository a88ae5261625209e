#include "lumora/base/defaults_store.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora {

namespace {

bool isBlank(const std::string& text) { return text.find_first_not_of(" \t\r\n") == std::string::npos; }

// The file's object; an empty one for a blank file or one that is not a JSON object (`corrupt` then says
// so). Nothing when the file exists but cannot be read: it may hold settings we must not lose.
struct Loaded {
    FileUtil::ReadResult read;
    DefaultsStore::Json object = DefaultsStore::Json::object();
    bool corrupt = false;
};

Loaded load(const std::filesystem::path& file) {
    Loaded l{FileUtil::read(file)};
    if (!l.read.ok() || isBlank(l.read.text)) return l;
    auto parsed = JsonText::parse(l.read.text);
    if (parsed && parsed->is_object()) l.object = std::move(*parsed);
    else l.corrupt = true;
    return l;
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
    auto loaded = load(file_);
    // A file we cannot read now keeps the values we read last.
    if (loaded.read.ok() || loaded.read.missing()) cache_ = std::move(loaded.object);
    stamp_ = now;
    ++revision_;
}

uint64_t DefaultsStore::revision() const {
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    return revision_;
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

Status DefaultsStore::setBool(const std::string& key, bool v) { return setValue(key, Json(v)); }
Status DefaultsStore::setInteger(const std::string& key, int64_t v) { return setValue(key, Json(v)); }
Status DefaultsStore::setReal(const std::string& key, double v) { return setValue(key, Json(v)); }
Status DefaultsStore::setString(const std::string& key, const std::string& v) { return setValue(key, Json(v)); }

Status DefaultsStore::setValue(const std::string& key, Json v) {
    return mutate([&](Json& all) { all[key] = std::move(v); });
}

Status DefaultsStore::remove(const std::string& key) {
    return mutate([&](Json& all) { all.erase(key); });
}

Status DefaultsStore::update(const std::string& key, const std::function<void(Json&)>& change) {
    return mutate([&](Json& all) {
        auto it = all.find(key);
        Json value = it == all.end() ? Json() : *it;
        change(value);
        if (value.is_null()) all.erase(key);
        else all[key] = std::move(value);
    });
}

Status DefaultsStore::removeAll() {
    return mutate([](Json& all) { all = Json::object(); });
}

DefaultsStore::Json DefaultsStore::snapshot() const {
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    return cache_;
}

Status DefaultsStore::mutate(const std::function<void(Json&)>& change) {
    std::lock_guard lock(mutex_);
    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    if (ec) return Status::failure("can't create " + file_.parent_path().string() + ": " + ec.message());
    // The lock file outlives every writer; flock is released when it closes.
    std::string lockPath = file_.string() + ".lock";
    int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
    if (lockFd >= 0) {
        while (::flock(lockFd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    Status status = writeLocked(change);
    if (lockFd >= 0) ::close(lockFd);
    return status;
}

Status DefaultsStore::writeLocked(const std::function<void(Json&)>& change) {
    auto loaded = load(file_);
    if (!loaded.read.ok() && !loaded.read.missing()) {
        // Never replace what we could not read: it may hold every setting and rule the user has.
        return Status::failure("can't read " + file_.string() + ": " + loaded.read.why);
    }
    if (loaded.corrupt) {
        // Keep what we could not parse beside the fresh file.
        std::error_code ec;
        std::filesystem::rename(file_, file_.string() + ".corrupt", ec);
        if (ec) return Status::failure("can't set aside the unreadable " + file_.string() + ": " + ec.message());
    }
    Json all = std::move(loaded.object);
    change(all);
    Status written = FileUtil::writeAtomically(file_, JsonText::dump(all, 2) + "\n", 0600);
    if (!written) return Status::failure("can't write " + file_.string() + ": " + written.why);
    cache_ = std::move(all);
    stamp_ = {};  // reload the stamp (and our own write) on the next read
    return written;
}

Status DefaultsStore::erase() {
    std::lock_guard lock(mutex_);
    std::string failed;
    for (const std::string& suffix : {std::string(), std::string(".lock"), std::string(".corrupt")}) {
        std::filesystem::path p = file_.string() + suffix;
        std::error_code ec;
        std::filesystem::remove(p, ec);
        if (ec && failed.empty()) failed = "can't remove " + p.string() + ": " + ec.message();
    }
    // The folder is ours (we made it for this file); it goes when nothing else is left in it.
    std::error_code ec;
    if (std::filesystem::is_empty(file_.parent_path(), ec) && !ec) std::filesystem::remove(file_.parent_path(), ec);
    cache_ = Json::object();
    stamp_ = {};
    return failed.empty() ? Status::success() : Status::failure(failed);
}

}  // namespace lumora
