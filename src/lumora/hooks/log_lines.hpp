#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace lumora {

class SerialQueue;

// Plain-text log files the bridge keeps (approvals.log, the trace), written
// on a thread of their own so the socket never waits on the disk.
class LogLines {
public:
    // Appends to `file`, created with mode 0600. `label` names the writer's thread.
    LogLines(std::filesystem::path file, const std::string& label);
    // Writes what is queued, then returns.
    ~LogLines();
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    // Queues one line (a newline is added); returns at once.
    void append(std::string line);
    // Waits until every queued line is written.
    void flush();

    const std::filesystem::path& file() const { return file_; }

    // `text` with every control character (and the Unicode line and paragraph
    // separators) written as an escape ("\n", "\x1b", "\u2028"), so a field can
    // never begin a line of its own.
    static std::string escape(std::string_view text);

private:
    std::filesystem::path file_;
    std::unique_ptr<SerialQueue> queue_;
};

}  // namespace lumora
