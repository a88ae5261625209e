#include "lumora/platform/python_locator.hpp"

#include <spdlog/spdlog.h>

#include <mutex>

namespace lumora::PythonLocator {

std::optional<fs::path> locate(const std::vector<fs::path>& candidates) {
    if (candidates.empty()) {
        spdlog::warn("Lumora: no usable python3 found — hook bridges unavailable");
        return std::nullopt;
    }
    for (const auto& candidate : candidates) {
        if (passesProbe(candidate)) return candidate;
        spdlog::warn("Lumora: python3 at {} failed the import probe — hook bridges unavailable", candidate.string());
    }
    return std::nullopt;
}

std::optional<fs::path> interpreter() {
    static std::once_flag once;
    static std::optional<fs::path> chosen;
    std::call_once(once, [] { chosen = locate(candidates()); });
    return chosen;
}

}  // namespace lumora::PythonLocator
