// Arbitrary bytes as an agent's JSON configuration and as a TOML file: loading,
// merging our hook groups in and taking them out again must never crash or
// throw, and an unreadable file must never be offered for merging.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/hooks/hook_config_edits.hpp"
#include "lumora/hooks/json_config_file.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/toml_text_edits.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto contents = JSONConfigFile::parse(bytes);
    auto object = contents.mergeable();
    if (contents.kind == JSONConfigFile::Contents::Kind::unreadable && object) __builtin_trap();
    if (object) {
        EventSpec spec{"Stop", std::string("*"), "done", 5};
        std::vector<std::pair<std::string, JSONConfigFile::Json>> groups = {
            {"Stop", HookConfigEdits::groupFor(spec, "\"/usr/bin/python3\" \"/h/.claude/lumora/notch-hook.py\" done")}};
        JSONConfigFile::Json edited = *object;
        if (HookConfigEdits::setOurGroups(edited, "lumora/notch-hook", groups)) {
            HookConfigEdits::removeOurGroups(edited, "lumora/notch-hook");
            (void)JSONConfigFile::serialise(edited, {contents.text});
        }
    }
    std::string text(bytes);
    std::string header = "[hooks.state.\"/h/.codex/hooks.json:stop:0:0\"]";
    std::string added = TomlTextEdits::setKey(text, header, "trusted_hash", "\"sha256:00\"");
    std::string removed = TomlTextEdits::removeKey(added, header, "trusted_hash");
    (void)TomlTextEdits::isValid(removed);
    (void)KimiHooks::removingManagedSection(text);
    return 0;
}
