#include "lumora/base/json_text.hpp"

namespace lumora::JsonText {

bool nestedDeeperThan(std::string_view text, int maxDepth) {
    int depth = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > maxDepth) return true;
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    return false;
}

std::optional<nlohmann::ordered_json> parse(std::string_view text, int maxDepth) {
    if (nestedDeeperThan(text, maxDepth)) return std::nullopt;
    auto j = nlohmann::ordered_json::parse(text, nullptr, false);
    if (j.is_discarded()) return std::nullopt;
    return j;
}

std::string dump(const nlohmann::ordered_json& value, int indent) {
    return value.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace lumora::JsonText
