// Arbitrary bytes as Codex's or Kimi's config.toml: turning the hooks feature
// on and off, writing and moving trust entries and rebuilding Kimi's managed
// section must never crash or throw; an edit that reports success leaves a
// file that parses with the feature on, and taking our flag out again gives
// the user's bytes back.
#include <cstddef>
#include <cstdint>
#include <string>

#include "lumora/hooks/codex_config_edits.hpp"
#include "lumora/hooks/kimi_hooks.hpp"
#include "lumora/hooks/toml_text_edits.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lumora;
    namespace Edits = CodexConfigEdits;
    std::string text(reinterpret_cast<const char*>(data), size);

    auto flagged = Edits::enablingFeatureFlag(text);
    if (flagged.status) {
        if (!Edits::featureOn(flagged.text)) __builtin_trap();
        // A text without a final newline keeps the one our block needed (the uninstaller restores
        // those bytes from its backup).
        auto same = [&](const std::string& back) {
            return back == text || back == text + "\n" || back == text + "\r\n";
        };
        bool added = flagged.text != text && !Edits::holdsOurFlag(text);
        if (added && !same(Edits::disablingFeatureFlag(flagged.text, false)) &&
            !same(Edits::disablingFeatureFlag(flagged.text, true)))
            __builtin_trap();
    }

    // Our group between two of the user's, then gone again: the user's trust follows them.
    using Json = Edits::Json;
    auto group = [](const std::string& command) {
        return Json{{"hooks", Json::array({{{"type", "command"}, {"command", command}}})}};
    };
    Json before = {{"hooks", {{"Stop", Json::array({group("a"), group("/x/notch-codex-hook.py clear"), group("b")})}}}};
    Json after = {{"hooks", {{"Stop", Json::array({group("a"), group("b")})}}}};
    auto trusted = Edits::retrusted(text, after, before, "/h/.codex/hooks.json", "notch-codex-hook",
                                    Edits::FeatureFlag::on);
    if (trusted.status) {
        auto back = Edits::retrusted(trusted.text, before, after, "/h/.codex/hooks.json", "notch-codex-hook",
                                     Edits::FeatureFlag::off);
        (void)back;
    }

    std::string header = "[hooks.state.\"/h/.codex/hooks.json:stop:0:0\"]";
    std::string added = TomlTextEdits::setKey(text, header, "trusted_hash", "\"sha256:00\"");
    (void)TomlTextEdits::removeKey(added, header, "trusted_hash");
    (void)TomlTextEdits::appendBlock(KimiHooks::removingManagedSection(text), "[[hooks]]\nevent = \"Stop\"\n");
    return 0;
}
