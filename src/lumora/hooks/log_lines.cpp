#include "lumora/hooks/log_lines.hpp"

#include <cstdio>

#include "lumora/base/file_util.hpp"
#include "lumora/base/serial_queue.hpp"

namespace lumora {

LogLines::LogLines(std::filesystem::path file, const std::string& label)
    : file_(std::move(file)), queue_(std::make_unique<SerialQueue>(label)) {}

LogLines::~LogLines() { queue_.reset(); }

void LogLines::append(std::string line) {
    queue_->async([file = file_, line = std::move(line)] { FileUtil::appendLine(file, line); });
}

void LogLines::flush() {
    queue_->sync([] {});
}

std::string LogLines::escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x85) {
            out += "\\u0085";  // NEL
            ++i;
        } else if (c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80 &&
                   (static_cast<unsigned char>(text[i + 2]) == 0xA8 || static_cast<unsigned char>(text[i + 2]) == 0xA9)) {
            out += static_cast<unsigned char>(text[i + 2]) == 0xA8 ? "\\u2028" : "\\u2029";
            i += 2;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

}  // namespace lumora
