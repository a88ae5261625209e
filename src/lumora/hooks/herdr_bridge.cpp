#include "lumora/hooks/herdr_bridge.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lumora/base/json_text.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/platform/sockets.hpp"

namespace lumora::HerdrBridge {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr const char* kSocketName = "herdr.sock";
constexpr size_t kMaxReply = 1 << 20;

bool isSocket(const fs::path& p) {
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

std::optional<int32_t> pidOf(const Json& v) {
    if (v.is_number_integer()) {
        auto n = v.get<long long>();
        if (n > 0 && n <= INT32_MAX) return static_cast<int32_t>(n);
    }
    return std::nullopt;
}

std::optional<PaneProcessInfo> paneOf(const Json& j) {
    if (!j.is_object()) return std::nullopt;
    PaneProcessInfo p;
    auto id = j.find("pane_id");
    if (id == j.end()) return std::nullopt;
    if (id->is_string()) p.paneID = id->get<std::string>();
    else if (id->is_number_integer()) p.paneID = std::to_string(id->get<long long>());
    else return std::nullopt;
    if (auto shell = j.find("shell_pid"); shell != j.end()) p.shellPid = pidOf(*shell);
    if (auto fg = j.find("foreground_processes"); fg != j.end() && fg->is_array()) {
        for (const auto& f : *fg) {
            if (!f.is_object()) continue;
            auto pid = f.contains("pid") ? pidOf(f["pid"]) : std::nullopt;
            if (!pid) continue;
            ForegroundProcess fp;
            fp.pid = *pid;
            if (auto a = f.find("argv0"); a != f.end() && a->is_string()) fp.argv0 = a->get<std::string>();
            p.foregroundProcesses.push_back(std::move(fp));
        }
    }
    return p;
}

int remainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

bool isHerdrProcess(std::string_view program) {
    size_t slash = program.rfind('/');
    std::string_view base = slash == std::string_view::npos ? program : program.substr(slash + 1);
    return base == "herdr" || base == "herdrctl";
}

fs::path defaultConfigRoot() {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    fs::path config = xdg && *xdg ? fs::path(xdg) : Paths::home() / ".config";
    return config / "herdr";
}

std::vector<fs::path> socketCandidates(const Lookup& env, const fs::path& defaultRoot) {
    std::vector<fs::path> tried;
    if (auto socket = env("HERDR_SOCKET_PATH"); !socket.empty()) tried.emplace_back(socket);
    if (auto config = env("HERDR_CONFIG_PATH"); !config.empty())
        tried.push_back(fs::path(config).parent_path() / kSocketName);
    tried.push_back(defaultRoot / kSocketName);
    std::vector<fs::path> out;
    for (const auto& p : tried) {
        if (p.filename() != kSocketName || !isSocket(p)) continue;
        if (std::find(out.begin(), out.end(), p) == out.end()) out.push_back(p);
    }
    return out;
}

std::string processInfoRequest(const std::optional<std::string>& paneID) {
    Json params = Json::object();
    if (paneID) params["pane_id"] = *paneID;
    Json j = {{"id", "notch"}, {"method", "pane.process_info"}, {"params", params}};
    return JsonText::dump(j) + "\n";
}

std::string focusRequest(const std::string& paneID) {
    Json j = {{"id", "notch"}, {"method", "pane.focus"}, {"params", {{"pane_id", paneID}}}};
    return JsonText::dump(j) + "\n";
}

std::optional<std::vector<PaneProcessInfo>> parseProcessInfo(std::string_view line) {
    auto j = JsonText::parse(line, 32);
    if (!j || !j->is_object() || j->contains("error")) return std::nullopt;
    auto result = j->find("result");
    if (result == j->end()) return std::nullopt;
    const Json* list = nullptr;
    if (result->is_array()) list = &*result;
    else if (result->is_object() && result->contains("panes") && (*result)["panes"].is_array()) list = &(*result)["panes"];
    std::vector<PaneProcessInfo> out;
    if (list) {
        for (const auto& p : *list) {
            if (auto pane = paneOf(p)) out.push_back(std::move(*pane));
        }
        return out;
    }
    auto pane = paneOf(*result);
    if (!pane) return std::nullopt;
    out.push_back(std::move(*pane));
    return out;
}

bool isSuccess(std::string_view line) {
    auto j = JsonText::parse(line, 32);
    return j && j->is_object() && j->contains("result") && !j->contains("error");
}

bool holds(const PaneProcessInfo& pane, int32_t pid, const std::vector<int32_t>& lineage) {
    for (const auto& f : pane.foregroundProcesses) {
        if (f.pid == pid) return true;
    }
    if (!pane.shellPid) return false;
    if (*pane.shellPid == pid) return true;
    return std::find(lineage.begin(), lineage.end(), *pane.shellPid) != lineage.end();
}

std::optional<std::string> exchange(const fs::path& socket, const std::string& request,
                                    std::chrono::milliseconds timeout, std::string* why) {
    auto fail = [&](std::string reason) -> std::optional<std::string> {
        if (why) *why = std::move(reason);
        return std::nullopt;
    };
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket.native().size() >= sizeof addr.sun_path) return fail("socket path too long");
    std::memcpy(addr.sun_path, socket.c_str(), socket.native().size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return fail(std::strerror(errno));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    auto deadline = Clock::now() + timeout;
    auto waitFor = [&](short events) {
        for (;;) {
            pollfd p{fd, events, 0};
            int r = ::poll(&p, 1, remainingMs(deadline));
            if (r < 0 && errno == EINTR) continue;
            return r > 0;
        }
    };
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (errno != EINPROGRESS && errno != EAGAIN) return fail(std::string("cannot connect: ") + std::strerror(errno));
        if (!waitFor(POLLOUT)) return fail("no answer to connect");
        int err = 0;
        socklen_t len = sizeof err;
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) return fail(std::string("cannot connect: ") + std::strerror(err));
    }
    size_t sent = 0;
    while (sent < request.size()) {
        ssize_t n = Sockets::sendNoSignal(fd, request.data() + sent, request.size() - sent);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && waitFor(POLLOUT)) continue;
        return fail("cannot send the request");
    }
    std::string reply;
    char buf[4096];
    for (;;) {
        if (size_t nl = reply.find('\n'); nl != std::string::npos) return reply.substr(0, nl);
        if (reply.size() > kMaxReply) return fail("reply line too long");
        if (!waitFor(POLLIN)) return fail("no reply within " + std::to_string(timeout.count()) + " ms");
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) break;
        reply.append(buf, static_cast<size_t>(n));
    }
    if (reply.empty()) return fail("closed without a reply");
    return reply;  // the server closed after a last line without its newline
}

