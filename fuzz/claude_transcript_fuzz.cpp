// Arbitrary bytes as a Claude Code journal's tail: through the tail parser,
// every derivation and the background ledger. Nothing may crash or throw.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "scrivet/background_ledger.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/tail_reader.hpp"

namespace CTR = scrivet::ClaudeTranscriptReader;
namespace CSR = scrivet::ClaudeSubagentReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto entries = scrivet::TailReader::parseWindow(bytes, 0, 1000).entries;

    auto parsed = CTR::derive(entries);
    if (parsed.model) (void)CTR::cleanModelName(*parsed.model);
    (void)CTR::isInProgress(entries);
    (void)CTR::pendingApproval(entries);
    (void)CTR::endsWithQuestion(entries);
    (void)CTR::awaitingFirstReply(entries);
    (void)CTR::hasRealTurn(entries);
    (void)CTR::recentActivity(entries, 8);
    (void)CTR::aiTitle(entries);
    (void)CTR::lastEntryDate(entries);
    (void)CTR::firstEntryDate(entries);
    (void)CTR::recordedCwd(entries);
    (void)CTR::turnDurationBackgroundAgents(entries);
    (void)CTR::runningSubagentLaunches(entries);
    for (const auto& e : entries) {
        (void)CTR::summarize(e);
        (void)CTR::taskNotificationId(e);
        (void)CTR::unknownLeadingTag(e);
        (void)CTR::isLocalCommand(e);
    }
    (void)CSR::latestAction(entries);
    (void)CSR::totalTokens(entries);
    (void)CSR::isInterruptedTail(entries);

    // The ledger: from the parsed entries and from the raw bytes.
    scrivet::BackgroundLedger fromEntries, fromBytes;
    fromEntries.advance(entries);
    fromBytes.advance(bytes);
    (void)fromBytes.pendingShells();

    (void)CTR::textEndsWithQuestion(bytes);
    (void)CTR::cleanModelName(bytes.substr(0, 64));
    return 0;
}
