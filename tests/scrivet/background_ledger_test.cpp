#include <gtest/gtest.h>

#include <fstream>

#include "scrivet/background_ledger.hpp"
#include "scrivet/recent_cache.hpp"
#include "scrivet/tail_reader.hpp"
#include "support/test_support.hpp"
#include "claude_journal_builder.hpp"

using namespace scrivet;
namespace CTR = scrivet::ClaudeTranscriptReader;
using lumora::test::ClaudeJournal;
using lumora::test::TempDir;
namespace fs = std::filesystem;

namespace {

ClaudeJournal& launch(ClaudeJournal& j, const std::string& call, const std::string& agent) {
    return j.toolCall(call, "Agent", {{"description", "job " + agent}, {"prompt", "do " + agent}})
        .toolResult(call, "Async agent launched successfully.", false, {{"isAsync", true}, {"agentId", agent}});
}

std::set<std::string> pending(const fs::path& file) { return CTR::outstandingBackgroundTasks(file).pending; }

}  // namespace

TEST(BackgroundLedger, SeedsOnceThenFollowsWhatTheFileGrewBy) {
    TempDir dir;
    auto file = dir / "s.jsonl";
    ClaudeJournal j;
    j.boot().prompt("go");
    launch(j, "t1", "agA");
    launch(j, "t2", "agB");
    j.reply("Two running.").turnEnd(2).bookkeeping(200 * 1000);
    j.writeTo(file);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agA", "agB"}));
    // The same ledger follows the whole file read in one go and the tail entries.
    EXPECT_EQ(CTR::seedBackgroundLedger(file).pending, (std::set<std::string>{"agA", "agB"}));
    BackgroundLedger fromEntries;
    fromEntries.advance(TailReader::entries(file, 100000));
    BackgroundLedger fromBytes;
    fromBytes.advance(std::string_view(j.text()));
    EXPECT_EQ(fromBytes, CTR::seedBackgroundLedger(file));

    // Append a notification, torn: the half line is not read until it is whole.
    ClaudeJournal n;
    n.taskNotification("agA", "done");
    auto text = n.text();
    auto cut = text.size() - 40;
    std::ofstream(file, std::ios::app) << text.substr(0, cut);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agA", "agB"}));
    std::ofstream(file, std::ios::app) << text.substr(cut);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agB"}));

    // A shell, then an agents_killed entry: agents go, the count follows.
    ClaudeJournal more;
    more.toolCall("t3", "Bash", {{"command", "sleep 600"}, {"run_in_background", true}})
        .toolResult("t3", "Running in background with ID: sh9", false, {{"backgroundTaskId", "sh9"}});
    more.appendTo(file);
    auto tasks = CTR::outstandingBackgroundTasks(file);
    EXPECT_EQ(tasks.count, 2);
    EXPECT_EQ(tasks.shells, (std::set<std::string>{"sh9"}));
    ClaudeJournal killed;
    killed.system("agents_killed");
    killed.appendTo(file);
    EXPECT_TRUE(pending(file).empty());
    EXPECT_TRUE(CTR::outstandingBackgroundTasks(file).shells.empty());

    // Replaced by a shorter journal: seeded afresh from the new contents.
    ClaudeJournal shorter;
    launch(shorter.prompt("again"), "t9", "agZ");
    shorter.writeTo(dir / "new.jsonl");
    fs::rename(dir / "new.jsonl", file);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agZ"}));
    // Truncated in place and rewritten longer: the line boundary check notices.
    ClaudeJournal rewritten;
    rewritten.prompt("x").reply(std::string(3000, 'r'));
    launch(rewritten, "t7", "agY");
    rewritten.writeTo(file);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agY"}));
    // Gone: nothing, and no stale ledger when it comes back.
    fs::remove(file);
    EXPECT_TRUE(pending(file).empty());
    lumora::test::writeFile(file, "\x01\x02 binary \xff\xfe\n{\"type\":\"user\"");
    EXPECT_TRUE(pending(file).empty());
}

