#pragma once

// A real X display for the desktop front end's tests: a virtual X server
// (Xvfb) with its framebuffer in a file, a window manager, programs started
// on it, synthetic input (xdotool), the front end's trace of where its
// widgets are, and screenshots saved as PNG files.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.hpp"

namespace lumora::test {

// True when everything the desktop tests drive is installed.
inline bool desktopToolsPresent(std::string* missing = nullptr) {
    for (const char* tool : {"/usr/bin/Xvfb", "/usr/bin/xdotool", "/usr/bin/openbox"}) {
        if (!fs::exists(tool)) {
            if (missing) *missing = tool;
            return false;
        }
    }
    return true;
}

// A program run with extra environment variables, in its own process group.
class Program {
public:
    Program(std::vector<std::string> argv, std::map<std::string, std::string> env, const fs::path& cwd = "/") {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::setpgid(0, 0);
            if (::chdir(cwd.c_str()) != 0) ::_exit(127);
            for (const auto& [k, v] : env) {
                if (v.empty()) ::unsetenv(k.c_str());
                else ::setenv(k.c_str(), v.c_str(), 1);
            }
            int devnull = ::open("/dev/null", O_RDWR);
            ::dup2(devnull, 0);
            ::dup2(devnull, 1);  // keeps the test's output quiet; errors still show
            std::vector<char*> args;
            for (auto& a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            ::execv(args[0], args.data());
            ::_exit(127);
        }
        if (pid_ > 0) ::setpgid(pid_, pid_);
    }
    ~Program() { kill(SIGKILL); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return pid_; }
    bool running() {
        if (pid_ <= 0) return false;
        int status = 0;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            pid_ = -1;
            return false;
        }
        return true;
    }
    // Sends `sig` and waits (up to `timeout`) for the exit; returns the exit code.
    std::optional<int> kill(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (pid_ > 0) ::kill(pid_, sig);
        return wait(timeout);
    }
    std::optional<int> wait(std::chrono::milliseconds timeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (running()) {
            if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return exit_;
    }

private:
    pid_t pid_ = -1;
    std::optional<int> exit_;
};

// The virtual screen, its framebuffer file, and a window manager on it.
class XDisplay {
public:
    XDisplay(int width, int height, const fs::path& dir) : fbdir_(dir / "fb") {
        fs::create_directories(fbdir_);
        int pipefd[2];
        if (::pipe(pipefd) != 0) return;
        // Xvfb names the display it found free on this descriptor.
        server_ = std::make_unique<Program>(
            std::vector<std::string>{"/usr/bin/Xvfb", "-displayfd", std::to_string(pipefd[1]), "-screen", "0",
                                     std::to_string(width) + "x" + std::to_string(height) + "x24", "-fbdir",
                                     fbdir_.string(), "-nolisten", "tcp", "-noreset"},
            std::map<std::string, std::string>{});
        ::close(pipefd[1]);
        std::string number;
        char c;
        while (::read(pipefd[0], &c, 1) == 1 && c != '\n') number += c;
        ::close(pipefd[0]);
        if (number.empty()) return;
        name_ = ":" + number;
    }
    bool ok() const { return !name_.empty(); }
    const std::string& name() const { return name_; }
    fs::path framebuffer() const { return fbdir_ / "Xvfb_screen0"; }
    void startWindowManager() {
        wm_ = std::make_unique<Program>(std::vector<std::string>{"/usr/bin/openbox"},
                                        std::map<std::string, std::string>{{"DISPLAY", name_}});
    }
    // Ends the X server (as a crash would).
    void kill() {
        if (server_) server_->kill(SIGKILL);
    }
    // Runs xdotool with `args`; returns its output.
    std::string xdotool(const std::string& args) const {
        return runCommand("DISPLAY=" + name_ + " /usr/bin/xdotool " + args + " 2>&1").output;
    }

private:
    fs::path fbdir_;
    std::string name_;
    std::unique_ptr<Program> server_;
    std::unique_ptr<Program> wm_;
};

struct Box {
    int x = 0, y = 0, width = 0, height = 0;
    int cx() const { return x + width / 2; }
    int cy() const { return y + height / 2; }
    bool empty() const { return width <= 0 || height <= 0; }
};

// The front end's trace: the latest rectangle of every named widget.
inline std::map<std::string, Box> readTrace(const fs::path& file) {
    std::map<std::string, Box> out;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream s(line);
        std::string name;
        Box b;
        if (s >> name >> b.x >> b.y >> b.width >> b.height) out[name] = b;
    }
    return out;
}

