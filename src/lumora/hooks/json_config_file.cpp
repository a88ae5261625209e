#include "lumora/hooks/json_config_file.hpp"

#include <system_error>

#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/hooks/hook_providers.hpp"

namespace lumora::JSONConfigFile {

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Drops every comma that is followed (after whitespace) by `}` or `]`, outside strings.
std::string withoutTrailingCommas(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool inString = false, escaped = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            out += c;
            continue;
        }
        if (c == '"') inString = true;
        if (c == ',') {
            size_t j = i + 1;
            while (j < text.size() && isSpace(text[j])) ++j;
            size_t k = out.size();
            while (k > 0 && isSpace(out[k - 1])) --k;
            bool afterValue = k > 0 && out[k - 1] != '{' && out[k - 1] != '[' && out[k - 1] != ',';
            if (afterValue && j < text.size() && (text[j] == '}' || text[j] == ']')) continue;
        }
        out += c;
    }
    return out;
}

struct Layout {
    int width = 2;
    char fill = ' ';
    bool finalNewline = true;
    bool crlf = false;
};

// The indent unit of the first indented line, and whether the text ends in a newline.
Layout layoutOf(std::string_view text) {
    Layout layout;
    if (text.empty()) return layout;
    layout.finalNewline = text.back() == '\n';
    size_t firstEol = text.find('\n');
    layout.crlf = firstEol != std::string_view::npos && firstEol > 0 && text[firstEol - 1] == '\r';
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string_view::npos) break;
        size_t start = eol + 1, i = start;
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
        if (i > start && i < text.size() && text[i] != '\n' && text[i] != '\r') {
            layout.fill = text[start];
            layout.width = static_cast<int>(i - start);
            return layout;
        }
        pos = start;
    }
    return layout;
}

}  // namespace

std::optional<Json> Contents::mergeable() const {
    switch (kind) {
        case Kind::missing: return Json::object();
        case Kind::object: return object;
        case Kind::unreadable: return std::nullopt;
    }
    return std::nullopt;
}

Contents parse(std::string_view text) {
    Contents contents;
    contents.text = std::string(text);
    bool blank = true;
    for (char c : text) {
        if (!isSpace(c)) {
            blank = false;
            break;
        }
    }
    if (blank) {
        contents.kind = Contents::Kind::missing;
        return contents;
    }
    contents.kind = Contents::Kind::unreadable;
    // The parser recurses once per level: a file nested thousands deep would exhaust the stack.
    if (JsonText::nestedDeeperThan(text, kMaxDepth)) {
        contents.why = "nests deeper than " + std::to_string(kMaxDepth) + " levels";
        return contents;
    }
    Json parsed = Json::parse(withoutTrailingCommas(text), nullptr, /*allow_exceptions=*/false,
                              /*ignore_comments=*/false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        contents.why = "isn't valid JSON";  // a top-level array or scalar too: we only edit objects
        return contents;
    }
    contents.kind = Contents::Kind::object;
    contents.object = std::move(parsed);
    return contents;
}

Contents load(const fs::path& file) {
    auto read = FileUtil::read(file);
    if (read.missing()) {
        std::error_code ec;
        if (fs::is_symlink(file, ec)) return Contents{Contents::Kind::unreadable, Json::object(), {}, "is a link to nothing"};
        return Contents{};
    }
    if (!read.ok()) return Contents{Contents::Kind::unreadable, Json::object(), {}, "can't be read (" + read.why + ")"};
    return parse(read.text);
}

fs::path backupURL(const fs::path& file) { return fs::path(file.string() + ".notch-backup"); }

std::string serialise(const Json& object, const WriteOptions& options) {
    Layout layout = layoutOf(options.layoutFrom);
    std::string out = object.dump(layout.width, layout.fill, /*ensure_ascii=*/false, Json::error_handler_t::replace);
    if (layout.finalNewline) out += '\n';
    if (!layout.crlf) return out;
    // Line breaks in the output are all structural: strings carry theirs escaped.
    std::string crlf;
    crlf.reserve(out.size() + out.size() / 16);
    for (char c : out) {
        if (c == '\n') crlf += '\r';
        crlf += c;
    }
    return crlf;
}

Status writeText(std::string_view text, const fs::path& file) {
    auto current = FileUtil::read(file);
    if (current.ok()) {
        if (current.text == text) return Status::success();
        Status saved = FileUtil::writeAtomically(backupURL(file), current.text, 0600);
        if (!saved) return Status::failure("can't back up " + HookProviders::displayPath(file) + ": " + saved.why);
    } else if (current.missing()) {
        std::error_code ec;
        fs::create_directories(file.parent_path(), ec);
        if (ec) return Status::failure("can't create " + HookProviders::displayPath(file.parent_path()) + ": " + ec.message());
    } else {
        return Status::failure(HookProviders::displayPath(file) + " can't be read (" + current.why + ") — left alone");
    }
    Status written = FileUtil::writeAtomically(file, text, 0644);
    if (!written) return Status::failure("can't write " + HookProviders::displayPath(file) + ": " + written.why);
    return written;
}

Status write(const Json& object, const fs::path& file, const WriteOptions& options) {
    return writeText(serialise(object, options), file);
}

}  // namespace lumora::JSONConfigFile