TEST(BackgroundLedger, OnlyRealNotificationEntriesClearTasks) {
    // Bookkeeping entries (a queued notification, a request blob) mention the
    // task id too; only the "user" entry counts.
    BackgroundLedger ledger;
    ledger.pending = {"a1"};
    std::string lines =
        R"({"type":"queue-operation","content":"<task-notification><task-id>a1</task-id></task-notification>"})" "\n"
        R"({"type":"api-request-blob","message":{"role":"user","content":"<task-notification><task-id>a1</task-id>"}})" "\n";
    ledger.advance(std::string_view(lines));
    EXPECT_EQ(ledger.pending, (std::set<std::string>{"a1"}));
    ledger.advance(std::string_view(
        R"({"type":"user","message":{"role":"user","content":[{"type":"text","text":"<task-notification>\n<task-id> a1 </task-id>"}]}})"));
    EXPECT_TRUE(ledger.pending.empty());
}

TEST(BackgroundLedger, SkipsAnOverlongLineWithoutHoldingIt) {
    TempDir dir;
    auto file = dir / "long.jsonl";
    ClaudeJournal j;
    launch(launch(j.prompt("go"), "t1", "agA"), "t2", "agB");
    j.writeTo(file);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agA", "agB"}));
    // 70 MB with no newline (a hole reads as zero bytes), then more turns.
    auto before = fs::file_size(file);
    fs::resize_file(file, before + 70 * 1000 * 1000);
    ClaudeJournal after;
    after.line("").taskNotification("agA", "done");
    after.appendTo(file);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agB"}));
}

TEST(BackgroundLedger, AFirstLookReadsOnlyTheJournalsEnd) {
    // A journal of gigabytes (here a sparse one) with its turns at the end: a
    // first look seeds from the last few MiB, not the whole file.
    TempDir dir;
    auto file = dir / "big.jsonl";
    ClaudeJournal old;
    launch(old.prompt("long ago"), "t1", "agOld");
    old.writeTo(file);
    fs::resize_file(file, fs::file_size(file) + 3 * CTR::kLedgerSeedBytes);
    ClaudeJournal recent;
    launch(recent.line("").prompt("now"), "t2", "agNew");
    recent.appendTo(file);
    EXPECT_EQ(pending(file), (std::set<std::string>{"agNew"}));
    EXPECT_EQ(CTR::seedBackgroundLedger(file).pending, (std::set<std::string>{"agNew"}));
}

TEST(BackgroundLedger, TheCacheKeepsOnlyRecentJournals) {
    // A process that runs for weeks sees thousands of journals: the ledgers
    // of the ones it no longer reads are let go.
    TempDir dir;
    CTR::resetBackgroundLedgers();
    ClaudeJournal j;
    launch(j.prompt("go"), "t1", "agA");
    for (size_t i = 0; i < CTR::kCachedLedgers + 50; ++i) {
        auto file = dir / ("s" + std::to_string(i) + ".jsonl");
        j.writeTo(file);
        ASSERT_EQ(pending(file), (std::set<std::string>{"agA"}));
    }
    EXPECT_EQ(CTR::cachedBackgroundLedgers(), CTR::kCachedLedgers);

    RecentCache<int> cache(3, std::chrono::hours(1));
    auto t0 = RecentCache<int>::Clock::now();
    cache.put("a", 1, t0);
    cache.put("b", 2, t0 + std::chrono::minutes(1));
    cache.put("c", 3, t0 + std::chrono::minutes(2));
    EXPECT_EQ(cache.get("a", t0 + std::chrono::minutes(3)), 1);  // used: now the newest
    cache.put("d", 4, t0 + std::chrono::minutes(4));             // over capacity: "b" goes
    EXPECT_FALSE(cache.get("b"));
    cache.put("e", 5, t0 + std::chrono::minutes(125));  // a sweep: unused for over an hour
    EXPECT_EQ(cache.size(), 1u);
}
