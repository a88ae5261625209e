#include "scrivet/transcript_records.hpp"

#include "scrivet/tail_reader.hpp"

namespace scrivet {

std::string_view kindName(ActivityLine::Kind kind) {
    switch (kind) {
        case ActivityLine::Kind::prompt: return "prompt";
        case ActivityLine::Kind::reply: return "reply";
        case ActivityLine::Kind::tool: return "tool";
        case ActivityLine::Kind::ok: return "ok";
        case ActivityLine::Kind::error: return "error";
        case ActivityLine::Kind::thinking: return "thinking";
    }
    return "reply";
}

std::string ActivityLine::id() const {
    std::string out(kindName(kind));
    out += '|';
    out += text;
    return out;
}

std::optional<PendingApproval> pendingApprovalForTool(std::string_view name) {
    if (name == "AskUserQuestion" || name == "ExitPlanMode") return PendingApproval::question;
    if (name == "Edit" || name == "Write" || name == "MultiEdit" || name == "NotebookEdit" ||
        name == "StrReplace" || name == "Delete")
        return PendingApproval::edit;
    if (name == "Bash" || name == "Shell") return PendingApproval::run;
    return std::nullopt;
}

int delaySeconds(PendingApproval kind) {
    switch (kind) {
        case PendingApproval::question: return 0;
        case PendingApproval::edit: return 6;
        case PendingApproval::run: return 20;
    }
    return 0;
}

std::string_view kindName(PendingApproval kind) {
    switch (kind) {
        case PendingApproval::question: return "question";
        case PendingApproval::edit: return "edit";
        case PendingApproval::run: return "run";
    }
    return "question";
}

std::string PendingQuestion::optionsLine() const {
    std::string line;
    for (size_t i = 0; i < options.size(); ++i) {
        if (i) line += "   ";
        line += std::to_string(i + 1);
        line += ' ';
        line += options[i];
    }
    if (moreCount >= 1) {
        if (!line.empty()) line += "   ";
        line += "+" + std::to_string(moreCount) + " more";
    }
    return line;
}

std::string validUtf8(std::string text) {
    TailReader::repairUtf8(text);
    return text;
}

std::string collapseWhitespace(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool pendingSpace = false;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\v') {
            pendingSpace = !out.empty();
            continue;
        }
        if (pendingSpace) out += ' ';
        pendingSpace = false;
        out += c;
    }
    return out;
}

std::string truncateText(std::string_view text, size_t maxChars) {
    size_t chars = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (chars == maxChars) {
                // Cut here, leaving room for the ellipsis.
                size_t cut = i;
                // Step back one character to make room for "…".
                size_t back = cut;
                while (back > 0 && (static_cast<unsigned char>(text[back - 1]) & 0xC0) == 0x80) --back;
                if (back > 0) --back;
                while (back > 0 && (static_cast<unsigned char>(text[back]) & 0xC0) == 0x80) --back;
                std::string out(text.substr(0, back));
                while (!out.empty() && out.back() == ' ') out.pop_back();
                return out + "…";
            }
            ++chars;
        }
    }
    return std::string(text);
}

std::string oneLine(std::string_view text, size_t maxChars) {
    auto longerThan = [](std::string_view s, size_t n) {
        size_t chars = 0;
        for (char c : s) {
            if ((static_cast<unsigned char>(c) & 0xC0) != 0x80 && ++chars > n) return true;
        }
        return false;
    };
    for (size_t take = maxChars + 16;; take *= 4) {
        bool cut = text.size() > take;
        auto line = collapseWhitespace(cut ? text.substr(0, take) : text);
        if (!cut || longerThan(line, maxChars)) return truncateText(line, maxChars);
    }
}

}  // namespace scrivet