// One frame of the virtual screen, read from Xvfb's framebuffer file (XWD).
class Screenshot {
public:
    explicit Screenshot(const fs::path& xwd) {
        std::string data = readFile(xwd);
        if (data.size() < 100) return;
        auto u32 = [&](size_t at) {
            return uint32_t(uint8_t(data[at])) << 24 | uint32_t(uint8_t(data[at + 1])) << 16 |
                   uint32_t(uint8_t(data[at + 2])) << 8 | uint32_t(uint8_t(data[at + 3]));
        };
        uint32_t headerSize = u32(0), bitsPerPixel = u32(44), bytesPerLine = u32(48), colours = u32(76);
        width_ = int(u32(16));
        height_ = int(u32(20));
        if (bitsPerPixel != 32) return;
        size_t offset = headerSize + size_t(colours) * 12;
        pixels_.resize(size_t(width_) * size_t(height_));
        for (int y = 0; y < height_; ++y) {
            for (int x = 0; x < width_; ++x) {
                size_t at = offset + size_t(y) * bytesPerLine + size_t(x) * 4;
                if (at + 3 > data.size()) return;
                // Little-endian BGRX.
                pixels_[size_t(y) * size_t(width_) + size_t(x)] = {uint8_t(data[at + 2]), uint8_t(data[at + 1]),
                                                                   uint8_t(data[at])};
            }
        }
    }
    bool ok() const { return !pixels_.empty(); }
    bool operator==(const Screenshot& other) const { return pixels_ == other.pixels_; }
    std::array<uint8_t, 3> at(int x, int y) const { return pixels_[size_t(y) * size_t(width_) + size_t(x)]; }

    // Saves the part `box` of the screen as a PNG (stored, uncompressed blocks).
    void savePng(const fs::path& file, Box box) const {
        box.x = std::clamp(box.x, 0, width_ - 1);
        box.y = std::clamp(box.y, 0, height_ - 1);
        box.width = std::min(box.width, width_ - box.x);
        box.height = std::min(box.height, height_ - box.y);
        std::string raw;
        for (int y = box.y; y < box.y + box.height; ++y) {
            raw += '\0';
            for (int x = box.x; x < box.x + box.width; ++x) {
                auto p = at(x, y);
                raw.append(reinterpret_cast<const char*>(p.data()), 3);
            }
        }
        std::string zlib = "\x78\x01";
        for (size_t at = 0; at < raw.size() || at == 0; at += 65535) {
            size_t n = std::min<size_t>(65535, raw.size() - at);
            bool last = at + n >= raw.size();
            zlib += char(last ? 1 : 0);
            zlib += char(n & 0xff);
            zlib += char(n >> 8);
            zlib += char(~n & 0xff);
            zlib += char((~n >> 8) & 0xff);
            zlib.append(raw, at, n);
            if (last) break;
        }
        uint32_t a = 1, b = 0;
        for (unsigned char c : raw) {
            a = (a + c) % 65521;
            b = (b + a) % 65521;
        }
        putU32(zlib, b << 16 | a);
        std::string png = "\x89PNG\r\n\x1a\n";
        std::string ihdr;
        putU32(ihdr, uint32_t(box.width));
        putU32(ihdr, uint32_t(box.height));
        ihdr += std::string("\x08\x02\x00\x00\x00", 5);
        chunk(png, "IHDR", ihdr);
        chunk(png, "IDAT", zlib);
        chunk(png, "IEND", "");
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << png;
    }

private:
    static void putU32(std::string& out, uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8) out += char((v >> shift) & 0xff);
    }
    static uint32_t crc(const std::string& data) {
        uint32_t c = 0xffffffffu;
        for (unsigned char byte : data) {
            c ^= byte;
            for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xedb88320u & (0u - (c & 1u)));
        }
        return ~c;
    }
    static void chunk(std::string& png, const char* type, const std::string& data) {
        putU32(png, uint32_t(data.size()));
        std::string body = std::string(type) + data;
        png += body;
        putU32(png, crc(body));
    }

    int width_ = 0, height_ = 0;
    std::vector<std::array<uint8_t, 3>> pixels_;
};

}  // namespace lumora::test
