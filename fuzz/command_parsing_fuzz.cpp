// Arbitrary bytes as a shell command to approve. Nothing may crash, and the
// properties a rule relies on must hold for every command that has heads:
// every head is a word a rule can store, and a second program joined to the
// command by any separator (or hidden behind a character that ends a line
// somewhere) is either named among the heads or makes the command
// unscopable, so a rule for the first command's programs never covers it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "lumora/approvals/approval_rules_store.hpp"
#include "lumora/approvals/command_parsing.hpp"

namespace {

using lumora::CommandParsing::heads;

void require(bool condition) {
    if (!condition) std::abort();
}

bool names(const std::optional<std::vector<std::string>>& h, std::string_view head) {
    return h && std::find(h->begin(), h->end(), head) != h->end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view command(reinterpret_cast<const char*>(data), size);
    auto h = heads(command);
    require(heads(command) == h);
    (void)lumora::CommandParsing::splitSegments(command);
    if (!h) return 0;

    require(!h->empty());
    for (const auto& head : *h) {
        lumora::ApprovalRule rule{"id", "Bash", head, {}};
        require(lumora::ApprovalRulesStore::looksLikeCommandHead(rule));
    }
    static const std::string_view separators[] = {";", "&", "&&", "||", "|", "\n", "\r", "\v", "\f",
                                                  "|&", "\u2028", "\u2029", "\xc2\x85", "`", "$(", ")"};
    for (auto sep : separators) {
        std::string joined = std::string(command) + std::string(sep) + " zzevil -rf ~";
        auto after = heads(joined);
        require(!after || names(after, "zzevil"));
        // A separator put in front reads the same way.
        std::string before = "zzevil -rf ~ " + std::string(sep) + std::string(command);
        auto first = heads(before);
        require(!first || names(first, "zzevil") || sep == ")" || sep == "`" || sep == "$(");
    }
    return 0;
}
