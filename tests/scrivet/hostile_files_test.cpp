// Whatever stands where an agent's file should be, the readers return at once:
// a FIFO named like a journal (whose blocking open would wait for a writer
// forever) is refused, never waited on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "claude_journal_builder.hpp"
#include "scrivet/claude_config.hpp"
#include "scrivet/claude_subagent_reader.hpp"
#include "scrivet/claude_transcript_reader.hpp"
#include "scrivet/journal_scan.hpp"
#include "scrivet/tail_reader.hpp"
#include "support/test_support.hpp"

using namespace scrivet;
namespace CTR = scrivet::ClaudeTranscriptReader;
namespace CSR = scrivet::ClaudeSubagentReader;
using lumora::test::ClaudeJournal;
using lumora::test::TempDir;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

fs::path fifo(const fs::path& path) {
    fs::create_directories(path.parent_path());
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    return path;
}

// Runs `reads` on a thread of its own and fails unless it returns within 5 s.
// A read stuck on one of `fifos` is then released (its other end opened and
// closed), so a failing test still ends.
void expectReturnsAtOnce(const std::vector<fs::path>& fifos, const std::function<void()>& reads) {
    auto done = std::async(std::launch::async, reads);
    if (done.wait_for(5s) == std::future_status::ready) return;
    ADD_FAILURE() << "a reader waited on a FIFO";
    while (done.wait_for(100ms) != std::future_status::ready) {
        for (const auto& f : fifos) {
            for (int flags : {O_RDONLY | O_NONBLOCK, O_WRONLY | O_NONBLOCK}) {
                int fd = ::open(f.c_str(), flags);
                if (fd >= 0) ::close(fd);
            }
        }
    }
}

}  // namespace

TEST(HostileFiles, AFifoWhereAFileShouldBeIsRefusedAtOnce) {
    TempDir dir;
    auto project = dir / "projects/-proj";
    const std::string session = "5a1e0c2e-1111-4222-8333-944445555666";
    // A journal that is a FIFO.
    auto journalFifo = fifo(project / "f1f0f1f0-0000-4000-8000-000000000000.jsonl");
    // A real journal whose subagent journal, subagent meta file, the agent's
    // config and the diagnostic log are FIFOs.
    ClaudeJournal j(session);
    j.prompt("<odd-tag>go</odd-tag>").toolCall("t1", "Agent", {{"description", "d"}, {"prompt", "p"}});
    auto journal = project / (session + ".jsonl");
    j.writeTo(journal);
    auto agentFifo = fifo(project / session / "subagents" / "agent-a1.jsonl");
    auto metaFifo = fifo(project / session / "subagents" / "agent-a2.meta.json");
    ClaudeJournal agent;
    agent.prompt("p").reply("working");
    agent.writeTo(project / session / "subagents" / "agent-a2.jsonl");
    auto configFifo = fifo(dir / ".claude.json");
    auto logFifo = fifo(dir / "diag" / "unknown-shapes.log");
    std::vector<fs::path> all = {journalFifo, agentFifo, metaFifo, configFifo, logFifo};

    expectReturnsAtOnce(all, [&] {
        EXPECT_TRUE(TailReader::entries(journalFifo, 100).empty());
        EXPECT_FALSE(CTR::info(journalFifo, "/proj", configFifo));
        EXPECT_FALSE(JournalScan::scan(journalFifo, 0, {"x"}, [](std::string_view) {}));
        EXPECT_FALSE(JournalScan::nextLineStart(journalFifo, 10));
        EXPECT_EQ(CTR::outstandingBackgroundTasks(journalFifo).count, 0);
        EXPECT_FALSE(CSR::launchPrompt(agentFifo));
        EXPECT_TRUE(CSR::parentAgentBlocks(journalFifo).empty());
        EXPECT_EQ(ClaudeConfig::contextTier(configFifo, "/proj", "claude-opus-5-5"), ClaudeConfig::ContextTier::unknown);
        CTR::setDiagnosticLogDirectory(dir / "diag");
        auto info = CTR::info(journal, "/proj", configFifo);
        CTR::setDiagnosticLogDirectory(std::nullopt);
        ASSERT_TRUE(info);
        // The readable subagent is still found, its meta file skipped.
        ASSERT_EQ(info->subagents.size(), 1u);
        EXPECT_EQ(info->subagents[0].action, "working");
        EXPECT_EQ(CTR::recentTranscripts(project, 10), std::vector<fs::path>{journal});
    });
}
