// Arbitrary bytes as an agent's JSON configuration: loading (with its depth
// limit), merging our hook groups in and cutting them out of the text again
// must never crash, throw or recurse without bound; an unreadable file is
// never offered for merging, and a cut text always parses to the object the
// same edit gives.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/hooks/hook_config_edits.hpp"
#include "lumora/hooks/json_config_file.hpp"
#include "lumora/hooks/json_text_edits.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    using Json = JSONConfigFile::Json;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto contents = JSONConfigFile::parse(bytes);
    auto object = contents.mergeable();
    if (contents.kind == JSONConfigFile::Contents::Kind::unreadable && (object || contents.why.empty())) __builtin_trap();
    if (!object) return 0;

    const std::string needle = "lumora/notch-hook";
    auto ours = [&](const Json& group) { return HookConfigEdits::groupUses(group, needle); };
    EventSpec spec{"Stop", std::string("*"), "done", 5};
    std::vector<std::pair<std::string, Json>> groups = {
        {"Stop", HookConfigEdits::groupFor(spec, "\"/usr/bin/python3\" \"/h/.claude/lumora/notch-hook.py\" done")}};
    Json edited = *object;
    if (HookConfigEdits::setOurGroups(edited, needle, groups)) {
        std::string installed = JSONConfigFile::serialise(edited, {contents.text});
        Json removed = edited;
        HookConfigEdits::removeOurGroups(removed, needle);
        auto cut = JsonTextEdits::removingEntries(installed, ours, removed, JSONConfigFile::kMaxDepth);
        if (!cut) __builtin_trap();  // our own serialisation can always be cut
    }
    // Cutting straight from the user's text: when it succeeds, it is the same edit.
    Json removed = *object;
    HookConfigEdits::removeOurGroups(removed, needle);
    if (auto cut = JsonTextEdits::removingEntries(contents.text, ours, removed, JSONConfigFile::kMaxDepth)) {
        auto again = JSONConfigFile::parse(*cut);
        if (again.kind != JSONConfigFile::Contents::Kind::object || again.object != removed) __builtin_trap();
    }
    return 0;
}
