#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "lumora/platform/login_item.hpp"
#include "lumora/platform/paths.hpp"

namespace lumora::LoginItem {

namespace {

// One argument of an Exec= line: quoted when it holds anything the desktop
// entry format reserves, with the characters that stay special inside quotes
// escaped. The value as a whole then escapes its backslashes once more.
std::string execArgument(const std::string& arg) {
    bool plain = !arg.empty() && arg.find_first_of(" \t\n\"'\\><~|&;$*?#()`=%") == std::string::npos;
    std::string quoted;
    if (plain) {
        quoted = arg;
    } else {
        quoted = "\"";
        for (char c : arg) {
            if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
            quoted += c;
        }
        quoted += "\"";
    }
    std::string value;
    for (char c : quoted) {
        if (c == '\\') value += "\\\\";
        else if (c == '%') value += "%%";
        else if (c == '\n') value += "\\n";
        else value += c;
    }
    return value;
}

std::string describe(const std::error_code& ec) { return ec.message(); }

}  // namespace

std::string entryText(const fs::path& program) {
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Lumora\n"
           "Comment=Watches the AI coding agents on this machine\n"
           "Exec=" + execArgument(program.string()) + "\n"
           "Icon=lumora\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

fs::path thisProgram() {
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) return self;
    return fs::absolute("lumora", ec);
}

bool enabled() {
    std::error_code ec;
    return fs::is_regular_file(Paths::loginItemFile(), ec);
}

std::optional<std::string> enable(const fs::path& program) {
    fs::path file = Paths::loginItemFile();
    fs::path folder = file.parent_path();
    std::error_code ec;
    if (fs::exists(folder, ec) && !fs::is_directory(folder, ec))
        return "can't write " + file.string() + ": " + folder.string() + " is not a folder";
    fs::create_directories(folder, ec);
    if (ec) return "can't create " + folder.string() + ": " + describe(ec);
    if (fs::is_directory(file, ec)) return "can't write " + file.string() + ": it is a folder";

    // Written beside the entry and renamed over it, so a failure leaves no half entry.
    std::string text = entryText(program);
    fs::path temp = folder / (".lumora.desktop." + std::to_string(::getpid()));
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return "can't write " + file.string() + ": " + std::strerror(errno);
    size_t done = 0;
    int error = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (::close(fd) != 0 && error == 0) error = errno;
    if (error == 0 && ::rename(temp.c_str(), file.c_str()) != 0) error = errno;
    if (error != 0) {
        ::unlink(temp.c_str());
        return "can't write " + file.string() + ": " + std::strerror(error);
    }
    return std::nullopt;
}

std::optional<std::string> disable() {
    fs::path file = Paths::loginItemFile();
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(file, ec))) return std::nullopt;
    if (fs::is_directory(fs::symlink_status(file, ec))) return "can't remove " + file.string() + ": it is a folder";
    fs::remove(file, ec);
    if (ec) return "can't remove " + file.string() + ": " + describe(ec);
    return std::nullopt;
}

}  // namespace lumora::LoginItem