std::optional<Location> locate(int32_t pid, const std::vector<int32_t>& lineage, const std::vector<fs::path>& sockets,
                               const std::optional<std::string>& paneHint, std::vector<std::string>& log,
                               std::chrono::milliseconds timeout) {
    for (const auto& socket : sockets) {
        std::string why;
        auto reply = exchange(socket, processInfoRequest(paneHint), timeout, &why);
        if (!reply) {
            log.push_back("herdr " + socket.string() + " → error/empty: " + why);
            continue;
        }
        auto panes = parseProcessInfo(*reply);
        if (!panes) {
            log.push_back("herdr " + socket.string() + " → error/empty: " + std::string(reply->substr(0, 120)));
            continue;
        }
        for (const auto& pane : *panes) {
            if (holds(pane, pid, lineage)) return Location{pane.paneID, socket};
        }
        log.push_back("herdr " + socket.string() + ": no pane of " + std::to_string(panes->size()) + " holds pid " +
                      std::to_string(pid));
    }
    return std::nullopt;
}

bool focus(const Location& location, std::vector<std::string>& log, std::chrono::milliseconds timeout) {
    std::string why;
    auto reply = exchange(location.socket, focusRequest(location.paneID), timeout, &why);
    if (!reply) {
        log.push_back("herdr focus of pane " + location.paneID + " → error/empty: " + why);
        return false;
    }
    if (!isSuccess(*reply)) {
        log.push_back("herdr focus of pane " + location.paneID + " → error/empty: " + std::string(reply->substr(0, 120)));
        return false;
    }
    log.push_back("herdr pane " + location.paneID + " focused on " + location.socket.string());
    return true;
}

}  // namespace lumora::HerdrBridge
