#pragma once

#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

// Strict reads of one key of a JSON object, shared by the hooks' decoders.
// Each returns false when the key holds a value of the wrong type; a missing
// key or null leaves `out` untouched and returns true.
namespace lumora::JsonFields {

using Json = nlohmann::ordered_json;

inline const Json* find(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

inline bool read(const Json& o, const char* key, std::string& out) {
    const Json* v = find(o, key);
    if (!v) return true;
    if (!v->is_string()) return false;
    out = v->get_ref<const std::string&>();
    return true;
}

inline bool read(const Json& o, const char* key, std::optional<std::string>& out) {
    const Json* v = find(o, key);
    if (!v) return true;
    if (!v->is_string()) return false;
    out = v->get_ref<const std::string&>();
    return true;
}

inline bool read(const Json& o, const char* key, bool& out) {
    const Json* v = find(o, key);
    if (!v) return true;
    if (!v->is_boolean()) return false;
    out = v->get<bool>();
    return true;
}

// Any finite number, clamped into int's range.
inline bool read(const Json& o, const char* key, int& out) {
    const Json* v = find(o, key);
    if (!v) return true;
    if (!v->is_number()) return false;
    double d = v->get<double>();
    if (!std::isfinite(d)) return false;
    if (d > 1e9) d = 1e9;
    if (d < -1e9) d = -1e9;
    out = static_cast<int>(d);
    return true;
}

inline bool read(const Json& o, const char* key, double& out) {
    const Json* v = find(o, key);
    if (!v) return true;
    if (!v->is_number()) return false;
    double d = v->get<double>();
    if (!std::isfinite(d)) return false;
    out = d;
    return true;
}

inline bool read(const Json& o, const char* key, std::optional<std::vector<std::string>>& out) {
    const Json* v = find(o, key);
    if (!v) return true;
    if (!v->is_array()) return false;
    std::vector<std::string> list;
    list.reserve(v->size());
    for (const auto& item : *v) {
        if (!item.is_string()) return false;
        list.push_back(item.get<std::string>());
    }
    out = std::move(list);
    return true;
}

}  // namespace lumora::JsonFields
