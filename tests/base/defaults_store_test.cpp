#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "lumora/base/defaults_store.hpp"
#include "support/test_support.hpp"

using lumora::DefaultsStore;
using lumora::test::TempDir;

TEST(DefaultsStore, TypedValuesAndMissingKeys) {
    TempDir dir;
    DefaultsStore store(dir / "cfg/defaults.json");
    EXPECT_FALSE(store.contains("soundEnabled"));
    EXPECT_FALSE(store.boolean("soundEnabled"));

    store.setBool("soundEnabled", false);
    store.setInteger("visibleRows", 6);
    store.setReal("scale", 2.5);
    store.setString("doneSoundName", "Ping");
    store.setValue("notchDisplays", DefaultsStore::Json::array({"a", "b"}));
    store.setValue("hosts", DefaultsStore::Json{{"x", 1}});

    // A stored false is a value, not a missing key.
    EXPECT_EQ(store.boolean("soundEnabled"), false);
    EXPECT_EQ(store.integer("visibleRows"), 6);
    EXPECT_EQ(store.real("scale"), 2.5);
    EXPECT_EQ(store.integer("scale"), 2);
    EXPECT_EQ(store.string("doneSoundName"), "Ping");
    EXPECT_FALSE(store.string("visibleRows"));
    EXPECT_EQ(store.list("notchDisplays")->size(), 2u);
    EXPECT_FALSE(store.dictionary("notchDisplays"));
    EXPECT_EQ((*store.dictionary("hosts"))["x"], 1);

    // A second store on the same file (another process, say) sees everything.
    DefaultsStore other(dir / "cfg/defaults.json");
    EXPECT_EQ(other.string("doneSoundName"), "Ping");
    other.remove("doneSoundName");
    EXPECT_FALSE(store.contains("doneSoundName"));
    store.removeAll();
    EXPECT_TRUE(other.snapshot().empty());

    // The uninstaller's wipe leaves nothing behind: no file, no lock file, no folder.
    EXPECT_TRUE(store.erase());
    EXPECT_FALSE(std::filesystem::exists(dir / "cfg"));
    EXPECT_TRUE(other.snapshot().empty());
}

TEST(DefaultsStore, AFileThatCannotBeReadIsNeverReplaced) {
    TempDir dir;
    auto file = dir / "defaults.json";
    const std::string settings = "{\"soundEnabled\": false, \"approvalRules.v1\": [{\"heads\": [\"git\"]}]}\n";
    lumora::test::writeFile(file, settings);
    lumora::test::asOtherUser(dir.path());
    ::chmod(file.c_str(), 0);
    int code = lumora::test::inChildAsOtherUser([&] {
        DefaultsStore store(file);
        if (store.contains("soundEnabled")) return 3;
        lumora::Status s = store.setBool("hooksEnabled", true);
        if (s) return 1;
        return s.why == "can't read " + file.string() + ": Permission denied" ? 0 : 2;
    });
    EXPECT_EQ(code, 0);
    ::chmod(file.c_str(), 0600);
    EXPECT_EQ(lumora::test::readFile(file), settings);

    // A FIFO in its place: refused at once, and still a FIFO.
    auto fifo = dir / "fifo.json";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    DefaultsStore store(fifo);
    EXPECT_FALSE(store.contains("x"));
    EXPECT_EQ(store.setBool("x", true).why, "can't read " + fifo.string() + ": not a regular file");
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));

    // Nested too deep to parse: set aside like any corrupt file, never parsed.
    auto deep = dir / "deep.json";
    std::string nested = "{\"a\": " + std::string(100000, '[') + std::string(100000, ']') + "}";
    lumora::test::writeFile(deep, nested);
    DefaultsStore deepStore(deep);
    EXPECT_FALSE(deepStore.contains("a"));
    EXPECT_TRUE(deepStore.setBool("x", true));
    EXPECT_EQ(lumora::test::readFile(dir / "deep.json.corrupt"), nested);
}

TEST(DefaultsStore, CorruptFileReadsEmptyAndIsKeptOnTheNextWrite) {
    TempDir dir;
    auto file = dir / "defaults.json";
    lumora::test::writeFile(file, "{\"soundEnabled\": tru");
    DefaultsStore store(file);
    EXPECT_FALSE(store.contains("soundEnabled"));
    store.setBool("soundEnabled", true);
    EXPECT_EQ(store.boolean("soundEnabled"), true);
    EXPECT_EQ(lumora::test::readFile(dir / "defaults.json.corrupt"), "{\"soundEnabled\": tru");
    auto parsed = nlohmann::json::parse(lumora::test::readFile(file));
    EXPECT_EQ(parsed["soundEnabled"], true);
    struct stat st{};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(DefaultsStore, ConcurrentWritersKeepEveryKey) {
    TempDir dir;
    auto file = dir / "defaults.json";
    // Two processes and, in each, two threads write their own keys at once.
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    auto writeKeys = [&](const std::string& prefix) {
        DefaultsStore store(file);
        std::thread t1([&] {
            for (int i = 0; i < 40; ++i) store.setInteger(prefix + "a" + std::to_string(i), i);
        });
        std::thread t2([&] {
            for (int i = 0; i < 40; ++i) store.setInteger(prefix + "b" + std::to_string(i), i);
        });
        t1.join();
        t2.join();
    };
    if (child == 0) {
        writeKeys("child.");
        ::_exit(0);
    }
    writeKeys("parent.");
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    DefaultsStore reader(file);
    auto all = reader.snapshot();
    EXPECT_EQ(all.size(), 160u);
    EXPECT_EQ(reader.integer("child.b39"), 39);
    EXPECT_EQ(reader.integer("parent.a0"), 0);
}
