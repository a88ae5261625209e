#include <gtest/gtest.h>

#include "lumora/spend/spend_store.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;

TEST(SpendStore, SavesAndReadsBackEveryField) {
    TempHome home;
    SpendStore::Persisted p;
    p.version = SpendStore::kVersion;
    SpendStore::CachedFile file;
    file.size = 1234;
    file.mtime = Date(std::chrono::nanoseconds(1'795'308'450'162'000'000));
    file.parsedBytes = 1000;
    file.inode = 42;
    file.events.push_back({"msg_1:req_1", Date(std::chrono::milliseconds(1'795'308'450'162)), 5000, 400, 0.0123,
                           std::nullopt, "claude-opus-4-7"});
    file.events.push_back({"k\"ey\\\n\x01", Date(std::chrono::milliseconds(1)), 7, 7, 0, "gpt-7 \"preview\"", std::nullopt});
    p.claude["/home/u/.claude/projects/-p/a b\"c.jsonl"] = file;
    p.kimi["/k/wire.jsonl"] = SpendStore::CachedFile{};
    auto text = SpendStore::encode(p);
    auto back = SpendStore::decode(text);
    ASSERT_TRUE(back);
    // Times are kept as seconds: a modification time comes back to within a microsecond.
    auto& again = back->claude.begin()->second;
    EXPECT_LT(std::chrono::abs(again.mtime - file.mtime), std::chrono::microseconds(1));
    again.mtime = file.mtime;
    EXPECT_EQ(back->claude, p.claude);
    EXPECT_EQ(back->kimi.size(), 1u);
    EXPECT_TRUE(back->codex.empty());

    // A path that is not UTF-8 is left out (read again next time) rather than written wrong.
    p.codex["/x/\xff.jsonl"] = file;
    EXPECT_EQ(SpendStore::decode(SpendStore::encode(p))->codex.size(), 0u);

    // Through the file: a corrupt cache reads as empty and is replaced on the next save.
    SpendStore store(home / "spend-cache.json");
    writeFile(store.cacheURL(), text.substr(0, text.size() / 2));
    store.loadIfNeeded();
    EXPECT_TRUE(store.claudeCache().empty());
    EXPECT_TRUE(store.dirty);
    ASSERT_TRUE(store.saveIfDirty().ok);
    EXPECT_TRUE(SpendStore::decode(readFile(store.cacheURL())));
    EXPECT_FALSE(store.dirty);
}
