#pragma once

#include <optional>
#include <span>
#include <string_view>

// The hook programs and the plugin under resources/hooks, compiled into the
// binary so an installed copy never depends on the source tree.
namespace lumora::EmbeddedResources {

struct Resource {
    std::string_view name;  // file name, e.g. "notch-hook.py"
    std::string_view text;
};

// Returns the text of the resource with this file name, if there is one.
std::optional<std::string_view> text(std::string_view name);

// Every embedded resource, in file-name order.
std::span<const Resource> all();

}  // namespace lumora::EmbeddedResources
