#include "lumora/usage/codex_rate_limits.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <system_error>

#include "lumora/base/dates.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::CodexRateLimits {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kFirstTail = 256 * 1024;
constexpr size_t kLastTail = 4 * 1024 * 1024;
constexpr size_t kRolloutsTried = 3;

std::optional<double> finite(const Json& o, const char* key) {
    auto it = o.find(key);
    if (it == o.end() || !it->is_number()) return std::nullopt;
    double d = it->get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    return d;
}

std::optional<PlanUsage::Window> window(const Json& rateLimits, const char* key, std::optional<Date> eventTime) {
    auto it = rateLimits.find(key);
    if (it == rateLimits.end() || !it->is_object()) return std::nullopt;
    auto used = finite(*it, "used_percent");
    if (!used) return std::nullopt;
    PlanUsage::Window w;
    w.percentUsed = *used;
    if (auto minutes = finite(*it, "window_minutes"); minutes && *minutes > 0 && *minutes < 1e7) w.period = *minutes * 60;
    if (auto at = finite(*it, "resets_at"); at && *at > 0 && *at < 1e11) {
        w.resetsAt = Dates::fromSeconds(*at);
    } else if (auto in = finite(*it, "resets_in_seconds"); in && eventTime && *in >= 0 && *in < 1e9) {
        w.resetsAt = *eventTime + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(*in));
    }
    if (auto label = PlanUsage::windowLabel(w.period)) {
        w.label = label->label;
        w.name = label->name;
    } else {
        w.label = key;
        w.name = std::string(1, static_cast<char>(std::toupper(key[0]))) + std::string(key + 1) + " limit";
    }
    return w;
}

// Reads the last `size` bytes of a regular file; never blocks on a FIFO.
std::optional<std::string> tail(const fs::path& file, size_t size, bool* wholeFile) {
    int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    auto length = static_cast<uint64_t>(st.st_size);
    uint64_t start = length > size ? length - size : 0;
    *wholeFile = start == 0;
    std::string out(static_cast<size_t>(length - start), '\0');
    size_t done = 0;
    while (done < out.size()) {
        ssize_t n = ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(start + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    out.resize(done);
    return out;
}

// Walks the text's lines from the end and reads the first good reading.
std::optional<Reading> lastIn(std::string_view text, bool wholeFile) {
    size_t end = text.size();
    while (end > 0) {
        size_t start = text.rfind('\n', end - 1);
        size_t lineStart = start == std::string_view::npos ? 0 : start + 1;
        bool complete = lineStart > 0 || wholeFile;  // the window's first line may be cut
        std::string_view line = text.substr(lineStart, end - lineStart);
        end = start == std::string_view::npos ? 0 : start;
        // Cheap tests first: only a token count with a real window is parsed.
        if (!complete || line.find("\"token_count\"") == std::string_view::npos ||
            line.find("\"used_percent\"") == std::string_view::npos)
            continue;
        auto json = JsonText::parse(line, 32);
        if (!json || !json->is_object()) continue;
        auto payload = json->find("payload");
        if (payload == json->end() || !payload->is_object()) continue;
        auto type = payload->find("type");
        if (type == payload->end() || *type != "token_count") continue;
        auto limits = payload->find("rate_limits");
        if (limits == payload->end() || !limits->is_object()) continue;
        std::optional<Date> at;
        if (auto ts = json->find("timestamp"); ts != json->end()) at = Dates::parse(*ts);
        auto usage = fromPayload(*limits, at);
        if (!usage) continue;
        Reading r;
        r.usage = std::move(*usage);
        if (at) r.at = *at;
        return r;
    }
    return std::nullopt;
}

std::string dayFolder(const std::tm& tm) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04d/%02d/%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    return buf;
}

}  // namespace

std::optional<PlanUsage> fromPayload(const Json& rateLimits, std::optional<Date> eventTime) {
    if (!rateLimits.is_object()) return std::nullopt;
    PlanUsage usage;
    for (const char* key : {"primary", "secondary"}) {
        if (auto w = window(rateLimits, key, eventTime)) usage.windows.push_back(std::move(*w));
    }
    if (usage.windows.empty()) return std::nullopt;
    std::stable_sort(usage.windows.begin(), usage.windows.end(), [](const auto& a, const auto& b) {
        return a.period.value_or(1e18) < b.period.value_or(1e18);
    });
    if (auto plan = rateLimits.find("plan_type"); plan != rateLimits.end() && plan->is_string()) {
        std::string p = plan->get<std::string>();
        if (!p.empty() && p.size() < 40) {
            for (char& c : p)
                if (c == '_') c = ' ';
            p[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(p[0])));
            usage.planName = p;
        }
    }
    return usage;
}

std::optional<Reading> lastInRollout(const fs::path& rollout) {
    for (size_t size : {kFirstTail, kLastTail}) {
        bool whole = false;
        auto text = tail(rollout, size, &whole);
        if (!text) return std::nullopt;
        if (auto r = lastIn(*text, whole)) {
            r->rollout = rollout;
            if (r->at == Date{}) {
                std::error_code ec;
                auto mtime = fs::last_write_time(rollout, ec);
                if (!ec) r->at = std::chrono::time_point_cast<Date::duration>(std::chrono::file_clock::to_sys(mtime));
            }
            return r;
        }
        if (whole) break;
    }
    return std::nullopt;
}

std::optional<Reading> newest(const fs::path& root, Date now, int days) {
    // The folders are named by the day the rollout began, in local time or
    // UTC depending on the version: look at both, a day either side.
    std::set<std::string> folders;
    std::time_t t = std::chrono::system_clock::to_time_t(now);
    for (int d = -1; d <= days; ++d) {
        std::time_t at = t - static_cast<std::time_t>(d) * 86400;
        std::tm local{}, utc{};
        if (::localtime_r(&at, &local)) folders.insert(dayFolder(local));
        if (::gmtime_r(&at, &utc)) folders.insert(dayFolder(utc));
    }
    struct Candidate {
        fs::file_time_type mtime;
        fs::path path;
    };
    std::vector<Candidate> rollouts;
    for (const auto& folder : folders) {
        std::error_code ec;
        fs::directory_iterator it(root / folder, ec), end;
        for (; !ec && it != end; it.increment(ec)) {
            const auto& entry = *it;
            auto name = entry.path().filename().string();
            if (!name.starts_with("rollout-") || entry.path().extension() != ".jsonl") continue;
            std::error_code e2;
            if (!entry.is_regular_file(e2)) continue;
            auto mtime = entry.last_write_time(e2);
            if (e2) continue;
            rollouts.push_back({mtime, entry.path()});
        }
    }
    std::sort(rollouts.begin(), rollouts.end(), [](const Candidate& a, const Candidate& b) { return a.mtime > b.mtime; });
    for (size_t i = 0; i < rollouts.size() && i < kRolloutsTried; ++i) {
        if (auto r = lastInRollout(rollouts[i].path)) return r;
    }
    return std::nullopt;
}

fs::path sessionsRoot() {
    if (const char* home = std::getenv("CODEX_HOME"); home && *home) return fs::path(home) / "sessions";
    return Paths::codexHome() / "sessions";
}

}  // namespace lumora::CodexRateLimits
