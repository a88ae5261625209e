// Arbitrary bytes as a Claude Code journal's tail: through the tail parser,
// every derivation and the background ledger. Nothing may crash or throw.
// The same bytes then go through the readers as a file on disk, in the file
// shapes journals take: whole, behind a large hole (a sparse journal whose
// tail is all there is), and as a subagent journal and meta file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "scrivet/background_ledger.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_derivation.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/journal_scan.hpp"
#include "scrivet/tail_reader.hpp"

namespace CTR = scrivet::ClaudeTranscriptReader;
namespace CSR = scrivet::ClaudeSubagentReader;
namespace fs = std::filesystem;

namespace {

// A folder of this run's own, shaped like ~/.claude/projects/<folder>.
const fs::path& scratch() {
    static const fs::path dir = [] {
        auto d = fs::temp_directory_path() / ("claude-fuzz-" + std::to_string(::getpid())) / "-proj";
        fs::create_directories(d / "s1" / "subagents");
        return d;
    }();
    return dir;
}

void write(const fs::path& file, std::string_view bytes, uint64_t hole = 0) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (hole) out.seekp(static_cast<std::streamoff>(hole));
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void readAsFiles(std::string_view bytes) {
    const fs::path journal = scratch() / "s1.jsonl";
    const fs::path agent = scratch() / "s1" / "subagents" / "agent-a1.jsonl";
    for (uint64_t hole : {uint64_t{0}, uint64_t{8} << 20}) {
        write(journal, bytes, hole);
        write(agent, bytes);
        write(scratch() / "s1" / "subagents" / "agent-a1.meta.json", bytes.substr(0, 4096));
        CTR::resetBackgroundLedgers();
        CSR::resetParentCache();
        (void)CTR::info(journal, "/proj", scratch() / "no-config.json");
        (void)CTR::outstandingBackgroundTasks(journal);  // advanced, not seeded, the second time
        (void)CSR::parentAgentBlocks(journal);
        (void)CSR::launchPrompt(agent);
        (void)scrivet::JournalScan::nextLineStart(journal, bytes.size() / 2 + hole);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto entries = scrivet::TailReader::parseWindow(bytes, 0, 1000).entries;

    auto parsed = CTR::derive(entries);
    if (parsed.model) (void)CTR::cleanModelName(*parsed.model);
    (void)CTR::isInProgress(entries);
    (void)CTR::pendingApproval(entries);
    (void)CTR::pendingToolCall(entries);
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
    readAsFiles(bytes);
    return 0;
}
