#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>

// Helpers shared by the benchmarks: scratch folders and journals shaped like
// the real ones.
namespace bench {

namespace fs = std::filesystem;

inline fs::path scratch(const std::string& name) {
    auto dir = fs::temp_directory_path() / ("lumora-bench-" + std::to_string(::getpid())) / name;
    fs::create_directories(dir);
    return dir;
}

inline std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Writes a file of `totalSize` bytes whose last bytes are `tail`; the rest is
// a hole, so a 500 MB journal costs no disk and no time to make. Only the
// tail is ever read.
inline void writeSparseJournal(const fs::path& file, uint64_t totalSize, const std::string& tail) {
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + file.string());
    uint64_t hole = totalSize > tail.size() ? totalSize - tail.size() : 0;
    if (::ftruncate(fd, static_cast<off_t>(hole)) != 0) throw std::runtime_error("ftruncate");
    // Terminate whatever "line" the hole is, so the tail starts on a line.
    if (hole > 0 && ::pwrite(fd, "\n", 1, static_cast<off_t>(hole - 1)) != 1) throw std::runtime_error("pwrite");
    if (::pwrite(fd, tail.data(), tail.size(), static_cast<off_t>(hole)) != static_cast<ssize_t>(tail.size()))
        throw std::runtime_error("pwrite");
    ::close(fd);
}

inline fs::path samples() { return fs::path(LUMORA_SAMPLES_DIR); }

inline bool isConversation(const std::string& line) {
    auto j = nlohmann::json::parse(line, nullptr, false);
    return j.is_object() && (j.value("type", "") == "user" || j.value("type", "") == "assistant");
}

// A real Claude Code journal's lines (the "text" scenario).
inline std::string realJournal() {
    return readFile(samples() / "claude/home/.claude/projects/-home-dev-proj-app/67393e0f-69a4-4967-bc00-67679219f04f.jsonl");
}

// The real bookkeeping entries that follow a turn ("attachment",
// "api-request-shape" and the like), repeated until they fill `bytes`.
inline std::string bookkeeping(size_t bytes) {
    std::istringstream in(realJournal());
    std::string line, pool;
    while (std::getline(in, line)) {
        if (isConversation(line)) continue;
        pool += line + "\n";
    }
    std::string out;
    while (out.size() < bytes) out += pool;
    // Cut at a line end at or past `bytes`.
    size_t cut = out.find('\n', bytes);
    return out.substr(0, cut == std::string::npos ? out.size() : cut + 1);
}

// The journal's conversation lines (prompt and reply).
inline std::string conversation() {
    std::istringstream in(realJournal());
    std::string line, out;
    while (std::getline(in, line)) {
        if (isConversation(line)) out += line + "\n";
    }
    return out;
}

}  // namespace bench
